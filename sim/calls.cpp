// The calls that the simulated air takes the place of. Each counts itself, may be told to fail, and otherwise does on a
// UNIX socket what Linux does on a Bluetooth one; calls on other descriptors pass through.
#include "sim/air_state.h"

#include <algorithm>
#include <bluetooth/bluetooth.h>
#include <bluetooth/hci.h>
#include <bluetooth/hci_lib.h>
#include <bluetooth/l2cap.h>
#include <bluetooth/rfcomm.h>
#include <bluetooth/sdp.h>
#include <bluetooth/sdp_lib.h>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

using namespace tav_air;

namespace {

// ---- Around every call ----------------------------------------------------------------------------------------------

int Fail(int error)
{
    errno = error;
    return -1;
}

std::string Get_Text(const bdaddr_t& address)
{
    char text[18] = {};
    ba2str(&address, text);
    return text;
}

// A copy of what is known about a descriptor; it may change as soon as the lock is released.
S_Socket Get_Socket(int fd)
{
    const std::lock_guard lock(State().Mutex);
    const auto found = State().Sockets.find(fd);
    return found == State().Sockets.end() ? S_Socket{} : found->second;
}

template <typename CHANGE>
void Change_Socket(int fd, CHANGE change)
{
    const std::lock_guard lock(State().Mutex);
    const auto found = State().Sockets.find(fd);
    if (found != State().Sockets.end()) change(found->second);
}

// Counts a call on a descriptor or, without one, of the brick whose adapter this thread uses.
S_Fault Begin(const char* call, const std::string& arguments, int fd)
{
    const S_Fault fault = Begin_Call(call, arguments);
    if (fault.Vanish) {
        const std::string brick = Is_Ours(fd) ? Get_Socket(fd).Own : Get_Acting();
        const std::lock_guard lock(State().Mutex);
        Fall_Silent(brick);
        Wake_Thread();
    }
    return fault;
}

// For calls that only may fail: true, with errno, when this one is to.
bool Fails(const char* call, const std::string& arguments = "", int fd = -1)
{
    const int error = Begin(call, arguments, fd).Error;
    if (error) errno = error;
    return error != 0;
}

// A new descriptor; one that select could not take is refused.
int Add_Socket(int fd, const S_Socket& socket)
{
    if (fd < 0) return -1;
    if (fd >= FD_SETSIZE) {
        Real().Close(fd);
        return Fail(EMFILE);
    }
    const std::lock_guard lock(State().Mutex);
    State().Sockets[fd] = socket;
    Set_Ours(fd, true);
    return fd;
}

int Open_Adapter(const std::string& own, const std::string& peer)
{
    S_Socket socket;
    socket.State = E_State::ADAPTER;
    socket.Own = own;
    socket.Peer = peer;
    return Add_Socket(Real().Socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0), socket);
}

// Closes a descriptor, also if the call is told to fail.
int Close_Ours(const char* call, int fd)
{
    const int error = Begin(call, "", fd).Error;
    {
        const std::lock_guard lock(State().Mutex);
        if (State().Sockets.count(fd) > 0) Drop_Socket(fd);
    }
    const int result = Real().Close(fd);
    return error ? Fail(error) : result;
}

// Tells whether the brick has an SDP server: the channel of SDP is taken then.
int Bind_SdpServer(const S_Socket& socket, const sockaddr_l2& address)
{
    if (address.l2_psm != htobs(SDP_PSM)) return Fail(EOPNOTSUPP);
    const std::lock_guard lock(State().Mutex);
    const auto own = State().Bricks.find(socket.Own);
    return own != State().Bricks.end() && own->second.Brick.HasSdpServer ? Fail(EADDRINUSE) : 0;
}

// ---- Transfer -------------------------------------------------------------------------------------------------------

// Bytes that a send buffer takes at once.
constexpr std::size_t SEND_ROOM = 23368;

bool Is_Blocking(int fd, int flags)
{
    return (flags & MSG_DONTWAIT) == 0 && (Real().Fcntl(fd, F_GETFL) & O_NONBLOCK) == 0;
}

