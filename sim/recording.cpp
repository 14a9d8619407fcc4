// What a program does on the air, written as it happens, as a capture of its brick's adapter: docs/recordings.md has
// the format. Wireshark knows it as it knows those of Linux, so the frames around the program's bytes are made up here.
#include "sim/internals.h"

#include <algorithm>
#include <bitset>
#include <bluetooth/hci_lib.h>
#include <bluetooth/l2cap.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace tav_air {

namespace {

constexpr int HANDLES = 128;              // of a program
constexpr int PROGRAMS = 29;              // whose handles fit below 0xF00
constexpr std::int64_t MOMENT = 1000000;  // ns
constexpr std::uint16_t CID = 0x40;       // of each connection, on a link of its own
constexpr std::uint16_t RFCOMM_PSM = 3;
constexpr std::size_t LARGEST_FRAME = 32767;  // that RFCOMM can say
constexpr std::uint8_t SABM = 0x3F, UA = 0x73, DM = 0x1F, DISC = 0x53, UIH = 0xEF;

std::string* g_Path = nullptr;
std::atomic<int> g_File{-1};
int g_Program = 0;  // which of the brick's that are recorded now

// Guards what follows; taken while the air's is held, never before it.
std::mutex g_Mutex;
std::bitset<HANDLES> g_Handles;  // that are in use
std::int64_t g_Written = 0;      // when the last blocks were
sem_t g_IsPending;               // wakes the thread that writes them
bool g_HasThread = false;

// Blocks, to be written within a moment; never destroyed, as the air's state.
std::string& Get_Pending()
{
    static std::string& pending = *new std::string;
    return pending;
}

template <typename NUMBER>
void Add(std::string& bytes, NUMBER number)
{
    bytes.append(reinterpret_cast<const char*>(&number), sizeof(number));
}

// ---- The file -------------------------------------------------------------------------------------------------------

void Set_File(C_Own file)
{
    static C_Own& open = *new C_Own;
    open = std::move(file);
    g_File = open;
}

// With the lock held. A file that was deleted has ended: it would only fill the disk.
int Get_File()
{
    struct stat status = {};
    if (g_File >= 0 && fstat(g_File, &status) == 0 && status.st_nlink == 0) Set_File(C_Own());
    return g_File;
}

// With the lock held. What is not written whole would spoil what comes behind it.
void Flush()
{
    const std::string blocks = std::exchange(Get_Pending(), {});
    const int file = blocks.empty() ? -1 : Get_File();
    if (file < 0) return;
    g_Written = Get_RecordTime();
    if (Real().Write(file, blocks.data(), blocks.size()) == static_cast<ssize_t>(blocks.size())) return;
    fprintf(stderr, "tav-air: %s cannot be written any more\n", g_Path->c_str());
    Set_File(C_Own());
}

[[noreturn]] void Write_Pending()
{
    for (;;) {
        while (sem_wait(&g_IsPending) < 0) {
        }
        usleep(MOMENT / 1000);
        const std::lock_guard lock(g_Mutex);
        Flush();
    }
}

// With the lock held. The program's signals stay the program's, and when it has threads enough there is none.
void Start_Writer()
{
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        std::thread(Write_Pending).detach();
        g_HasThread = true;
    } catch (const std::system_error&) {
        g_HasThread = false;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// At once, unless it is a transfer that comes shortly after others: many of them are written together, since a call of
// the kernel for each would be felt.
void Write(const std::string& blocks, bool canWait = false)
{
    const int error = errno;
    const std::lock_guard lock(g_Mutex);
    const bool isFirst = Get_Pending().empty();
    Get_Pending() += blocks;
    if (!canWait || Get_RecordTime() - g_Written > MOMENT) {
        Flush();
    } else if (isFirst) {
        if (!g_HasThread) Start_Writer();
        if (!g_HasThread) Flush();
        sem_post(&g_IsPending);
    }
    errno = error;
}

void Add_Option(std::string& options, std::uint16_t code, std::string_view value)
{
    Add(options, code);
    Add(options, static_cast<std::uint16_t>(value.size()));
    options += value;
    options.append(-value.size() % 4, '\0');
}

void Add_Block(std::string& blocks, std::uint32_t type, std::string_view body, std::string_view options)
{
    const auto size = static_cast<std::uint32_t>(12 + body.size() + options.size() + 4);
    Add(blocks, type);
    Add(blocks, size);
    blocks += body;
    blocks += options;
    Add(blocks, std::uint32_t{0});  // the end of the options
    Add(blocks, size);
}

// The begin of what programs of a brick write at the same time.
void Add_Section(std::string& blocks, const std::string& brick)
{
    std::string section, interface, options;
    Add(section, std::uint32_t{0x1A2B3C4D});
    Add(section, std::uint32_t{1});  // version 1.0
    Add(section, std::int64_t{-1});  // of any length
    Add_Option(options, 4, "tav-air");
    Add_Block(blocks, 0x0A0D0D0A, section, options);
    Add(interface, std::uint32_t{201});  // Bluetooth HCI H4 with a word before it for the direction
    Add(interface, std::uint32_t{0});    // without a limit
    options.clear();
    Add_Option(options, 2, brick);
    Add_Option(options, 3, "simulated air, a frame for each call");  // what radio sends may be in other frames
    Add_Option(options, 9, "\x09");                                  // nanoseconds
    Add_Block(blocks, 1, interface, options);
}

using Pieces = std::initializer_list<std::string_view>;

// A packet in one piece after the other.
void Add_Packet(std::string& blocks, std::int64_t time, bool received, Pieces pieces, std::string_view comment = {})
{
    std::uint32_t size = 4;  // the direction, as captures of this type have it
    for (const std::string_view piece : pieces)
        size += static_cast<std::uint32_t>(piece.size());
    const std::size_t start = blocks.size();
    Add(blocks, std::uint32_t{6});
    Add(blocks, std::uint32_t{0});  // its size, when that is known
    Add(blocks, std::uint32_t{0});  // the interface
    Add(blocks, static_cast<std::uint32_t>(time >> 32));
    Add(blocks, static_cast<std::uint32_t>(time));
    Add(blocks, size);
    Add(blocks, size);
    blocks.append({0, 0, 0, static_cast<char>(received)});
    for (const std::string_view piece : pieces)
        blocks += piece;
    blocks.append(-size % 4, '\0');
    const std::uint32_t direction = received ? 1 : 2;
    Add_Option(blocks, 2, {reinterpret_cast<const char*>(&direction), sizeof(direction)});
    if (!comment.empty()) Add_Option(blocks, 1, comment);
    Add(blocks, std::uint32_t{0});  // the end of the options
    const auto total = static_cast<std::uint32_t>(blocks.size() - start + 4);
    Add(blocks, total);
    memcpy(blocks.data() + start + 4, &total, sizeof(total));
}

// One packet, of now.
void Write_Packet(bool received, const std::string& packet, const std::string& comment)
{
    if (g_File < 0) return;
    std::string blocks;
    Add_Packet(blocks, Get_RecordTime(), received, {packet}, comment);
    Write(blocks);
}

// A child writes through an open file of its own, so that it is another of the brick's programs. False, with errno,
// when there is no such file.
bool Open_File()
{
    Set_File(C_Own(open(g_Path->c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0666)));
    return g_File >= 0;
}

// Each program holds a byte of the file, which the kernel gives back at its end; while it begins, also the one behind
// those of all. Asked for, true if nobody else is known to hold one: not every file system has locks.
bool Lock_File(int command, short type, off_t start, off_t size = 1)
{
    struct flock lock = {type, SEEK_SET, start, size, 0};
    const bool isDone = Real().Fcntl(g_File, command, &lock) == 0;
    return command == F_OFD_GETLK ? !isDone || lock.l_type == F_UNLCK : isDone;
}

void Take_Number()
{
    g_Handles.reset();
    g_Program = 0;
    while (g_Program < PROGRAMS - 1 && !Lock_File(F_OFD_SETLK, F_WRLCK, g_Program))
        ++g_Program;
}

__attribute__((constructor(101))) void Watch_Forks()  // before the air does, which holds its lock while we take ours
{
    sem_init(&g_IsPending, 0, 0);
    pthread_atfork([] { g_Mutex.lock(); }, [] { g_Mutex.unlock(); },
                   [] {
                       sem_init(&g_IsPending, 0, 0);
                       g_HasThread = false;
                       Get_Pending().clear();  // the parent writes it
                       if (Get_File() >= 0 && Open_File()) Take_Number();
                       g_Mutex.unlock();
                   });
}

__attribute__((destructor)) void Finish()
{
    const std::lock_guard lock(g_Mutex);
    Flush();
}

// ---- Frames ---------------------------------------------------------------------------------------------------------

std::string Make_Event(std::uint8_t code, const std::string& parameters)
{
    return std::string{HCI_EVENT_PKT, static_cast<char>(code), static_cast<char>(parameters.size())} + parameters;
}

std::string Make_CommandComplete(std::uint16_t group, std::uint16_t command, const std::string& returned)
{
    std::string parameters(1, '\1');
    Add(parameters, cmd_opcode_pack(group, command));
    return Make_Event(EVT_CMD_COMPLETE, parameters + '\0' + returned);
}

// What stands before so many bytes on a link.
std::string Make_Acl(int handle, std::uint16_t cid, std::size_t size)
{
    std::string packet(1, HCI_ACLDATA_PKT);
    Add(packet, acl_handle_pack(static_cast<std::uint16_t>(handle), ACL_START));
    Add(packet, static_cast<std::uint16_t>(size + 4));
    Add(packet, static_cast<std::uint16_t>(size));
    Add(packet, cid);
    return packet;
}

char Get_Fcs(const std::string& bytes, std::size_t size)
{
    unsigned int sum = 0xFF;
    for (std::size_t i = 0; i < size; ++i) {
        sum ^= static_cast<unsigned char>(bytes[i]);
        for (int bit = 0; bit < 8; ++bit)
            sum = sum & 1 ? sum >> 1 ^ 0xE0 : sum >> 1;
    }
    return static_cast<char>(0xFF - sum);
}

// A frame of RFCOMM, with so many bytes of data between its head and its last byte.
struct S_Frame
{
    std::string Head;
    char Last;
};
S_Frame Make_Frame(const S_Socket& socket, std::uint8_t control, bool fromCaller, std::size_t size = 0)
{
    const bool isAnswer = control == UA || control == DM;
    std::string head;
    Add(head, static_cast<std::uint8_t>(socket.Channel << 3 | (fromCaller != isAnswer ? 2 : 0) | 1));
    Add(head, control);
    if (size < 128)
        Add(head, static_cast<std::uint8_t>(size << 1 | 1));
    else
        Add(head, static_cast<std::uint16_t>(size << 1));
    const char last = Get_Fcs(head, control == UIH ? 2 : 3);
    return {Make_Acl(socket.Handle, CID, head.size() + size + 1) + head, last};
}

std::string Make_Rfcomm(const S_Socket& socket, std::uint8_t control, bool fromCaller)
{
    const S_Frame frame = Make_Frame(socket, control, fromCaller);
    return frame.Head + frame.Last;
}

std::string Make_Signal(const S_Socket& socket, const std::string& signal)
{
    return Make_Acl(socket.Handle, 1, signal.size()) + signal;
}

std::string Make_L2capRequest(const S_Socket& socket)
{
    std::string request{L2CAP_CONN_REQ, 1, 4, 0};
    Add(request, socket.Protocol == BTPROTO_L2CAP ? static_cast<std::uint16_t>(socket.Channel) : RFCOMM_PSM);
    Add(request, CID);
    return Make_Signal(socket, request);
}

std::string Make_L2capAnswer(const S_Socket& socket, bool isRefused)
{
    std::string answer{L2CAP_CONN_RSP, 1, 8, 0};
    Add(answer, isRefused ? std::uint16_t{0} : CID);
    Add(answer, CID);
    Add(answer, isRefused ? std::uint16_t{L2CAP_CR_BAD_PSM} : std::uint16_t{0});
    Add(answer, std::uint16_t{0});
    return Make_Signal(socket, answer);
}

std::string Make_Connected(const S_Socket& socket, std::uint8_t status)
{
    const std::uint16_t handle = status ? 0 : static_cast<std::uint16_t>(socket.Handle);
    return Make_Event(EVT_CONN_COMPLETE,
                      Bytes_Of(evt_conn_complete{status, handle, Get_Binary(socket.Peer), ACL_LINK, 0}));
}

// What the side that hangs up sends.
std::string Make_Farewell(const S_OpenSocket& socket, bool received)
{
    if (socket.Protocol == BTPROTO_RFCOMM) return Make_Rfcomm(socket, DISC, (socket.Call >= 0) != received);
    std::string request{L2CAP_DISCONN_REQ, 2, 4, 0};
    Add(request, CID);
    Add(request, CID);
    return Make_Signal(socket, request);
}

std::string Make_Disconnected(const S_Socket& socket, std::uint8_t reason)
{
    return Make_Event(EVT_DISCONN_COMPLETE,
                      Bytes_Of(evt_disconn_complete{0, static_cast<std::uint16_t>(socket.Handle), reason}));
}

// ---- Words and handles ----------------------------------------------------------------------------------------------

std::string Describe_Connect(const S_Socket& socket, int error = 0)
{
    const std::string call = "connect to channel " + std::to_string(socket.Channel);
    return error ? Explain(call, error) : call;
}

int Take_Handle()
{
    static std::size_t stolen = 0;
    const std::lock_guard lock(g_Mutex);
    std::size_t free = 0;
    while (free < HANDLES && g_Handles[free])
        ++free;
    if (free == HANDLES) free = stolen++ % HANDLES;  // of a server that forks, most are of children that have ended
    g_Handles.set(free);
    return g_Program * HANDLES + static_cast<int>(free) + 1;
}

void Give_Back(int handle)
{
    const std::lock_guard lock(g_Mutex);
    const int own = handle - 1 - g_Program * HANDLES;
    if (own >= 0 && own < HANDLES) g_Handles.reset(static_cast<std::size_t>(own));
}

}  // namespace

// ---- Shared with the other sources ----------------------------------------------------------------------------------

std::string Explain(const std::string& call, int error)
{
    const char* const name = strerrorname_np(error);
    return call + ": " + (name ? name : std::to_string(error)) + ", " + strerrordesc_np(error);
}

std::int64_t Get_RecordTime()
{
    if (g_File < 0) return 0;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return std::int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

std::pair<std::string, int> Start_Recording(const std::string& path, const S_Brick& brick)
{
    std::unique_lock lock(g_Mutex);
    if (Get_File() >= 0 || path.empty()) return {g_File < 0 ? "" : *g_Path, 0};
    delete std::exchange(g_Path, new std::string(path));
    if (!Open_File()) return {path, errno};
    Lock_File(F_OFD_SETLKW, F_WRLCK, PROGRAMS);
    Take_Number();
    std::string blocks;
    // Newer Wiresharks take the interface of each section for another adapter, which knows no connections of before.
    if (Lock_File(F_OFD_GETLK, F_WRLCK, 0, PROGRAMS)) Add_Section(blocks, brick.Name);
    const std::int64_t now = Get_RecordTime();
    std::string name = brick.Name;
    name.resize(HCI_MAX_NAME_LENGTH);
    const std::string address = Bytes_Of(Get_Binary(brick.Address));
    Add_Packet(blocks, now, true, {Make_CommandComplete(OGF_INFO_PARAM, OCF_READ_BD_ADDR, address)});
    Add_Packet(blocks, now, true, {Make_CommandComplete(OGF_HOST_CTL, OCF_READ_LOCAL_NAME, name)});
    Get_Pending() = blocks;  // what is still there was for a file that was deleted
    Flush();
    if (g_File >= 0) Lock_File(F_OFD_SETLK, F_UNLCK, PROGRAMS);
    lock.unlock();
    for (const auto& [fd, socket] : State().Sockets)
        socket->Handle = 0;
    for (const auto& [fd, socket] : State().Sockets)  // as if they came about now
        if (socket->Is_Connected() && socket->Type != SOCK_RAW && socket->Handle == 0) Record_Connection(*socket, now);
    return {path, 0};
}

void Stop_Recording()
{
    const std::lock_guard lock(g_Mutex);
    Flush();
    Set_File(C_Own());
}

void Record_Note(const std::string& text)
{
    Write_Packet(true, Make_Event(EVT_VENDOR, text), text);
}

void Record_Call(const S_Socket& socket)
{
    std::string packet{HCI_COMMAND_PKT};
    Add(packet, cmd_opcode_pack(OGF_LINK_CTL, OCF_CREATE_CONN));
    Add(packet, std::uint8_t{CREATE_CONN_CP_SIZE});
    packet += Bytes_Of(create_conn_cp{Get_Binary(socket.Peer), 0xCC18, 2, 0, 0, 1});
    Write_Packet(false, packet, Describe_Connect(socket));
}

void Record_Failure(const S_Socket& socket, int error)
{
    const std::uint8_t status = error == EHOSTDOWN ? HCI_PAGE_TIMEOUT
                                : error == EMLINK  ? HCI_MAX_NUMBER_OF_CONNECTIONS
                                                   : HCI_UNSPECIFIED_ERROR;
    Write_Packet(true, Make_Connected(socket, status), Describe_Connect(socket, error));
}

void Record_Connection(S_OpenSocket& socket, std::int64_t time, int error)
{
    if (g_File < 0 || time == 0) return;
    const bool isAccepted = socket.Call < 0 && error == 0;
    socket.Handle = Take_Handle();
    std::string blocks;
    const bool isL2cap = socket.Protocol == BTPROTO_L2CAP;
    const std::string why = error ? Describe_Connect(socket, error) : "";
    Add_Packet(blocks, time, true, {Make_Connected(socket, 0)});
    Add_Packet(blocks, time, isAccepted, {Make_L2capRequest(socket)});
    Add_Packet(blocks, time, !isAccepted, {Make_L2capAnswer(socket, isL2cap && error)}, isL2cap ? why : "");
    if (!isL2cap) {
        Add_Packet(blocks, time, isAccepted, {Make_Rfcomm(socket, SABM, true)});
        Add_Packet(blocks, time, !isAccepted, {Make_Rfcomm(socket, error ? DM : UA, false)}, why);
    }
    Write(blocks);
}

void Record_Transfer(int fd, bool received, std::int64_t time, std::string_view data, std::string_view comment)
{
    std::string blocks;
    const std::lock_guard lock(State().Mutex);
    const SocketPointer socket = Find_Socket(fd);
    if (g_File < 0 || !socket || (socket->Protocol == BTPROTO_HCI ? data.empty() : socket->Handle == 0)) return;
    blocks.reserve(data.size() + 128);
    do {
        const std::string_view part = data.substr(0, LARGEST_FRAME);
        data.remove_prefix(part.size());
        if (socket->Protocol == BTPROTO_HCI) {
            Add_Packet(blocks, time, received, {part}, comment);
        } else if (socket->Protocol == BTPROTO_L2CAP) {
            Add_Packet(blocks, time, received, {Make_Acl(socket->Handle, CID, part.size()), part}, comment);
        } else {
            const S_Frame frame = Make_Frame(*socket, UIH, (socket->Call >= 0) != received, part.size());
            Add_Packet(blocks, time, received, {frame.Head, part, {&frame.Last, 1}}, comment);
        }
    } while (!data.empty());
    Write(blocks, true);  // with the lock held, so that it comes before what ends the connection, or the recording
}

void Record_End(const S_OpenSocket& socket, int error)
{
    if (socket.Handle == 0) return;
    const bool received = error != 0;
    const bool isLost = received && error != ECONNRESET;
    const std::uint8_t reason = error == ETIMEDOUT ? HCI_CONNECTION_TIMEOUT : HCI_CONNECTION_TERMINATED;
    Write_Packet(received, isLost ? Make_Disconnected(socket, reason) : Make_Farewell(socket, received),
                 error ? Explain("end", error) : "");
}

void Record_Leave(const S_OpenSocket& socket, bool isUp)
{
    if (socket.Is_Connected() && !socket.Shut) Record_End(socket, isUp ? 0 : ECONNRESET);
}

void Record_Close(const S_OpenSocket& socket, bool isUp)
{
    if (socket.Handle == 0 || socket.Forked) return;  // a child's goes on
    Record_Leave(socket, isUp);
    Write_Packet(true, Make_Disconnected(socket, HCI_CONNECTION_TERMINATED), "close");
    Give_Back(socket.Handle);
}

}  // namespace tav_air
