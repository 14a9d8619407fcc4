// The bricks of this process, and the air that they are on.
#include "sim/internals.h"

#include <cstdio>
#include <ctime>
#include <unistd.h>

namespace tav_air {

namespace {

constexpr std::size_t MAX_AIR_SIZE = 30;  // so that the longest name fits a UNIX address
constexpr double MIN_SPEED = 0.001;

thread_local std::optional<std::string> t_Acting;

}  // namespace

// ---- Shared with the other sources ----------------------------------------------------------------------------------

S_State& State()
{
    static S_State& state = *new S_State;
    return state;
}

Clock::duration Scaled(Clock::duration real)
{
    return std::chrono::duration_cast<Clock::duration>(real / double{State().Speed.load()});
}

bool Sleep_UntilSignal(Clock::duration real)
{
    const auto time = std::chrono::duration_cast<std::chrono::nanoseconds>(Scaled(real)).count();
    const timespec wait = {static_cast<time_t>(time / 1000000000), static_cast<long>(time % 1000000000)};
    return nanosleep(&wait, nullptr) == 0;
}

std::string Get_Acting()
{
    return t_Acting ? *t_Acting : State().First;
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

bool Enter(const std::string& air, double speed, bool isShared)
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
    for (auto* kept : {&State().Silent, &State().Calls}) {
        for (auto& entry : *kept)
            Close_Own(entry.second.Fd);
        kept->clear();
    }
    State().Bricks.clear();
    State().Pages.clear();
    State().Later.clear();
    State().Released.clear();
    State().First.clear();
    t_Acting.reset();
    State().Air = air;
    State().Shared = isShared;
    State().Process = getpid();
    State().Speed = static_cast<float>(speed);
    return true;
}

bool Put(const S_Brick& brick)
{
    std::unique_lock lock(State().Mutex);
    if (State().Bricks.empty()) State().First = brick.Address;
    S_Local& local = State().Bricks[brick.Address];
    const bool wasPresent = local.Brick.Present;
    local.Brick = brick;
    if (wasPresent && !brick.Present) Fall_Silent(brick.Address);
    if (brick.Present) Come_Back(brick.Address);
    // A name stays taken until the thread has left its wait on it: the thread, not this one, listens.
    const unsigned long cycles = State().Cycles;
    Wake_Thread();
    State().Cycled.wait(lock, [&] { return State().Cycles != cycles; });
    return local.Adapter >= 0 || !Is_Foreign(brick.Address + "/hci0");
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