// The first transfer at the end of a connection reports why it ended; so does the first on one that did not come about.
// What comes after that fails as `later`, or blocks until a signal when that is 0. Always -1.
ssize_t Report_End(int fd, int flags, int later)
{
    int error = 0;
    Change_Socket(fd, [&](S_Socket& socket) {
        if (socket.State == E_State::FAILED) {
            std::swap(error, socket.Error);
        } else if (!socket.Ended) {
            socket.Ended = true;
            const bool lost = socket.State == E_State::LOST || Is_Taken(socket.Peer + "/gone");
            error = lost ? ETIMEDOUT : ECONNRESET;
        }
    });
    if (error != 0) return Fail(error);
    if (later != 0) return Fail(later);
    if (!Is_Blocking(fd, flags)) return Fail(EAGAIN);
    poll(nullptr, 0, -1);  // only a signal ends it
    return Fail(EINTR);
}

// ---- Services -------------------------------------------------------------------------------------------------------

// A record as it comes from a server: each element behind its type, and its size where the type does not tell it.
sdp_record_t* Build_Record(const S_Service& service)
{
    const auto number = [](std::size_t value) {
        return std::string{static_cast<char>(value >> 8U), static_cast<char>(value)};
    };
    const auto uuid = [&](std::uint16_t value) { return "\x19" + number(value); };
    const auto sequence = [&](const std::string& elements) { return "\x36" + number(elements.size()) + elements; };
    std::string attributes;
    const auto add = [&](std::uint16_t id, const std::string& value) { attributes += "\x09" + number(id) + value; };
    const auto add_text = [&](std::uint16_t id, const std::string& text) {
        if (!text.empty()) add(id, "\x26" + number(text.size()) + text);
    };
    add(SDP_ATTR_SVCLASS_ID_LIST, sequence(uuid(SERIAL_PORT_SVCLASS_ID)));
    if (service.Id != 0) add(SDP_ATTR_SERVICE_ID, uuid(service.Id));
    std::string protocols = sequence(uuid(L2CAP_UUID));
    if (service.Channel > 0) protocols += sequence(uuid(RFCOMM_UUID) + "\x08" + static_cast<char>(service.Channel));
    if (service.Channel >= 0) add(SDP_ATTR_PROTO_DESC_LIST, sequence(protocols));
    add(SDP_ATTR_PFILE_DESC_LIST, sequence(sequence(uuid(SERIAL_PORT_PROFILE_ID) + "\x09" + number(0x0100))));
    add_text(SDP_ATTR_SVCNAME_PRIMARY, service.Name);
    add_text(SDP_ATTR_SVCDESC_PRIMARY, service.Description);
    add_text(SDP_ATTR_PROVNAME_PRIMARY, service.Provider);
    const std::string record = sequence(attributes);
    int size = 0;
    return sdp_extract_pdu(reinterpret_cast<const std::uint8_t*>(record.data()), static_cast<int>(record.size()),
                           &size);
}

}  // namespace

