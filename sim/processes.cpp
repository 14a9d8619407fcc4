// The other processes on the air: how bricks are found and what they tell about themselves, and the thread that
// answers.
//
// The air is the abstract UNIX socket name space. A brick in range listens on tav-air/AIR/ADDRESS and tells whoever
// calls what a Bluetooth device would tell about itself. Each program that is the brick listens on ADDRESS!PROCESS,
// where programs of the same user ask it or say what is to become of the brick. RFCOMM channels are listening sockets
// named ADDRESS/CHANNEL, L2CAP's have an l before the number. Who connects calls there from a socket named
// OWN>PEER/CHANNEL, which lives as long as the connection, and hands over the other end of the program's socket. The
// kernel removes the names of a process that ends.
#include "sim/internals.h"

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <sys/eventfd.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace tav_air {

namespace {

constexpr int MAX_MESSAGE = 65536;  // a description, an order, a service query
constexpr int CONTROL_BACKLOG = 64;
constexpr int ORDER_TIMEOUT_MS = 200;                  // for an order that the asker sends at once
constexpr int ANSWER_TIMEOUT_MS = 2000;                // for an answer of another process, whatever the speed
constexpr std::chrono::milliseconds SHARE_RETRY{250};  // a brick shared with a process that ends is taken over

// ---- Names on the air -----------------------------------------------------------------------------------------------

// Binds or connects to a name.
int Use_Name(int (*call)(int, const sockaddr*, socklen_t), int fd, const std::string& name)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = "tav-air/" + State().Air + "/" + name;
    const std::size_t size = path.copy(address.sun_path + 1, sizeof(address.sun_path) - 1);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + size);
    return call(fd, reinterpret_cast<const sockaddr*>(&address), length);
}

// What has come, at once or within a while; empty: nothing.
std::string Receive(int fd, int timeout = 0)
{
    std::string bytes(MAX_MESSAGE, '\0');
    pollfd come{fd, POLLIN, 0};
    ssize_t count = 0;
    if (Real().Poll(&come, 1, timeout) > 0) count = Real().Recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
    bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    return bytes;
}

void Send(int fd, const std::string& bytes)
{
    Real().Send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

bool Is_OfOurUser(int fd)
{
    ucred who{};
    socklen_t length = sizeof(who);
    return Real().Getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &who, &length) == 0 && who.uid == geteuid();
}

// ---- The thread, with the lock held ---------------------------------------------------------------------------------

// Has a brick listen there if that is wanted; false when it cannot, since another process does.
bool Listen_At(C_Own& listening, const std::string& name, bool wanted)
{
    if (wanted == (listening >= 0)) return true;
    listening = wanted ? Open_UnixSocket(SOCK_SEQPACKET | SOCK_NONBLOCK) : C_Own();
    if (wanted && (Bind_Name(listening, name) < 0 || Real().Listen(listening, CONTROL_BACKLOG) < 0))
        listening = C_Own();
    return wanted == (listening >= 0);
}

bool Listen_All(S_Local& local)
{
    const S_Brick& brick = local.Brick;
    const bool takesOrders = Listen_At(local.Open.Orders, brick.Address + "!" + std::to_string(getpid()), true);
    const bool isHeard = Listen_At(local.Open.Radio, brick.Address, brick.Present && brick.Powered);
    return Listen_At(local.Open.Sdp, brick.Address + "/l1", brick.HasSdpServer) && isHeard && takesOrders;
}

// Who has called, and may, or < 0. Accept is asked only when somebody has, since it takes the lowest free descriptor
// for as long as it looks: the program's next one would be another than on Linux.
C_Own Accept_Caller(int listening)
{
    pollfd call{listening, POLLIN, 0};
    while (Real().Poll(&call, 1, 0) > 0) {
        C_Own caller(Real().Accept4(listening, nullptr, nullptr, SOCK_CLOEXEC));
        if (caller < 0 || Is_Friend(caller)) return caller;
    }
    return C_Own();
}

// Answers what a service query asks; false when it has ended.
bool Answer(const S_Brick& brick, int query)
{
    pollfd come{query, POLLIN, 0};
    while (Real().Poll(&come, 1, 0) > 0) {
        const std::string request = Receive(query);
        if (request.empty()) return false;
        Send(query, Answer_Query(brick, request));
    }
    return query >= 0;
}

