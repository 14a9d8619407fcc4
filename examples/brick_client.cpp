// A brick that looks for another brick, sends it messages and checks that each comes back unchanged.
#include "api/tav_c_api.h"
#include "bluetooth/C_TAV_Bluetooth.h"
#include "host/printable.h"

#include <csignal>
#include <future>
#include <iostream>
#include <thread>

using tav_host::Printable;  // what other devices say may hold anything

static int Fail(const std::string& what)
{
    std::cerr << what << '\n';
    return 1;
}

int main(int argc, char** argv)
{
    if (argc != 2) return Fail("usage: brick_client NAME    (the brick that runs brick_server)");
    const std::string other = argv[1];
    std::string self;
    tav_c_api_impl::Get_TAVBrickName(self);
    signal(SIGPIPE, SIG_IGN);
    tav_c_api_impl::C_TAV_Bluetooth bluetooth;
    std::cout << self << "  looks around " << std::flush;  // for the whole inquiry
    auto scan = std::async(std::launch::async, [&] { return bluetooth.BT_Scan(); });
    while (scan.wait_for(std::chrono::milliseconds(500)) != std::future_status::ready)
        std::cout << "." << std::flush;
    std::cout << std::endl;
    if (scan.get() < 0) return Fail("There is no Bluetooth adapter that works (TAV_LOG=- shows why)");
    for (const auto& device : bluetooth.m_ScanDevices)
        std::cout << self << "    sees " << Printable(device.Name) << " at " << device.AddrText << std::endl;
    if (bluetooth.Get_IndexScanDevice(other) < 0) return Fail(other + " was not found");
    const auto index = static_cast<std::size_t>(bluetooth.Get_IndexScanDevice(other));

    std::cout << self << "    services of " << other << ": " << bluetooth.Get_BT_Services_Count(other) << std::endl;
    for (const auto& service : bluetooth.m_Services)
        std::cout << self << "      channel " << service.PortRFCOMM << "  " << Printable(service.Name) << std::endl;

    bool allUnchanged = true;
    const auto check = [&](const char* what, bool unchanged) {
        std::cout << self << "    " << what << (unchanged ? "came back unchanged" : "DID NOT COME BACK") << std::endl;
        allUnchanged = allUnchanged && unchanged;
    };
    bool light = false;
    bool sent = bluetooth.SendMsg_TAV_Bool(other, "light", true);  // connects
    check("bool     light    ", sent && bluetooth.ReadMsg_TAV_Bool(other, "light", light, 10000) && light);

    std::string text;
    sent = bluetooth.SendMsg_TAV_String(other, "greeting", "Hello, " + other + "!");
    bluetooth.ReadMsg_TAV_String(other, "greeting", text, 100, 10000);
    check("text     greeting ", sent && text == "Hello, " + other + "!");

    const unsigned char path[] = {0x00, 0x10, 0x7F, 0x80, 0xFF, 0x00};
    sent = bluetooth.SendMsg_TAV_Data(other, "path", path, sizeof(path));
    bluetooth.ReadMsg_TAV_Data(other, "path", text, 100, 10000);
    check("data     path     ", sent && text == std::string(std::begin(path), std::end(path)));

    bluetooth.Disconnect(bluetooth.m_ScanDevices[index].Socket);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));   // connecting again at once is refused
    sent = bluetooth.SendMsg_TAVOrg_String(other, "inbox", "Hi");  // on channel 1
    bluetooth.ReadMsg_TAVOrg_String(other, "inbox", text, 100, 10000);
    check("mailbox  inbox    ", sent && text == "Hi");
    bluetooth.Disconnect(bluetooth.m_ScanDevices[index].Socket);
    return allUnchanged ? 0 : 1;
}