extern "C" {

// ---- Sockets --------------------------------------------------------------------------------------------------------

int socket(int domain, int type, int protocol) __THROW
{
    if (domain != AF_BLUETOOTH) return Real().Socket(domain, type, protocol);
    if (Fails("socket")) return -1;
    S_Socket socket;
    socket.Own = Get_Acting();
    if (type == SOCK_SEQPACKET && protocol == BTPROTO_L2CAP) {
        socket.State = E_State::SDP;
        return Add_Socket(Real().Socket(AF_UNIX, type, 0), socket);
    }
    if ((type & ~(SOCK_NONBLOCK | SOCK_CLOEXEC)) != SOCK_STREAM || protocol != BTPROTO_RFCOMM)
        return Fail(EPROTONOSUPPORT);
    return Add_Socket(Real().Socket(AF_UNIX, type, 0), socket);
}

int bind(int fd, const sockaddr* address, socklen_t length) __THROW
{
    if (!Is_Ours(fd)) return Real().Bind(fd, address, length);
    const S_Socket socket = Get_Socket(fd);
    if (socket.State == E_State::SDP) {
        if (length < sizeof(sockaddr_l2)) return Fail(EINVAL);
        return Bind_SdpServer(socket, *reinterpret_cast<const sockaddr_l2*>(address));
    }
    const auto* const rfcomm = reinterpret_cast<const sockaddr_rc*>(address);
    if (length < sizeof(*rfcomm) || rfcomm->rc_family != AF_BLUETOOTH) return Fail(EINVAL);
    if (Fails("bind", std::to_string(rfcomm->rc_channel), fd)) return -1;
    const bdaddr_t any{};
    if (bacmp(&rfcomm->rc_bdaddr, &any) != 0 && Get_Text(rfcomm->rc_bdaddr) != socket.Own) return Fail(EADDRNOTAVAIL);
    if (rfcomm->rc_channel == 0) return 0;  // a client that chooses its adapter
    if (Bind_Name(fd, Get_ListenName(socket.Own, rfcomm->rc_channel)) < 0) return -1;
    Change_Socket(fd, [&](S_Socket& bound) {
        bound.State = E_State::BOUND;
        bound.Channel = rfcomm->rc_channel;
    });
    return 0;
}

int listen(int fd, int backlog) __THROW
{
    if (!Is_Ours(fd)) return Real().Listen(fd, backlog);
    if (Fails("listen", std::to_string(backlog), fd)) return -1;
    if (Get_Socket(fd).State != E_State::BOUND) return Fail(EBADFD);
    return Real().Listen(fd, backlog);
}

int accept(int fd, sockaddr* address, socklen_t* length)
{
    if (!Is_Ours(fd)) return Real().Accept(fd, address, length);
    const S_Socket server = Get_Socket(fd);
    if (Fails("accept", "", fd)) return -1;
    sockaddr_storage client{};
    socklen_t clientLength = sizeof(client);
    const int accepted = Real().Accept(fd, reinterpret_cast<sockaddr*>(&client), &clientLength);
    if (accepted < 0) return -1;
    S_Socket socket;
    socket.State = E_State::CONNECTED;
    socket.Own = server.Own;
    socket.Peer = Parse_Client(reinterpret_cast<const sockaddr*>(&client), clientLength);
    socket.Channel = server.Channel;
    if (address && length) {
        sockaddr_rc peer{};
        peer.rc_family = AF_BLUETOOTH;
        peer.rc_channel = static_cast<std::uint8_t>(server.Channel);
        str2ba(socket.Peer.c_str(), &peer.rc_bdaddr);
        memcpy(address, &peer, std::min<std::size_t>(*length, sizeof(peer)));
        *length = sizeof(peer);
    }
    return Add_Socket(accepted, socket);
}

int connect(int fd, const sockaddr* address, socklen_t length)
{
    if (!Is_Ours(fd)) return Real().Connect(fd, address, length);
    const auto* const rfcomm = reinterpret_cast<const sockaddr_rc*>(address);
    if (length < sizeof(*rfcomm) || rfcomm->rc_family != AF_BLUETOOTH) return Fail(EINVAL);
    const std::string peer = Get_Text(rfcomm->rc_bdaddr);
    const std::string own = Get_Socket(fd).Own;
    if (Fails("connect", peer + ", " + std::to_string(rfcomm->rc_channel), fd)) return -1;
    if (own.empty() || peer == own) return Fail(EHOSTUNREACH);
    {
        const std::lock_guard lock(State().Mutex);
        S_Socket& socket = State().Sockets[fd];
        if (socket.State != E_State::UNBOUND) return Fail(EBADFD);
        for (const auto& [other, known] : State().Sockets) {
            if (known.Own != own || known.Peer != peer || known.Channel != rfcomm->rc_channel) continue;
            pollfd end{other, 0, 0};
            const bool alive = known.State == E_State::CONNECTING || known.State == E_State::CONNECTED;
            if (known.Outgoing && alive && poll(&end, 1, 0) == 0) return Fail(EBUSY);
        }
        socket.Outgoing = true;
        socket.Peer = peer;
        socket.Channel = rfcomm->rc_channel;
        if (!Start_Connecting(fd, socket)) return -1;
        Wake_Thread();
    }
    if (Real().Fcntl(fd, F_GETFL) & O_NONBLOCK) return Fail(EINPROGRESS);
    pollfd writable{fd, POLLOUT, 0};
    if (poll(&writable, 1, -1) < 0) return -1;
    int error = 0;
    Change_Socket(fd, [&](S_Socket& socket) { std::swap(error, socket.Error); });
    return error ? Fail(error) : 0;
}

int setsockopt(int fd, int level, int option, const void* value, socklen_t length) __THROW
{
    if (!Is_Ours(fd) || level == SOL_SOCKET) return Real().Setsockopt(fd, level, option, value, length);
    const auto* const bytes = static_cast<const unsigned char*>(value);
    const bool security = level == SOL_BLUETOOTH && option == BT_SECURITY;
    std::string arguments = security ? "BT_SECURITY" : "RFCOMM_LM";
    for (socklen_t i = 0; i < length; ++i)
        arguments += " " + std::to_string(bytes[i]);
    if (Fails("setsockopt", arguments, fd)) return -1;
    if (security) return length > 0 && bytes[0] <= BT_SECURITY_HIGH ? 0 : Fail(EINVAL);
    return level == SOL_RFCOMM && option == RFCOMM_LM ? 0 : Fail(ENOPROTOOPT);
}

int getsockopt(int fd, int level, int option, void* value, socklen_t* length) __THROW
{
    if (!Is_Ours(fd) || level != SOL_SOCKET || option != SO_ERROR)
        return Real().Getsockopt(fd, level, option, value, length);
    if (Fails("getsockopt", "SO_ERROR", fd)) return -1;
    int error = 0;
    Change_Socket(fd, [&](S_Socket& socket) { std::swap(error, socket.Error); });
    memcpy(value, &error, std::min<std::size_t>(*length, sizeof(error)));
    return 0;
}

int select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* time)
{
    const auto has_ours = [count](const fd_set* set) {
        bool ours = false;
        for (int fd = 0; set && fd < std::min(count, FD_SETSIZE); ++fd)
            ours = ours || (FD_ISSET(fd, set) && Is_Ours(fd));
        return ours;
    };
    const bool reads = has_ours(readable);
    if (reads || has_ours(writable)) {
        char arguments[64] = "write";
        if (time)
            snprintf(arguments, sizeof(arguments), "%s, %ld.%06ld", reads ? "read" : "write",
                     static_cast<long>(time->tv_sec), static_cast<long>(time->tv_usec));
        if (Fails("select", arguments)) return -1;
    }
    return Real().Select(count, readable, writable, exceptional, time);
}

