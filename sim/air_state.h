// What the sources of the simulated air share. Not for its users.
#pragma once

#include "sim/air.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <dlfcn.h>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sys/select.h>
#include <sys/socket.h>
#include <utility>

namespace tav_air {

using Clock = std::chrono::steady_clock;

// Times of a real air, divided by its speed where they are used.
constexpr std::chrono::milliseconds INQUIRY_UNIT{1280};
constexpr std::chrono::milliseconds PAGE_TIME{20};    // connecting to a device in range
constexpr std::chrono::milliseconds PAGE_RETRY{100};  // between looks whether a paged device is in range
constexpr std::chrono::milliseconds PAGE_TIMEOUT{5120};
constexpr std::chrono::milliseconds NAME_TIME{5};        // asking a device in range for its name or services
constexpr std::chrono::milliseconds RELEASE_TIME{50};    // a peer refuses this long after the last connection to it
constexpr std::chrono::milliseconds SUPERVISION{20000};  // until a silent link is given up

// Finds the call that this library takes the place of.
struct S_Next
{
    const char* Name;
    template <typename FUNCTION>
    operator FUNCTION*() const
    {
        return reinterpret_cast<FUNCTION*>(dlsym(RTLD_NEXT, Name));
    }
};

struct S_Real
{
    int (*Socket)(int, int, int) = S_Next{"socket"};
    int (*Bind)(int, const sockaddr*, socklen_t) = S_Next{"bind"};
    int (*Listen)(int, int) = S_Next{"listen"};
    int (*Accept)(int, sockaddr*, socklen_t*) = S_Next{"accept"};
    int (*Connect)(int, const sockaddr*, socklen_t) = S_Next{"connect"};
    int (*Setsockopt)(int, int, int, const void*, socklen_t) = S_Next{"setsockopt"};
    int (*Getsockopt)(int, int, int, void*, socklen_t*) = S_Next{"getsockopt"};
    int (*Select)(int, fd_set*, fd_set*, fd_set*, timeval*) = S_Next{"select"};
    ssize_t (*Recv)(int, void*, size_t, int) = S_Next{"recv"};
    ssize_t (*Send)(int, const void*, size_t, int) = S_Next{"send"};
    int (*Fcntl)(int, int, ...) = S_Next{"fcntl"};
    int (*Shutdown)(int, int) = S_Next{"shutdown"};
    int (*Close)(int) = S_Next{"close"};
};
const S_Real& Real();

enum class E_State
{
    ADAPTER,     // an opened adapter or SDP session
    UNBOUND,     // a new RFCOMM socket
    BOUND,       // has a channel, listening or not
    CONNECTING,  // stands in for a connection that is on its way
    FAILED,      // a connection that did not come about
    CONNECTED,
    SDP,  // an L2CAP socket, good for asking whether there is an SDP server
    LOST  // stands in for a connection of a brick that fell silent
};

// A Bluetooth descriptor of this process. Underneath is a UNIX socket in the abstract name space, so that waiting,
// buffering and the end of a process are the kernel's; these are the differences.
struct S_Socket
{
    E_State State = E_State::UNBOUND;
    std::string Own;  // addresses
    std::string Peer;
    int Channel = 0;
    int Error = 0;  // FAILED: not yet reported
    bool Outgoing = false;
    bool Ended = false;      // the end of the connection was reported
    bool Shut = false;       // by this side
    int Far = -1;            // the other end of a stand-in
    Clock::time_point Next;  // CONNECTING: next page
    Clock::time_point Deadline;
};

// A brick that this process put on the air.
struct S_Local
{
    S_Brick Brick;
    int Control = -1;  // listening socket that tells others about it; -1: not present, or shared with another process
    int Gone = -1;     // marks a brick that fell silent
};

struct S_State
{
    std::mutex Mutex;  // guards all that follows; never held while waiting
    std::string Air;
    std::atomic<float> Speed = 1;           // 4 bytes: ARM needs a library for atomics of 8
    std::map<std::string, S_Local> Bricks;  // by address
    std::string First;                      // the default of Act_As
    std::string Off;                        // the adapter that is switched off, if there is one
    std::map<int, S_Socket> Sockets;
    std::map<std::pair<std::string, std::string>, Clock::time_point> Released;  // by own and peer address
    std::multimap<Clock::time_point, int> Silent;  // links of bricks that fell silent, and when the peer notices
    int Wake = -1;                                 // eventfd of the air's thread; -1: not started
    unsigned long Cycles = 0;                      // of the thread
    std::condition_variable Cycled;
};

// The state is never destroyed: programs close sockets until their very end.
S_State& State();

// ---- Bricks (air.cpp) -----------------------------------------------------------------------------------------------

// True for a Bluetooth descriptor of this process; takes no lock.
bool Is_Ours(int fd);
void Set_Ours(int fd, bool ours);

Clock::duration Scaled(Clock::duration real);
void Sleep_Scaled(Clock::duration real);
bool Sleep_UntilSignal(Clock::duration real);  // false, with errno, when one ended it
std::string Get_Acting();                      // the brick whose adapter the calling thread uses; "": none

// Names of the air's own name space.
std::string Get_ListenName(const std::string& address, int channel);
int Bind_Name(int fd, const std::string& name);
int Connect_Name(int fd, const std::string& name);
bool Is_Taken(const std::string& name);
std::string Parse_Client(const sockaddr* address, socklen_t length);  // the peer that accept reports

// Bricks in range, and what they tell about themselves; without the lock.
std::vector<std::string> List_Bricks();
std::optional<S_Brick> Ask_Brick(const std::string& address);
std::string Pack(const S_Brick& brick);

// ---- Connections (links.cpp) ----------------------------------------------------------------------------------------

// Descriptors of the air's own: numbered out of the program's way, and not for it to close.
int Open_UnixSocket(int type);
void Close_Own(int& fd);
bool Is_Own(int fd);

// With the lock held.
bool Start_Connecting(int fd, S_Socket& socket);
void Fall_Silent(const std::string& address);
void Drop_Socket(int fd);
void Close_Local(S_Local& local);
void Wake_Thread();

// ---- Faults and trace (faults.cpp) ----------------------------------------------------------------------------------

// What is to go wrong with a call.
struct S_Fault
{
    int Error = 0;            // fail with this errno
    size_t Limit = SIZE_MAX;  // move at most so many bytes
    bool Vanish = false;
};

// Counts and traces a call.
S_Fault Begin_Call(const char* call, const std::string& arguments);

}  // namespace tav_air
