// Outgoing connections, the listening server with its accept thread, and the server's messages.
#include "bluetooth/C_TAV_Bluetooth.h"
#include "bluetooth/constants.h"
#include "bluetooth/system_calls.h"

#include <bluetooth/hci.h>
#include <bluetooth/hci_lib.h>
#include <bluetooth/rfcomm.h>
#include <cstdint>
#include <fcntl.h>
#include <optional>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace tav_c_api_impl {

using namespace bluetooth_calls;
using tav_c_api::WriteLog_Dbg;

namespace {

constexpr unsigned long ACCEPT_CYCLE_MS = 1000;
constexpr int LISTEN_BACKLOG = 1;
constexpr useconds_t POLL_PAUSE_US = 500;

// ---- Sockets --------------------------------------------------------------------------------------------------------

int Open_Socket()
{
    return socket(AF_BLUETOOTH, SOCK_STREAM, BTPROTO_RFCOMM);
}

void Shut_And_Close(int socket)
{
    shutdown(socket, SHUT_RDWR);
    close(socket);
}

void Set_NonBlocking(int socket)
{
    const int flags = fcntl(socket, F_GETFL);
    fcntl(socket, F_SETFL, flags | O_NONBLOCK);
}

// Fills a zeroed address in its place: returned by value, it could lose the zero of its padding byte.
void Fill_Address(sockaddr_rc& address, const bdaddr_t& device, unsigned char channel)
{
    address.rc_family = AF_BLUETOOTH;
    address.rc_bdaddr = device;
    address.rc_channel = channel;
}

// Asks for no authentication, encryption or secure link, so that any device may connect without pairing. The level
// decides both options; whether they were taken is not looked at.
void Set_Security(int socket)
{
    static constexpr int LINK_MODES[] = {
        0,                                                      // BT_SECURITY_SDP
        RFCOMM_LM_AUTH,                                         // BT_SECURITY_LOW
        RFCOMM_LM_AUTH | RFCOMM_LM_ENCRYPT,                     // BT_SECURITY_MEDIUM
        RFCOMM_LM_AUTH | RFCOMM_LM_ENCRYPT | RFCOMM_LM_SECURE,  // BT_SECURITY_HIGH
    };
    bt_security security{};
    security.level = BT_SECURITY_SDP;
    setsockopt(socket, SOL_BLUETOOTH, BT_SECURITY, &security, sizeof(security));
    const int linkMode = LINK_MODES[security.level];
    setsockopt(socket, SOL_RFCOMM, RFCOMM_LM, &linkMode, sizeof(linkMode));
}

// All that the accept thread does with the lists of clients, unguarded: the user program's thread walks them meanwhile.
// The record is copied, so that what they hold is written here, too.
void Append_Client(C_TAV_Bluetooth& bluetooth, int serverSocket, const S_BT_ScanDevice& client)
{
    bluetooth.m_ServerClients[serverSocket].push_back(S_BT_ScanDevice(client));
}

// ---- Server messages ------------------------------------------------------------------------------------------------

// The clients of the built-in server; null when it is closed or has none. Looked up afresh on every use, since the
// accept thread appends to the list.
const std::vector<S_BT_ScanDevice>* Get_Clients(const C_TAV_Bluetooth& bluetooth)
{
    if (bluetooth.m_ServerSocket < 0) return nullptr;
    const auto server = bluetooth.m_ServerClients.find(bluetooth.m_ServerSocket);
    return server == bluetooth.m_ServerClients.end() || server->second.empty() ? nullptr : &server->second;
}

bool Open_IfClosed(C_TAV_Bluetooth& bluetooth)
{
    return bluetooth.m_ServerSocket >= 0 || bluetooth.OpenServer_TAV();
}

// Calls `send` with the socket of every client; what becomes of the single sends is not looked at.
template <typename SEND>
bool Send_ToClients(C_TAV_Bluetooth& bluetooth, SEND send)
{
    if (!Open_IfClosed(bluetooth)) return false;
    const auto* const clients = Get_Clients(bluetooth);
    if (!clients) return false;
    const std::size_t count = clients->size();
    for (std::size_t i = 0; i < count; ++i) {
        const int socket = (*Get_Clients(bluetooth))[i].Socket;
        if (socket >= 0) send(socket);
    }
    return true;
}

bool Get_Time(timeval& time)
{
    return gettimeofday(&time, nullptr) == 0;
}

// Whole milliseconds since `start`: 32 bits, wrapping; a clock that was set back counts as no time. Nothing when the
// clock fails.
std::optional<std::uint32_t> Get_Elapsed(const timeval& start)
{
    timeval now{};
    if (!Get_Time(now)) return std::nullopt;
    const std::uint32_t seconds = static_cast<std::uint32_t>(now.tv_sec) - static_cast<std::uint32_t>(start.tv_sec);
    const auto microseconds = static_cast<std::int32_t>(now.tv_usec - start.tv_usec);
    const double elapsed = static_cast<std::int32_t>(seconds * 1000U) + microseconds / 1000.0;
    return elapsed > 0 ? static_cast<std::uint32_t>(elapsed) : 0;
}

enum class E_Poll
{
    TAKEN,        // a client's message was taken
    FAILED,       // no server, no time, or time-out
    CLOCK_FAILED  // gettimeofday failed with clients at hand
};

// Calls `read` with the sockets of the clients in turn until it returns true or more than `timeout` ms have passed.
template <typename READ>
E_Poll Poll_Clients(C_TAV_Bluetooth& bluetooth, unsigned long timeout, READ read)
{
    timeval start{};
    if (!Open_IfClosed(bluetooth) || !Get_Time(start)) return E_Poll::FAILED;
    for (;;) {
        const auto* const clients = Get_Clients(bluetooth);
        if (!clients) {
            const auto elapsed = Get_Elapsed(start);
            if (!elapsed || *elapsed > timeout) return E_Poll::FAILED;
            usleep(POLL_PAUSE_US);
            continue;
        }
        const std::size_t count = clients->size();
        for (std::size_t i = 0; i < count; ++i) {
            const auto elapsed = Get_Elapsed(start);
            if (!elapsed) return E_Poll::CLOCK_FAILED;
            if (*elapsed > timeout) return E_Poll::FAILED;
            const int socket = (*Get_Clients(bluetooth))[i].Socket;
            if (socket >= 0 && read(socket)) return E_Poll::TAKEN;
        }
    }
}

}  // namespace

