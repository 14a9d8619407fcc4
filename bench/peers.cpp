// What others ask for the same exchange over the same kind of socket, each used as its documentation shows.
#include "bench/exchange.h"

#include <asio.hpp>
#include <modbus/modbus.h>
#include <nng/nng.h>
#include <nng/protocol/pair0/pair.h>
#include <zmq.h>

namespace {

using namespace bench;
using asio::local::stream_protocol;

// One receive with a time-out, by a timer that cancels it, or by a run of limited length.
std::size_t Receive_WithTimer(asio::io_context& context, stream_protocol::socket& socket, asio::mutable_buffer buffer)
{
    std::size_t received = 0;
    asio::steady_timer timer(context, std::chrono::milliseconds(TIMEOUT_MS));
    timer.async_wait([&](const asio::error_code& error) {
        if (!error) socket.cancel();
    });
    socket.async_receive(buffer, [&](const asio::error_code&, std::size_t count) {
        received = count;
        timer.cancel();
    });
    context.restart();
    context.run();
    return received;
}

std::size_t Receive_ByRunFor(asio::io_context& context, stream_protocol::socket& socket, asio::mutable_buffer buffer)
{
    std::size_t received = 0;
    socket.async_receive(buffer, [&](const asio::error_code&, std::size_t count) { received = count; });
    context.restart();
    context.run_for(std::chrono::milliseconds(TIMEOUT_MS));
    return received;
}

template <auto RECEIVE>
void BM_Asio(benchmark::State& state)
{
    asio::io_context context;
    stream_protocol::socket near(context);
    stream_protocol::socket far(context);
    asio::local::connect_pair(near, far);
    S_Bytes bytes(state);
    Compare(state, [&] {
        Must(near.send(asio::buffer(bytes.Sent)) == bytes.Sent.size(), "send");
        Must(RECEIVE(context, far, asio::buffer(bytes.Received)) == bytes.Sent.size(), "receive");
    });
}

// A request of 12 bytes: it takes 253 at most.
void BM_Modbus(benchmark::State& state)
{
    const S_Link link;
    modbus_t* const near = modbus_new_tcp("127.0.0.1", 1502);
    modbus_t* const far = modbus_new_tcp("127.0.0.1", 1502);
    modbus_set_socket(near, link.Near);
    modbus_set_socket(far, link.Far);
    modbus_set_indication_timeout(far, TIMEOUT_MS / 1000, 0);
    const uint8_t request[] = {0xFF, MODBUS_FC_READ_HOLDING_REGISTERS, 0, 1, 0, 8};
    uint8_t received[MODBUS_TCP_MAX_ADU_LENGTH];
    Compare(state, [&] {
        Must(modbus_send_raw_request(near, request, sizeof(request)) > 0, "modbus_send_raw_request");
        Must(modbus_receive(far, received) > 0, "modbus_receive");
    });
    modbus_free(near);
    modbus_free(far);
}

// A new one each time: the last one may still be in use, as both libraries close in threads of their own.
std::string Get_Address()
{
    static int s_Count = 0;
    return "tav-bench-" + std::to_string(getpid()) + "-" + std::to_string(++s_Count);
}

void BM_ZeroMQ(benchmark::State& state)
{
    const std::string url = "ipc://@" + Get_Address();
    void* const context = zmq_ctx_new();
    void* const near = zmq_socket(context, ZMQ_PAIR);
    void* const far = zmq_socket(context, ZMQ_PAIR);
    zmq_setsockopt(far, ZMQ_RCVTIMEO, &TIMEOUT_MS, sizeof(TIMEOUT_MS));
    Must(zmq_bind(far, url.c_str()) == 0, "zmq_bind");
    Must(zmq_connect(near, url.c_str()) == 0, "zmq_connect");
    S_Bytes bytes(state);
    Compare(state, [&] {
        Must(zmq_send(near, bytes.Sent.data(), bytes.Sent.size(), 0) > 0, "zmq_send");
        Must(zmq_recv(far, bytes.Received.data(), bytes.Received.size(), 0) > 0, "zmq_recv");
    });
    zmq_close(near);
    zmq_close(far);
    zmq_ctx_term(context);
}

void BM_Nng(benchmark::State& state)
{
    const std::string url = "abstract://" + Get_Address();
    nng_socket near = NNG_SOCKET_INITIALIZER;
    nng_socket far = NNG_SOCKET_INITIALIZER;
    Must(nng_pair0_open(&near) == 0 && nng_pair0_open(&far) == 0, "nng_pair0_open");
    Must(nng_socket_set_ms(far, NNG_OPT_RECVTIMEO, TIMEOUT_MS) == 0, "nng_socket_set_ms");
    Must(nng_listen(far, url.c_str(), nullptr, 0) == 0, "nng_listen");
    Must(nng_dial(near, url.c_str(), nullptr, 0) == 0, "nng_dial");
    S_Bytes bytes(state);
    Compare(state, [&] {
        Must(nng_send(near, const_cast<char*>(bytes.Sent.data()), bytes.Sent.size(), 0) == 0, "nng_send");
        std::size_t size = bytes.Received.size();
        Must(nng_recv(far, bytes.Received.data(), &size, 0) == 0, "nng_recv");
    });
    nng_close(near);
    nng_close(far);
}

void Take_Sizes(benchmark::internal::Benchmark* benchmark)
{
    for (const int size : {8, 800, 10000})
        benchmark->Arg(size);
}

BENCHMARK(BM_Asio<Receive_WithTimer>)->Name("Asio, timer")->Apply(Take_Sizes);
BENCHMARK(BM_Asio<Receive_ByRunFor>)->Name("Asio, run_for")->Apply(Take_Sizes);
BENCHMARK(BM_Modbus)->Name("libmodbus, raw request")->Arg(8);
BENCHMARK(BM_ZeroMQ)->Name("ZeroMQ, pair")->Apply(Take_Sizes);
BENCHMARK(BM_Nng)->Name("nng, pair")->Apply(Take_Sizes);

}  // namespace
