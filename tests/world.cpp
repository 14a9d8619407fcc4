#include "tests/world.h"

#include "api/tav_c_api.h"

#include <bluetooth/hci.h>
#include <bluetooth/hci_lib.h>
#include <bluetooth/rfcomm.h>
#include <bluetooth/sdp_lib.h>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <sys/time.h>

namespace world {

S_World* g_World = nullptr;
bool g_IsInside = false;

S_World::~S_World()
{
    for (FILE* const stream : Streams)
        fclose(stream);
}

std::string Text(int number)
{
    return std::to_string(number);
}

// Devices as "name:socket/channel", then "socket>index" of what was connected, "server[clients]", and the rest.
std::string Get_State(const Bt& bt)
{
    std::string state = "{";
    for (const auto& device : bt.m_ScanDevices)
        state += " " + device.Name.substr(0, 4) + ":" + Text(device.Socket) + "/" + Text(device.Port);
    for (const auto& [socket, index] : bt.m_ClientSockets)
        state += " " + Text(socket) + ">" + Text(static_cast<int>(index));
    for (const auto& [server, clients] : bt.m_ServerClients) {
        state += " " + Text(server) + "[ ";
        for (const auto& client : clients)
            state += Text(client.Socket) + " ";
        state += "]";
    }
    if (!bt.m_Services.empty()) state += " services";
    if (bt.m_ServerSocket != -1) state += " on " + Text(bt.m_ServerSocket);
    return state + (bt.m_AcceptRunning ? " runs" : "") + (bt.m_StopAccept ? " stop" : "") + " }; ";
}

void Trace(const std::string& event)
{
    if (!g_World->Object) return;
    const std::string state = Get_State(*g_World->Object);
    if (state != g_World->State) g_World->Trace += state;
    g_World->State = state;
    g_World->Trace += event + "; ";
}

bool Is_Due(bool isAllocation)
{
    const S_Fault& fault = g_World->Fault;
    if (fault.At == 0 || fault.IsAllocation != isAllocation) return false;
    ++g_World->Count;
    return fault.OnAndOn ? g_World->Count >= fault.At : g_World->Count == fault.At;
}

namespace {

// Counts a call; true, with errno, when it is to fail.
bool Is_Failing(const char* call)
{
    if (!Is_Due(false)) return false;
    if (g_World->Failed.empty()) {
        const std::string name = std::string(call) + "(";
        g_World->Failed = call;
        g_World->IsFirst = g_World->Trace.find(name) == g_World->Trace.rfind(name);
    }
    errno = g_World->Fault.Error;
    return true;
}

// The same, and writes it down. The result of the call: -1 when it fails.
int Answer(const char* call, const char* arguments = "", int result = 0)
{
    const S_Outside outside;
    Trace(std::string(call) + "(" + arguments + ")");
    return Is_Failing(call) ? -1 : result;
}

int Answer(const char* call, int argument, int result = 0)
{
    const S_Outside outside;
    return Answer(call, Text(argument).c_str(), result);
}

// The lowest free number, as Linux has it, unless the call failed.
int Open(int result)
{
    const S_Outside outside;
    int descriptor = 10;
    while (g_World->Open.count(descriptor) > 0)
        ++descriptor;
    if (result >= 0) g_World->Open.insert(descriptor);
    return result < 0 ? -1 : descriptor;
}

// A close that fails has closed, too.
int Close(const char* call, int descriptor)
{
    const S_Outside outside;
    if (g_World->Open.erase(descriptor) == 0) g_World->Broken = std::string(call) + " of what is not open";
    return Answer(call, descriptor);
}

// "06:05:04:03:02:01 16", and what else is in the address
std::string Get_Text(const sockaddr* address, socklen_t length)
{
    sockaddr_rc plain{};
    memcpy(&plain, address, std::min<std::size_t>(length, sizeof(plain)));
    char text[18];
    ba2str(&plain.rc_bdaddr, text);
    return text + (" " + Text(plain.rc_channel)) + (plain.rc_family == AF_BLUETOOTH && length == 10 ? "" : " odd");
}

}  // namespace
}  // namespace world

using namespace world;

// ---- What the module calls ------------------------------------------------------------------------------------------

