// Bluetooth sockets: what they are, their names, options and ends.
#include "sim/internals.h"

#include <algorithm>
#include <bluetooth/l2cap.h>
#include <bluetooth/rfcomm.h>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

using namespace tav_air;

namespace tav_air {

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

bdaddr_t Get_Binary(const std::string& address)
{
    bdaddr_t binary{};
    str2ba(address.c_str(), &binary);
    return binary;
}

SocketPointer Find_Socket(int fd)
{
    const auto found = State().Sockets.find(fd);
    return found == State().Sockets.end() ? nullptr : found->second;
}

namespace {

// A socket that is used with the lock held, for as long as this lives.
class C_Locked
{
public:
    explicit C_Locked(int fd) : m_Lock(State().Mutex), m_Socket(Find_Socket(fd))
    {
        if (m_Socket) return;  // unless another thread has closed it
        m_Socket = std::make_shared<S_OpenSocket>();
        m_Socket->State = E_State::FAILED;
    }
    S_OpenSocket* operator->() const { return m_Socket.get(); }
    S_OpenSocket& operator*() const { return *m_Socket; }

private:
    std::lock_guard<std::mutex> m_Lock;
    SocketPointer m_Socket;
};

}  // namespace

SocketPointer Share_Socket(int fd)
{
    if (!g_Ours.Has(fd) || getpid() != State().Process) return nullptr;
    const std::lock_guard lock(State().Mutex);
    return Find_Socket(fd);
}

S_Socket Get_Socket(int fd)
{
    return *C_Locked(fd);
}

int Take_Error(int fd)
{
    const C_Locked socket(fd);
    if (socket->State == E_State::CONNECTED && !socket->Ended && !socket->Shut && Is_AtEnd(fd)) {
        socket->Ended = true;
        socket->Error = Is_Silent(socket->Peer) ? ETIMEDOUT : ECONNRESET;
        Record_End(*socket, socket->Error);
    }
    return std::exchange(socket->Error, 0);
}

}  // namespace tav_air

namespace {

constexpr std::pair<int, int> SOCKETS[] = {{BTPROTO_RFCOMM, SOCK_STREAM},
                                           {BTPROTO_L2CAP, SOCK_STREAM},
                                           {BTPROTO_L2CAP, SOCK_SEQPACKET},
                                           {BTPROTO_L2CAP, SOCK_RAW},
                                           {BTPROTO_HCI, SOCK_RAW}};

// From now on the descriptor is this socket, if there is one; returns it.
int Add_Socket(int fd, const SocketPointer& socket)
{
    if (fd < 0 || !socket) return fd;
    const std::lock_guard lock(State().Mutex);
    State().Sockets[fd] = socket;
    g_Ours.Set(fd, true);
    return fd;
}

// It is closed, or about to be.
void Forget_Socket(int fd)
{
    if (!g_Ours.Has(fd) || getpid() != State().Process) return;
    const std::lock_guard lock(State().Mutex);
    if (Find_Socket(fd)) Drop_Socket(fd);
}

// ---- Addresses ------------------------------------------------------------------------------------------------------

// A socket with the address that it shall connect or bind to as its peer's; false, with errno, when that is none.
bool Read_Address(S_Socket& socket, const sockaddr* address, socklen_t length)
{
    const bool isRfcomm = socket.Protocol == BTPROTO_RFCOMM;
    if (length < (isRfcomm ? sizeof(sockaddr_rc) : offsetof(sockaddr_l2, l2_cid)) || address->sa_family != AF_BLUETOOTH)
        return Fail(EINVAL) == 0;
    const auto* const rfcomm = reinterpret_cast<const sockaddr_rc*>(address);
    const auto* const l2cap = reinterpret_cast<const sockaddr_l2*>(address);
    socket.Peer = Get_Text(isRfcomm ? rfcomm->rc_bdaddr : l2cap->l2_bdaddr);
    socket.Channel = isRfcomm ? rfcomm->rc_channel : btohs(l2cap->l2_psm);
    return true;
}

void Write_Address(const S_Socket& socket, const std::string& brick, sockaddr* address, socklen_t* length)
{
    if (!address || !length) return;
    sockaddr_rc rfcomm{};  // also what lies between its members
    rfcomm.rc_family = AF_BLUETOOTH;
    rfcomm.rc_bdaddr = Get_Binary(brick);
    rfcomm.rc_channel = static_cast<std::uint8_t>(socket.Channel);
    sockaddr_l2 l2cap{};
    l2cap.l2_family = AF_BLUETOOTH;
    l2cap.l2_psm = htobs(static_cast<std::uint16_t>(socket.Channel));
    l2cap.l2_bdaddr = rfcomm.rc_bdaddr;
    const bool isRfcomm = socket.Protocol == BTPROTO_RFCOMM;
    const std::size_t size = isRfcomm ? sizeof(rfcomm) : sizeof(l2cap);
    const void* const bytes = isRfcomm ? static_cast<const void*>(&rfcomm) : &l2cap;
    memcpy(address, bytes, std::min<std::size_t>(*length, size));
    *length = static_cast<socklen_t>(size);
}

// Binds a socket to a channel of its brick; false, with errno, when another one has it.
bool Take_Channel(S_OpenSocket& socket, int channel)
{
    socket.Channel = channel;
    socket.Name = Open_UnixSocket(socket.Type);
    if (Bind_Name(socket.Name, Get_ListenName(socket, socket.Own)) == 0) return true;
    socket.Name = C_Own();
    socket.Channel = 0;
    return false;
}

// Before anybody was called.
int Fail_Connect(const S_Socket& socket, int error)
{
    Record_Failure(socket, error);
    return Fail(error);
}

}  // namespace

