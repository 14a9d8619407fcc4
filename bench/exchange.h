// An exchange is one message from one end of a connection to the other. Each is timed beside the bare system calls for
// as many bytes, in turns so short that both see the same machine, however busy it is.
#pragma once

#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace bench {

constexpr int TIMEOUT_MS = 1000;  // none is ever reached

// Ends the program when a step fails: its time would mean nothing.
inline void Must(bool done, const char* what)
{
    if (done) return;
    perror(what);
    abort();
}

// Two ends of one UNIX stream socket.
struct S_Link
{
    int Near = -1;
    int Far = -1;

    S_Link()
    {
        int ends[2] = {-1, -1};
        Must(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "socketpair");
        Near = ends[0];
        Far = ends[1];
    }
    ~S_Link()
    {
        close(Near);
        close(Far);
    }
    S_Link(const S_Link&) = delete;
    S_Link& operator=(const S_Link&) = delete;
};

inline void Wait(int socket, bool toRead)
{
    fd_set set;
    FD_ZERO(&set);
    FD_SET(socket, &set);
    timeval time{TIMEOUT_MS / 1000, 0};
    Must(select(socket + 1, toRead ? &set : nullptr, toRead ? nullptr : &set, nullptr, &time) == 1, "select");
}

// What is sent, as many bytes as the benchmark's argument says, and room to receive it.
struct S_Bytes
{
    const std::string Sent;
    std::string Received;

    explicit S_Bytes(const benchmark::State& state)
        : Sent(static_cast<std::size_t>(state.range(0)), 'x'), Received(Sent.size() + 200, '\0')
    {
    }
};

// The bare calls: with a wait for each, as the module makes them, or without.
class C_Calls
{
public:
    C_Calls(const benchmark::State& state, bool wait) : m_Bytes(state), m_Wait(wait) {}

    void operator()()
    {
        const auto size = static_cast<ssize_t>(m_Bytes.Sent.size());
        if (m_Wait) Wait(m_Link.Near, false);
        Must(send(m_Link.Near, m_Bytes.Sent.data(), m_Bytes.Sent.size(), 0) == size, "send");
        if (m_Wait) Wait(m_Link.Far, true);
        Must(recv(m_Link.Far, m_Bytes.Received.data(), m_Bytes.Received.size(), 0) == size, "recv");
    }

private:
    const S_Link m_Link;
    S_Bytes m_Bytes;
    bool m_Wait;
};

// Nanoseconds of one of several calls.
template <typename EXCHANGE>
double Time(EXCHANGE& exchange)
{
    constexpr int COUNT = 20;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < COUNT; ++i)
        exchange();
    return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count() / COUNT;
}

inline double Median(std::vector<double>& values)
{
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

// Measures `exchange`: the counters are its time in nanoseconds and its ratio to the bare calls.
template <typename EXCHANGE>
void Compare(benchmark::State& state, EXCHANGE exchange)
{
    C_Calls calls(state, true);
    std::vector<double> bare;
    std::vector<double> own;
    for ([[maybe_unused]] auto _ : state) {
        bare.push_back(Time(calls));
        own.push_back(Time(exchange));
    }
    state.counters["ns"] = Median(own);
    state.counters["ratio"] = Median(own) / Median(bare);
}

}  // namespace bench
