// What the sources of the simulated air share. Not for its users.
#pragma once

#include "sim/air.h"

#include <array>
#include <atomic>
#include <bluetooth/bluetooth.h>
#include <bluetooth/hci.h>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <dlfcn.h>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <poll.h>
#include <set>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <utility>
#include <vector>

namespace tav_air {

using Clock = std::chrono::steady_clock;

// Times of a real air, divided by its speed where they are used.
constexpr std::chrono::milliseconds INQUIRY_UNIT{1280};
constexpr std::chrono::milliseconds PAGE_TIME{20};    // connecting to a device in range
constexpr std::chrono::milliseconds PAGE_RETRY{100};  // between looks whether a paged device is in range
constexpr std::chrono::milliseconds PAGE_TIMEOUT{5120};
constexpr std::chrono::milliseconds NAME_TIME{5};        // asking a device in range for its name
constexpr std::chrono::milliseconds RELEASE_TIME{50};    // a peer refuses this long after the last connection to it
constexpr std::chrono::milliseconds SUPERVISION{20000};  // until a silent link is given up

// A mark on descriptors that is read without the lock, for as many as Linux lets a process have.
class C_FdMarks
{
public:
    static constexpr int COUNT = 1 << 20;  // as fs.nr_open has it; no memory is taken until a page of it is written

