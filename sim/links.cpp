// Connections on the air: how they come about, stand still and end, and the thread that sees to it.
//
// What a program holds is a UNIX socket. While a connection is on its way, and after its brick fell silent, another one
// stands in under the same number.
#include "sim/air_state.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>

namespace tav_air {

namespace {

constexpr int OWN_FDS = 700;  // the air's own descriptors from here on, where programs put none by number
constexpr int CONTROL_BACKLOG = 64;
constexpr std::chrono::milliseconds SHARE_RETRY{250};  // a brick shared with a process that ends is taken over

std::array<std::atomic<bool>, FD_SETSIZE> g_Own;

// Moves one of the air's own descriptors out of the program's way; close does not find it there.
int Put_Away(int fd)
{
    const int moved = Real().Fcntl(fd, F_DUPFD_CLOEXEC, OWN_FDS);
    if (moved < 0) return fd;
    Real().Close(fd);
    if (moved < FD_SETSIZE) g_Own[static_cast<std::size_t>(moved)] = true;
    return moved;
}

// ---- Stand-ins ------------------------------------------------------------------------------------------------------

// A connected socket that nothing is read from or written to; `far` is its other end. Closing that end makes it
// readable and writable. A `full` one cannot be written before.
int Open_StandIn(bool full, int& far)
{
    int ends[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) < 0) return -1;
    far = Put_Away(ends[1]);
    if (full) {
        const int size = 1;  // the kernel's least
        Real().Setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
        const char bytes[512] = {};
        while (Real().Send(ends[0], bytes, sizeof(bytes), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
        }
    }
    return ends[0];
}

// Puts the open file of `other` behind the number `fd`, which keeps its flags; `other` is closed.
void Swap_In(int fd, int other)
{
    const int flags = Real().Fcntl(fd, F_GETFL);
    const int descriptorFlags = Real().Fcntl(fd, F_GETFD);
    Real().Fcntl(other, F_SETFL, flags);
    dup3(other, fd, (descriptorFlags & FD_CLOEXEC) ? O_CLOEXEC : 0);
    Close_Own(other);
}

// ---- The air's thread, with the lock held ---------------------------------------------------------------------------

void Listen_Control(S_Local& local)
{
    int control = Open_UnixSocket(SOCK_SEQPACKET | SOCK_NONBLOCK);
    if (Bind_Name(control, local.Brick.Address) == 0 && Real().Listen(control, CONTROL_BACKLOG) == 0)
        local.Control = control;
    else
        Close_Own(control);
}

bool Is_InRange(const std::string& address)
{
    const auto local = State().Bricks.find(address);
    if (local != State().Bricks.end()) return local->second.Brick.Present;
    return Is_Taken(address);
}

// The connection itself, named so that the server learns who connects; -1 when the peer refuses.
int Open_Link(int fd, const S_Socket& socket)
{
    static unsigned int count = 0;
    const auto released = State().Released.find({socket.Own, socket.Peer});
    if (released != State().Released.end() && Clock::now() < released->second + Scaled(RELEASE_TIME)) return -1;
    int link = Open_UnixSocket(SOCK_STREAM | SOCK_NONBLOCK);
    const std::string name = socket.Own + ">" + socket.Peer + "/" + std::to_string(getpid()) + "." +
                             std::to_string(fd) + "." + std::to_string(++count);
    if (Bind_Name(link, name) == 0 && Connect_Name(link, Get_ListenName(socket.Peer, socket.Channel)) == 0) return link;
    Close_Own(link);
    return -1;
}

void Page(int fd, S_Socket& socket, Clock::time_point now)
{
    if (!Is_InRange(socket.Own) || !Is_InRange(socket.Peer)) {
        socket.Next = std::min(now + Scaled(PAGE_RETRY), socket.Deadline);
        if (now < socket.Deadline) return;
        socket.State = E_State::FAILED;
        socket.Error = EHOSTDOWN;
    } else {
        const int link = Open_Link(fd, socket);
        socket.State = link >= 0 ? E_State::CONNECTED : E_State::FAILED;
        if (link >= 0)
            Swap_In(fd, link);
        else
            socket.Error = ECONNREFUSED;
    }
    Close_Own(socket.Far);  // now the socket is writable
}

// Does what is due and returns when the next is.
Clock::time_point Do_Due()
{
    const auto now = Clock::now();
    auto next = now + std::chrono::hours(1);
    for (auto& [fd, socket] : State().Sockets) {
        if (socket.State == E_State::CONNECTING && socket.Next <= now) Page(fd, socket, now);
        if (socket.State == E_State::CONNECTING) next = std::min(next, socket.Next);
        if (socket.State == E_State::LOST && socket.Deadline <= now) Close_Own(socket.Far);
    }
    auto& silent = State().Silent;
    for (auto link = silent.begin(); link != silent.end() && link->first <= now; link = silent.erase(link)) {
        Real().Shutdown(link->second, SHUT_RDWR);  // wakes who still waits on it, unlike close
        Close_Own(link->second);
    }
    if (!silent.empty()) next = std::min(next, silent.begin()->first);
    for (auto& [address, local] : State().Bricks) {
        if (!local.Brick.Present || local.Control >= 0) continue;
        Listen_Control(local);
        if (local.Control < 0) next = std::min<Clock::time_point>(next, now + SHARE_RETRY);
    }
    return next;
}

// Tells everyone who asked about a brick.
void Answer_All(const S_Local& local)
{
    for (int asker = -1; (asker = Real().Accept(local.Control, nullptr, nullptr)) >= 0; Real().Close(asker)) {
        const std::string packed = Pack(local.Brick);
        Real().Send(asker, packed.data(), packed.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    }
}

// A program that closed all descriptors by system calls of its own has closed those of the air, too. Returns the new
// one that wakes the thread.
int Open_Anew()
{
    const std::lock_guard lock(State().Mutex);
    for (auto& local : State().Bricks)
        Close_Local(local.second);
    Close_Own(State().Wake);
    return State().Wake = Put_Away(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
}

[[noreturn]] void Run_Thread(int wake)
{
    for (;;) {
        std::vector<pollfd> fds = {{wake, POLLIN, 0}};
        Clock::time_point next;
        {
            const std::lock_guard lock(State().Mutex);
            next = Do_Due();
            ++State().Cycles;
            State().Cycled.notify_all();
            for (const auto& [address, local] : State().Bricks) {
                if (local.Control < 0) continue;
                Answer_All(local);
                fds.push_back({local.Control, POLLIN, 0});
            }
        }
        const auto wait = std::chrono::duration_cast<std::chrono::nanoseconds>(
            std::max(next - Clock::now(), Clock::duration::zero()));
        const timespec time{static_cast<time_t>(wait.count() / 1000000000),
                            static_cast<long>(wait.count() % 1000000000)};
        if (ppoll(fds.data(), fds.size(), &time, nullptr) <= 0) continue;
        if (fds[0].revents & POLLNVAL) wake = Open_Anew();
        std::uint64_t count = 0;
        if (fds[0].revents & POLLIN) static_cast<void>(!read(wake, &count, sizeof(count)));
    }
}

// A child that was forked has its parent's open sockets, but not the thread: it starts its own when it needs one, and
// leaves the brick to its parent until then.
void Leave_ToParent()
{
    for (auto& local : State().Bricks)
        Close_Local(local.second);
    for (auto& link : State().Silent)
        Close_Own(link.second);
    State().Silent.clear();
    for (auto& [fd, socket] : State().Sockets) {
        if (socket.State == E_State::CONNECTING) socket.State = E_State::FAILED;
        Close_Own(socket.Far);
    }
    Close_Own(State().Wake);
    State().Mutex.unlock();
}

// The program's signals stay the program's: the thread takes none.
void Start_Thread()
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    static const int registered =
        pthread_atfork([] { State().Mutex.lock(); }, [] { State().Mutex.unlock(); }, Leave_ToParent);
    static_cast<void>(registered);
    State().Wake = Put_Away(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    std::thread(Run_Thread, State().Wake).detach();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

}  // namespace

// ---- Own descriptors ------------------------------------------------------------------------------------------------

bool Is_Own(int fd)
{
    return fd >= 0 && fd < FD_SETSIZE && g_Own[static_cast<std::size_t>(fd)];
}

// Closes one of the air's own descriptors, if it is open.
void Close_Own(int& fd)
{
    if (fd >= 0 && fd < FD_SETSIZE) g_Own[static_cast<std::size_t>(fd)] = false;
    if (fd >= 0) Real().Close(fd);
    fd = -1;
}

int Open_UnixSocket(int type)
{
    return Put_Away(Real().Socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
}

// ---- Connections ----------------------------------------------------------------------------------------------------

void Close_Local(S_Local& local)
{
    Close_Own(local.Control);
    Close_Own(local.Gone);
}

bool Start_Connecting(int fd, S_Socket& socket)
{
    const int standIn = Open_StandIn(true, socket.Far);
    if (standIn < 0) return false;
    Swap_In(fd, standIn);
    socket.State = E_State::CONNECTING;
    socket.Next = Clock::now() + Scaled(PAGE_TIME);
    socket.Deadline = Clock::now() + Scaled(PAGE_TIMEOUT);
    return true;
}

void Fall_Silent(const std::string& address)
{
    const auto found = State().Bricks.find(address);
    if (found == State().Bricks.end()) return;
    S_Local& local = found->second;
    local.Brick.Present = false;
    Close_Local(local);
    local.Gone = Open_UnixSocket(SOCK_DGRAM);
    Bind_Name(local.Gone, address + "/gone");
    for (auto& [fd, socket] : State().Sockets) {
        if (socket.Own != address || socket.State != E_State::CONNECTED) continue;
        socket.State = E_State::LOST;
        socket.Deadline = Clock::now() + Scaled(SUPERVISION);
        State().Silent.emplace(socket.Deadline, Put_Away(Real().Fcntl(fd, F_DUPFD_CLOEXEC, 0)));
        Swap_In(fd, Open_StandIn(false, socket.Far));
    }
}

void Drop_Socket(int fd)
{
    auto& sockets = State().Sockets;
    const auto found = sockets.find(fd);
    S_Socket socket = found->second;
    sockets.erase(found);
    Set_Ours(fd, false);
    Close_Own(socket.Far);
    if (socket.State != E_State::CONNECTED) return;
    const bool last = std::none_of(sockets.begin(), sockets.end(), [&](const auto& other) {
        return other.second.State == E_State::CONNECTED && other.second.Own == socket.Own &&
               other.second.Peer == socket.Peer;
    });
    if (last) State().Released[{socket.Own, socket.Peer}] = Clock::now();
}

void Wake_Thread()
{
    if (State().Wake < 0) Start_Thread();
    const std::uint64_t one = 1;
    static_cast<void>(!write(State().Wake, &one, sizeof(one)));
}

}  // namespace tav_air