extern "C" {

int __real_open(const char* path, int flags, int mode);
int __real_close(int file);
int __real_fcntl(int file, int command, long argument);
ssize_t __real_write(int file, const void* bytes, std::size_t size);
FILE* __real_fopen(const char* path, const char* mode);
std::size_t __real_fread(void* to, std::size_t size, std::size_t count, FILE* file);
int __real_select(int count, fd_set* readable, fd_set* writable, fd_set* odd, timeval* time);
ssize_t __real_recv(int socket, void* buffer, std::size_t size, int flags);
int __real_gettimeofday(timeval* time, void* zone);
int __real_usleep(useconds_t time);
int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

int __wrap_socket(int domain, int type, int protocol)
{
    const S_Outside outside;
    return Open(Answer("socket", (Text(domain) + " " + Text(type) + " " + Text(protocol)).c_str()));
}

int __wrap_bind(int, const sockaddr* address, socklen_t length)
{
    const S_Outside outside;
    return Answer("bind", Get_Text(address, length).c_str());
}

int __wrap_listen(int, int backlog)
{
    return Answer("listen", backlog);
}

int __wrap_accept(int, sockaddr* address, socklen_t* length)
{
    const sockaddr_rc peer = {AF_BLUETOOTH, {{1, 2, 3, 4, 5, 6}}, 16};
    memcpy(address, &peer, *length);
    return Open(Answer("accept"));
}

int __wrap_connect(int, const sockaddr* address, socklen_t length)
{
    const S_Outside outside;
    const std::string peer = Get_Text(address, length);
    if (Answer("connect", peer.c_str()) < 0) return -1;
    errno = EINPROGRESS;
    return peer.rfind(" 30") == peer.size() - 3 ? 0 : -1;  // on this channel it is connected at once
}

int __wrap_select(int count, fd_set* readable, fd_set* writable, fd_set* odd, timeval* time)
{
    if (g_World->Wire >= 0) return __real_select(count, readable, writable, odd, time);
    char arguments[64];
    snprintf(arguments, sizeof(arguments), time ? "%s %ld.%06ld" : "%s", readable ? "read" : "write",
             static_cast<long>(time ? time->tv_sec : 0), static_cast<long>(time ? time->tv_usec : 0));
    return Answer("select", arguments, 1);
}

int __wrap_setsockopt(int, int level, int option, const void* value, socklen_t length)
{
    const S_Outside outside;
    std::string arguments = Text(level) + " " + Text(option);
    for (socklen_t i = 0; i < length; ++i)
        arguments += " " + Text(static_cast<const unsigned char*>(value)[i]);
    return Answer("setsockopt", arguments.c_str());
}

// Of the module, the third argument is flags; of what counts its coverage, a pointer.
int __wrap_fcntl(int file, int command, long argument)
{
    constexpr long WANTED = O_RDWR | O_NONBLOCK;
    if (!g_IsInside) return __real_fcntl(file, command, argument);
    if (command == F_GETFL) return Answer("fcntl", "get", O_RDWR);
    return Answer("fcntl", (argument & WANTED) == WANTED ? "set" : "odd");
}

ssize_t __wrap_recv(int, void* buffer, std::size_t size, int flags)
{
    if (g_World->Wire >= 0) return __real_recv(g_World->Wire, buffer, size, flags);
    const int result = Answer("recv", static_cast<int>(size));
    return result < 0 ? -1 : static_cast<ssize_t>(g_World->Incoming.copy(static_cast<char*>(buffer), size));
}

ssize_t __wrap_send(int socket, const void*, std::size_t size, int)
{
    return Answer("send", socket, static_cast<int>(size));
}

int __wrap_shutdown(int socket, int)
{
    return Answer("shutdown", socket);
}

int __wrap_close(int descriptor)
{
    return g_IsInside ? Close("close", descriptor) : __real_close(descriptor);
}

int __wrap_open(const char* path, int flags, int mode)
{
    return g_IsInside ? Open(Answer("open", path)) : __real_open(path, flags, mode);
}

ssize_t __wrap_write(int file, const void* bytes, std::size_t size)
{
    const int count = static_cast<int>(size);
    return g_IsInside ? Answer("write", count, count) : __real_write(file, bytes, size);
}

FILE* __wrap_fopen(const char* path, const char* mode)
{
    if (!g_IsInside) return __real_fopen(path, mode);
    const S_Outside outside;
    if (Answer("fopen", path) < 0) return nullptr;
    return g_World->Streams.emplace_back(fmemopen(g_World->File.data(), g_World->File.size(), "r"));
}

std::size_t __wrap_fread(void* to, std::size_t size, std::size_t count, FILE* file)
{
    return g_IsInside && Is_Failing("fread") ? 0 : __real_fread(to, size, count, file);
}

int __wrap_gettimeofday(timeval* time, void* zone)
{
    if (!g_IsInside) return __real_gettimeofday(time, zone);
    if (Answer("gettimeofday") < 0) return -1;
    std::vector<double>& clock = g_World->Clock;
    const auto seconds = static_cast<time_t>(clock[0]);
    *time = {seconds, static_cast<suseconds_t>((clock[0] - static_cast<double>(seconds)) * 1e6)};
    if (clock.size() > 1) clock.erase(clock.begin());
    return 0;
}

// The accept thread ends meanwhile.
int __wrap_usleep(useconds_t time)
{
    if (!g_IsInside) return __real_usleep(time);
    const S_Outside outside;
    Trace("usleep()");
    const_cast<Bt*>(g_World->Object)->m_AcceptRunning = false;
    return 0;
}

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*), void* argument)
{
    return g_IsInside ? Answer("pthread_create") : __real_pthread_create(thread, attributes, entry, argument);
}

