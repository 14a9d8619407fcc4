// Bricks on the air: who is there, and what they tell about themselves.
//
// The air is the abstract UNIX socket name space. A brick in range listens on tav-air/AIR/ADDRESS and tells whoever
// connects what a Bluetooth device would tell about itself; its RFCOMM channels are listening sockets named
// tav-air/AIR/ADDRESS/CHANNEL. The kernel removes the names of a process that ends.
#include "sim/air_state.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <poll.h>
#include <set>
#include <sstream>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace tav_air {

namespace {

constexpr std::size_t ADDRESS_SIZE = 17;
constexpr std::size_t MAX_AIR_SIZE = 30;  // so that the longest name fits a UNIX address
constexpr double MIN_SPEED = 0.001;
constexpr int MAX_DESCRIPTION = 65536;
constexpr std::chrono::milliseconds CONTROL_TIMEOUT{2000};  // for an answer of another process, whatever the speed

thread_local std::optional<std::string> t_Acting;
std::array<std::atomic<bool>, FD_SETSIZE> g_Ours;

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

// ---- Descriptions ---------------------------------------------------------------------------------------------------

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

}  // namespace

// ---- Shared with the other sources ----------------------------------------------------------------------------------

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

bool Is_Ours(int fd)
{
    return fd >= 0 && fd < FD_SETSIZE && g_Ours[static_cast<std::size_t>(fd)].load(std::memory_order_acquire);
}

void Set_Ours(int fd, bool ours)
{
    g_Ours[static_cast<std::size_t>(fd)].store(ours, std::memory_order_release);
}

Clock::duration Scaled(Clock::duration real)
{
    return std::chrono::duration_cast<Clock::duration>(real / double{State().Speed.load()});
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

bool Is_Taken(const std::string& name)
{
    return List_Names(State().Air).count(name) > 0;
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

bool Sleep_UntilSignal(Clock::duration real)
{
    const auto time = std::chrono::duration_cast<std::chrono::nanoseconds>(Scaled(real)).count();
    const timespec wait = {static_cast<time_t>(time / 1000000000), static_cast<long>(time % 1000000000)};
    return nanosleep(&wait, nullptr) == 0;
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
    State().Speed = static_cast<float>(speed);
    return true;
}

void Put(const S_Brick& brick)
{
    std::unique_lock lock(State().Mutex);
    if (!brick.Powered) {
        State().Off = brick.Address;
        return;
    }
    if (State().Bricks.empty()) State().First = brick.Address;
    S_Local& local = State().Bricks[brick.Address];
    const bool silent = local.Brick.Present && !brick.Present;
    local.Brick = brick;
    if (silent) Fall_Silent(brick.Address);
    if (brick.Present) Close_Own(local.Gone);
    // A name stays taken until the thread has left its wait on it: the thread, not this one, listens.
    const unsigned long cycles = State().Cycles;
    Wake_Thread();
    State().Cycled.wait(lock, [&] { return State().Cycles != cycles; });
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
