// Bricks on the air: how they are found, how connections come about and get lost.
//
// The air is the abstract UNIX socket name space. A brick in range listens on tav-air/AIR/ADDRESS and tells whoever
// connects what a Bluetooth device would tell about itself; its RFCOMM channels are listening sockets named
// tav-air/AIR/ADDRESS/CHANNEL. The kernel removes the names of a process that ends.
#include "sim/air_state.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <set>
#include <sstream>
#include <sys/eventfd.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace tav_air {

namespace {

constexpr std::size_t ADDRESS_SIZE = 17;
constexpr std::size_t MAX_AIR_SIZE = 30;  // so that the longest name fits a UNIX address
constexpr double MIN_SPEED = 0.001;
constexpr int MAX_DESCRIPTION = 65536;
constexpr int CONTROL_BACKLOG = 64;
constexpr std::chrono::milliseconds CONTROL_TIMEOUT{2000};  // for an answer of another process, whatever the speed
constexpr std::chrono::milliseconds SHARE_RETRY{250};       // a brick shared with a process that ends is taken over

thread_local std::optional<std::string> t_Acting;
std::array<std::atomic<bool>, FD_SETSIZE> g_Ours;
std::array<std::atomic<bool>, FD_SETSIZE> g_Own;
constexpr int OWN_FDS = 700;  // the air's own descriptors from here on, where programs put none by number

// ---- Names on the air -----------------------------------------------------------------------------------------------

sockaddr_un Get_UnixAddress(const std::string& air, const std::string& name, socklen_t& length)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = "tav-air/" + air + "/" + name;
    const std::size_t size = std::min(path.size(), sizeof(address.sun_path) - 1);
    memcpy(address.sun_path + 1, path.data(), size);
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + size);
    return address;
}

// All names of this air, less its prefix.
std::set<std::string> List_Names(const std::string& air)
{
    const std::string prefix = "@tav-air/" + air + "/";
    std::set<std::string> names;
    std::ifstream file("/proc/net/unix");
    for (std::string line; std::getline(file, line);) {
        const std::size_t start = line.find(prefix);
        if (start != std::string::npos) names.insert(line.substr(start + prefix.size()));
    }
    return names;
}

