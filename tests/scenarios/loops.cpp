// Event loops as loops.py has them: Asio's, and one of poll.
//   loops asio|poll server            echoes to one client until that leaves; says how that ended
//   loops asio|poll client ADDRESS    sends, expects the echo, leaves
#include <algorithm>
#include <array>
#include <asio.hpp>
#include <bluetooth/bluetooth.h>
#include <bluetooth/rfcomm.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <poll.h>
#include <string>
#include <unistd.h>

namespace {

using Protocol = asio::generic::stream_protocol;

const std::string WORDS(3000, 'x');

sockaddr_rc Get_Address(const char* brick)
{
    sockaddr_rc address{};
    address.rc_family = AF_BLUETOOTH;
    address.rc_channel = 16;
    str2ba(brick, &address.rc_bdaddr);
    return address;
}

int Tell(std::size_t size, int error)
{
    std::cout << size << ", then " << strerrorname_np(error) << std::endl;
    return 0;
}

// ---- Asio -----------------------------------------------------------------------------------------------------------

struct S_Link
{
    Protocol::socket Socket;
    std::array<char, 1024> Bytes{};
    std::size_t Size = 0;
};

void Echo(S_Link& link)
{
    link.Socket.async_read_some(asio::buffer(link.Bytes), [&link](auto error, std::size_t size) {
        if (error) return static_cast<void>(Tell(link.Size, error.value()));
        link.Size += size;
        asio::async_write(link.Socket, asio::buffer(link.Bytes, size), [&link](auto, auto) { Echo(link); });
    });
}

void Serve_ByAsio()
{
    asio::io_context loop;
    const Protocol protocol(AF_BLUETOOTH, BTPROTO_RFCOMM);
    const sockaddr_rc any = Get_Address("00:00:00:00:00:00");
    asio::basic_socket_acceptor<Protocol> server(loop, protocol);
    server.bind(Protocol::endpoint(&any, sizeof(any)));
    server.listen(1);
    S_Link link{Protocol::socket(loop)};
    server.async_accept(link.Socket, [&link](auto) { Echo(link); });
    loop.run();
}

void Connect_ByAsio(const char* brick)
{
    asio::io_context loop;
    Protocol::socket link(loop, Protocol(AF_BLUETOOTH, BTPROTO_RFCOMM));
    const sockaddr_rc address = Get_Address(brick);
    std::string echo(WORDS.size(), ' ');
    link.async_connect(Protocol::endpoint(&address, sizeof(address)), [&](auto error) {
        if (error) return static_cast<void>(Tell(0, error.value()));
        asio::async_write(link, asio::buffer(WORDS), [&](auto, auto) {
            asio::async_read(link, asio::buffer(echo),
                             [&](auto, auto) { std::cout << (echo == WORDS ? "echoed" : "garbled") << std::endl; });
        });
    });
    loop.run();
}

// ---- poll -----------------------------------------------------------------------------------------------------------

int Wait(int fd, short events)
{
    pollfd waited = {fd, events, 0};
    return poll(&waited, 1, 20000) == 1 ? waited.revents : 0;
}

int Open()
{
    return socket(AF_BLUETOOTH, SOCK_STREAM | SOCK_NONBLOCK, BTPROTO_RFCOMM);
}

int Serve_ByPoll()
{
    const sockaddr_rc any = Get_Address("00:00:00:00:00:00");
    const int server = Open();
    if (bind(server, reinterpret_cast<const sockaddr*>(&any), sizeof(any)) < 0 || listen(server, 1) < 0)
        return Tell(0, errno);
    if (Wait(server, POLLIN) != POLLIN) return Tell(0, ETIMEDOUT);
    const int link = accept4(server, nullptr, nullptr, SOCK_NONBLOCK);
    char bytes[1024];
    std::size_t size = 0;
    while (Wait(link, POLLIN) == POLLIN) {
        const ssize_t count = read(link, bytes, sizeof(bytes));
        if (count <= 0 || write(link, bytes, static_cast<std::size_t>(count)) != count) break;
        size += static_cast<std::size_t>(count);
    }
    const int end = Wait(link, POLLIN);  // an error and an end, and nothing to read
    const ssize_t last = read(link, bytes, sizeof(bytes));
    return Tell(size, (end & (POLLIN | POLLHUP)) == POLLHUP && last < 0 ? errno : 0);
}

int Connect_ByPoll(const char* brick)
{
    const sockaddr_rc address = Get_Address(brick);
    const int link = Open();
    if (connect(link, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0 && errno != EINPROGRESS)
        return Tell(0, errno);
    int error = 0;
    socklen_t length = sizeof(error);
    if ((Wait(link, POLLOUT) & POLLOUT) == 0) return Tell(0, ETIMEDOUT);
    getsockopt(link, SOL_SOCKET, SO_ERROR, &error, &length);
    if (error) return Tell(0, error);
    std::string echo;
    char bytes[1024];
    if (write(link, WORDS.data(), WORDS.size()) < 0) return Tell(0, errno);
    while (echo.size() < WORDS.size() && Wait(link, POLLIN) == POLLIN)
        echo.append(bytes, static_cast<std::size_t>(std::max<ssize_t>(0, read(link, bytes, sizeof(bytes)))));
    std::cout << (echo == WORDS ? "echoed" : "garbled") << std::endl;
    return 0;
}

}  // namespace

int main(int argc, char** argv)
try {
    const std::string kind = argc > 2 ? argv[1] : "", what = argc > 2 ? argv[2] : "";
    if (kind == "asio" && what == "server") return Serve_ByAsio(), 0;
    if (kind == "asio" && argc == 4) return Connect_ByAsio(argv[3]), 0;
    if (kind == "poll" && what == "server") return Serve_ByPoll();
    if (kind == "poll" && argc == 4) return Connect_ByPoll(argv[3]);
    return std::cerr << "usage: loops asio|poll server|client [ADDRESS]\n", 2;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
