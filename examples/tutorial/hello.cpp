#include "bluetooth/C_TAV_Bluetooth.h"
#include "host/printable.h"
#include <csignal>
#include <iostream>

using tav_host::Printable;  // what other devices say may hold anything

static int Fail(const char* what)
{
    std::cerr << what << '\n';
    return 1;
}

int main()
{
    signal(SIGPIPE, SIG_IGN);
    tav_c_api_impl::C_TAV_Bluetooth bluetooth;
    if (bluetooth.BT_Scan() < 0) return Fail("There is no Bluetooth adapter that works");
    for (const auto& device : bluetooth.m_ScanDevices)
        std::cout << device.AddrText << "  " << Printable(device.Name) << '\n';
    if (!bluetooth.SendMsg_TAV_String("Robot2", "greeting", "Hello!"))  // connects it if need be
        return Fail("Robot2 cannot be reached");
    std::string answer;
    if (bluetooth.ReadMsg_TAV_String("Robot2", "greeting", answer, 100, 5000) < 0)
        return Fail("Robot2 does not answer");
    std::cout << "Robot2 says " << Printable(answer) << '\n';
    const auto index = static_cast<std::size_t>(bluetooth.isConnected("Robot2"));
    bluetooth.Disconnect(bluetooth.m_ScanDevices[index].Socket);
}