extern "C" {

// ---- Being made, bound and listened on ------------------------------------------------------------------------------

int socket(int domain, int type, int protocol) __THROW
{
    if (domain != AF_BLUETOOTH) return Real().Socket(domain, type, protocol);
    if (Fails("socket")) return -1;
    const auto made = std::make_shared<S_OpenSocket>();
    const int flags = type & (SOCK_NONBLOCK | SOCK_CLOEXEC);
    made->Own = Get_Acting();
    made->Type = type & ~flags;
    made->Protocol = protocol;
    const auto* const known = std::find(std::begin(SOCKETS), std::end(SOCKETS), std::pair(protocol, made->Type));
    if (known == std::end(SOCKETS)) return Fail(EPROTONOSUPPORT);
    int near = -1;
    made->Far = Open_Pair((made->Type == SOCK_RAW ? SOCK_SEQPACKET : made->Type) | flags, near);
    return Add_Socket(near, made);
}

int bind(int fd, const sockaddr* address, socklen_t length) __THROW
{
    if (!g_Ours.Has(fd)) return Real().Bind(fd, address, length);
    S_Socket to = Get_Socket(fd);
    if (to.Protocol == BTPROTO_HCI) {
        const auto* const hci = reinterpret_cast<const sockaddr_hci*>(address);
        if (length < sizeof(*hci) || hci->hci_channel != HCI_CHANNEL_RAW) return Fail(EINVAL);
        return hci->hci_dev == HCI_DEV_NONE || (hci->hci_dev == 0 && Get_Adapter(to.Own)) ? 0 : Fail(ENODEV);
    }
    if (!Read_Address(to, address, length) || Fails("bind", std::to_string(to.Channel), fd)) return -1;
    const bool hasAddress = to.Peer != Get_Text({});
    if (hasAddress && to.Peer != to.Own) return Fail(EADDRNOTAVAIL);
    const C_Locked bound(fd);
    if (bound->State != E_State::OPEN) return Fail(EBADFD);
    if (to.Channel != 0 && !Take_Channel(*bound, to.Channel)) return -1;
    bound->State = E_State::BOUND;
    bound->HasAddress = hasAddress;
    return 0;
}

int listen(int fd, int backlog) __THROW
{
    if (!g_Ours.Has(fd)) return Real().Listen(fd, backlog);
    if (Fails("listen", std::to_string(backlog), fd)) return -1;
    const C_Locked socket(fd);
    if (socket->State != E_State::BOUND) return Fail(EBADFD);
    const int step = socket->Protocol == BTPROTO_RFCOMM ? 1 : 2;
    for (int channel = step == 1 ? 1 : 0x1001, tries = 30; socket->Channel == 0; channel += step)  // any that is free
        if (!Take_Channel(*socket, channel) && --tries == 0) return Fail(EINVAL);
    Record_Note("listen on channel " + std::to_string(socket->Channel));
    if (socket->Name < 0) return Real().Listen(fd, backlog);
    if (Real().Listen(socket->Name, backlog) < 0) return -1;
    Swap_In(*socket, socket->Name);
    socket->Name = C_Own();
    socket->Far = C_Own();
    return 0;
}

int accept4(int fd, sockaddr* address, socklen_t* length, int flags)
{
    if (!g_Ours.Has(fd)) return Real().Accept4(fd, address, length, flags);
    const S_Socket server = Get_Socket(fd);
    if (Fails("accept", "", fd)) return -1;
    for (;;) {  // until one calls who may
        sockaddr_storage caller{};
        socklen_t callerLength = sizeof(caller);
        const C_Own call(Real().Accept4(fd, reinterpret_cast<sockaddr*>(&caller), &callerLength, SOCK_CLOEXEC));
        if (call < 0) return -1;
        const int accepted = Is_Friend(call) ? Receive_Fd(call) : -1;
        if (accepted < 0) continue;
        const auto socket = std::make_shared<S_OpenSocket>();
        socket->Protocol = server.Protocol;
        socket->Type = server.Type;
        socket->State = E_State::CONNECTED;
        socket->Own = server.Own;
        socket->Peer = Parse_Client(reinterpret_cast<const sockaddr*>(&caller), callerLength);
        socket->Channel = server.Channel;
        Record_Connection(*socket, Get_RecordTime());
        Write_Address(*socket, socket->Peer, address, length);
        Real().Fcntl(accepted, F_SETFL, (flags & SOCK_NONBLOCK) ? O_NONBLOCK : 0);
        Real().Fcntl(accepted, F_SETFD, (flags & SOCK_CLOEXEC) ? FD_CLOEXEC : 0);
        return Add_Socket(accepted, socket);
    }
}

int accept(int fd, sockaddr* address, socklen_t* length)
{
    return accept4(fd, address, length, 0);
}

int connect(int fd, const sockaddr* address, socklen_t length)
{
    if (!g_Ours.Has(fd)) return Real().Connect(fd, address, length);
    S_Socket to = Get_Socket(fd);
    if (!Read_Address(to, address, length)) return -1;
    if (Fails("connect", to.Peer + ", " + std::to_string(to.Channel), fd)) return Fail_Connect(to, errno);
    const auto adapter = Get_Adapter(to.Own);
    if (!adapter || !adapter->Powered || to.Peer == to.Own) return Fail_Connect(to, EHOSTUNREACH);
    if (to.Type == SOCK_RAW) {
        if (!Ask_Brick(to.Peer)) return Sleep_UntilSignal(PAGE_TIMEOUT) ? Fail(EHOSTDOWN) : -1;
        const C_Locked raw(fd);
        raw->Peer = to.Peer;
        raw->State = E_State::CONNECTED;
        return 0;
    }
    if (Start_Connecting(*C_Locked(fd), to.Peer, to.Channel) < 0) return Fail_Connect(to, errno);
    if (!Is_Blocking(fd, 0)) return Fail(EINPROGRESS);
    pollfd writable{fd, POLLOUT, 0};
    if (Real().Poll(&writable, 1, -1) < 0) return -1;
    const int error = Get_Socket(fd).State == E_State::FAILED ? Take_Error(fd) : 0;  // what came about may have ended
    return error ? Fail(error) : 0;
}

// ---- Names and options ----------------------------------------------------------------------------------------------

int getsockname(int fd, sockaddr* address, socklen_t* length) __THROW
{
    if (!g_Ours.Has(fd)) return Real().Getsockname(fd, address, length);
    const S_Socket socket = Get_Socket(fd);
    const bool hasAddress = socket.HasAddress || socket.Is_Connected();
    Write_Address(socket, hasAddress ? socket.Own : "", address, length);
    return 0;
}

int getpeername(int fd, sockaddr* address, socklen_t* length) __THROW
{
    if (!g_Ours.Has(fd)) return Real().Getpeername(fd, address, length);
    const S_Socket socket = Get_Socket(fd);
    if (!socket.Is_Connected() || Is_AtEnd(fd)) return Fail(ENOTCONN);
    Write_Address(socket, socket.Peer, address, length);
    return 0;
}

int setsockopt(int fd, int level, int option, const void* value, socklen_t length) __THROW
{
    if (!g_Ours.Has(fd) || level == SOL_SOCKET) return Real().Setsockopt(fd, level, option, value, length);
    const int protocol = Get_Socket(fd).Protocol;
    const auto* const bytes = static_cast<const unsigned char*>(value);
    if (protocol == BTPROTO_HCI && option == HCI_FILTER)
        memcpy(&C_Locked(fd)->Filter, value, std::min<std::size_t>(length, sizeof(hci_filter)));
    if (protocol == BTPROTO_HCI) return level == SOL_HCI ? 0 : Fail(ENOPROTOOPT);
    const bool isSecurity = level == SOL_BLUETOOTH && option == BT_SECURITY;
    std::string arguments = isSecurity ? "BT_SECURITY" : "RFCOMM_LM";
    for (socklen_t i = 0; i < length; ++i)
        arguments += " " + std::to_string(bytes[i]);
    if (Fails("setsockopt", arguments, fd)) return -1;
    if (isSecurity) {
        if (length == 0 || bytes[0] > BT_SECURITY_HIGH) return Fail(EINVAL);
        C_Locked(fd)->Security = bytes[0];
        return 0;
    }
    if (protocol != BTPROTO_RFCOMM) return level == SOL_L2CAP ? 0 : Fail(ENOPROTOOPT);
    if (level != SOL_RFCOMM || option != RFCOMM_LM) return Fail(ENOPROTOOPT);
    if (length < sizeof(int)) return Fail(EINVAL);
    // Levels of security are all that is kept of it.
    int mode = 0;
    memcpy(&mode, value, sizeof(mode));
    const C_Locked socket(fd);
    if (mode & RFCOMM_LM_AUTH) socket->Security = BT_SECURITY_LOW;
    if (mode & RFCOMM_LM_ENCRYPT) socket->Security = BT_SECURITY_MEDIUM;
    if (mode & RFCOMM_LM_SECURE) socket->Security = BT_SECURITY_HIGH;
    return 0;
}

int getsockopt(int fd, int level, int option, void* value, socklen_t* length) __THROW
{
    if (!g_Ours.Has(fd)) return Real().Getsockopt(fd, level, option, value, length);
    const auto give = [&](const auto& given) {
        *length = std::min(*length, static_cast<socklen_t>(sizeof(given)));
        memcpy(value, &given, *length);
        return 0;
    };
    const S_Socket socket = Get_Socket(fd);
    if (level == SOL_SOCKET) {
        if (option == SO_DOMAIN) return give(AF_BLUETOOTH);
        if (option == SO_TYPE) return give(socket.Type);
        if (option == SO_PROTOCOL) return give(socket.Protocol);
        if (option != SO_ERROR) return Real().Getsockopt(fd, level, option, value, length);
        return Fails("getsockopt", "SO_ERROR", fd) ? -1 : give(Take_Error(fd));
    }
    if (level == SOL_HCI && socket.Protocol == BTPROTO_HCI) return option == HCI_FILTER ? give(socket.Filter) : give(0);
    if (level == SOL_BLUETOOTH && option == BT_SECURITY)
        return give(bt_security{static_cast<std::uint8_t>(socket.Security), 0});
    constexpr int LEVELS[] = {0, RFCOMM_LM_AUTH, RFCOMM_LM_AUTH | RFCOMM_LM_ENCRYPT,
                              RFCOMM_LM_AUTH | RFCOMM_LM_ENCRYPT | RFCOMM_LM_SECURE};
    // Two constants have the same number: the mode of a link.
    static_assert(RFCOMM_LM == L2CAP_LM && RFCOMM_CONNINFO == L2CAP_CONNINFO);
    const bool isL2cap = level == SOL_L2CAP && socket.Protocol == BTPROTO_L2CAP;
    if (!isL2cap && (level != SOL_RFCOMM || socket.Protocol != BTPROTO_RFCOMM)) return Fail(ENOPROTOOPT);
    if (option == RFCOMM_LM) return give(LEVELS[socket.Security]);
    if (option == RFCOMM_CONNINFO) return socket.Is_Connected() ? give(rfcomm_conninfo{1, {0, 0, 0}}) : Fail(ENOTCONN);
    l2cap_options options{};
    options.omtu = options.imtu = L2CAP_DEFAULT_MTU;
    options.flush_to = L2CAP_DEFAULT_FLUSH_TO;
    return isL2cap && option == L2CAP_OPTIONS ? give(options) : Fail(ENOPROTOOPT);
}

// ---- Copies and ends ------------------------------------------------------------------------------------------------

int dup(int fd) __THROW
{
    const SocketPointer socket = Share_Socket(fd);
    return Add_Socket(Real().Dup(fd), socket);
}

int dup3(int fd, int copy, int flags) __THROW
{
    if (Is_Own(copy)) return Fail(EBUSY);
    const SocketPointer socket = Share_Socket(fd);
    if (Real().Dup3(fd, copy, flags) < 0) return -1;
    Forget_Socket(copy);
    return Add_Socket(copy, socket);
}

int dup2(int fd, int copy) __THROW
{
    if (fd == copy) return Real().Fcntl(fd, F_GETFD) < 0 ? -1 : fd;
    return dup3(fd, copy, 0);
}

int fcntl(int fd, int command, ...)
{
    va_list list;
    va_start(list, command);
    void* const argument = va_arg(list, void*);  // wide enough for every command's
    va_end(list);
    if (!g_Ours.Has(fd)) return Real().Fcntl(fd, command, argument);
    const bool nonBlocking = command == F_SETFL && (reinterpret_cast<std::intptr_t>(argument) & O_NONBLOCK) != 0;
    const char* const name = command == F_GETFL ? "F_GETFL" : nonBlocking ? "F_SETFL, O_NONBLOCK" : "";
    if (Fails("fcntl", name, fd)) return -1;
    const int result = Real().Fcntl(fd, command, argument);
    const bool copies = command == F_DUPFD || command == F_DUPFD_CLOEXEC;
    return copies ? Add_Socket(result, Share_Socket(fd)) : result;
}

int ioctl(int fd, unsigned long request, ...) __THROW
{
    va_list list;
    va_start(list, request);
    void* const argument = va_arg(list, void*);
    va_end(list);
    if (!g_Ours.Has(fd)) return Real().Ioctl(fd, request, argument);
    const S_Socket socket = Get_Socket(fd);
    const auto number = static_cast<std::uint32_t>(request);  // as the kernel takes it
    const bool isHci = socket.Protocol == BTPROTO_HCI && _IOC_TYPE(number) == 'H';
    return isHci ? Control_Adapter(socket, number, argument) : Real().Ioctl(fd, request, argument);
}

int shutdown(int fd, int how) __THROW
{
    if (!g_Ours.Has(fd)) return Real().Shutdown(fd, how);
    if (Fails("shutdown", how == SHUT_RDWR ? "SHUT_RDWR" : "", fd)) return -1;
    {
        const C_Locked socket(fd);
        Record_Leave(*socket, !Is_AtEnd(fd));
        socket->Shut = true;
    }
    Real().Shutdown(fd, SHUT_RDWR);  // RFCOMM knows no half of it
    return 0;
}

int close(int fd)
{
    if (Is_Own(fd)) return Fail(EBADF);
    if (!g_Ours.Has(fd)) return Real().Close(fd);
    const int error = Begin("close", "", fd).Error;
    Forget_Socket(fd);
    const int result = Real().Close(fd);
    return error ? Fail(error) : result;
}

int close_range(unsigned int first, unsigned int last, int flags) __THROW
{
    if (flags == 0 && getpid() == State().Process) {
        for (const int fd : Get_Open())
            if (static_cast<unsigned int>(fd) >= first && static_cast<unsigned int>(fd) <= last) close(fd);
    }
    return Close_Range(first, last, flags);
}

void closefrom(int first) __THROW
{
    close_range(first < 0 ? 0 : static_cast<unsigned int>(first), ~0U, 0);
}

int fclose(FILE* file)
{
    Forget_Socket(fileno(file));
    return Real().Fclose(file);
}

// ---- Other names of the same ----------------------------------------------------------------------------------------

// fcntl of programs with 64-bit file offsets.
int Fcntl_LargeFiles(int fd, int command, void* argument) __asm__("fcntl64");
int Fcntl_LargeFiles(int fd, int command, void* argument)
{
    return fcntl(fd, command, argument);
}

}  // extern "C"