ssize_t recv(int fd, void* buffer, std::size_t size, int flags)
{
    if (!Is_Ours(fd)) return Real().Recv(fd, buffer, size, flags);
    const S_Fault fault = Begin("recv", std::to_string(size), fd);
    if (fault.Error) return Fail(fault.Error);
    const S_Socket socket = Get_Socket(fd);
    if (socket.State == E_State::FAILED) return Report_End(fd, flags, 0);
    if (socket.State != E_State::CONNECTED && socket.State != E_State::LOST) return Fail(ENOTCONN);
    const ssize_t count = Real().Recv(fd, buffer, std::min(size, fault.Limit), flags);
    if (count > 0 || size == 0 || socket.Shut || (count < 0 && errno != ECONNRESET)) return count;
    return Report_End(fd, flags, 0);
}

// recv of programs built with _FORTIFY_SOURCE.
ssize_t __recv_chk(int fd, void* buffer, std::size_t size, std::size_t bufferSize, int flags)
{
    if (size > bufferSize) abort();
    return recv(fd, buffer, size, flags);
}

ssize_t send(int fd, const void* buffer, std::size_t size, int flags)
{
    if (!Is_Ours(fd)) return Real().Send(fd, buffer, size, flags);
    const S_Fault fault = Begin("send", std::to_string(size), fd);
    if (fault.Error) return Fail(fault.Error);
    const S_Socket socket = Get_Socket(fd);
    if (socket.State == E_State::FAILED) return Report_End(fd, flags, ENOTCONN);
    if (socket.State != E_State::CONNECTED && socket.State != E_State::LOST) return Fail(ENOTCONN);
    if (size > SEND_ROOM && Is_Blocking(fd, flags)) {
        pollfd end = {fd, 0, 0};  // Linux waits for room for the whole; a signal makes it send what has found room
        if (poll(&end, 1, -1) > 0) return Fail(ENOTCONN);
    }
    const ssize_t count = Real().Send(fd, buffer, std::min({size, SEND_ROOM, fault.Limit}), flags | MSG_NOSIGNAL);
    if (count >= 0 || socket.Shut || (errno != EPIPE && errno != ECONNRESET)) return count;
    return Report_End(fd, flags, ENOTCONN);
}

