// The other processes on the air: how bricks are found and what they tell about themselves, and the thread that
// answers.
//
// The air is the abstract UNIX socket name space. A brick in range listens on tav-air/AIR/ADDRESS and tells whoever
// asks what a Bluetooth device would tell about itself; for programs of its own it listens on ADDRESS/hci0. RFCOMM
// channels are listening sockets named ADDRESS/CHANNEL, L2CAP's have an l before the number. Who connects calls there
// from a socket named OWN>PEER/CHANNEL, which lives as long as the connection, and hands over the other end of the
// program's socket. The kernel removes the names of a process that ends.
#include "sim/internals.h"

#include <algorithm>
#include <bluetooth/hci_lib.h>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <sys/eventfd.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace tav_air {

namespace {

constexpr int MAX_MESSAGE = 65536;  // a description, a request, a service query
constexpr int CONTROL_BACKLOG = 64;
constexpr int REQUEST_TIMEOUT_MS = 200;                // for a request that the asker sends at once
constexpr int ANSWER_TIMEOUT_MS = 2000;                // for an answer of another process, whatever the speed
constexpr std::chrono::milliseconds SHARE_RETRY{250};  // a brick shared with a process that ends is taken over

// ---- Names on the air -----------------------------------------------------------------------------------------------

sockaddr_un Get_UnixAddress(const std::string& name, socklen_t& length)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = "tav-air/" + State().Air + "/" + name;
    const std::size_t size = std::min(path.size(), sizeof(address.sun_path) - 1);
    memcpy(address.sun_path + 1, path.data(), size);
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + size);
    return address;
}

// ---- Descriptions ---------------------------------------------------------------------------------------------------

// On the way between processes: each text or number, ended by NUL.
std::string Pack(const S_Brick& brick)
{
    std::string packed;
    const auto add = [&packed](const std::string& text) { packed.append(text.c_str(), text.size() + 1); };
    add(brick.Name);
    for (const bool flag : {brick.Present, brick.Discoverable, brick.TellsName, brick.HasSdpServer, brick.Powered})
        add(std::to_string(flag));
    return packed;
}

S_Brick Unpack(const std::string& address, const std::string& packed)
{
    std::istringstream texts(packed);
    std::string text;
    S_Brick brick;
    brick.Address = address;
    std::getline(texts, brick.Name, '\0');
    for (bool* flag : {&brick.Present, &brick.Discoverable, &brick.TellsName, &brick.HasSdpServer, &brick.Powered})
        *flag = std::getline(texts, text, '\0') && text == "1";
    return brick;
}

std::optional<S_Brick> Ask(const std::string& address, const std::string& name, const std::string& request)
{
    int asker = Open_UnixSocket(SOCK_SEQPACKET | SOCK_NONBLOCK);
    int connected = -1;
    {
        const std::lock_guard lock(State().Mutex);
        connected = Connect_Name(asker, name);
    }
    std::string packed(MAX_MESSAGE, '\0');
    pollfd answered{asker, POLLIN, 0};
    ssize_t count = -1;
    if (connected == 0 && Real().Send(asker, request.data(), request.size(), MSG_NOSIGNAL) > 0 &&
        Real().Poll(&answered, 1, ANSWER_TIMEOUT_MS) > 0)
        count = Real().Recv(asker, packed.data(), packed.size(), 0);
    Close_Own(asker);
    if (count <= 0) return std::nullopt;
    packed.resize(static_cast<std::size_t>(count));
    return Unpack(address, packed);
}

// ---- The thread, with the lock held ---------------------------------------------------------------------------------

int Listen_At(const std::string& name)
{
    int listening = Open_UnixSocket(SOCK_SEQPACKET | SOCK_NONBLOCK);
    if (Bind_Name(listening, name) < 0 || Real().Listen(listening, CONTROL_BACKLOG) < 0) Close_Own(listening);
    return listening;
}

// Has a brick listen where its state wants it to; false when another process has the brick.
bool Listen_All(S_Local& local)
{
    const S_Brick& brick = local.Brick;
    const bool inRange = brick.Present && brick.Powered;
    if (local.Adapter < 0) local.Adapter = Listen_At(brick.Address + "/hci0");
    if (local.Adapter < 0) return false;
    if (!inRange) Close_Own(local.Radio);
    if (inRange && local.Radio < 0) local.Radio = Listen_At(brick.Address);
    if (!brick.HasSdpServer) Close_Own(local.Sdp);
    if (brick.HasSdpServer && local.Sdp < 0) local.Sdp = Listen_At(brick.Address + "/l1");
    return true;
}

