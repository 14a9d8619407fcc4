// Round trips and throughput of named messages between two bricks, wherever they run.
//   link_bench serve NAME            on one brick, for one run of the brick NAME
//   link_bench ask NAME ADDRESS      on the other; prints the figures
#include "bluetooth/C_TAV_Bluetooth.h"

#include <chrono>
#include <csignal>
#include <iostream>
#include <unistd.h>

namespace {

constexpr int ROUND_TRIPS = 500;
constexpr int MESSAGES = 4000;
constexpr unsigned int SIZE = 980;  // bytes of data in each, which makes messages of about 1000

double Seconds_Since(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

int Serve(tav_c_api_impl::C_TAV_Bluetooth& bluetooth, const std::string& name)
{
    int server = bluetooth.OpenServer(16);
    const int client = server < 0 ? -1 : bluetooth.AcceptClient(server, 60000);
    if (client < 0) return std::cerr << "nobody came\n", 1;
    std::string text;
    for (int i = 0; i < ROUND_TRIPS; ++i)
        if (bluetooth._ReadMsg_TAV_String(client, name, "ping", text, 100, 10000) < 0 ||
            !bluetooth._SendMsg_TAV_String(client, "ping", text))
            return std::cerr << "round trip " << i << " failed\n", 1;
    // How much one receive brings is up to the stream: bytes are counted, not messages.
    std::string buffer(65536, ' ');
    const auto start = std::chrono::steady_clock::now();
    int count = 0;
    const int whole = MESSAGES * static_cast<int>(1 + name.size() + 1 + 5 + 4 + SIZE);
    for (int came = 1; count < whole && came > 0; count += came)
        came = bluetooth.ReadData(client, buffer.data(), static_cast<unsigned int>(buffer.size()), 10000);
    std::cout << MESSAGES << " messages of " << whole / MESSAGES << " bytes: " << count / 1000.0 / Seconds_Since(start)
              << " KB/s\n";
    bluetooth.CloseServer(server);
    return count == whole ? 0 : 1;
}

int Ask(tav_c_api_impl::C_TAV_Bluetooth& bluetooth, const std::string& name, const std::string& address)
{
    bluetooth.Add_BT_Device(name, address, -1, 0);
    if (bluetooth.Connect(name, 16, 20000) < 0) return std::cerr << "no connection\n", 1;
    std::string text;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < ROUND_TRIPS; ++i)
        if (!bluetooth.SendMsg_TAV_String(name, "ping", "there and back") ||
            bluetooth.ReadMsg_TAV_String(name, "ping", text, 100, 10000) < 0)
            return std::cerr << "round trip " << i << " failed\n", 1;
    std::cout << ROUND_TRIPS << " round trips of short texts: " << Seconds_Since(start) * 1000 / ROUND_TRIPS
              << " ms each\n";
    usleep(100000);  // the last answer is not to be joined by what follows
    const std::string data(SIZE, 'x');
    for (int i = 0; i < MESSAGES; ++i)
        if (!bluetooth.SendMsg_TAV_Data(name, "data", reinterpret_cast<const unsigned char*>(data.data()), SIZE))
            return std::cerr << "message " << i << " failed\n", 1;
    char byte = 0;
    bluetooth.ReadData(bluetooth.m_ScanDevices[0].Socket, &byte, 1, 60000);  // until the server hangs up
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    signal(SIGPIPE, SIG_IGN);
    tav_c_api_impl::C_TAV_Bluetooth bluetooth;
    const std::string verb = argc > 1 ? argv[1] : "";
    if (verb == "serve" && argc == 3) return Serve(bluetooth, argv[2]);
    if (verb == "ask" && argc == 4) return Ask(bluetooth, argv[2], argv[3]);
    return std::cerr << "usage: link_bench serve NAME | link_bench ask NAME ADDRESS\n", 2;
}
