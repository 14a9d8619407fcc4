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
#include <fcntl.h>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <poll.h>
#include <set>
#include <string_view>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>
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
constexpr std::chrono::milliseconds REMEMBERED{30000};   // what an inquiry found

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
    decltype(&::socket) Socket = S_Next{"socket"};
    decltype(&::bind) Bind = S_Next{"bind"};
    decltype(&::listen) Listen = S_Next{"listen"};
    decltype(&::accept4) Accept4 = S_Next{"accept4"};
    decltype(&::connect) Connect = S_Next{"connect"};
    decltype(&::getsockname) Getsockname = S_Next{"getsockname"};
    decltype(&::getpeername) Getpeername = S_Next{"getpeername"};
    decltype(&::setsockopt) Setsockopt = S_Next{LONG_TIME ? "__setsockopt64" : "setsockopt"};
    decltype(&::getsockopt) Getsockopt = S_Next{LONG_TIME ? "__getsockopt64" : "getsockopt"};
    decltype(&::select) Select = S_Next{LONG_TIME ? "__select64" : "select"};
    decltype(&::pselect) Pselect = S_Next{LONG_TIME ? "__pselect64" : "pselect"};
    decltype(&::poll) Poll = S_Next{"poll"};
    decltype(&::ppoll) Ppoll = S_Next{LONG_TIME ? "__ppoll64" : "ppoll"};
    decltype(&::epoll_pwait) Epoll_pwait = S_Next{"epoll_pwait"};
    decltype(&::epoll_pwait2) Epoll_pwait2 = S_Next{LONG_TIME ? "__epoll_pwait2_time64" : "epoll_pwait2"};
    decltype(&::read) Read = S_Next{"read"};
    decltype(&::readv) Readv = S_Next{"readv"};
    decltype(&::recv) Recv = S_Next{"recv"};
    decltype(&::recvfrom) Recvfrom = S_Next{"recvfrom"};
    decltype(&::recvmsg) Recvmsg = S_Next{LONG_TIME ? "__recvmsg64" : "recvmsg"};
    decltype(&::write) Write = S_Next{"write"};
    decltype(&::writev) Writev = S_Next{"writev"};
    decltype(&::send) Send = S_Next{"send"};
    decltype(&::sendto) Sendto = S_Next{"sendto"};
    decltype(&::sendmsg) Sendmsg = S_Next{LONG_TIME ? "__sendmsg64" : "sendmsg"};
    decltype(&::fcntl) Fcntl = S_Next{LONG_TIME ? "__fcntl_time64" : "fcntl"};
    decltype(&::ioctl) Ioctl = S_Next{LONG_TIME ? "__ioctl_time64" : "ioctl"};
    decltype(&::dup) Dup = S_Next{"dup"};
    decltype(&::dup3) Dup3 = S_Next{"dup3"};
    decltype(&::shutdown) Shutdown = S_Next{"shutdown"};
    decltype(&::close) Close = S_Next{"close"};
    decltype(&::close_range) Close_range = S_Next{"close_range"};
    decltype(&::fclose) Fclose = S_Next{"fclose"};
};
const S_Real& Real();

enum class E_State  // in the order of a socket's life
{
    OPEN,
    BOUND,       // has a channel, listening or not
    CONNECTING,  // its other end is held, and it cannot be written
    FAILED,      // a connection that did not come about
    CONNECTED,
    LOST  // of a brick that fell silent: something else stands in for the connection
};

// A descriptor of the air's own: numbered out of the program's way, not for it to close, and closed with its owner.
class C_Own
{
public:
    C_Own() = default;
    explicit C_Own(int fd);  // takes it, and gives it such a number
    C_Own(C_Own&& other) noexcept : m_Fd(std::exchange(other.m_Fd, -1)) {}
    C_Own& operator=(C_Own other) noexcept
    {
        std::swap(m_Fd, other.m_Fd);
        return *this;
    }
    ~C_Own();
    operator int() const { return m_Fd; }

private:
    int m_Fd = -1;
};

// What descriptors of this process that are one socket share. Underneath is a UNIX socket, so that waiting, buffering
// and the end of a process are the kernel's; these are the differences.
struct S_Socket
{
    int Protocol = BTPROTO_RFCOMM;
    int Type = SOCK_STREAM;  // of L2CAP SOCK_RAW, too: its signals, good for echo
    E_State State = E_State::OPEN;
    std::string Own;  // addresses
    std::string Peer;
    int Channel = 0;          // of RFCOMM, or the PSM of L2CAP
    bool HasAddress = false;  // it was bound to its adapter's
    int Error = 0;            // not yet reported
    bool Ended = false;       // the end of the connection was noticed
    bool Shut = false;        // by this side
    bool Forked = false;      // a child has it, too
    int Security = BT_SECURITY_LOW;
    hci_filter Filter{};     // HCI: which events it wants
    int Handle = 0;          // of its link in the recording; 0: it is not in it
    Clock::time_point Next;  // CONNECTING: next page
    Clock::time_point Deadline;