// ---- Client connections ---------------------------------------------------------------------------------------------

int C_TAV_Bluetooth::Connect(const std::string& name, unsigned char channel, unsigned long timeout)
{
    int index = Get_IndexScanDevice(name);
    if (index < 0 && BT_ParseFileDevices()) index = Get_IndexScanDevice(name);
    if (index < 0) {
        if (BT_Scan() < 0) return -1;
        index = Get_IndexScanDevice(name);
    }
    return index < 0 ? -1 : Connect_Index(static_cast<unsigned int>(index), channel, timeout);
}

int C_TAV_Bluetooth::Connect_Index(unsigned int index, unsigned char channel, unsigned long timeout)
{
    constexpr const char* OPERATION = "Connect_Index";
    WriteLog_Dbg("C_TAV_Bluetooth::Connect_Index - Start");
    if (index >= m_ScanDevices.size()) return -1;
    WriteLog_Dbg("C_TAV_Bluetooth::Connect_Index - 1");
    C_Guard<close> guard(Open_Socket());
    const int socket = guard.Get();
    if (socket < 0) return Fail_Call(OPERATION, "socket");
    WriteLog_Dbg("C_TAV_Bluetooth::Connect_Index - 2");
    sockaddr_rc address{};
    Fill_Address(address, m_ScanDevices[index].Addr, channel);
    Set_NonBlocking(socket);
    WriteLog_Dbg("C_TAV_Bluetooth::Connect_Index - 3a");
    if (connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0 && errno != EINPROGRESS)
        return Fail_Call(OPERATION, "connect");
    WriteLog_Dbg("C_TAV_Bluetooth::Connect_Index - 3b");
    fd_set writable = Get_Set(socket);
    timeval time = Get_Timeval(timeout);
    WriteLog_Dbg("C_TAV_Bluetooth::Connect_Index - 4a");
    const int ready = select(socket + 1, nullptr, &writable, nullptr, &time);
    if (ready < 0) return Fail_Call(OPERATION, "select");
    if (ready == 0) {
        WriteLog_Dbg("C_TAV_Bluetooth::Connect_Index - Timeout");
        return -1;
    }
    // Writable is connected: SO_ERROR is not read, on purpose. A refusal shows at the first transfer.
    WriteLog_Dbg("C_TAV_Bluetooth::Connect_Index - 4b(%d)", ready);
    // May run out of memory, so before the record names the socket.
    const auto entry = m_ClientSockets.insert({socket, index}).first;
    m_ScanDevices[index].Socket = socket;
    m_ScanDevices[index].Port = channel;
    entry->second = index;  // in place of an earlier connection's
    return guard.Release();
}

int C_TAV_Bluetooth::isConnected(const std::string& name) const
{
    const int index = Get_IndexScanDevice(name);
    return index >= 0 && m_ScanDevices[static_cast<std::size_t>(index)].Socket >= 0 ? index : -1;
}

