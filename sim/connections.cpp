// Connections on the air: how they come about, stand still and end.
//
// What a program holds is an end of a pair of UNIX sockets, the same from the beginning. The other end is held here
// until a peer accepts it; while it connects the socket is full, so that it cannot be written. Only while its own brick
// is silent, something else stands in under its number, and a socket that listens is another one.
#include "sim/internals.h"

#include <algorithm>
#include <cerrno>
#include <unistd.h>

namespace tav_air {

namespace {

constexpr std::size_t MAX_LINKS = 7;  // of a piconet

// Takes out what has come at an end, and sends it on to another one, if there is one.
void Empty(int fd, int to = -1)
{
    char bytes[4096];
    for (ssize_t size = 0; (size = Real().Recv(fd, bytes, sizeof(bytes), MSG_DONTWAIT)) > 0;)
        if (to >= 0) Real().Send(to, bytes, static_cast<std::size_t>(size), MSG_NOSIGNAL | MSG_DONTWAIT);
}

void Keep(C_Own& fd, Clock::time_point until, const std::string& brick)
{
    if (fd >= 0) State().Kept.emplace(until, std::pair(brick, std::move(fd)));
}

// Puts a new pair behind the program's numbers of a socket.
bool Replace(S_OpenSocket& socket)
{
    int near = -1;
    socket.Far = Open_Pair(socket.Type | SOCK_CLOEXEC, near);
    if (socket.Far < 0) return false;
    Swap_In(socket, near);
    Real().Close(near);
    return true;
}

// ---- Paging ---------------------------------------------------------------------------------------------------------

bool Is_InRange(const std::string& address)
{
    const auto local = State().Bricks.find(address);
    if (local != State().Bricks.end() && !(local->second.Brick.Present && local->second.Brick.Powered)) return false;
    return Connect_Name(Open_UnixSocket(SOCK_SEQPACKET | SOCK_NONBLOCK), address) == 0;
}

// Whether a brick has a link to the other, or room for one more.
bool Has_Room(const std::string& address, const std::string& other)
{
    const auto links = List_Links(address);
    return links.count(other) > 0 || links.size() < MAX_LINKS;
}

// Gives the socket the name under which it calls; false when the channel has a connection already, or one that is on
// its way or not given up.
bool Bind_Call(S_OpenSocket& socket)
{
    static unsigned int count = 0;
    std::string name = socket.Own + ">" + Get_ListenName(socket, socket.Peer);
    if (socket.Protocol == BTPROTO_L2CAP) name += "/" + std::to_string(getpid()) + "." + std::to_string(++count);
    for (auto& [fd, known] : State().Sockets)  // one that has ended is none
        if (known->Call >= 0 && known->Own == socket.Own && known->Peer == socket.Peer &&
            known->Channel == socket.Channel && Is_AtEnd(fd))
            known->Call = C_Own();
    socket.Call = Open_UnixSocket(socket.Type | SOCK_NONBLOCK);
    if (Bind_Name(socket.Call, name) < 0) socket.Call = C_Own();
    return socket.Call >= 0;
}

// Hands the other end of the socket to the peer; an errno, or 0.
int Call_Peer(S_OpenSocket& socket)
{
    const auto released = State().Released.find({socket.Own, socket.Peer});
    if (released != State().Released.end() && Clock::now() < released->second + Scaled(RELEASE_TIME))
        return ECONNREFUSED;
    if (!Has_Room(socket.Peer, socket.Own)) return ECONNREFUSED;
    if (Connect_Name(socket.Call, Get_ListenName(socket, socket.Peer)) < 0) return ECONNREFUSED;
    Empty(socket.Far);
    const int size = 106496;  // which the kernel doubles: its default
    Real().Setsockopt(List_Fds(socket).front(), SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
    return Send_Fd(socket.Call, socket.Far) ? 0 : ECONNREFUSED;
}

void Page(S_OpenSocket& socket, Clock::time_point now)
{
    if (!Has_Room(socket.Own, socket.Peer)) {
        socket.Error = EMLINK;
    } else if (!Is_InRange(socket.Own) || !Is_InRange(socket.Peer)) {
        socket.Next = std::min(now + Scaled(PAGE_RETRY), socket.Deadline);
        if (now < socket.Deadline) return;
        socket.Error = EHOSTDOWN;
    } else {
        const std::int64_t time = Get_RecordTime();
        socket.Error = Call_Peer(socket);
        Record_Connection(socket, time, socket.Error);
    }
    if (socket.Handle == 0 && socket.Error) Record_Failure(socket, socket.Error);
    State().Pages.erase({socket.Own, socket.Peer});
    socket.State = socket.Error ? E_State::FAILED : E_State::CONNECTED;
    Empty(socket.Far);  // now it is writable
    socket.Far = C_Own();
    if (socket.Error) socket.Call = C_Own();
}

// Takes a connection away from the program's socket, for something that stands in for it.
void Cut(S_OpenSocket& socket)
{
    socket.Link = C_Own(Real().Dup(List_Fds(socket).front()));
    Replace(socket);
    socket.State = E_State::LOST;
    socket.Deadline = Clock::now() + Scaled(SUPERVISION);
}

// Gives the program its connection back, with what it sent meanwhile.
void Restore(S_OpenSocket& socket)
{
    Empty(socket.Far, socket.Link);
    Swap_In(socket, socket.Link);
    socket.Link = C_Own();
    socket.Far = C_Own();
    socket.State = E_State::CONNECTED;
}

// The connection of a brick that is silent has ended for the program; for its peer it ends later.
void End_Lost(S_OpenSocket& socket, int error)
{
    Keep(socket.Link, socket.Deadline, socket.Own);
    socket.Error = error;
    socket.Ended = true;
    Record_End(socket, error);
    socket.Far = C_Own();
}

void For_All(const std::string& address, E_State state, void (*action)(S_OpenSocket&))
{
    std::set<SocketPointer> sockets;
    for (const auto& known : State().Sockets)
        if (known.second->Own == address && known.second->State == state && !known.second->Ended)
            sockets.insert(known.second);
    for (const SocketPointer& socket : sockets)
        action(*socket);
}

}  // namespace

std::vector<int> List_Fds(const S_Socket& socket)
{
    std::vector<int> fds;
    for (const auto& [fd, known] : State().Sockets)
        if (known.get() == &socket) fds.push_back(fd);
    return fds;
}

std::map<std::string, bool> List_Links(const std::string& address)
{
    std::map<std::string, bool> links;
    for (const std::string& name : List_Names("", true)) {
        if (name.size() <= 2 * ADDRESS_SIZE + 1 || name[ADDRESS_SIZE] != '>') continue;
        const std::string from = name.substr(0, ADDRESS_SIZE), to = name.substr(ADDRESS_SIZE + 1, ADDRESS_SIZE);
        if (from == address) links[to] = true;
        if (to == address) links.emplace(from, false);
    }
    return links;
}

Clock::time_point Do_DueConnections(Clock::time_point now)
{
    auto next = now + std::chrono::hours(1);
    for (auto& [fd, known] : State().Sockets) {
        S_OpenSocket& socket = *known;
        if (socket.State == E_State::CONNECTING && socket.Next <= now) Page(socket, now);
        if (socket.State == E_State::CONNECTING) next = std::min(next, socket.Next);
        if (socket.State != E_State::LOST || socket.Ended) continue;
        if (socket.Deadline <= now) End_Lost(socket, ETIMEDOUT);
        next = std::min(next, socket.Deadline);
    }
    auto& kept = State().Kept;
    for (auto one = kept.begin(); one != kept.end();) {
        const auto& [brick, fd] = one->second;
        const bool isOver = one->first <= now || (!brick.empty() && !Is_Silent(brick));
        if (isOver) Real().Shutdown(fd, SHUT_RDWR);  // wakes who still waits on it, unlike close
        one = isOver ? kept.erase(one) : std::next(one);
    }
    if (!kept.empty()) next = std::min({next, kept.begin()->first, now + Scaled(PAGE_RETRY)});
    return next;
}

int Start_Connecting(S_OpenSocket& socket, const std::string& peer, int channel)
{
    if (socket.State != E_State::OPEN && (socket.State != E_State::BOUND || socket.Channel != 0)) return Fail(EBADFD);
    socket.Peer = peer;
    socket.Channel = channel;
    if (!Bind_Call(socket)) return Fail(EBUSY);
    if (socket.Far < 0 && !Replace(socket)) return -1;  // of a child that was forked: the other end is its parent's
    const int fd = List_Fds(socket).front();
    const int least = 1;  // the kernel's
    Real().Setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &least, sizeof(least));
    const char bytes[512] = {};
    while (Real().Send(fd, bytes, sizeof(bytes), MSG_DONTWAIT | MSG_NOSIGNAL) > 0)
        continue;  // until it is full
    socket.State = E_State::CONNECTING;
    const auto now = Clock::now();
    const auto page = State().Pages.find({socket.Own, socket.Peer});  // one that goes on, though nobody waits for it
    const bool goesOn = page != State().Pages.end() && page->second > now;
    socket.Deadline = goesOn ? page->second : now + Scaled(PAGE_TIMEOUT);
    State().Pages[{socket.Own, socket.Peer}] = socket.Deadline;
    socket.Next = now + Scaled(PAGE_TIME);
    Record_Call(socket);
    Wake_Thread();
    return 0;
}

void Fall_Silent(S_Local& local)
{
    if (local.Open.Gone >= 0) return;
    const std::string& address = local.Brick.Address;
    Record_Note("out of range");
    local.Open.Radio = C_Own();
    local.Open.Gone = Open_UnixSocket(SOCK_DGRAM);
    Bind_Name(local.Open.Gone, address + "/gone" + std::to_string(getpid()));
    For_All(address, E_State::CONNECTED, Cut);
}

void Come_Back(S_Local& local)
{
    Record_Note("in range");
    local.Open.Gone = C_Own();
    For_All(local.Brick.Address, E_State::LOST, Restore);
}

void Abort_All(S_Local& local)
{
    Fall_Silent(local);
    For_All(local.Brick.Address, E_State::LOST, [](S_OpenSocket& socket) { End_Lost(socket, ECONNABORTED); });
    Keep(local.Open.Gone, Clock::now() + Scaled(SUPERVISION) + std::chrono::seconds(1), "");
}

void Drop_Socket(int fd)
{
    auto& sockets = State().Sockets;
    const auto found = sockets.find(fd);
    const SocketPointer socket = found->second;
    const bool isConnected = socket->State == E_State::CONNECTED;
    const bool isLast = List_Fds(*socket).size() == 1;
    const bool isUp = isConnected && !socket->Ended && (socket->Shut || !Is_AtEnd(fd));
    sockets.erase(found);
    g_Ours.Set(fd, false);
    if (!isLast) return;
    Record_Close(*socket, isUp || socket->State == E_State::LOST);
    if (isUp && Is_Silent(socket->Peer)) {
        Keep(socket->Call, Clock::now() + Scaled(SUPERVISION), socket->Peer);
        Wake_Thread();
    }
    if (socket->State == E_State::LOST) Keep(socket->Link, socket->Deadline, socket->Own);
    const bool isLastLink = std::none_of(sockets.begin(), sockets.end(), [&](const auto& other) {
        return other.second->State == E_State::CONNECTED && other.second->Own == socket->Own &&
               other.second->Peer == socket->Peer;
    });
    if (isConnected && isLastLink && socket->Protocol == BTPROTO_RFCOMM)
        State().Released[{socket->Own, socket->Peer}] = Clock::now();
}

bool Is_AtEnd(int fd)
{
    pollfd end{fd, POLLRDHUP, 0};
    return Real().Poll(&end, 1, 0) > 0 && (end.revents & (POLLHUP | POLLRDHUP | POLLERR)) != 0;
}

}  // namespace tav_air