    bool Is_Connected() const { return State >= E_State::CONNECTED && !Ended; }  // also while its brick is silent
};

// And what the air holds for it.
struct S_OpenSocket : S_Socket
{
    C_Own Name;  // BOUND: has the channel, and takes the socket's place when it listens
    C_Own Far;   // its other end, as long as no peer has it
    C_Own Call;  // how it called its peer; its name says who is connected to whom
    C_Own Link;  // LOST: the connection, meanwhile
};
using SocketPointer = std::shared_ptr<S_OpenSocket>;

// A brick, and what its adapter remembers.
struct S_Adapter : S_Brick
{
    std::string Seen = {};  // the time of its last inquiry, and the addresses that it found
};

// A brick that this process put on the air, and where it listens.
struct S_Local
{
    S_Adapter Brick;
    struct
    {
        C_Own Orders;  // for programs of the same user: what is to become of it
        C_Own Radio;   // for other bricks; only while it is in range, and another process that is the brick has none
        C_Own Sdp;     // for service queries, likewise
        C_Own Gone;    // marks a brick that fell silent
        std::vector<C_Own> Queries;  // connections to its SDP server
    } Open;
};

// What there is on one air.
struct S_World
{
    std::string Air;
    bool Shared = false;                    // with other users
    std::map<std::string, S_Local> Bricks;  // by address
    std::string First;                      // the default of Act_As
    std::map<int, SocketPointer> Sockets;
    std::map<std::pair<std::string, std::string>, Clock::time_point> Released;  // by own and peer address
    std::map<std::pair<std::string, std::string>, Clock::time_point> Pages;     // when they end, by the same

    // Descriptors of silent bricks and those who call them, and until when they are kept: at most as long as this brick
    // is silent; "": whatever it is.
    std::multimap<Clock::time_point, std::pair<std::string, C_Own>> Kept;

    // Packets, when they come, and to whom.
    std::multimap<Clock::time_point, std::pair<std::weak_ptr<S_OpenSocket>, std::string>> Later;
};

// What is to go wrong with a call.
struct S_Fault
{
    int Error = 0;            // fail with this errno
    size_t Limit = SIZE_MAX;  // move at most so many bytes
    bool Vanish = false;
};

struct S_Rule : S_Fault
{
    std::string Call;
    unsigned long At = 0;  // 0: every call
    unsigned long Count = 0;
};

struct S_State : S_World
{
    std::mutex Mutex;              // guards all the rest; never held while waiting
    int Process = 0;               // whose memory this is: a vforked child borrows it
    std::atomic<float> Speed = 1;  // 4 bytes: ARM needs a library for atomics of 8
    C_Own Wake;                    // eventfd of the air's thread, when that was started
    unsigned long Cycles = 0;      // of the thread
    std::condition_variable Cycled;
    std::vector<S_Rule> Rules;
    std::optional<std::vector<std::string>> Trace;  // from Start_Trace on
};

// The state is never destroyed: programs close sockets until their very end.
S_State& State();

// ---- Descriptors (descriptors.cpp) ----------------------------------------------------------------------------------

extern C_FdMarks g_Ours;  // the Bluetooth descriptors of this process

bool Is_Own(int fd);
C_Own Open_UnixSocket(int type);

// The far end of a new pair, whose near one is the program's; < 0, with errno: there is none.
C_Own Open_Pair(int type, int& near);

// Closes all in a range that are not the air's own.
int Close_Range(unsigned int first, unsigned int last, int flags);

// The descriptors that an epoll instance watches, as the kernel knows it: with what is left of EPOLLONESHOT.
std::vector<std::pair<int, epoll_event>> List_Watched(const std::string& instance);

// Puts the open file of `other` behind the numbers of a socket, which keep their flags and whoever watches them by
// epoll.
void Swap_In(const S_Socket& socket, int other);

// Descriptors on their way to another process.
bool Send_Fd(int through, int fd);
int Receive_Fd(int through);

bool Is_Blocking(int fd, int flags);

// ---- Bricks of this process (bricks.cpp) ----------------------------------------------------------------------------

constexpr std::size_t ADDRESS_SIZE = 17;

Clock::duration Scaled(Clock::duration real);
bool Sleep_UntilSignal(Clock::duration real);  // false, with errno, when one ended it
std::string Get_Acting();                      // the brick whose adapter the calling thread uses; "": none
std::optional<S_Adapter> Get_Adapter(const std::string& address);  // the brick, if there is one

// What a brick is besides its name: words of TAV_AIR_STATE, each of which takes something from it. Returns the first
// that is none; empty: all is well.
std::string Set_State(S_Brick& brick, const std::string& words);

// On the way between processes: name, NUL, such words, NUL, what was seen. Where there is no name it keeps the one it
// has.
std::string Describe(const S_Adapter& brick);
S_Adapter Apply(const S_Adapter& brick, const std::string& description);

// Makes this of a brick, in this process, with the lock held; and in all programs that are the brick, without.
void Change_Brick(const S_Adapter& brick);
void Change_Everywhere(const S_Adapter& brick);

