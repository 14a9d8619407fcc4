// The bricks of this process, and the air that they are on.
#include "sim/internals.h"

#include <algorithm>
#include <ctime>
#include <sstream>
#include <unistd.h>

namespace tav_air {

namespace {

constexpr std::size_t MAX_AIR_SIZE = 30;  // so that the longest name fits a UNIX address
constexpr double MIN_SPEED = 0.001;

thread_local std::optional<std::string> t_Acting;

const std::pair<const char*, bool S_Brick::*> STATES[] = {{"down", &S_Brick::Powered},
                                                          {"absent", &S_Brick::Present},
                                                          {"hidden", &S_Brick::Discoverable},
                                                          {"nameless", &S_Brick::TellsName},
                                                          {"no-sdp", &S_Brick::HasSdpServer}};

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

std::optional<S_Adapter> Get_Adapter(const std::string& address)
{
    const std::lock_guard lock(State().Mutex);
    const auto local = State().Bricks.find(address);
    return local == State().Bricks.end() ? std::nullopt : std::optional(local->second.Brick);
}

std::string Set_State(S_Brick& brick, const std::string& words)
{
    for (const auto& state : STATES)
        brick.*state.second = true;
    std::istringstream all(words);
    for (std::string word; all >> word;) {
        const auto* const state =
            std::find_if(std::begin(STATES), std::end(STATES), [&](const auto& known) { return word == known.first; });
        if (state == std::end(STATES)) return word;
        brick.*state->second = false;
    }
    return "";
}

std::string Describe(const S_Adapter& brick)
{
    std::string words;
    for (const auto& [word, has] : STATES)
        if (!(brick.*has)) words += std::string(word) + " ";
    return brick.Name + '\0' + words + '\0' + brick.Seen;
}

S_Adapter Apply(const S_Adapter& brick, const std::string& description)
{
    S_Adapter changed = brick;
    std::istringstream parts(description);
    std::string name, words;
    std::getline(parts, name, '\0');
    std::getline(parts, words, '\0');
    std::getline(parts, changed.Seen, '\0');
    if (!name.empty()) changed.Name = name;
    Set_State(changed, words);
    return changed;
}

void Change_Brick(const S_Adapter& brick)
{
    S_Local& local = State().Bricks[brick.Address];
    const S_Brick before = std::exchange(local.Brick, brick);
    if (!brick.Powered) local.Brick.Seen.clear();
    if (before.Powered && !brick.Powered) Abort_All(local);
    if (before.Present && !brick.Present) Fall_Silent(local);
    if (!before.Present && brick.Present) Come_Back(local);
    Wake_Thread();  // there may be something to do in a while
}

void Change_Everywhere(const S_Adapter& brick)
{
    std::unique_lock lock(State().Mutex);
    Change_Brick(brick);
    Wait_ForThread(lock);
    const auto programs = List_Names(brick.Address + "!");
    lock.unlock();
    for (const std::string& program : programs)
        Ask(program, Describe(brick));
}

// ---- For users ------------------------------------------------------------------------------------------------------

std::string Get_Address(const std::string& name)
{
    std::uint32_t hash = 2166136261U;  // FNV-1a
    for (const char character : name)
        hash = (hash ^ static_cast<unsigned char>(character)) * 16777619U;
    const auto byte = [&](int shift) { return static_cast<std::uint8_t>(hash >> shift); };
    return Get_Text({{byte(0), byte(8), byte(16), byte(24), 0, 2}});  // the last byte comes first
}

bool Enter(const std::string& air, double speed, bool isShared)
{
    constexpr const char* ALLOWED = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.";
    if (air.empty() || air.size() > MAX_AIR_SIZE || air.find_first_not_of(ALLOWED) != std::string::npos ||
        !(speed >= MIN_SPEED))
        return false;
    const std::lock_guard lock(State().Mutex);
    while (!State().Sockets.empty()) {
        const int fd = State().Sockets.begin()->first;
        Drop_Socket(fd);
        Real().Close(fd);
    }
    static_cast<S_World&>(State()) = {};
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
    S_Adapter put{brick};
    if (State().Bricks.count(brick.Address) == 0) {  // other programs that are this brick know what became of it
        const auto programs = List_Names(brick.Address + "!");
        lock.unlock();
        for (const std::string& program : programs) {
            if (Is_Foreign(program)) return false;
            put = Ask(program).value_or(put);
        }
        put.Services = brick.Services;
        lock.lock();
        State().Bricks[brick.Address].Brick = put;
    }
    Change_Brick(put);
    Wait_ForThread(lock);  // it listens, and a name is taken until it has left its wait on it
    return true;
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
