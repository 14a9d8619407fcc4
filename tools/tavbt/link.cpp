#include "tools/tavbt/link.h"

#include "api/tav_c_api.h"
#include "tools/tavbt/reasons.h"
#include "tools/tavbt/terminal.h"
#include "tools/tavbt/verbs.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <strings.h>
#include <unistd.h>

namespace tavbt {

namespace {

constexpr double SCAN_SECONDS = 10.24;
constexpr unsigned long CONNECT_TIMEOUT_MS = 20000;  // as the module's own
constexpr int ACCEPT_PAUSE_MS = 1000;
constexpr const char* LIST_FOLDERS[] = {"../prjs/SD_Card", "../prjs"};

// A brick whose name differs in capitals only, as a hint; empty: none.
std::string Get_Similar(const C_TAV_Bluetooth& bluetooth, const std::string& name)
{
    for (const S_BT_ScanDevice& device : bluetooth.m_ScanDevices)
        if (strcasecmp(device.Name.c_str(), name.c_str()) == 0) return device.Name;
    return "";
}

}  // namespace

C_Deadline::C_Deadline(double seconds)
    : m_Endless(!(seconds > 0)),  // also for what is no number
      m_End(std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                                   std::chrono::duration<double>(m_Endless ? 0 : seconds)))
{
}

int C_Deadline::Get_Left() const
{
    constexpr int ENDLESS_STEP_MS = 3600000;
    if (m_Endless) return ENDLESS_STEP_MS;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_End - std::chrono::steady_clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, ENDLESS_STEP_MS));
}

std::string Get_ListFolder()
{
    for (const char* const folder : LIST_FOLDERS)
        if (std::filesystem::is_directory(folder)) return folder;
    return "";
}

std::string Get_ListFile()
{
    for (const char* const folder : LIST_FOLDERS) {
        std::string file = std::string(folder) + "/__BTScan__";
        if (access(file.c_str(), R_OK) == 0) return file;
    }
    return "";
}

std::size_t Find_ListDamage(const std::string& path)
{
    const std::string file = Read_File(path);
    std::size_t at = 0;
    while (at < file.size()) {
        const std::size_t name = file.find('\0', at);
        if (name == std::string::npos || name + 1 >= file.size() || file[name + 1] != '\x1C') return at;
        const std::size_t address = file.find('\0', name + 2);
        if (address == std::string::npos || address + 1 >= file.size() || file[address + 1] != '\x1A') return at;
        at = address + 2;
    }
    return std::string::npos;
}

void Scan(C_TAV_Bluetooth& bluetooth)
{
    Take_Reason();
    int count = 0;
    {
        const C_Progress progress("Looking around", SCAN_SECONDS);
        count = bluetooth.BT_Scan();
    }
    if (count < 0) throw Explain(Take_Reason(), "", 0);
    Stop_If_Asked();
}

unsigned int Find_Brick(C_TAV_Bluetooth& bluetooth, const std::string& name, const std::string& address)
{
    if (!address.empty()) return static_cast<unsigned int>(bluetooth.Add_BT_Device(name, address, -1, 0));
    if (!Get_ListFile().empty()) bluetooth.BT_ParseFileDevices();
    std::string own;
    if (bluetooth.Get_IndexScanDevice(name) < 0 && tav_c_api_impl::Get_TAVBrickName(own) && own == name)
        throw S_Failure{NOT_FOUND, Quoted(name) + " is this brick itself"};
    if (bluetooth.Get_IndexScanDevice(name) < 0) Scan(bluetooth);
    const int index = bluetooth.Get_IndexScanDevice(name);
    if (index >= 0) return static_cast<unsigned int>(index);
    const std::string similar = Get_Similar(bluetooth, name);
    if (!similar.empty())
        throw S_Failure{NOT_FOUND, "there is no " + Quoted(name) + ", but there is " + Quoted(similar),
                        "names are compared exactly, capitals and all"};
    throw S_Failure{NOT_FOUND, Quoted(name) + " was not found",
                    "is it switched on, in range and discoverable? tavbt scan shows who is, tavbt doctor looks at this "
                    "brick's own adapter"};
}

