// What a message costs beside the bare system calls that move its bytes: each pair of benchmarks moves the same bytes
// by the same calls, through the module and without it. Ratios are what counts; the times are this machine's.
#include "bluetooth/C_TAV_Bluetooth.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <string>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using tav_c_api_impl::C_TAV_Bluetooth;

constexpr std::size_t OVERHEAD = 1 + 7 + 4 + 1;  // type, "Robot1", "abc" and the text's NUL

struct S_Link
{
    int Near = -1;
    int Far = -1;

    S_Link()
    {
        int ends[2] = {-1, -1};
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) < 0) abort();
        Near = ends[0];
        Far = ends[1];
    }
    ~S_Link()
    {
        close(Near);
        close(Far);
    }
};

void Wait(int socket, bool toRead)
{
    fd_set set;
    FD_ZERO(&set);
    FD_SET(socket, &set);
    timeval time{1, 0};
    if (select(socket + 1, toRead ? &set : nullptr, toRead ? nullptr : &set, nullptr, &time) != 1) abort();
}

void BM_Bare(benchmark::State& state)
{
    const S_Link link;
    const std::string message(static_cast<std::size_t>(state.range(0)) + OVERHEAD, 'x');
    std::string buffer(std::max<std::size_t>(1024, message.size() + 200), '\0');
    for ([[maybe_unused]] auto _ : state) {
        Wait(link.Near, false);
        if (send(link.Near, message.data(), message.size(), 0) < 0) abort();
        Wait(link.Far, true);
        benchmark::DoNotOptimize(recv(link.Far, buffer.data(), buffer.size(), 0));
    }
}

void BM_Text(benchmark::State& state)
{
    const S_Link link;
    C_TAV_Bluetooth bluetooth;
    const std::string text(static_cast<std::size_t>(state.range(0)), 'x');
    std::string received;
    for ([[maybe_unused]] auto _ : state) {
        bluetooth._SendMsg_TAV_String(link.Near, "abc", text);
        const auto maxSize = static_cast<unsigned int>(text.size());
        if (bluetooth._ReadMsg_TAV_String(link.Far, "Robot1", "abc", received, maxSize, 1000) < 0) abort();
    }
}

BENCHMARK(BM_Bare)->Arg(8)->Arg(800)->Arg(40000);
BENCHMARK(BM_Text)->Arg(8)->Arg(800)->Arg(40000);

}  // namespace

BENCHMARK_MAIN();
