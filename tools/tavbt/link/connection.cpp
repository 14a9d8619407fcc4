#include "tools/tavbt/link/connection.h"

#include "bluetooth/constants.h"
#include "tools/tavbt/base/signals.h"
#include "tools/tavbt/base/terminal.h"
#include "tools/tavbt/link/adapter.h"
#include "tools/tavbt/link/reasons.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace tavbt {

namespace {

constexpr int ACCEPT_PAUSE_MS = 1000;

}  // namespace

// ---- Outgoing -------------------------------------------------------------------------------------------------------

C_Connection::C_Connection(C_TAV_Bluetooth& bluetooth, const std::string& name, const std::string& address,
                           unsigned char channel)
    : m_Bluetooth(bluetooth)
{
    const unsigned int index = Find_Brick(bluetooth, name, address);
    Take_Reason();
    m_Socket = bluetooth.Connect_Index(index, channel, tav_c_api_impl::bluetooth_constants::CONNECT_TIMEOUT_MS);
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
    Read_List(bluetooth);  // once: it costs a descriptor
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

std::vector<S_Event> C_Server::Wait(int timeout, int input)
{
    const std::vector<S_BT_ScanDevice> clients = Get_Clients();
    std::vector<pollfd> sockets = {{Get_StopPipe(), POLLIN, 0}, {m_Socket, POLLIN, 0}, {input, POLLIN, 0}};
    for (const S_BT_ScanDevice& client : clients)
        sockets.push_back({client.Socket, POLLIN, 0});
    std::vector<S_Event> events;
    if (poll(sockets.data(), sockets.size(), timeout) <= 0 || Is_Stopped()) return events;
    for (std::size_t i = 0; i < clients.size(); ++i) {
        const short happened = sockets[i + 3].revents;
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

}  // namespace tavbt