// ---- Outgoing -------------------------------------------------------------------------------------------------------

C_Connection::C_Connection(C_TAV_Bluetooth& bluetooth, const std::string& name, const std::string& address,
                           unsigned char channel)
    : m_Bluetooth(bluetooth)
{
    const unsigned int index = Find_Brick(bluetooth, name, address);
    Take_Reason();
    m_Socket = bluetooth.Connect_Index(index, channel, CONNECT_TIMEOUT_MS);
    if (m_Socket < 0) throw Explain(Take_Reason(), name, channel);
}

C_Connection::~C_Connection()
{
    m_Bluetooth.Disconnect(m_Socket);
}

// ---- Server ---------------------------------------------------------------------------------------------------------

C_Server::C_Server(C_TAV_Bluetooth& bluetooth, unsigned char channel) : m_Bluetooth(bluetooth)
{
    Take_Reason();
    m_Socket = bluetooth.OpenServer(channel);
    if (m_Socket < 0) throw Explain(Take_Reason(), "", channel);
    if (!Get_ListFile().empty()) bluetooth.BT_ParseFileDevices();  // once: it costs a descriptor
    if (!Has_Adapter()) Note("no Bluetooth adapter is switched on, so nobody can connect: tavbt doctor");
}

C_Server::~C_Server()
{
    // The module leaves a server open that never had a client.
    if (!m_Bluetooth.CloseServer(m_Socket)) close(m_Socket);
}

std::vector<S_BT_ScanDevice> C_Server::Get_Clients() const
{
    const auto found = m_Bluetooth.m_ServerClients.find(m_Socket);
    return found == m_Bluetooth.m_ServerClients.end() ? std::vector<S_BT_ScanDevice>{} : found->second;
}

void C_Server::Drop(const S_BT_ScanDevice& client)
{
    m_Bluetooth.CloseClient(client.Socket);
}

std::vector<S_Event> C_Server::Wait(int timeout)
{
    const std::vector<S_BT_ScanDevice> clients = Get_Clients();
    std::vector<pollfd> sockets = {{Get_StopPipe(), POLLIN, 0}, {m_Socket, POLLIN, 0}};
    for (const S_BT_ScanDevice& client : clients)
        sockets.push_back({client.Socket, POLLIN, 0});
    std::vector<S_Event> events;
    if (poll(sockets.data(), sockets.size(), timeout) <= 0 || Is_Stopped()) return events;
    for (std::size_t i = 0; i < clients.size(); ++i) {
        const short happened = sockets[i + 2].revents;
        if (happened != 0) events.push_back({(happened & POLLIN) ? E_Event::DATA : E_Event::GONE, clients[i]});
    }
    if (sockets[1].revents == 0) return events;
    Take_Reason();
    const int client = m_Bluetooth.AcceptClient(m_Socket, 0);
    if (client >= 0) {
        fcntl(client, F_SETFL, fcntl(client, F_GETFL) | O_NONBLOCK);
        events.push_back({E_Event::CAME, m_Bluetooth.m_ServerClients[m_Socket].back()});
    } else {
        Note("a client could not be accepted: " + Explain(Take_Reason(), "", 0).What);
        poll(sockets.data(), 1, ACCEPT_PAUSE_MS);  // it may wait still, and fail again
    }
    return events;
}

bool Takes_Data(int socket)
{
    pollfd writable = {socket, POLLOUT, 0};
    return poll(&writable, 1, 0) == 1;
}

std::string Get_NameOf(const C_TAV_Bluetooth& bluetooth, const S_BT_ScanDevice& client)
{
    for (const S_BT_ScanDevice& device : bluetooth.m_ScanDevices)
        if (device.AddrText == client.AddrText) return Printable(device.Name);
    return client.AddrText;
}

}  // namespace tavbt
