// Connections on the air: how they come about, stand still and end.
//
// What a program holds is a UNIX socket, the same from the beginning. Its other end is held here until a peer accepts
// it; meanwhile the socket is full, so that it cannot be written. Only while its own brick is silent, something else
// stands in under its number.
#include "sim/internals.h"

#include <algorithm>
#include <cerrno>
#include <unistd.h>

namespace tav_air {

namespace {

constexpr std::size_t MAX_LINKS = 7;  // of a piconet

void Fill(int fd)
{
    const char bytes[512] = {};
    while (Real().Send(fd, bytes, sizeof(bytes), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
    }
}

void Empty(int fd)
{
    char bytes[4096];
    while (Real().Recv(fd, bytes, sizeof(bytes), MSG_DONTWAIT) > 0) {
    }
}

void Keep(std::multimap<Clock::time_point, S_Kept>& where, Clock::time_point until, const std::string& brick, int& fd)
{
    if (fd >= 0) where.emplace(until, S_Kept{brick, fd});
    fd = -1;
}

// Gives up what is kept for those of `brick` (empty: any) until `now`.
void Give_Up(std::multimap<Clock::time_point, S_Kept>& where, Clock::time_point now, const std::string& brick)
{
    for (auto kept = where.begin(); kept != where.end() && kept->first <= now;) {
        if (!brick.empty() && kept->second.Brick != brick) {
            ++kept;
            continue;
        }
        Real().Shutdown(kept->second.Fd, SHUT_RDWR);  // wakes who still waits on it, unlike close
        Close_Own(kept->second.Fd);
        kept = where.erase(kept);
    }
}

std::vector<int> List_Fds(const S_Socket& socket)
{
    std::vector<int> fds;
    for (const auto& [fd, known] : State().Sockets)
        if (known.get() == &socket) fds.push_back(fd);
    return fds;
}

// ---- Paging ---------------------------------------------------------------------------------------------------------

bool Is_InRange(const std::string& address)
{
    const auto local = State().Bricks.find(address);
    if (local != State().Bricks.end() && !(local->second.Brick.Present && local->second.Brick.Powered)) return false;
    return Is_Listening(address);
}

// Whether a brick has a link to the other, or room for one more.
bool Has_Room(const std::string& address, const std::string& other)
{
    const auto links = List_Links(address);
    return links.count(other) > 0 || links.size() < MAX_LINKS;
}

// Hands the other end of the socket to the peer; an errno, or 0.
int Call_Peer(int fd, S_Socket& socket)
{
    const auto released = State().Released.find({socket.Own, socket.Peer});
    if (released != State().Released.end() && Clock::now() < released->second + Scaled(RELEASE_TIME))
        return ECONNREFUSED;
    if (!Has_Room(socket.Peer, socket.Own)) return ECONNREFUSED;
    if (Connect_Name(socket.Call, Get_ListenName(socket, socket.Peer)) < 0) return ECONNREFUSED;
    Empty(socket.Far);
    const int size = 106496;  // which the kernel doubles: its default
    Real().Setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
    return Send_Fd(socket.Call, socket.Far) ? 0 : ECONNREFUSED;
}

void Page(int fd, S_Socket& socket, Clock::time_point now)
{
    if (!Has_Room(socket.Own, socket.Peer)) {
        socket.Error = EMLINK;
    } else if (!Is_InRange(socket.Own) || !Is_InRange(socket.Peer)) {
        socket.Next = std::min(now + Scaled(PAGE_RETRY), socket.Deadline);
        if (now < socket.Deadline) return;
        socket.Error = EHOSTDOWN;
    } else {
        socket.Error = Call_Peer(fd, socket);
    }
    State().Pages.erase({socket.Own, socket.Peer});
    socket.State = socket.Error ? E_State::FAILED : E_State::CONNECTED;
    Empty(socket.Far);  // now it is writable
    Close_Own(socket.Far);
    if (socket.Error) Close_Own(socket.Call);
}

// Takes a connection away from the program's socket, for something that stands in for it.
void Cut(S_Socket& socket)
{
    int standIn = -1;
    if (!Open_Pair(socket.Type | SOCK_CLOEXEC, standIn, socket.Far)) return;
    const auto fds = List_Fds(socket);
    socket.Link = Put_Away(Real().Dup(fds.front()));
    for (const int fd : fds)
        Swap_In(fd, standIn);
    Real().Close(standIn);
    socket.State = E_State::LOST;
    socket.Deadline = Clock::now() + Scaled(SUPERVISION);
}

// Gives the program its connection back, with what it sent meanwhile.
void Restore(S_Socket& socket)
{
    char bytes[4096];
    for (ssize_t size = 0; (size = Real().Recv(socket.Far, bytes, sizeof(bytes), MSG_DONTWAIT)) > 0;)
        Real().Send(socket.Link, bytes, static_cast<std::size_t>(size), MSG_NOSIGNAL | MSG_DONTWAIT);
    for (const int fd : List_Fds(socket))
        Swap_In(fd, socket.Link);
    Close_Own(socket.Link);
    Close_Own(socket.Far);
    socket.State = E_State::CONNECTED;
}

// The connection of a brick that is silent has ended for the program; for its peer it ends later.
void End_Lost(S_Socket& socket, int error)
{
    Keep(State().Silent, socket.Deadline, socket.Own, socket.Link);
    socket.Error = error;
    socket.Ended = true;
    Close_Own(socket.Far);
}

template <typename ACTION>
void For_All(const std::string& address, E_State state, ACTION action)
{
    std::set<SocketPointer> sockets;
    for (const auto& known : State().Sockets)
        if (known.second->Own == address && known.second->State == state) sockets.insert(known.second);
    for (const SocketPointer& socket : sockets)
        action(*socket);
}

}  // namespace

std::set<std::string> List_Links(const std::string& address)
{
    std::set<std::string> links;
    for (const std::string& name : List_Names(true)) {
        if (name.size() <= 2 * ADDRESS_SIZE + 1 || name[ADDRESS_SIZE] != '>') continue;
        const std::string from = name.substr(0, ADDRESS_SIZE), to = name.substr(ADDRESS_SIZE + 1, ADDRESS_SIZE);
        if (from == address) links.insert(to);
        if (to == address) links.insert(from);
    }
    return links;
}

Clock::time_point Do_DueConnections(Clock::time_point now)
{
    auto next = now + std::chrono::hours(1);
    for (auto& [fd, known] : State().Sockets) {
        S_Socket& socket = *known;
        if (socket.State == E_State::CONNECTING && socket.Next <= now) Page(fd, socket, now);
        if (socket.State == E_State::CONNECTING) next = std::min(next, socket.Next);
        if (socket.State != E_State::LOST || socket.Link < 0) continue;
        if (socket.Deadline <= now) End_Lost(socket, ETIMEDOUT);
        next = std::min(next, socket.Deadline);
    }
    Give_Up(State().Silent, now, "");
    if (!State().Silent.empty()) next = std::min(next, State().Silent.begin()->first);
    auto& calls = State().Calls;
    for (auto call = calls.begin(); call != calls.end();) {
        const bool over = call->first <= now || !Is_Taken(call->second.Brick + "/gone");
        if (over) Close_Own(call->second.Fd);
        call = over ? calls.erase(call) : std::next(call);
    }
    if (!calls.empty()) next = std::min<Clock::time_point>(next, now + Scaled(PAGE_RETRY));
    return next;
}

bool Start_Connecting(int fd, S_Socket& socket)
{
    // The socket connects to one of the air's own, which is a pair then.
    int listening = Open_UnixSocket(socket.Type);
    sockaddr_storage name{};
    name.ss_family = AF_UNIX;
    socklen_t length = sizeof(sa_family_t);  // and a name that the kernel makes
    auto* const address = reinterpret_cast<sockaddr*>(&name);
    if (Real().Bind(listening, address, length) == 0 && Real().Listen(listening, 1) == 0) {
        length = sizeof(name);
        Real().Getsockname(listening, address, &length);
        const int least = 1;  // the kernel's
        Real().Setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &least, sizeof(least));
        if (Real().Connect(fd, address, length) == 0)
            socket.Far = Put_Away(Real().Accept4(listening, nullptr, nullptr, SOCK_CLOEXEC));
    }
    Close_Own(listening);
    if (socket.Far < 0) return false;
    Fill(fd);
    socket.State = E_State::CONNECTING;
    const auto now = Clock::now();
    const auto page = State().Pages.find({socket.Own, socket.Peer});  // one that goes on, though nobody waits for it
    const bool goesOn = page != State().Pages.end() && page->second > now;
    socket.Deadline = goesOn ? page->second : now + Scaled(PAGE_TIMEOUT);
    State().Pages[{socket.Own, socket.Peer}] = socket.Deadline;
    socket.Next = now + Scaled(PAGE_TIME);
    return true;
}

void Fall_Silent(const std::string& address)
{
    const auto found = State().Bricks.find(address);
    if (found == State().Bricks.end() || found->second.Gone >= 0) return;
    S_Local& local = found->second;
    local.Brick.Present = false;
    Close_Own(local.Radio);
    local.Gone = Open_UnixSocket(SOCK_DGRAM);
    Bind_Name(local.Gone, address + "/gone");
    For_All(address, E_State::CONNECTED, Cut);
}

void Come_Back(const std::string& address)
{
    Close_Own(State().Bricks[address].Gone);
    Give_Up(State().Silent, Clock::time_point::max(), address);
    For_All(address, E_State::LOST, [](S_Socket& socket) {
        if (socket.Link >= 0) Restore(socket);
    });
}

void Abort_All(const std::string& address)
{
    Fall_Silent(address);
    S_Brick& brick = State().Bricks[address].Brick;
    brick.Present = true;
    brick.Powered = false;
    For_All(address, E_State::LOST, [](S_Socket& socket) {
        if (socket.Link >= 0) End_Lost(socket, ECONNABORTED);
    });
    const auto noticed = Clock::now() + Scaled(SUPERVISION) + std::chrono::seconds(1);
    Keep(State().Silent, noticed, "", State().Bricks[address].Gone);
}

void Drop_Socket(int fd)
{
    auto& sockets = State().Sockets;
    const auto found = sockets.find(fd);
    const SocketPointer socket = found->second;
    const bool isConnected = socket->State == E_State::CONNECTED;
    const bool isLast = List_Fds(*socket).size() == 1;
    const bool isUp = isConnected && !socket->Ended && (socket->Shut || !Is_AtEnd(fd));
    const bool toSilent = isUp && isLast && Is_Taken(socket->Peer + "/gone");
    sockets.erase(found);
    g_Ours.Set(fd, false);
    if (!isLast) return;
    if (toSilent) Keep(State().Calls, Clock::now() + Scaled(SUPERVISION), socket->Peer, socket->Call);
    if (toSilent) Wake_Thread();
    if (socket->State == E_State::LOST) Keep(State().Silent, socket->Deadline, socket->Own, socket->Link);
    Close_Own(socket->Far);
    Close_Own(socket->Call);
    const bool isLastLink = std::none_of(sockets.begin(), sockets.end(), [&](const auto& other) {
        return other.second->State == E_State::CONNECTED && other.second->Own == socket->Own &&
               other.second->Peer == socket->Peer;
    });
    if (isConnected && isLastLink && socket->Kind == E_Kind::RFCOMM)
        State().Released[{socket->Own, socket->Peer}] = Clock::now();
}

bool Is_AtEnd(int fd)
{
    pollfd end{fd, POLLRDHUP, 0};
    return Real().Poll(&end, 1, 0) > 0 && (end.revents & (POLLHUP | POLLRDHUP | POLLERR)) != 0;
}

}  // namespace tav_air