    bool Has(int fd) const { return Is_Valid(fd) && m_Marks[static_cast<std::size_t>(fd)]; }
    void Set(int fd, bool mark)
    {
        if (Is_Valid(fd)) m_Marks[static_cast<std::size_t>(fd)] = mark;
    }

private:
    static bool Is_Valid(int fd) { return fd >= 0 && fd < COUNT; }
    std::array<std::atomic<bool>, COUNT> m_Marks{};
};

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

// Where time is longer than a machine's long, calls that may be handed one have a second name, which headers put in.
constexpr bool LONG_TIME = sizeof(time_t) > sizeof(long);

struct S_Real
{
    int (*Socket)(int, int, int) = S_Next{"socket"};
    int (*Bind)(int, const sockaddr*, socklen_t) = S_Next{"bind"};
    int (*Listen)(int, int) = S_Next{"listen"};
    int (*Accept4)(int, sockaddr*, socklen_t*, int) = S_Next{"accept4"};
    int (*Connect)(int, const sockaddr*, socklen_t) = S_Next{"connect"};
    int (*Getsockname)(int, sockaddr*, socklen_t*) = S_Next{"getsockname"};
    int (*Getpeername)(int, sockaddr*, socklen_t*) = S_Next{"getpeername"};
    int (*Setsockopt)(int, int, int, const void*, socklen_t) = S_Next{LONG_TIME ? "__setsockopt64" : "setsockopt"};
    int (*Getsockopt)(int, int, int, void*, socklen_t*) = S_Next{LONG_TIME ? "__getsockopt64" : "getsockopt"};
    int (*Select)(int, fd_set*, fd_set*, fd_set*, timeval*) = S_Next{LONG_TIME ? "__select64" : "select"};
    int (*Pselect)(int, fd_set*, fd_set*, fd_set*, const timespec*,
                   const sigset_t*) = S_Next{LONG_TIME ? "__pselect64" : "pselect"};
    int (*Poll)(pollfd*, nfds_t, int) = S_Next{"poll"};
    int (*Ppoll)(pollfd*, nfds_t, const timespec*, const sigset_t*) = S_Next{LONG_TIME ? "__ppoll64" : "ppoll"};
    ssize_t (*Read)(int, void*, size_t) = S_Next{"read"};
    ssize_t (*Readv)(int, const iovec*, int) = S_Next{"readv"};
    ssize_t (*Recv)(int, void*, size_t, int) = S_Next{"recv"};
    ssize_t (*Recvfrom)(int, void*, size_t, int, sockaddr*, socklen_t*) = S_Next{"recvfrom"};
    ssize_t (*Recvmsg)(int, msghdr*, int) = S_Next{LONG_TIME ? "__recvmsg64" : "recvmsg"};
    ssize_t (*Write)(int, const void*, size_t) = S_Next{"write"};
    ssize_t (*Writev)(int, const iovec*, int) = S_Next{"writev"};
    ssize_t (*Send)(int, const void*, size_t, int) = S_Next{"send"};
    ssize_t (*Sendto)(int, const void*, size_t, int, const sockaddr*, socklen_t) = S_Next{"sendto"};
    ssize_t (*Sendmsg)(int, const msghdr*, int) = S_Next{LONG_TIME ? "__sendmsg64" : "sendmsg"};
    int (*Fcntl)(int, int, ...) = S_Next{LONG_TIME ? "__fcntl_time64" : "fcntl"};
    int (*Ioctl)(int, unsigned long, ...) = S_Next{LONG_TIME ? "__ioctl_time64" : "ioctl"};
    int (*Dup)(int) = S_Next{"dup"};
    int (*Dup3)(int, int, int) = S_Next{"dup3"};
    int (*Shutdown)(int, int) = S_Next{"shutdown"};
    int (*Close)(int) = S_Next{"close"};
    int (*Close_range)(unsigned int, unsigned int, int) = S_Next{"close_range"};
    int (*Fclose)(FILE*) = S_Next{"fclose"};
};
const S_Real& Real();

enum class E_Kind
{
    RFCOMM,
    L2CAP,
    RAW,  // L2CAP signals: good for echo
    HCI
};

enum class E_State
{
    OPEN,
    BOUND,       // has a channel, listening or not
    CONNECTING,  // its other end is held, and it cannot be written
    FAILED,      // a connection that did not come about
    CONNECTED,
    LOST  // of a brick that fell silent: something else stands in for the connection
};

// What descriptors of this process that are one socket share. Underneath is a UNIX socket, so that waiting, buffering
// and the end of a process are the kernel's; these are the differences.
struct S_Socket
{
    E_Kind Kind = E_Kind::RFCOMM;
    int Type = SOCK_STREAM;
    E_State State = E_State::OPEN;
    std::string Own;  // addresses
    std::string Peer;
    int Channel = 0;          // of RFCOMM, or the PSM of L2CAP
    bool HasAddress = false;  // it was bound to its adapter's
    int Error = 0;            // not yet reported
    bool Ended = false;       // the end of the connection was noticed
    bool Shut = false;        // by this side
    int Security = BT_SECURITY_LOW;
    int LinkMode = 0;
    hci_filter Filter{};     // HCI: which events it wants
    int Far = -1;            // its other end, as long as no peer has it
    int Call = -1;           // how it called its peer; its name says who is connected to whom
    int Link = -1;           // LOST: the connection, meanwhile
    Clock::time_point Next;  // CONNECTING: next page
    Clock::time_point Deadline;
};
using SocketPointer = std::shared_ptr<S_Socket>;

// A brick that this process put on the air.
struct S_Local
{
    S_Brick Brick;
    int Adapter = -1;  // listening sockets: for programs on this brick; -1: another process has it
    int Radio = -1;    // for other bricks; -1: not in range
    int Sdp = -1;      // for service queries
    int Gone = -1;     // marks a brick that fell silent
};

// A descriptor of the air's own that is kept for a while.
struct S_Kept
{
    std::string Brick;  // whose silence it goes with
    int Fd = -1;
};

// A packet that comes later.
struct S_Later
{
    std::weak_ptr<S_Socket> To;
    std::string Bytes;
};

struct S_State
{
    std::mutex Mutex;  // guards all that follows; never held while waiting
    std::string Air;
    bool Shared = false;                    // with other users
    int Process = 0;                        // whose memory this is: a vforked child borrows it
    std::atomic<float> Speed = 1;           // 4 bytes: ARM needs a library for atomics of 8
    std::map<std::string, S_Local> Bricks;  // by address
    std::string First;                      // the default of Act_As
    std::map<int, SocketPointer> Sockets;
    std::map<std::pair<std::string, std::string>, Clock::time_point> Released;  // by own and peer address
    std::map<std::pair<std::string, std::string>, Clock::time_point> Pages;     // when they end, by the same
    std::multimap<Clock::time_point, S_Kept> Silent;  // links of bricks that fell silent, and when the peer notices
    std::multimap<Clock::time_point, S_Kept> Calls;   // of closed links to such bricks, and when they are given up
    std::multimap<Clock::time_point, S_Later> Later;  // packets, and when they come
    std::map<int, std::string> Queries;               // connections to SDP servers, and the bricks that these are of
    int Wake = -1;                                    // eventfd of the air's thread; -1: not started
    unsigned long Cycles = 0;                         // of the thread
    std::condition_variable Cycled;
};

// The state is never destroyed: programs close sockets until their very end.
S_State& State();

// ---- Descriptors (descriptors.cpp) ----------------------------------------------------------------------------------

extern C_FdMarks g_Ours;  // the Bluetooth descriptors of this process

// Descriptors of the air's own: numbered out of the program's way, and not for it to close.
bool Is_Own(int fd);
void Close_Own(int& fd);  // if it is open
int Put_Away(int fd);     // makes it one of them
int Open_UnixSocket(int type);
bool Open_Pair(int type, int& near, int& far);  // `far` is one of them

// Closes all in a range that are not the air's own.
int Close_Range(unsigned int first, unsigned int last, int flags);

// Puts the open file of `other` behind the number `fd`, which keeps its flags and whoever watches it by epoll.
void Swap_In(int fd, int other);

// Descriptors on their way to another process.
bool Send_Fd(int through, int fd);
int Receive_Fd(int through);

bool Is_Blocking(int fd, int flags);

// ---- Bricks of this process (bricks.cpp) ----------------------------------------------------------------------------

constexpr std::size_t ADDRESS_SIZE = 17;

Clock::duration Scaled(Clock::duration real);
bool Sleep_UntilSignal(Clock::duration real);  // false, with errno, when one ended it
std::string Get_Acting();                      // the brick whose adapter the calling thread uses; "": none

// ---- Other processes (processes.cpp) --------------------------------------------------------------------------------

// Who has called within `timeout` ms, or -1. It asks accept only when somebody has, since that takes the lowest free
// descriptor for as long as it looks: the program's next one would be another than on Linux.
int Accept_Caller(int listening, int timeout);

// Names of the air's own name space.
std::string Get_ListenName(const S_Socket& socket, const std::string& address);
int Bind_Name(int fd, const std::string& name);
int Connect_Name(int fd, const std::string& name);  // a stranger's is not there
std::set<std::string> List_Names(bool onlyConnected = false);
bool Is_Taken(const std::string& name);
bool Is_Friend(int fd);                                               // who is at the other end may be there
bool Is_Foreign(const std::string& name);                             // another user has it
bool Is_Listening(const std::string& name);                           // and is a friend
std::string Parse_Client(const sockaddr* address, socklen_t length);  // the peer that calls

// What a brick in range tells about itself; without the lock.
std::optional<S_Brick> Ask_Brick(const std::string& address);

// The adapter of a brick, which another process may have; first it does what is requested: "up", "down", "scan ..." (as
// HCI's scan enable has it), "name ...". Without the lock.
std::optional<S_Brick> Ask_Adapter(const std::string& own, const std::string& request = "");

// With the lock held.
void Close_Local(S_Local& local);
void Wake_Thread();

// ---- Connections (connections.cpp), with the lock held --------------------------------------------------------------

bool Start_Connecting(int fd, S_Socket& socket);
void Fall_Silent(const std::string& address);
void Come_Back(const std::string& address);
void Abort_All(const std::string& address);  // its adapter was switched off
void Drop_Socket(int fd);
bool Is_AtEnd(int fd);
Clock::time_point Do_DueConnections(Clock::time_point now);  // for the thread; returns when the next is due

// Whom a brick has links to.
std::set<std::string> List_Links(const std::string& address);

// ---- HCI and SDP (hci.cpp, sdp.cpp) ---------------------------------------------------------------------------------

int Control_Adapter(S_Socket& socket, unsigned long request, void* argument);  // ioctl
ssize_t Send_Command(const SocketPointer& socket, const std::string& packet);
ssize_t Send_Signal(const SocketPointer& socket, const std::string& packet);  // of L2CAP
std::string Answer_Query(const S_Brick& brick, const std::string& request);   // of SDP

// ---- Faults and trace (faults.cpp) ----------------------------------------------------------------------------------

// What is to go wrong with a call.
struct S_Fault
{
    int Error = 0;            // fail with this errno
    size_t Limit = SIZE_MAX;  // move at most so many bytes
    bool Vanish = false;
};

// Counts and traces a call, unless it is made by BlueZ's library: on a descriptor or, without one, of the brick whose
// adapter this thread uses.
S_Fault Begin(const char* call, const std::string& arguments = "", int fd = -1);

// For calls that only may fail: true, with errno, when this one is to.
bool Fails(const char* call, const std::string& arguments = "", int fd = -1);

// While BlueZ's library runs: its calls are not the program's.
class C_Inside
{
public:
    C_Inside();
    ~C_Inside();
    C_Inside(const C_Inside&) = delete;
};

// ---- Sockets of this process (sockets.cpp) --------------------------------------------------------------------------

int Fail(int error);  // always -1, with errno
std::string Get_Text(const bdaddr_t& address);

SocketPointer Find_Socket(int fd);  // with the lock held; null: none
S_Socket Get_Socket(int fd);        // a copy, which may be outdated at once
int Take_Error(int fd);             // that of its connection, once
int Add_Socket(int fd, const SocketPointer& socket);
void Forget_Socket(int fd);  // it is closed, or about to be

}  // namespace tav_air