// What a program of a brick does when it is told to, besides being in another state; its answer.
std::string Obey(const S_Adapter& brick, const std::string& order)
{
    const std::string argument = order.substr(std::min(order.find(' '), order.size() - 1) + 1);
    if (order.rfind("faults ", 0) == 0) return Take_Faults(argument) + '\n';  // what is wrong with them
    if (order == "stop recording") Stop_Recording();
    if (order.rfind("record ", 0) != 0) return Describe(brick);
    const auto [path, error] = Start_Recording(argument, brick);  // without a path it tells that
    return error ? '\n' + std::string(strerrordesc_np(error)) : path + '\n';
}

// Answers all who ask a brick.
void Serve(S_Local& local)
{
    auto& open = local.Open;
    for (C_Own asker; (asker = Accept_Caller(open.Radio)) >= 0;)
        Send(asker, Describe(local.Brick));
    for (C_Own asker; (asker = Accept_Caller(open.Orders)) >= 0;) {
        const std::string order = Is_OfOurUser(asker) ? Receive(asker, ORDER_TIMEOUT_MS) : "";
        const bool isState = order.find('\0') != std::string::npos;
        if (isState) Change_Brick(Apply(local.Brick, order));
        if (isState) Listen_All(local);
        Send(asker, isState || order.empty() ? Describe(local.Brick) : Obey(local.Brick, order));
    }
    for (C_Own call; (call = Accept_Caller(open.Sdp)) >= 0;)
        open.Queries.emplace_back(Receive_Fd(call));
    const auto hasEnded = [&](const C_Own& query) { return !Answer(local.Brick, query); };
    open.Queries.erase(std::remove_if(open.Queries.begin(), open.Queries.end(), hasEnded), open.Queries.end());
}

// Sends the packets that are due and returns when the next one is.
Clock::time_point Send_Due(Clock::time_point now)
{
    auto& later = State().Later;
    for (; !later.empty() && later.begin()->first <= now; later.erase(later.begin())) {
        const auto& [to, bytes] = later.begin()->second;
        if (const SocketPointer socket = to.lock()) Send(socket->Far, bytes);
    }
    return later.empty() ? Clock::time_point::max() : later.begin()->first;
}

// Does what there is to do and returns when there will be more; `fds` are those to wait for.
Clock::time_point Do_All(std::vector<pollfd>& fds)
{
    const auto now = Clock::now();
    auto next = std::min(Do_DueConnections(now), Send_Due(now));
    for (auto& [address, local] : State().Bricks) {
        if (!Listen_All(local)) next = std::min<Clock::time_point>(next, now + SHARE_RETRY);
        Serve(local);
        for (const C_Own* listening : {&local.Open.Orders, &local.Open.Radio, &local.Open.Sdp})
            fds.push_back({*listening, POLLIN, 0});
        for (const C_Own& query : local.Open.Queries)
            fds.push_back({query, POLLIN, 0});
    }
    ++State().Cycles;
    State().Cycled.notify_all();
    return next;
}