// Moves one of the air's own descriptors out of the program's way; close does not find it there.
int Put_Away(int fd)
{
    const int moved = Real().Fcntl(fd, F_DUPFD_CLOEXEC, OWN_FDS);
    if (moved < 0) return fd;
    Real().Close(fd);
    if (moved < FD_SETSIZE) g_Own[static_cast<std::size_t>(moved)] = true;
    return moved;
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

// ---- Descriptions ---------------------------------------------------------------------------------------------------

// On the way between processes: each text or number, ended by NUL.
std::string Pack(const S_Brick& brick)
{
    std::string packed;
    const auto add = [&packed](const std::string& text) { packed.append(text.c_str(), text.size() + 1); };
    add(brick.Name);
    for (const bool flag : {brick.Discoverable, brick.TellsName, brick.HasSdpServer})
        add(std::to_string(flag));
    for (const S_Service& service : brick.Services) {
        for (const std::string& text : {service.Name, service.Description, service.Provider})
            add(text);
        add(std::to_string(service.Channel));
        add(std::to_string(service.Id));
    }
    return packed;
}

S_Brick Unpack(const std::string& packed)
{
    std::istringstream texts(packed);
    std::string text;
    const auto take = [&]() -> const std::string& { return std::getline(texts, text, '\0'), text; };
    S_Brick brick;
    brick.Name = take();
    brick.Discoverable = take() == "1";
    brick.TellsName = take() == "1";
    brick.HasSdpServer = take() == "1";
    while (texts.peek() != EOF) {
        S_Service& service = brick.Services.emplace_back();
        for (std::string* field : {&service.Name, &service.Description, &service.Provider})
            *field = take();
        service.Channel = atoi(take().c_str());
        service.Id = static_cast<std::uint16_t>(atoi(take().c_str()));
    }
    return brick;
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
    return List_Names(State().Air).count(address) > 0;
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

void Close_Local(S_Local& local)
{
    Close_Own(local.Control);
    Close_Own(local.Gone);
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
        for (const pollfd& fd : fds)
            if (fd.revents & POLLNVAL) wake = Open_Anew();
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

// ---- Shared with the calls ------------------------------------------------------------------------------------------

const S_Real& Real()
{
    static const S_Real real;
    return real;
}

S_State& State()
{
    static S_State& state = *new S_State;
    return state;
}

bool Is_Ours(int fd)
{
    return fd >= 0 && fd < FD_SETSIZE && g_Ours[static_cast<std::size_t>(fd)].load(std::memory_order_acquire);
}

bool Is_Own(int fd)
{
    return fd >= 0 && fd < FD_SETSIZE && g_Own[static_cast<std::size_t>(fd)];
}

void Set_Ours(int fd, bool ours)
{
    g_Ours[static_cast<std::size_t>(fd)].store(ours, std::memory_order_release);
}

Clock::duration Scaled(Clock::duration real)
{
    return std::chrono::duration_cast<Clock::duration>(real / State().Speed.load());
}

std::string Get_Acting()
{
    return t_Acting ? *t_Acting : State().First;
}

int Bind_Name(int fd, const std::string& name)
{
    socklen_t length = 0;
    const sockaddr_un address = Get_UnixAddress(State().Air, name, length);
    return Real().Bind(fd, reinterpret_cast<const sockaddr*>(&address), length);
}

int Connect_Name(int fd, const std::string& name)
{
    socklen_t length = 0;
    const sockaddr_un address = Get_UnixAddress(State().Air, name, length);
    return Real().Connect(fd, reinterpret_cast<const sockaddr*>(&address), length);
}

// A client's socket is named tav-air/AIR/ADDRESS>PEER/...
std::string Parse_Client(const sockaddr* address, socklen_t length)
{
    const std::string path(reinterpret_cast<const sockaddr_un*>(address)->sun_path,
                           length - offsetof(sockaddr_un, sun_path));
    const std::size_t end = path.find('>');
    return end == std::string::npos ? "" : path.substr(end - ADDRESS_SIZE, ADDRESS_SIZE);
}

std::string Get_ListenName(const std::string& address, int channel)
{
    return address + "/" + std::to_string(channel);
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

bool Is_Gone(const std::string& address)
{
    return List_Names(State().Air).count(address + "/gone") > 0;
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

std::vector<std::string> List_Bricks()
{
    const std::lock_guard lock(State().Mutex);
    std::vector<std::string> bricks;
    for (const std::string& name : List_Names(State().Air))
        if (name.size() == ADDRESS_SIZE) bricks.push_back(name);
    return bricks;
}

std::optional<S_Brick> Ask_Brick(const std::string& address)
{
    int asker = Open_UnixSocket(SOCK_SEQPACKET | SOCK_NONBLOCK);
    int connected = -1;
    {
        const std::lock_guard lock(State().Mutex);
        const auto own = State().Bricks.find(Get_Acting());
        if (own == State().Bricks.end() || own->second.Brick.Present) connected = Connect_Name(asker, address);
    }
    std::string packed(MAX_DESCRIPTION, '\0');
    pollfd fd{asker, POLLIN, 0};
    ssize_t count = -1;
    if (connected == 0 && poll(&fd, 1, static_cast<int>(CONTROL_TIMEOUT.count())) > 0)
        count = Real().Recv(asker, packed.data(), packed.size(), 0);
    Close_Own(asker);
    if (count <= 0) return std::nullopt;
    packed.resize(static_cast<std::size_t>(count));
    return Unpack(packed);
}

void Sleep_Scaled(Clock::duration real)
{
    std::this_thread::sleep_for(Scaled(real));
}

// ---- For users ------------------------------------------------------------------------------------------------------

std::string Get_Address(const std::string& name)
{
    std::uint32_t hash = 2166136261U;  // FNV-1a
    for (const char character : name)
        hash = (hash ^ static_cast<unsigned char>(character)) * 16777619U;
    char text[ADDRESS_SIZE + 1] = {};
    snprintf(text, sizeof(text), "02:00:%02X:%02X:%02X:%02X", hash >> 24, hash >> 16 & 0xFF, hash >> 8 & 0xFF,
             hash & 0xFF);
    return text;
}

bool Enter(const std::string& air, double speed)
{
    constexpr const char* ALLOWED = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.";
    if (air.empty() || air.size() > MAX_AIR_SIZE || air.find_first_not_of(ALLOWED) != std::string::npos ||
        !(speed >= MIN_SPEED))
        return false;
    const std::lock_guard lock(State().Mutex);
    for (auto& local : State().Bricks)
        Close_Local(local.second);
    while (!State().Sockets.empty()) {
        const int fd = State().Sockets.begin()->first;
        Drop_Socket(fd);
        Real().Close(fd);
    }
    for (auto& link : State().Silent)
        Close_Own(link.second);
    State().Silent.clear();
    State().Bricks.clear();
    State().Released.clear();
    State().First.clear();
    t_Acting.reset();
    State().Air = air;
    State().Speed = speed;
    return true;
}

void Put(const S_Brick& brick)
{
    std::unique_lock lock(State().Mutex);
    if (State().Bricks.empty()) State().First = brick.Address;
    S_Local& local = State().Bricks[brick.Address];
    const bool silent = local.Brick.Present && !brick.Present;
    local.Brick = brick;
    if (silent) Fall_Silent(brick.Address);
    if (brick.Present) Close_Own(local.Gone);
    // A name stays taken until the thread has left its wait on it: the thread, not this one, listens.
    const unsigned long cycles = State().Cycles;
    Wake_Thread();
    State().Cycled.wait(lock, [&] { return State().Cycles > cycles; });
}

void Act_As(const std::string& address)
{
    t_Acting = address;
}

std::vector<int> Get_Open()
{
    const std::lock_guard lock(State().Mutex);
    std::vector<int> open;
    for (const auto& socket : State().Sockets)
        open.push_back(socket.first);
    return open;
}

}  // namespace tav_air
