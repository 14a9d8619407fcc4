// A server that outlives its clients: it sends back every text that a brick of its device list sends under the id
// "say", while bricks come, leave, crash or go out of range.
#include "api/tav_c_api.h"
#include "bluetooth/C_TAV_Bluetooth.h"
#include "host/descriptors.h"
#include "host/printable.h"

#include <csignal>
#include <fcntl.h>
#include <iostream>
#include <poll.h>

using tav_c_api_impl::C_TAV_Bluetooth;
using tav_c_api_impl::S_BT_ScanDevice;
using tav_host::Printable;  // what other devices say may hold anything

// The name that a client was listed under; messages are read by name, and an accepted socket tells only the address.
static std::string Get_Name(const C_TAV_Bluetooth& bluetooth, const S_BT_ScanDevice& client)
{
    for (const S_BT_ScanDevice& device : bluetooth.m_ScanDevices)
        if (device.AddrText == client.AddrText) return device.Name;
    return "";
}

// Whether a short message can be sent without waiting. A client that never reads must not hold up the others.
static bool Takes_Data(int socket)
{
    pollfd writable = {socket, POLLOUT, 0};
    return poll(&writable, 1, 0) == 1;
}

// One message, if there is one, and its echo. False when the client is to be closed.
static bool Serve(C_TAV_Bluetooth& bluetooth, const S_BT_ScanDevice& client, short events)
{
    const std::string name = Get_Name(bluetooth, client);
    std::string text;
    // The time-out is 0, and the socket does not block: whatever the client did, this returns at once.
    if ((events & POLLIN) && bluetooth._ReadMsg_TAV_String(client.Socket, name, "say", text, 100, 0) >= 0) {
        std::cout << Printable(name) << " says " << Printable(text) << std::endl;
        return Takes_Data(client.Socket) && bluetooth._SendMsg_TAV_String(client.Socket, "say", text);
    }
    return !(events & (POLLHUP | POLLERR));
}

static int Fail(const std::string& what)
{
    std::cerr << what << '\n';
    return 1;
}

int main()
{
    signal(SIGPIPE, SIG_IGN);
    tav_host::Limit_Descriptors();
    C_TAV_Bluetooth bluetooth;
    if (!bluetooth.BT_ParseFileDevices() && bluetooth.BT_Scan() < 0)
        return Fail("There is no Bluetooth adapter that works (TAV_LOG=- shows why)");
    const int server = bluetooth.OpenServer(16);
    if (server < 0) return Fail("Cannot listen on channel 16 (TAV_LOG=- shows why)");
    std::cout << "serving" << std::endl;
    for (;;) {
        // No reference into m_ServerClients outlives a change of it: the loop goes over a copy.
        const std::vector<S_BT_ScanDevice> clients = bluetooth.m_ServerClients[server];
        std::vector<pollfd> sockets = {{server, POLLIN, 0}};
        for (const S_BT_ScanDevice& client : clients)
            sockets.push_back({client.Socket, POLLIN, 0});
        poll(sockets.data(), sockets.size(), -1);
        for (std::size_t i = 0; i < clients.size(); ++i)
            if (sockets[i + 1].revents != 0 && !Serve(bluetooth, clients[i], sockets[i + 1].revents)) {
                bluetooth.CloseClient(clients[i].Socket);
                std::cout << Printable(Get_Name(bluetooth, clients[i])) << " is gone" << std::endl;
            }
        const int client = sockets[0].revents ? bluetooth.AcceptClient(server, 0) : -1;
        if (client >= 0) fcntl(client, F_SETFL, fcntl(client, F_GETFL) | O_NONBLOCK);
    }
}