// The entry in m_ClientSockets stays, on purpose.
bool C_TAV_Bluetooth::Disconnect(int socket)
{
    const auto client = m_ClientSockets.find(socket);
    if (client == m_ClientSockets.end() || client->second >= m_ScanDevices.size()) return false;
    Shut_And_Close(socket);
    m_ScanDevices[client->second].Socket = -1;
    m_ScanDevices[client->second].Port = 0;
    return true;
}

// ---- Server ---------------------------------------------------------------------------------------------------------

int C_TAV_Bluetooth::OpenServer(unsigned char channel)
{
    constexpr const char* OPERATION = "OpenServer";
    WriteLog_Dbg("C_TAV_Bluetooth::OpenServer - Start(%d)", channel);
    C_Guard<close> guard(Open_Socket());
    const int socket = guard.Get();
    if (socket < 0) return Fail_Call(OPERATION, "socket");
    WriteLog_Dbg("C_TAV_Bluetooth::OpenServer - 1");
    sockaddr_rc address{};
    Fill_Address(address, bdaddr_t{}, channel);  // any local adapter
    if (bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0)
        return Fail_Call(OPERATION, "bind");
    WriteLog_Dbg("C_TAV_Bluetooth::OpenServer - 2");
    Set_Security(socket);
    Set_NonBlocking(socket);
    WriteLog_Dbg("C_TAV_Bluetooth::OpenServer - 3");
    if (listen(socket, LISTEN_BACKLOG) < 0) return Fail_Call(OPERATION, "listen");
    WriteLog_Dbg("C_TAV_Bluetooth::OpenServer - 4");
    return guard.Release();
}

bool C_TAV_Bluetooth::OpenServer_TAV()
{
    m_StopAccept = false;
    m_ServerSocket = OpenServer(bluetooth_constants::NAMED_CHANNEL);
    if (m_ServerSocket < 0) return false;
    pthread_t thread{};  // neither joined nor detached: its end is learnt from m_AcceptRunning alone
    return pthread_create(&thread, nullptr, Thread_AcceptClient, this) == 0;
}

// The flags and the socket are shared with the user program's thread as they are, unguarded.
void* C_TAV_Bluetooth::Thread_AcceptClient(void* object)
{
    auto& bluetooth = *static_cast<C_TAV_Bluetooth*>(object);
    bluetooth.m_AcceptRunning = true;
    do
        bluetooth.AcceptClient(bluetooth.m_ServerSocket, ACCEPT_CYCLE_MS);
    while (!bluetooth.m_StopAccept);
    bluetooth.m_AcceptRunning = false;
    return nullptr;
}

int C_TAV_Bluetooth::AcceptClient(int serverSocket, unsigned long timeout)
{
    constexpr const char* OPERATION = "AcceptClient";
    WriteLog_Dbg("C_TAV_Bluetooth::AcceptClient - Start(%d)", serverSocket);
    fd_set readable = Get_Set(serverSocket);
    timeval time = Get_Timeval(timeout);
    WriteLog_Dbg("C_TAV_Bluetooth::AcceptClient - 1");
    const int ready = select(serverSocket + 1, &readable, nullptr, nullptr, &time);
    if (ready < 0) return Fail_Call(OPERATION, "select");
    if (ready == 0) {
        WriteLog_Dbg("C_TAV_Bluetooth::AcceptClient - Timeout");
        return -1;
    }
    WriteLog_Dbg("C_TAV_Bluetooth::AcceptClient - 2");
    if (!FD_ISSET(serverSocket, &readable)) {
        WriteLog_Dbg("C_TAV_Bluetooth::AcceptClient - Error (Descriptor is not set)");
        return -1;
    }
    WriteLog_Dbg("C_TAV_Bluetooth::AcceptClient - 3");
    sockaddr_rc peer{};
    socklen_t peerLength = sizeof(peer);
    C_Guard<close> guard(accept(serverSocket, reinterpret_cast<sockaddr*>(&peer), &peerLength));
    const int client = guard.Get();
    if (client < 0) return Fail_Call(OPERATION, "accept");
    WriteLog_Dbg("C_TAV_Bluetooth::AcceptClient - 4");
    S_BT_ScanDevice device;
    // The descriptor is the client's socket, not an adapter's: BlueZ refuses the request there, and the name stays
    // empty. Kept as it is.
    char name[128] = {};
    if (hci_read_remote_name(client, &peer.rc_bdaddr, sizeof(name), name, 0) == 0) device.Name = Get_Text(name);
    WriteLog_Dbg("C_TAV_Bluetooth::AcceptClient - 5(Device Name : %s)", device.Name.c_str());
    char addrText[128] = {};
    ba2str(&peer.rc_bdaddr, addrText);
    device.AddrText = addrText;
    device.Addr = peer.rc_bdaddr;
    WriteLog_Dbg("C_TAV_Bluetooth::AcceptClient - 5(Addr : %s)", device.AddrText.c_str());
    device.Socket = client;
    WriteLog_Dbg("C_TAV_Bluetooth::AcceptClient - 5(Socket : %d)", device.Socket);
    device.Port = peer.rc_channel;
    WriteLog_Dbg("C_TAV_Bluetooth::AcceptClient - 5(Port : %d)", device.Port);
    Append_Client(*this, serverSocket, device);
    WriteLog_Dbg("C_TAV_Bluetooth::AcceptClient - End(Client : %d)", client);
    return guard.Release();
}

