#include "bluetooth/C_TAV_Bluetooth.h"
#include "host/descriptors.h"
#include "host/printable.h"
#include <csignal>
#include <iostream>

static int Fail(const char* what)
{
    std::cerr << what << '\n';
    return 1;
}

int main()
{
    signal(SIGPIPE, SIG_IGN);
    tav_host::Limit_Descriptors();  // to those that the module can take: each client costs one
    tav_c_api_impl::C_TAV_Bluetooth bluetooth;
    if (!bluetooth.OpenServer_TAV()) return Fail("There is no Bluetooth, or another program has channel 16");
    std::string text;  // waits a minute
    const bool heard = bluetooth.Server_ReadMsg_TAV_String("Robot1", "greeting", text, 100, 60000) >= 0;
    if (heard) {
        std::cout << "Robot1 says " << tav_host::Printable(text) << '\n';
        bluetooth.Server_SendMsg_TAV_String("greeting", "Hello to you");
    }
    bluetooth.CloseServer_TAV();
    return heard ? 0 : Fail("Robot1 did not say hello");
}