// ---- Other processes (processes.cpp) --------------------------------------------------------------------------------

// Names of the air's own name space.
std::string Get_ListenName(const S_Socket& socket, const std::string& address);
int Bind_Name(int fd, const std::string& name);
int Connect_Name(int fd, const std::string& name);  // a stranger's is not there
std::set<std::string> List_Names(const std::string& start = "", bool onlyConnected = false);  // that start so
bool Is_Silent(const std::string& address);  // a program of this brick is, whose links are not given up
bool Is_Friend(int fd);                      // who is at the other end may be there
bool Is_Foreign(const std::string& name);    // another user has it
std::string Parse_Client(const sockaddr* address, socklen_t length);  // the peer that calls

// What who listens there tells about its brick, after it has obeyed an order, if there is one; without the lock.
std::optional<S_Adapter> Ask(const std::string& name, const std::string& order = "?");

// What a brick in range tells about itself; without the lock.
std::optional<S_Brick> Ask_Brick(const std::string& address);

// With the lock held.
void Wake_Thread();
void Wait_ForThread(std::unique_lock<std::mutex>& lock);  // until it has done what there is to do

// ---- Connections (connections.cpp), with the lock held --------------------------------------------------------------

std::vector<int> List_Fds(const S_Socket& socket);
int Start_Connecting(S_OpenSocket& socket, const std::string& peer, int channel);  // -1 with errno, or 0
void Fall_Silent(S_Local& local);
void Come_Back(S_Local& local);
void Abort_All(S_Local& local);  // its adapter was switched off
void Drop_Socket(int fd);
bool Is_AtEnd(int fd);
Clock::time_point Do_DueConnections(Clock::time_point now);  // for the thread; returns when the next is due

// Whom a brick has links to, and whether it called.
std::map<std::string, bool> List_Links(const std::string& address);

// The bytes of a packet.
template <typename PACKET>
std::string Bytes_Of(const PACKET& packet)
{
    return std::string(reinterpret_cast<const char*>(&packet), sizeof(packet));
}

// ---- HCI and SDP (hci.cpp, sdp.cpp) ---------------------------------------------------------------------------------

int Control_Adapter(const S_Socket& socket, unsigned long request, void* argument);  // ioctl
ssize_t Send_Command(const SocketPointer& socket, const std::string& packet);
ssize_t Send_Signal(const SocketPointer& socket, const std::string& packet);  // of L2CAP
std::string Answer_Query(const S_Brick& brick, const std::string& request);   // of SDP

// ---- Faults and trace (faults.cpp) ----------------------------------------------------------------------------------

bool Parse_Number(const std::string& text, unsigned long& number);  // at most 9 digits, or false

// Counts and traces a call, unless it is made by BlueZ's library: on a descriptor or, without one, of the brick whose
// adapter this thread uses.
S_Fault Begin(const char* call, const std::string& arguments = "", int fd = -1);

std::string Take_Faults(const std::string& rules);  // Add_Faults, with the lock held

// For calls that only may fail: true, with errno, when this one is to.
bool Fails(const char* call, const std::string& arguments = "", int fd = -1);

extern thread_local int t_Inside;  // how deep in BlueZ's library, whose calls are not the program's

// ---- Recording (recording.cpp) --------------------------------------------------------------------------------------
//
// All of it writes nothing, and keeps errno, unless it was started.

// With the lock held: from now on, appended to this file, unless another one is written already. Returns which one, or
// in its place an errno.
std::pair<std::string, int> Start_Recording(const std::string& path, const S_Brick& brick);
void Stop_Recording();

std::int64_t Get_RecordTime();  // ns since 1970; 0: nothing is recorded
std::string Explain(const std::string& call, int error);

void Record_Note(const std::string& text);
void Record_Call(const S_Socket& socket);                                        // it begins to connect
void Record_Failure(const S_Socket& socket, int error);                          // and finds nobody
void Record_Connection(S_OpenSocket& socket, std::int64_t time, int error = 0);  // or somebody, who may refuse
void Record_Transfer(int fd, bool received, std::int64_t time, std::string_view data, std::string_view comment);
void Record_End(const S_OpenSocket& socket, int error);    // as this side notices
void Record_Leave(const S_OpenSocket& socket, bool isUp);  // this side hangs up, unless the other one has
void Record_Close(const S_OpenSocket& socket, bool isUp);

// ---- Sockets of this process (sockets.cpp) --------------------------------------------------------------------------

int Fail(int error);  // always -1, with errno
std::string Get_Text(const bdaddr_t& address);
bdaddr_t Get_Binary(const std::string& address);

SocketPointer Find_Socket(int fd);  // with the lock held; null: none

// What a copy of the descriptor is, too; null: none of ours, or a vforked child's, which borrows our memory.
SocketPointer Share_Socket(int fd);

S_Socket Get_Socket(int fd);  // a copy, which may be outdated at once
int Take_Error(int fd);       // that of its connection, once

}  // namespace tav_air
