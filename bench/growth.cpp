// How the cost of the module's operations grows with clients and devices. Sizes of messages are in messages.cpp.
#include "bench/exchange.h"
#include "bluetooth/C_TAV_Bluetooth.h"

#include <cstdio>
#include <deque>
#include <sys/stat.h>

namespace {

using namespace bench;
using tav_c_api_impl::C_TAV_Bluetooth;

const std::string BOOL_MESSAGE("\x03Robot1\0abc\0\1", 13);

// A built-in server with as many clients as the argument says; it closes their near ends and its listener, any open
// descriptor.
struct S_Server
{
    std::vector<int> Far;
    C_TAV_Bluetooth Bluetooth;

    explicit S_Server(const benchmark::State& state)
    {
        Bluetooth.m_ServerSocket = dup(STDIN_FILENO);
        Must(Bluetooth.m_ServerSocket >= 0, "dup");
        for (int i = 0; i < state.range(0); ++i) {
            int ends[2] = {-1, -1};
            Must(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "socketpair");
            tav_c_api_impl::S_BT_ScanDevice client;
            client.Socket = ends[0];
            Bluetooth.m_ServerClients[Bluetooth.m_ServerSocket].push_back(client);
            Far.push_back(ends[1]);
        }
    }
    ~S_Server()
    {
        for (const int socket : Far)
            close(socket);
    }
    S_Server(const S_Server&) = delete;
    S_Server& operator=(const S_Server&) = delete;
};

void BM_SendToAll(benchmark::State& state)
{
    S_Server server(state);
    char buffer[100];
    for ([[maybe_unused]] auto _ : state) {
        Must(server.Bluetooth.Server_SendMsg_TAV_Bool("abc", true), "send");
        for (const int socket : server.Far)
            Must(recv(socket, buffer, sizeof(buffer), 0) > 0, "recv");
    }
}

void BM_ReadFromLast(benchmark::State& state)
{
    S_Server server(state);
    bool value = false;
    for ([[maybe_unused]] auto _ : state) {
        Must(send(server.Far.back(), BOOL_MESSAGE.data(), BOOL_MESSAGE.size(), 0) > 0, "send");
        Must(server.Bluetooth.Server_ReadMsg_TAV_Bool("Robot1", "abc", value, TIMEOUT_MS), "read");
    }
}

std::string Get_Name(int number)
{
    return "Robot-" + std::to_string(100000 + number);
}

void Fill_List(C_TAV_Bluetooth& bluetooth, const benchmark::State& state)
{
    for (int i = 0; i < state.range(0); ++i)
        bluetooth.m_ScanDevices.emplace_back(bdaddr_t{}, "02:00:00:00:00:02", Get_Name(i));
}

void BM_LookUp(benchmark::State& state)
{
    C_TAV_Bluetooth bluetooth;
    Fill_List(bluetooth, state);
    const std::string last = bluetooth.m_ScanDevices.back().Name;
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(bluetooth.Get_IndexScanDevice(last));
}

void BM_Add(benchmark::State& state)
{
    C_TAV_Bluetooth bluetooth;
    Fill_List(bluetooth, state);
    for ([[maybe_unused]] auto _ : state) {
        Must(bluetooth.Add_BT_Device(Get_Name(-1), "02:00:00:00:00:02", -1, 0) > 0, "add");
        bluetooth.m_ScanDevices.pop_back();
    }
}

void BM_ReadFile(benchmark::State& state)
{
    char folder[] = "/tmp/tav-bench-XXXXXX";
    Must(mkdtemp(folder) && chdir(folder) == 0 && mkdir("prjs", 0700) == 0, "folder");
    FILE* const file = fopen("prjs/__BTScan__", "wb");
    Must(file, "file");
    for (int i = 0; i < state.range(0); ++i)
        fprintf(file, "%s%c\x1C%s%c\x1A", Get_Name(i).c_str(), 0, "02:00:00:00:00:02", 0);
    fclose(file);
    Must(mkdir("run", 0700) == 0 && chdir("run") == 0, "folder");
    for ([[maybe_unused]] auto _ : state) {
        const int next = dup(STDIN_FILENO);  // what the stream that stays open will have
        close(next);
        C_TAV_Bluetooth bluetooth;
        Must(bluetooth.BT_ParseFileDevices() &&
                 bluetooth.m_ScanDevices.size() == static_cast<std::size_t>(state.range(0)),
             "read");
        close(next);
    }
    Must(remove("../prjs/__BTScan__") == 0 && rmdir("../prjs") == 0 && rmdir("../run") == 0, "folder");
    Must(chdir("/") == 0 && rmdir(folder) == 0, "folder");
}

void Take_Devices(benchmark::internal::Benchmark* benchmark)
{
    benchmark->RangeMultiplier(10)->Range(1, 10000);
}

BENCHMARK(BM_SendToAll)->Name("bool to all clients")->RangeMultiplier(2)->Range(1, 64);
BENCHMARK(BM_ReadFromLast)->Name("bool from the last client")->RangeMultiplier(2)->Range(1, 64);
BENCHMARK(BM_LookUp)->Name("look up the last device")->Apply(Take_Devices);
BENCHMARK(BM_Add)->Name("add a device")->Apply(Take_Devices);
BENCHMARK(BM_ReadFile)->Name("read the list's file")->Apply(Take_Devices);

}  // namespace