// Does what a program on this brick requests of its adapter.
void Do_Request(S_Local& local, const std::string& request)
{
    S_Brick& brick = local.Brick;
    if (request == "up") brick.Powered = true;
    if (request == "down" && brick.Powered) Abort_All(brick.Address);
    if (request.rfind("name ", 0) == 0) brick.Name = request.substr(5);
    if (request.rfind("scan ", 0) == 0) brick.Discoverable = (atoi(request.c_str() + 5) & SCAN_INQUIRY) != 0;
    Listen_All(local);
}

std::string Receive(int fd)
{
    std::string bytes(MAX_MESSAGE, '\0');
    const ssize_t count = Real().Recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
    bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    return bytes;
}

// Tells everyone who asked at one of its listening sockets about the brick.
void Answer_All(S_Local& local, int listening)
{
    int asker = -1;
    while (listening >= 0 && (asker = Accept_Caller(listening, 0)) >= 0) {
        pollfd asked{asker, POLLIN, 0};
        if (Is_Friend(asker) && Real().Poll(&asked, 1, REQUEST_TIMEOUT_MS) > 0) {
            const std::string request = Receive(asker);
            if (listening == local.Adapter) Do_Request(local, request);
            const std::string packed = Pack(local.Brick);
            Real().Send(asker, packed.data(), packed.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        }
        Real().Close(asker);
    }
}

void Accept_Queries(const S_Local& local)
{
    int call = -1;
    while (local.Sdp >= 0 && (call = Accept_Caller(local.Sdp, 0)) >= 0) {
        const int query = Is_Friend(call) ? Receive_Fd(call) : -1;
        if (query >= 0) State().Queries[Put_Away(query)] = local.Brick.Address;
        Real().Close(call);
    }
}

void Answer_Queries()
{
    auto& queries = State().Queries;
    for (auto query = queries.begin(); query != queries.end();) {
        pollfd come{query->first, POLLIN, 0};
        std::string request(1, '\0');
        while (!request.empty() && Real().Poll(&come, 1, 0) > 0) {
            request = Receive(query->first);
            const std::string answer =
                request.empty() ? "" : Answer_Query(State().Bricks[query->second].Brick, request);
            Real().Send(query->first, answer.data(), answer.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        }
        int fd = query->first;
        query = request.empty() ? queries.erase(query) : std::next(query);
        if (request.empty()) Close_Own(fd);
    }
}

// Sends the packets that are due and returns when the next one is.
Clock::time_point Send_Due(Clock::time_point now)
{
    auto& later = State().Later;
    for (; !later.empty() && later.begin()->first <= now; later.erase(later.begin())) {
        const SocketPointer socket = later.begin()->second.To.lock();
        const std::string& bytes = later.begin()->second.Bytes;
        if (socket) Real().Send(socket->Far, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
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
        Answer_All(local, local.Adapter);
        Answer_All(local, local.Radio);
        Accept_Queries(local);
        for (const int fd : {local.Adapter, local.Radio, local.Sdp})
            fds.push_back({fd, POLLIN, 0});
    }
    Answer_Queries();
    for (const auto& query : State().Queries)
        fds.push_back({query.first, POLLIN, 0});
    ++State().Cycles;
    State().Cycled.notify_all();
    return next;
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
            next = Do_All(fds);
        }
        const auto wait = std::chrono::duration_cast<std::chrono::nanoseconds>(
            std::max(next - Clock::now(), Clock::duration::zero()));
        const timespec time{static_cast<time_t>(wait.count() / 1000000000),
                            static_cast<long>(wait.count() % 1000000000)};
        if (Real().Ppoll(fds.data(), fds.size(), &time, nullptr) <= 0) continue;
        if (fds[0].revents & POLLNVAL) wake = Open_Anew();
        std::uint64_t count = 0;
        if (fds[0].revents & POLLIN) static_cast<void>(!Real().Read(wake, &count, sizeof(count)));
    }
}

// A child that was forked has its parent's open sockets, but not the thread: it starts its own when it needs one, and
// leaves the brick to its parent until then.
void Leave_ToParent()
{
    State().Process = getpid();
    for (auto& local : State().Bricks)
        Close_Local(local.second);
    for (auto* kept : {&State().Silent, &State().Calls}) {
        for (auto& entry : *kept)
            Close_Own(entry.second.Fd);
        kept->clear();
    }
    for (auto& query : State().Queries) {
        int fd = query.first;
        Close_Own(fd);
    }
    State().Queries.clear();
    for (auto& entry : State().Sockets)
        if (entry.second->State == E_State::CONNECTING) entry.second->State = E_State::FAILED;
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

// ---- Names, bricks in range, and the thread -------------------------------------------------------------------------

std::string Get_ListenName(const S_Socket& socket, const std::string& address)
{
    return address + (socket.Kind == E_Kind::L2CAP ? "/l" : "/") + std::to_string(socket.Channel);
}

int Accept_Caller(int listening, int timeout)
{
    pollfd call{listening, POLLIN, 0};
    return Real().Poll(&call, 1, timeout) > 0 ? Real().Accept4(listening, nullptr, nullptr, SOCK_CLOEXEC) : -1;
}

int Bind_Name(int fd, const std::string& name)
{
    socklen_t length = 0;
    const sockaddr_un address = Get_UnixAddress(name, length);
    return Real().Bind(fd, reinterpret_cast<const sockaddr*>(&address), length);
}

int Connect_Name(int fd, const std::string& name)
{
    socklen_t length = 0;
    const sockaddr_un address = Get_UnixAddress(name, length);
    if (Real().Connect(fd, reinterpret_cast<const sockaddr*>(&address), length) < 0) return -1;
    return Is_Friend(fd) ? 0 : Fail(EACCES);
}

std::set<std::string> List_Names(bool onlyConnected)
{
    const std::string prefix = "@tav-air/" + State().Air + "/";
    std::set<std::string> names;
    std::ifstream file("/proc/net/unix");
    for (std::string line; std::getline(file, line);) {
        const std::size_t start = line.find(prefix);
        if (onlyConnected && line.find(" 03 ") == std::string::npos) continue;
        if (start != std::string::npos) names.insert(line.substr(start + prefix.size()));
    }
    return names;
}

bool Is_Taken(const std::string& name)
{
    return List_Names().count(name) > 0;
}

static bool Is_OfOurUser(int fd)
{
    ucred who{};
    socklen_t length = sizeof(who);
    return Real().Getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &who, &length) == 0 && who.uid == geteuid();
}

bool Is_Friend(int fd)
{
    return State().Shared || Is_OfOurUser(fd);
}

bool Is_Foreign(const std::string& name)
{
    int asker = Open_UnixSocket(SOCK_SEQPACKET | SOCK_NONBLOCK);
    const bool isForeign = Connect_Name(asker, name) < 0 ? errno == EACCES : !Is_OfOurUser(asker);
    Close_Own(asker);
    return isForeign;
}

bool Is_Listening(const std::string& name)
{
    int asker = Open_UnixSocket(SOCK_SEQPACKET | SOCK_NONBLOCK);
    const bool isThere = Connect_Name(asker, name) == 0;
    Close_Own(asker);
    return isThere;
}

std::string Parse_Client(const sockaddr* address, socklen_t length)
{
    const std::string path(reinterpret_cast<const sockaddr_un*>(address)->sun_path,
                           length - std::min<std::size_t>(length, offsetof(sockaddr_un, sun_path)));
    const std::size_t end = path.find('>');
    return end == std::string::npos || end < ADDRESS_SIZE ? "" : path.substr(end - ADDRESS_SIZE, ADDRESS_SIZE);
}

std::optional<S_Brick> Ask_Brick(const std::string& address)
{
    const auto own = Ask_Adapter(Get_Acting());
    if (own && !(own->Present && own->Powered)) return std::nullopt;
    return Ask(address, address, "?");
}

std::optional<S_Brick> Ask_Adapter(const std::string& own, const std::string& request)
{
    return own.empty() ? std::nullopt : Ask(own, own + "/hci0", request.empty() ? "?" : request);
}

void Close_Local(S_Local& local)
{
    for (int* fd : {&local.Adapter, &local.Radio, &local.Sdp, &local.Gone})
        Close_Own(*fd);
}

void Wake_Thread()
{
    if (State().Wake < 0) Start_Thread();
    const std::uint64_t one = 1;
    static_cast<void>(!Real().Write(State().Wake, &one, sizeof(one)));
}

}  // namespace tav_air