int fcntl(int fd, int command, ...)
{
    va_list list;
    va_start(list, command);
    void* const argument = va_arg(list, void*);  // wide enough for every command's
    va_end(list);
    if (Is_Ours(fd)) {
        const bool nonBlocking = command == F_SETFL && (reinterpret_cast<std::intptr_t>(argument) & O_NONBLOCK) != 0;
        const char* const name = command == F_GETFL ? "F_GETFL" : nonBlocking ? "F_SETFL, O_NONBLOCK" : "";
        if (Fails("fcntl", name, fd)) return -1;
    }
    return Real().Fcntl(fd, command, argument);
}

int fcntl64(int fd, int command, ...) __attribute__((alias("fcntl")));

int shutdown(int fd, int how) __THROW
{
    if (!Is_Ours(fd)) return Real().Shutdown(fd, how);
    if (Fails("shutdown", how == SHUT_RDWR ? "SHUT_RDWR" : "", fd)) return -1;
    Change_Socket(fd, [](S_Socket& socket) { socket.Shut = true; });
    Real().Shutdown(fd, how);
    return 0;
}

int close(int fd)
{
    if (Is_Own(fd)) return Fail(EBADF);
    if (!Is_Ours(fd)) return Real().Close(fd);
    return Close_Ours("close", fd);
}

// ---- Adapter --------------------------------------------------------------------------------------------------------

int hci_devinfo(int adapter, hci_dev_info* info)
{
    if (Fails("hci_devinfo", std::to_string(adapter))) return -1;
    const std::lock_guard lock(State().Mutex);
    const auto own = State().Bricks.find(Get_Acting());
    const bool isOn = own != State().Bricks.end();
    if (adapter != 0 || (!isOn && State().Off.empty())) return Fail(ENODEV);
    *info = {};
    strcpy(info->name, "hci0");
    str2ba(isOn ? own->first.c_str() : State().Off.c_str(), &info->bdaddr);
    if (!isOn) return 0;
    info->flags = 1U << HCI_UP | 1U << HCI_RUNNING | 1U << HCI_PSCAN;
    if (own->second.Brick.Discoverable) info->flags |= 1U << HCI_ISCAN;
    return 0;
}

int hci_get_route(bdaddr_t* /*address*/)
{
    if (Fails("hci_get_route")) return -1;
    return Get_Acting().empty() ? Fail(ENODEV) : 0;
}

int hci_open_dev(int adapter)
{
    if (Fails("hci_open_dev", std::to_string(adapter))) return -1;
    if (Get_Acting().empty() || adapter != 0) return Fail(ENODEV);
    return Open_Adapter(Get_Acting(), "");
}

int hci_close_dev(int fd)
{
    return Close_Ours("hci_close_dev", fd);
}

