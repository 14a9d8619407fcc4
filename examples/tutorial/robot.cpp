// A robot that does what its remote control says, and stops by itself when it hears nothing for a second.
#include "bluetooth/C_TAV_Bluetooth.h"
#include "host/descriptors.h"
#include "host/printable.h"

#include <csignal>
#include <iostream>

using tav_c_api_impl::C_TAV_Bluetooth;

static void Drive(const std::string& command)  // a speed and a turn, for the motors of a real robot
{
    std::cout << "drives '" << tav_host::Printable(command) << "'" << std::endl;
}

// Takes commands, "NUMBER SPEED TURN", until one is missing. The answer to each is its number.
static void Obey(C_TAV_Bluetooth& bluetooth, int client, const std::string& remote)
{
    std::string message;
    std::string last;
    while (bluetooth._ReadMsg_TAV_String(client, remote, "drive", message, 100, 1000) > 0) {
        const std::size_t blank = std::min(message.find(' '), message.size());
        const std::string command = message.substr(std::min(blank + 1, message.size()));
        if (command != last) Drive(command);
        last = command;
        // Who has left is not read from again: that could wait for ever.
        if (!bluetooth._SendMsg_TAV_String(client, "done", message.substr(0, blank))) return;
    }
}

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: robot NAME    (the brick that runs remote)\n";
        return 1;
    }
    signal(SIGPIPE, SIG_IGN);
    tav_host::Limit_Descriptors();
    C_TAV_Bluetooth bluetooth;
    const int server = bluetooth.OpenServer(16);
    if (server < 0) {
        std::cerr << "Cannot listen on channel 16 (TAV_LOG=- shows why)\n";
        return 1;
    }
    for (;;) {
        std::cout << "waits for " << argv[1] << std::endl;
        const int client = bluetooth.AcceptClient(server, 60000);
        if (client < 0) continue;
        Obey(bluetooth, client, argv[1]);
        Drive("0 0");
        bluetooth.CloseClient(client);
    }
}