int __wrap_hci_get_route(bdaddr_t*)
{
    return Answer("hci_get_route");
}

int __wrap_hci_open_dev(int adapter)
{
    return Open(Answer("hci_open_dev", adapter));
}

int __wrap_hci_close_dev(int device)
{
    return Close("hci_close_dev", device);
}

int __wrap_hci_inquiry(int, int, int, const std::uint8_t*, inquiry_info** responses, long)
{
    g_World->Responses = *responses;
    (*responses)[0].bdaddr = {{1}};
    (*responses)[1].bdaddr = {{2}};
    return Answer("hci_inquiry", "", 2);
}

// The name fills the buffer: no NUL ends it.
int __wrap_hci_read_remote_name(int device, const bdaddr_t*, int size, char* name, int)
{
    const S_Outside outside;
    memset(name, 'n', static_cast<std::size_t>(size));
    return Answer("hci_read_remote_name", (Text(device) + " " + Text(size)).c_str());
}

sdp_session_t* __wrap_sdp_connect(const bdaddr_t*, const bdaddr_t*, std::uint32_t)
{
    const int descriptor = Open(Answer("sdp_connect"));
    if (descriptor < 0) return nullptr;
    auto* const session = static_cast<sdp_session_t*>(calloc(1, sizeof(sdp_session_t)));
    session->sock = descriptor;
    return session;
}

int __wrap_sdp_service_search_attr_req(sdp_session_t* session, const sdp_list_t*, sdp_attrreq_type_t, const sdp_list_t*,
                                       sdp_list_t** responses)
{
    if (Answer("sdp_service_search_attr_req") < 0) return -1;
    const S_Outside outside;
    g_World->Allowed.insert(session->sock);
    for (const std::string& record : g_World->Records) {
        int size = 0;
        *responses = sdp_list_append(*responses, sdp_extract_pdu(reinterpret_cast<const std::uint8_t*>(record.data()),
                                                                 static_cast<int>(record.size()), &size));
    }
    return 0;
}

int __wrap_sdp_close(sdp_session_t* session)
{
    const int result = Close("sdp_close", session->sock);
    free(session);
    return result;
}

}  // extern "C"

// ---- What the module requires ---------------------------------------------------------------------------------------

bool tav_c_api::g_isLog_Quorvant_TAV = false;

void tav_c_api::WriteLog_Dbg(const char* format, ...)
{
    const S_Outside outside;
    char line[2000];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof(line), format, arguments);
    va_end(arguments);
    const char* const step = strstr(line, " - ");
    Trace(step ? step + 3 : line);
    if (g_World->OnLog) g_World->OnLog(step ? step + 3 : line);
}

bool tav_c_api_impl::Get_TAVBrickName(std::string& name)
{
    const S_Outside outside;
    name = "A brick of a long name";
    return Answer("Get_TAVBrickName") == 0;
}

bool tav_c_api_impl::DeleteFile(const std::string& path)
{
    return Answer("DeleteFile", path.c_str()) == 0;
}