int hci_inquiry(int adapter, int length, int maxResponses, const std::uint8_t* /*code*/, inquiry_info** responses,
                long flags)
{
    if (Fails("hci_inquiry", std::to_string(adapter) + ", " + std::to_string(length) + ", " +
                                 std::to_string(maxResponses) + ", " + std::to_string(flags)))
        return -1;
    const std::string own = Get_Acting();
    if (own.empty() || adapter > 0) return Fail(ENODEV);
    if (maxResponses <= 0) maxResponses = 255;
    if (!Sleep_UntilSignal(INQUIRY_UNIT * length / 2)) return -1;
    std::vector<inquiry_info> found;
    for (const std::string& brick : List_Bricks()) {
        if (brick == own || static_cast<int>(found.size()) == maxResponses) continue;
        const auto description = Ask_Brick(brick);
        if (!description || !description->Discoverable) continue;
        str2ba(brick.c_str(), &found.emplace_back().bdaddr);
    }
    if (!Sleep_UntilSignal(INQUIRY_UNIT * length / 2)) return -1;
    if (!*responses)
        *responses = static_cast<inquiry_info*>(calloc(static_cast<std::size_t>(maxResponses), sizeof(**responses)));
    std::copy(found.begin(), found.end(), *responses);
    return static_cast<int>(found.size());
}

int hci_read_remote_name(int fd, const bdaddr_t* address, int size, char* name, int timeout)
{
    const S_Socket adapter = Get_Socket(fd);
    if (Fails("hci_read_remote_name", Get_Text(*address), fd)) return -1;
    if (adapter.State != E_State::ADAPTER) return Fail(ENOPROTOOPT);
    const auto description = Ask_Brick(Get_Text(*address));
    if (!description || !description->TellsName) {
        const std::chrono::milliseconds wait(timeout);
        const bool impatient = timeout > 0 && wait < PAGE_TIMEOUT;
        Sleep_Scaled(impatient ? wait : PAGE_TIMEOUT);
        return Fail(impatient ? ETIMEDOUT : EIO);
    }
    Sleep_Scaled(NAME_TIME);
    strncpy(name, description->Name.c_str(), static_cast<std::size_t>(size));
    return 0;
}

int hci_read_local_name(int fd, int size, char* name, int /*timeout*/)
{
    const S_Socket adapter = Get_Socket(fd);
    if (Fails("hci_read_local_name", "", fd)) return -1;
    if (adapter.State != E_State::ADAPTER) return Fail(ENOPROTOOPT);
    const std::lock_guard lock(State().Mutex);
    const auto own = State().Bricks.find(adapter.Own);
    if (own == State().Bricks.end()) return Fail(ENODEV);
    strncpy(name, own->second.Brick.Name.c_str(), static_cast<std::size_t>(size));
    return 0;
}

// ---- Services -------------------------------------------------------------------------------------------------------

sdp_session_t* sdp_connect(const bdaddr_t* /*own*/, const bdaddr_t* address, std::uint32_t /*flags*/)
{
    const std::string peer = Get_Text(*address);
    int error = Begin("sdp_connect", peer, -1).Error;
    if (!error && Get_Acting().empty()) error = EHOSTUNREACH;
    if (!error) {
        const auto description = Ask_Brick(peer);
        Sleep_Scaled(description ? NAME_TIME : PAGE_TIMEOUT);
        if (!description)
            error = EHOSTDOWN;
        else if (!description->HasSdpServer)
            error = ECONNREFUSED;
    }
    const int fd = error ? Fail(error) : Open_Adapter(Get_Acting(), peer);
    if (fd < 0) return nullptr;
    auto* const session = static_cast<sdp_session_t*>(calloc(1, sizeof(sdp_session_t)));
    session->sock = fd;
    return session;
}

int sdp_service_search_attr_req(sdp_session_t* session, const sdp_list_t* search, sdp_attrreq_type_t /*type*/,
                                const sdp_list_t* /*attributes*/, sdp_list_t** responses)
{
    const S_Socket own = Get_Socket(session->sock);
    if (Fails("sdp_service_search_attr_req", "", session->sock)) return -1;
    const auto description = Ask_Brick(own.Peer);
    if (!description) return Fail(ETIMEDOUT);
    uuid_t group{};
    sdp_uuid16_create(&group, PUBLIC_BROWSE_GROUP);  // all records stand in it, and in no other
    if (sdp_uuid_cmp(search->data, &group) != 0) return 0;
    for (const S_Service& service : description->Services)
        *responses = sdp_list_append(*responses, Build_Record(service));
    return 0;
}

int sdp_close(sdp_session_t* session)
{
    const int result = Close_Ours("sdp_close", session->sock);
    free(session);
    return result;
}

}  // extern "C"
