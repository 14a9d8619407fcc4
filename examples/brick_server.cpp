// A brick that takes messages from another brick and sends each one back. It hangs if its client leaves before the end.
#include "api/tav_c_api.h"
#include "bluetooth/C_TAV_Bluetooth.h"
#include "host/descriptors.h"
#include "host/printable.h"

#include <csignal>
#include <iostream>

using tav_host::Printable;  // what other devices say may hold anything

static int Fail(const std::string& what)
{
    std::cerr << what << '\n';
    return 1;
}

static int Serve(tav_c_api_impl::C_TAV_Bluetooth& bluetooth, const std::string& self, const std::string& sender)
{
    int mailboxes = bluetooth.OpenServer(1);
    if (mailboxes < 0 || !bluetooth.OpenServer_TAV())
        return Fail("Cannot listen on channels 1 and 16 (TAV_LOG=- shows why)");
    std::cout << self << "  waits for " << sender << std::endl;

    bool light = false;
    if (!bluetooth.Server_ReadMsg_TAV_Bool(sender, "light", light, 60000)) return Fail("No bool came within 60 s");
    std::cout << self << "    got bool     light    = " << (light ? "true" : "false") << std::endl;
    bluetooth.Server_SendMsg_TAV_Bool("light", light);

    std::string text;
    if (bluetooth.Server_ReadMsg_TAV_String(sender, "greeting", text, 100, 10000) < 0) return Fail("No text came");
    std::cout << self << "    got text     greeting = " << Printable(text) << std::endl;
    bluetooth.Server_SendMsg_TAV_String("greeting", text);

    // Raw data has no operation of the server's own: read it from the client's socket.
    const int client = bluetooth.m_ServerClients[bluetooth.m_ServerSocket].front().Socket;
    std::string data;
    if (bluetooth._ReadMsg_TAV_Data(client, sender, "path", data, 100, 10000) < 0) return Fail("No data came");
    const auto size = static_cast<unsigned int>(data.size());
    std::cout << self << "    got data     path     = " << size << " bytes" << std::endl;
    bluetooth._SendMsg_TAV_Data(client, "path", reinterpret_cast<const unsigned char*>(data.data()), size);

    // Mailbox messages come over a connection of their own, on channel 1.
    const int mailbox = bluetooth.AcceptClient(mailboxes, 30000);
    if (mailbox < 0 || bluetooth._ReadMsg_TAVOrg_String(mailbox, sender, "inbox", text, 100, 10000) < 0)
        return Fail("No mailbox message came");
    std::cout << self << "    got mailbox  inbox    = " << Printable(text) << std::endl;
    bluetooth._SendMsg_TAVOrg_String(mailbox, "inbox", text);
    bluetooth.CloseServer(mailboxes);
    return 0;
}

int main(int argc, char** argv)
{
    if (argc != 2) return Fail("usage: brick_server NAME    (the brick that will send)");
    std::string self;
    tav_c_api_impl::Get_TAVBrickName(self);
    signal(SIGPIPE, SIG_IGN);  // a brick that hung up is a failed send, not the end of this program
    tav_host::Limit_Descriptors();
    tav_c_api_impl::C_TAV_Bluetooth bluetooth;
    const int status = Serve(bluetooth, self, argv[1]);
    bluetooth.CloseServer_TAV();  // in every case: the accept thread must end before the object does
    return status;
}