bool C_TAV_Bluetooth::CloseServer_TAV()
{
    m_StopAccept = true;
    while (m_AcceptRunning)
        usleep(POLL_PAUSE_US);
    return CloseServer(m_ServerSocket);
}

// A server that never accepted a client is not listed, and stays open on purpose.
bool C_TAV_Bluetooth::CloseServer(int& socket)
{
    const auto server = m_ServerClients.find(socket);
    if (server == m_ServerClients.end()) return false;
    CloseAllClient(socket);
    m_ServerClients.erase(server);
    if (socket >= 0) {
        Shut_And_Close(socket);
        socket = -1;
    }
    return true;
}

bool C_TAV_Bluetooth::CloseAllServer()
{
    for (const auto& server : m_ServerClients) {
        CloseAllClient(server.first);
        if (server.first >= 0) Shut_And_Close(server.first);
    }
    m_ServerClients.clear();
    return true;
}

bool C_TAV_Bluetooth::CloseAllClient(int serverSocket)
{
    WriteLog_Dbg("C_TAV_Bluetooth::CloseAllClient - Start(Server Socket : %d)", serverSocket);
    const auto server = m_ServerClients.find(serverSocket);
    if (server == m_ServerClients.end()) return false;
    if (server->second.empty()) {
        WriteLog_Dbg("C_TAV_Bluetooth::CloseAllClient - 1(Not any client)");
        return true;
    }
    for (const S_BT_ScanDevice& client : server->second) {
        if (client.Socket < 0) continue;
        WriteLog_Dbg("C_TAV_Bluetooth::CloseAllClient - 2(%d)", client.Socket);
        Shut_And_Close(client.Socket);
    }
    server->second.clear();
    WriteLog_Dbg("C_TAV_Bluetooth::CloseAllClient - End");
    return true;
}

bool C_TAV_Bluetooth::CloseClient(int socket)
{
    for (auto& server : m_ServerClients) {
        std::vector<S_BT_ScanDevice>& clients = server.second;
        for (S_BT_ScanDevice& client : clients) {
            if (client.Socket != socket) continue;
            Shut_And_Close(socket);
            client = std::move(clients.back());  // not copied, which may run out of memory
            clients.pop_back();
            return true;
        }
    }
    return false;
}

// ---- Messages of the built-in server --------------------------------------------------------------------------------

bool C_TAV_Bluetooth::Server_SendMsg_TAV_Bool(const std::string& msgId, bool value)
{
    return Send_ToClients(*this, [&](int socket) { _SendMsg_TAV_Bool(socket, msgId, value); });
}

bool C_TAV_Bluetooth::Server_SendMsg_TAV_String(const std::string& msgId, const std::string& text)
{
    return Send_ToClients(*this, [&](int socket) { _SendMsg_TAV_String(socket, msgId, text); });
}

// True also when the clock fails between clients, unlike the String operation: kept as it is.
bool C_TAV_Bluetooth::Server_ReadMsg_TAV_Bool(const std::string& name, const std::string& msgId, bool& value,
                                              unsigned long timeout)
{
    return Poll_Clients(*this, timeout, [&](int socket) { return _ReadMsg_TAV_Bool(socket, name, msgId, value, 0); }) !=
           E_Poll::FAILED;
}

int C_TAV_Bluetooth::Server_ReadMsg_TAV_String(const std::string& name, const std::string& msgId, std::string& text,
                                               unsigned int maxSize, unsigned long timeout)
{
    int length = -1;
    Poll_Clients(*this, timeout, [&](int socket) {
        length = _ReadMsg_TAV_String(socket, name, msgId, text, maxSize, 0);
        return length >= 0;
    });
    return length;
}

}  // namespace tav_c_api_impl