// A program that closed all descriptors by system calls of its own has closed those of the air, too.
void Open_Anew()
{
    const std::lock_guard lock(State().Mutex);
    for (auto& local : State().Bricks)
        local.second.Open = {};
    State().Wake = C_Own(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
}

[[noreturn]] void Run_Thread()
{
    for (;;) {
        std::vector<pollfd> fds;
        Clock::time_point next;
        {
            const std::lock_guard lock(State().Mutex);
            fds.push_back({State().Wake, POLLIN, 0});
            next = Do_All(fds);
        }
        const auto wait = std::chrono::duration_cast<std::chrono::nanoseconds>(
            std::max(next - Clock::now(), Clock::duration::zero()));
        const timespec time{static_cast<time_t>(wait.count() / 1000000000),
                            static_cast<long>(wait.count() % 1000000000)};
        if (Real().Ppoll(fds.data(), fds.size(), &time, nullptr) <= 0) continue;
        if (fds[0].revents & POLLNVAL) Open_Anew();
        std::uint64_t count = 0;
        if (fds[0].revents & POLLIN) static_cast<void>(!Real().Read(fds[0].fd, &count, sizeof(count)));
    }
}

// A child that was forked has its parent's open sockets, but not the thread: it starts its own when it needs one, and
// leaves the brick, and what is not connected yet, to its parent.
void Leave_ToParent()
{
    State().Process = getpid();
    for (auto& local : State().Bricks)
        local.second.Open = {};
    State().Kept.clear();
    for (auto& [fd, socket] : State().Sockets) {
        if (socket->State == E_State::CONNECTING) socket->State = E_State::FAILED;
        if (socket->Type != SOCK_RAW) socket->Far = C_Own();
    }
    State().Wake = C_Own();
    State().Mutex.unlock();
}

// A child may go on with what its parent closes. A fork that failed looks the same here.
void Lend_ToChild()
{
    for (auto& [fd, socket] : State().Sockets)
        socket->Forked = true;
    State().Mutex.unlock();
}

// The program's signals stay the program's: the thread takes none.
void Start_Thread()
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    static const int registered = pthread_atfork([] { State().Mutex.lock(); }, Lend_ToChild, Leave_ToParent);
    static_cast<void>(registered);
    State().Wake = C_Own(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    std::thread(Run_Thread).detach();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

}  // namespace

// ---- Names, bricks in range, and the thread -------------------------------------------------------------------------

std::string Get_ListenName(const S_Socket& socket, const std::string& address)
{
    return address + (socket.Protocol == BTPROTO_L2CAP ? "/l" : "/") + std::to_string(socket.Channel);
}

int Bind_Name(int fd, const std::string& name)
{
    return Use_Name(Real().Bind, fd, name);
}

int Connect_Name(int fd, const std::string& name)
{
    if (Use_Name(Real().Connect, fd, name) < 0) return -1;
    return Is_Friend(fd) ? 0 : Fail(EACCES);
}

std::set<std::string> List_Names(const std::string& start, bool onlyConnected)
{
    const std::string air = "@tav-air/" + State().Air + "/";
    std::set<std::string> names;
    std::ifstream file("/proc/net/unix");
    for (std::string line; std::getline(file, line);) {
        const std::size_t found = line.find(air + start);
        if (onlyConnected && line.find(" 03 ") == std::string::npos) continue;
        if (found != std::string::npos) names.insert(line.substr(found + air.size()));
    }
    return names;
}

bool Is_Silent(const std::string& address)
{
    return !List_Names(address + "/gone").empty();
}

bool Is_Friend(int fd)
{
    return State().Shared || Is_OfOurUser(fd);
}

bool Is_Foreign(const std::string& name)
{
    const C_Own asker = Open_UnixSocket(SOCK_SEQPACKET | SOCK_NONBLOCK);
    return Connect_Name(asker, name) < 0 ? errno == EACCES : !Is_OfOurUser(asker);
}

std::string Parse_Client(const sockaddr* address, socklen_t length)
{
    const std::string path(reinterpret_cast<const sockaddr_un*>(address)->sun_path,
                           length - std::min<std::size_t>(length, offsetof(sockaddr_un, sun_path)));
    const std::size_t end = path.find('>');
    return end == std::string::npos || end < ADDRESS_SIZE ? "" : path.substr(end - ADDRESS_SIZE, ADDRESS_SIZE);
}

std::optional<S_Adapter> Ask(const std::string& name, const std::string& order)
{
    const C_Own asker = Open_UnixSocket(SOCK_SEQPACKET | SOCK_NONBLOCK);
    {
        const std::lock_guard lock(State().Mutex);
        if (Connect_Name(asker, name) < 0) return std::nullopt;
    }
    if (!order.empty()) Send(asker, order);
    const std::string answer = Receive(asker, ANSWER_TIMEOUT_MS);
    return answer.empty() ? std::nullopt : std::optional(Apply({{name.substr(0, ADDRESS_SIZE), ""}}, answer));
}

std::optional<S_Brick> Ask_Brick(const std::string& address)
{
    const auto own = Get_Adapter(Get_Acting());
    return own && !(own->Present && own->Powered) ? std::nullopt : Ask(address, "");
}

void Wake_Thread()
{
    if (State().Wake < 0) Start_Thread();
    const std::uint64_t one = 1;
    static_cast<void>(!Real().Write(State().Wake, &one, sizeof(one)));
}

void Wait_ForThread(std::unique_lock<std::mutex>& lock)
{
    const unsigned long cycles = State().Cycles;
    Wake_Thread();
    State().Cycled.wait(lock, [&] { return State().Cycles != cycles; });
}

}  // namespace tav_air
