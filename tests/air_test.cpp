// The simulated air itself: that it does what was measured on Linux, and the faults that are asked for.
#include "tests/on_air.h"

#include <bluetooth/hci.h>
#include <bluetooth/hci_lib.h>
#include <bluetooth/l2cap.h>
#include <bluetooth/rfcomm.h>
#include <bluetooth/sdp.h>
#include <bluetooth/sdp_lib.h>
#include <cstring>
#include <fcntl.h>
#include <future>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>

using namespace tav_c_api_impl;

// What the C library's headers put in where _FORTIFY_SOURCE is.
extern "C" {
ssize_t __read_chk(int fd, void* buffer, std::size_t size, std::size_t room);
ssize_t __recv_chk(int fd, void* buffer, std::size_t size, std::size_t room, int flags);
ssize_t __recvfrom_chk(int fd, void* buffer, std::size_t size, std::size_t room, int flags, sockaddr* address,
                       socklen_t* length);
int __poll_chk(pollfd* fds, nfds_t count, int timeout, std::size_t room);
int __ppoll_chk(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* signals, std::size_t room);
}

namespace {

std::string Errno(ssize_t result)
{
    return result < 0 ? strerrorname_np(errno) : std::to_string(result);
}

class Air : public C_OnAir
{
protected:
    static sockaddr_rc Address(const char* brick, unsigned char channel)
    {
        sockaddr_rc address{};
        address.rc_family = AF_BLUETOOTH;
        address.rc_channel = channel;
        str2ba(brick, &address.rc_bdaddr);
        return address;
    }

    static int Open(bool nonBlocking = true)
    {
        return socket(AF_BLUETOOTH, SOCK_STREAM | (nonBlocking ? SOCK_NONBLOCK : 0), BTPROTO_RFCOMM);
    }

    static std::string Connect(int fd, const char* brick, unsigned char channel)
    {
        const sockaddr_rc address = Address(brick, channel);
        return Errno(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
    }

    static std::string Bind(int fd, const char* brick, unsigned char channel)
    {
        const sockaddr_rc address = Address(brick, channel);
        return Errno(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
    }

    static bool Is_Writable(int fd, int milliseconds)
    {
        pollfd writable{fd, POLLOUT, 0};
        return poll(&writable, 1, milliseconds) == 1;
    }

    // What poll tells, and all of epoll's calls.
    static int Events(int fd)
    {
        pollfd waited{fd, POLLIN | POLLOUT | POLLRDHUP, 0};
        EXPECT_EQ(poll(&waited, 1, 0), 1);
        const int watch = epoll_create1(0);
        epoll_event event{};
        event.events = EPOLLIN | EPOLLOUT | EPOLLRDHUP;
        event.data.u64 = 7;
        epoll_ctl(watch, EPOLL_CTL_ADD, fd, &event);
        const timespec now{};
        for (int call = 0; call < 3; ++call) {
            event.events = 0;
            const int count = call == 0   ? epoll_wait(watch, &event, 1, 0)
                              : call == 1 ? epoll_pwait(watch, &event, 1, 0, nullptr)
                                          : epoll_pwait2(watch, &event, 1, &now, nullptr);
            if (call == 2 && count < 0 && errno == ENOSYS) continue;  // Debian 12's qemu-user does not know it
            EXPECT_EQ(count, 1);
            EXPECT_EQ(event.events, static_cast<unsigned int>(waited.revents)) << call;
        }
        close(watch);
        return waited.revents;
    }

    static std::string Send(int fd, const std::string& bytes) { return Errno(send(fd, bytes.data(), bytes.size(), 0)); }

    static std::string Receive(int fd)
    {
        char bytes[100];
        const ssize_t count = recv(fd, bytes, sizeof(bytes), 0);
        return count > 0 ? std::string(bytes, static_cast<std::size_t>(count)) : Errno(count);
    }

    // What each of so many bricks gets that call channel 3 of Robot2 one after the other.
    static std::string Call_FromBricks(int count)
    {
        std::string states;
        for (int i = 0; i < count; ++i) {
            const std::string address = "02:00:00:00:02:0" + std::to_string(i);
            tav_air::Put({address, "Client"});
            tav_air::Act_As(address);
            const int client = Open();
            EXPECT_EQ(Connect(client, ROBOT2, 3), "EINPROGRESS");
            EXPECT_TRUE(Is_Writable(client, 2000));
            states += Receive(client) + " ";
        }
        return states;
    }

    // Connects Robot1 to Robot2, whose end is blocking as an accepted socket is.
    void Link()
    {
        const int server = As_Robot2([] { return Open(false); });
        ASSERT_EQ(Bind(server, "00:00:00:00:00:00", 16), "0");
        ASSERT_EQ(listen(server, 1), 0);
        m_Near = Open();
        ASSERT_EQ(Connect(m_Near, ROBOT2, 16), "EINPROGRESS");
        m_Far = accept(server, nullptr, nullptr);
        ASSERT_GE(m_Far, 0);
        ASSERT_TRUE(Is_Writable(m_Near, 2000));
        close(server);
    }

    int m_Near = -1;
    int m_Far = -1;
};

TEST_F(Air, EndOfAConnection)
{
    Link();
    EXPECT_EQ(Send(m_Near, "last"), "4");
    EXPECT_EQ(Send(m_Far, "last"), "4");
    shutdown(m_Far, SHUT_RDWR);
    close(m_Far);
    EXPECT_EQ(Events(m_Near), POLLIN | POLLOUT | POLLERR | POLLHUP) << "the last bytes";
    EXPECT_EQ(Receive(m_Near), "last");
    EXPECT_EQ(Events(m_Near), POLLOUT | POLLERR | POLLHUP) << "there is nothing to read";
    EXPECT_EQ(Receive(m_Near), "ECONNRESET");
    EXPECT_EQ(Receive(m_Near), "EAGAIN");
    EXPECT_EQ(Send(m_Near, "more"), "ENOTCONN") << "and no SIGPIPE";
    EXPECT_EQ(Events(m_Near), POLLOUT | POLLHUP) << "the error was told";
}

TEST_F(Air, ConnectsAsLinuxDoes)
{
    const struct
    {
        const char *What, *Peer;
        unsigned char Channel;
        const char *Connect, *Transfer;
    } CASES[] = {
        {"no listener", ROBOT2, 7, "EINPROGRESS", "ECONNREFUSED"},
        {"absent", "02:00:00:00:00:99", 16, "EINPROGRESS", "EHOSTDOWN"},
        {"itself", ROBOT1, 16, "EHOSTUNREACH", "ENOTCONN"},
    };
    for (const auto& test : CASES) {
        SCOPED_TRACE(test.What);
        const int fd = Open();
        EXPECT_EQ(Connect(fd, test.Peer, test.Channel), test.Connect);
        EXPECT_TRUE(Is_Writable(fd, 2000));
        EXPECT_EQ(Receive(fd), test.Transfer);
        EXPECT_EQ(Send(fd, "x"), "ENOTCONN");
        close(fd);
        const int blocking = Open(false);
        EXPECT_EQ(Connect(blocking, test.Peer, test.Channel),
                  std::string(test.Connect) == "EINPROGRESS" ? test.Transfer : test.Connect);
        close(blocking);
    }
    const int asked = Open();
    int error = 0;
    socklen_t length = sizeof(error);
    EXPECT_EQ(Connect(asked, ROBOT2, 7), "EINPROGRESS");
    EXPECT_TRUE(Is_Writable(asked, 2000));
    EXPECT_EQ(getsockopt(asked, SOL_SOCKET, SO_ERROR, &error, &length), 0);
    EXPECT_EQ(error, ECONNREFUSED);
    EXPECT_EQ(Send(asked, "x"), "ENOTCONN") << "the error was told";
    tav_air::Act_As("");
    EXPECT_EQ(Connect(Open(), ROBOT2, 16), "EHOSTUNREACH") << "no adapter";
    EXPECT_EQ(hci_get_route(nullptr), -1);
    EXPECT_EQ(errno, ENODEV);
}

TEST_F(Air, OneConnectionAChannelAndNoneAtOnceAfterIt)
{
    Enter_Air(0.2);  // refusing for 250 ms after a connection leaves time on a busy machine
    Link();
    EXPECT_EQ(Connect(Open(), ROBOT2, 16), "EBUSY");
    C_TAV_Bluetooth other;
    const int server = As_Robot2([&] { return other.OpenServer(16); });
    close(m_Near);
    const int tooSoon = Open();
    EXPECT_EQ(Connect(tooSoon, ROBOT2, 16), "EINPROGRESS");
    EXPECT_FALSE(Is_Writable(tooSoon, 0));
    EXPECT_TRUE(Is_Writable(tooSoon, 2000));
    EXPECT_EQ(Receive(tooSoon), "ECONNREFUSED");
    close(tooSoon);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const int again = Open();
    EXPECT_EQ(Connect(again, ROBOT2, 16), "EINPROGRESS");
    EXPECT_TRUE(Is_Writable(again, 2000));
    EXPECT_EQ(Receive(again), "EAGAIN");
    EXPECT_GE(other.AcceptClient(server, 1000), 0);
}

TEST_F(Air, ChannelsAndBacklog)
{
    const int first = As_Robot2([] { return Open(); });
    const int second = As_Robot2([] { return Open(); });
    EXPECT_EQ(Errno(listen(first, 1)), "EBADFD") << "not bound";
    EXPECT_EQ(Bind(first, ROBOT1, 3), "EADDRNOTAVAIL") << "another brick's address";
    EXPECT_EQ(Bind(first, ROBOT2, 3), "0");
    EXPECT_EQ(Bind(second, "00:00:00:00:00:00", 3), "EADDRINUSE") << "though nobody listens yet";
    EXPECT_EQ(Bind(first, ROBOT2, 4), "EBADFD") << "bound already";
    EXPECT_EQ(Connect(first, ROBOT1, 3), "EBADFD");
    EXPECT_EQ(listen(first, 8), 0);
    EXPECT_EQ(listen(first, 1), 0);
    EXPECT_EQ(Call_FromBricks(3), "EAGAIN EAGAIN ECONNREFUSED ") << "a backlog of 1 lets 2 wait";
    sockaddr_rc address = Address(ROBOT2, 5);
    EXPECT_EQ(Errno(bind(second, reinterpret_cast<sockaddr*>(&address), 3)), "EINVAL");
    address.rc_family = AF_INET;
    EXPECT_EQ(Errno(connect(second, reinterpret_cast<sockaddr*>(&address), sizeof(address))), "EINVAL");
    std::string results;
    for (int i = 0; i < 30; ++i) {
        const int any = As_Robot2([] { return Open(); });
        EXPECT_EQ(Bind(any, ROBOT2, 0), "0");
        results += Errno(listen(any, 1));
    }
    EXPECT_EQ(results, std::string(29, '0') + "EINVAL") << "of 30 channels one was taken";
}

// Another program of this machine connects to what is under the air, and hands over nothing.
TEST_F(Air, StrangersDoNotGetIn)
{
    const int server = As_Robot2([] { return Open(); });
    ASSERT_EQ(Bind(server, ROBOT2, 3), "0");
    ASSERT_EQ(listen(server, 1), 0);
    const int stranger = socket(AF_UNIX, SOCK_STREAM, 0);
    const std::string name = "tav-air/test-" + std::to_string(getpid()) + "/" + ROBOT2 + "/3";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path + 1, sizeof(address.sun_path) - 1);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    ASSERT_EQ(connect(stranger, reinterpret_cast<const sockaddr*>(&address), length), 0);
    EXPECT_EQ(Errno(accept(server, nullptr, nullptr)), "EAGAIN");
    const int client = Open();
    EXPECT_EQ(Connect(client, ROBOT2, 3), "EINPROGRESS");
    EXPECT_TRUE(Is_Writable(client, 2000));
    sockaddr_rc peer{};
    socklen_t peerLength = sizeof(peer);
    EXPECT_GE(accept(server, reinterpret_cast<sockaddr*>(&peer), &peerLength), 0);
    const sockaddr_rc expected = Address(ROBOT1, 3);
    EXPECT_TRUE(bacmp(&peer.rc_bdaddr, &expected.rc_bdaddr) == 0 && peer.rc_channel == expected.rc_channel);
    close(stranger);
}

TEST_F(Air, DescriptorsBeyondThoseOfSelect)
{
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    constexpr rlim_t ENOUGH = 2UL * FD_SETSIZE;
    if (before.rlim_max < ENOUGH) GTEST_SKIP() << "this process may not open so many";
    const rlimit raised = {ENOUGH, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &raised);
    std::vector<int> below;
    while (below.empty() || below.back() < FD_SETSIZE)
        below.push_back(dup(0));
    Link();
    EXPECT_GT(std::min(m_Near, m_Far), FD_SETSIZE);
    EXPECT_EQ(Send(m_Near, "far up"), "6");
    EXPECT_EQ(Receive(m_Far), "far up");
    close(m_Near);
    EXPECT_EQ(Receive(m_Far), "ECONNRESET");
    for (const int fd : below)
        close(fd);
    setrlimit(RLIMIT_NOFILE, &before);
}

TEST_F(Air, BrickThatFallsSilentIsGivenUpLater)
{
    Link();
    auto waiting = std::async(std::launch::async, [this] { return Receive(m_Far); });
    Ask_Faults("send:1=vanish");
    EXPECT_EQ(Send(m_Near, "into the void"), "13") << "and does not arrive";
    const int client = As_Robot2([] { return Open(); });
    EXPECT_EQ(Connect(client, ROBOT1, 16), "EINPROGRESS");
    EXPECT_TRUE(Is_Writable(client, 2000));
    EXPECT_EQ(Receive(client), "EHOSTDOWN");
    EXPECT_EQ(waiting.get(), "ETIMEDOUT");
    EXPECT_EQ(Receive(m_Near), "ETIMEDOUT");
}

// What programs call, of the air's as of other sockets; the last ones are those that _FORTIFY_SOURCE puts in.
TEST_F(Air, EveryWayToMoveBytes)
{
    char bytes[8] = {};
    iovec parts[] = {{bytes, 2}, {bytes + 2, sizeof(bytes) - 2}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    const std::function<ssize_t(int)> TAKE[] = {
        [&](int fd) { return read(fd, bytes, sizeof(bytes)); },
        [&](int fd) { return readv(fd, parts, 2); },
        [&](int fd) { return recv(fd, bytes, sizeof(bytes), 0); },
        [&](int fd) {
            length = sizeof(address);
            return recvfrom(fd, bytes, sizeof(bytes), 0, reinterpret_cast<sockaddr*>(&address), &length);
        },
        [&](int fd) { return recvmsg(fd, &message, 0); },
        [&](int fd) { return __read_chk(fd, bytes, sizeof(bytes), sizeof(bytes)); },
        [&](int fd) { return __recv_chk(fd, bytes, sizeof(bytes), sizeof(bytes), 0); },
        [&](int fd) { return __recvfrom_chk(fd, bytes, sizeof(bytes), sizeof(bytes), 0, nullptr, nullptr); },
    };
    char word[] = "words";
    iovec halves[] = {{word, 2}, {word + 2, 3}};
    msghdr said{};
    said.msg_iov = halves;
    said.msg_iovlen = 2;
    const std::function<ssize_t(int)> GIVE[] = {
        [&](int fd) { return write(fd, word, 5); },    [&](int fd) { return writev(fd, halves, 2); },
        [&](int fd) { return send(fd, word, 5, 0); },  [&](int fd) { return sendto(fd, word, 5, 0, nullptr, 0); },
        [&](int fd) { return sendmsg(fd, &said, 0); },
    };
    Link();
    int plain[2] = {};
    socketpair(AF_UNIX, SOCK_STREAM, 0, plain);
    for (const auto& [near, far] : {std::pair(m_Near, m_Far), std::pair(plain[0], plain[1])}) {
        for (std::size_t i = 0; i < std::size(TAKE); ++i) {
            SCOPED_TRACE((near == plain[0] ? "plain " : "") + std::to_string(i));
            memset(bytes, 0, sizeof(bytes));
            EXPECT_EQ(GIVE[i % std::size(GIVE)](near), 5);
            pollfd waited{far, POLLIN, 0};
            fd_set readable;
            FD_ZERO(&readable);
            FD_SET(far, &readable);
            const timespec now{};
            EXPECT_EQ(__poll_chk(&waited, 1, 1000, sizeof(waited)), 1);
            EXPECT_EQ(__ppoll_chk(&waited, 1, &now, nullptr, sizeof(waited)), 1);
            EXPECT_EQ(pselect(far + 1, &readable, nullptr, nullptr, i % 2 ? &now : nullptr, nullptr), 1);
            EXPECT_EQ(TAKE[i](far), 5);
            EXPECT_STREQ(bytes, "words");
        }
        EXPECT_EQ(Errno(readv(far, parts, atoi("-1"))), "EINVAL");
        EXPECT_EQ(Errno(writev(far, parts, atoi("-1"))), "EINVAL");
        EXPECT_EQ(length, 0U) << "a stream says nobody's name";
    }
    EXPECT_DEATH(__read_chk(m_Far, bytes, sizeof(bytes) + 1, sizeof(bytes)), "");
    EXPECT_EQ(fcntl(m_Near, F_GETFD), 0);
    close(plain[0]);
    close(plain[1]);
}

// What Linux says of a socket at each of its ages.
TEST_F(Air, NamesOfSockets)
{
    const auto names = [](int fd) {
        std::string text;
        for (const auto call : {getsockname, getpeername}) {
            sockaddr_rc address{};
            socklen_t length = sizeof(address);
            char brick[18] = {};
            const std::string result = Errno(call(fd, reinterpret_cast<sockaddr*>(&address), &length));
            ba2str(&address.rc_bdaddr, brick);
            text += result == "0" ? std::string(brick + 15) + "/" + std::to_string(address.rc_channel) + " " : result;
        }
        return text;
    };
    const int server = As_Robot2([] { return Open(); });
    EXPECT_EQ(names(server), "00/0 ENOTCONN");
    EXPECT_EQ(Bind(server, "00:00:00:00:00:00", 0), "0");
    EXPECT_EQ(listen(server, 1), 0);
    EXPECT_EQ(names(server), "00/1 ENOTCONN") << "the first channel that is free";
    Link();
    EXPECT_EQ(names(m_Near), "01/16 02/16 ");
    EXPECT_EQ(names(m_Far), "02/16 01/16 ");
    rfcomm_conninfo info{};
    socklen_t length = sizeof(info);
    EXPECT_EQ(getsockopt(m_Near, SOL_RFCOMM, RFCOMM_CONNINFO, &info, &length), 0);
    close(m_Far);
    EXPECT_EQ(names(m_Near), "01/16 ENOTCONN");
}

// All copies of a descriptor are one socket, and the last one closes it.
TEST_F(Air, CopiesOfDescriptors)
{
    Link();
    const int copies[] = {dup(m_Near), dup2(m_Near, 600), dup3(m_Near, 601, O_CLOEXEC), fcntl(m_Near, F_DUPFD, 602)};
    EXPECT_EQ(tav_air::Get_Open().size(), 2 + std::size(copies));
    close(m_Near);
    for (const int copy : copies) {
        EXPECT_EQ(write(copy, "x", 1), 1);
        EXPECT_EQ(Receive(m_Far), "x");
    }
    EXPECT_EQ(dup2(copies[0], copies[0]), copies[0]);
    EXPECT_EQ(Errno(dup2(699, 699)), "EBADF");
    EXPECT_EQ(Errno(dup3(699, copies[0], 0)), "EBADF");
    EXPECT_EQ(Errno(close(700)) + Errno(dup2(0, 700)), "EBADFEBUSY") << "which is the air's own";
    dup2(0, copies[0]);
    close(copies[1]);
    EXPECT_EQ(Send(copies[2], "y"), "1");
    closefrom(601);
    EXPECT_EQ(Receive(m_Far), "y");
    EXPECT_EQ(Receive(m_Far), "ECONNRESET");
    EXPECT_EQ(tav_air::Get_Open(), std::vector<int>{m_Far});
    close(copies[0]);
}

// A brick falls silent, and is back before its peer gives it up. Whoever watches its socket by epoll still does.
TEST_F(Air, BackInTimeNothingIsLost)
{
    Enter_Air(10);  // 2 s until it is given up
    Link();
    const int watches[] = {epoll_create1(0), epoll_create1(0)};
    epoll_event event{};
    event.events = EPOLLIN | EPOLLET;
    event.data.u64 = 7;
    epoll_ctl(watches[0], EPOLL_CTL_ADD, m_Near, &event);
    event.events = EPOLLIN | EPOLLONESHOT;
    epoll_ctl(watches[1], EPOLL_CTL_ADD, m_Near, &event);
    tav_air::Put({ROBOT1, "Robot1", false});
    EXPECT_EQ(Send(m_Near, "held"), "4");
    EXPECT_EQ(Send(m_Far, "held"), "4");
    for (const int watch : watches)
        EXPECT_EQ(epoll_wait(watch, &event, 1, 10), 0);
    tav_air::Put({ROBOT1, "Robot1"});
    for (const int watch : watches)
        EXPECT_EQ(epoll_wait(watch, &event, 1, 2000), 1);
    EXPECT_EQ(event.data.u64, 7U);
    EXPECT_EQ(Receive(m_Far), "held");
    EXPECT_EQ(Receive(m_Near), "held");
    EXPECT_EQ(Send(m_Far, "more"), "4");
    EXPECT_EQ(epoll_wait(watches[1], &event, 1, 10), 0) << "its one shot is spent";
    for (const int watch : watches)
        close(watch);
}

// A page goes on when its socket is closed: who calls the same device meanwhile fails together with it.
TEST_F(Air, PagesOutliveTheirCallers)
{
    Enter_Air(4);  // a page takes 1.28 s
    const int first = Open();
    EXPECT_EQ(Connect(first, "02:00:00:00:00:99", 16), "EINPROGRESS");
    EXPECT_FALSE(Is_Writable(first, 900));
    close(first);
    const int second = Open();
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(Connect(second, "02:00:00:00:00:99", 16), "EINPROGRESS");
    EXPECT_TRUE(Is_Writable(second, 2000));
    EXPECT_EQ(Receive(second), "EHOSTDOWN");
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(1200));
}

TEST_F(Air, SevenLinksABrick)
{
    const int server = As_Robot2([] { return Open(); });
    ASSERT_EQ(Bind(server, ROBOT2, 3), "0");
    ASSERT_EQ(listen(server, 8), 0);
    EXPECT_EQ(Call_FromBricks(8), "EAGAIN EAGAIN EAGAIN EAGAIN EAGAIN EAGAIN EAGAIN ECONNREFUSED ");
}

// L2CAP keeps the bounds of messages; a waiting reader of RFCOMM gets the first frame of a long one.
TEST_F(Air, BoundsOfMessages)
{
    Link();
    bool isCut = false;
    for (int i = 0; i < 50 && !isCut; ++i) {  // a busy machine may be late
        auto waiting = std::async(std::launch::async, [this] {
            char bytes[4000];
            const ssize_t first = recv(m_Far, bytes, sizeof(bytes), 0);
            for (ssize_t all = first; all < 4000;)
                all += recv(m_Far, bytes, sizeof(bytes), 0);
            return first < 4000;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(Send(m_Near, std::string(4000, 'x')), "4000");
        isCut = waiting.get();
    }
    EXPECT_TRUE(isCut);

    const auto open = [] { return socket(AF_BLUETOOTH, SOCK_SEQPACKET, BTPROTO_L2CAP); };
    sockaddr_l2 address{};
    address.l2_family = AF_BLUETOOTH;
    address.l2_psm = htobs(0x1001);
    const int server = As_Robot2(open);
    ASSERT_EQ(bind(server, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(server, 1), 0);
    const int client = open();
    str2ba(ROBOT2, &address.l2_bdaddr);
    ASSERT_EQ(Errno(connect(client, reinterpret_cast<sockaddr*>(&address), sizeof(address))), "0");
    const int accepted = accept(server, nullptr, nullptr);
    EXPECT_EQ(Send(client, "one"), "3");
    EXPECT_EQ(Send(client, "two"), "3");
    EXPECT_EQ(Receive(accepted), "one");
    EXPECT_EQ(Receive(accepted), "two");
    EXPECT_EQ(Send(client, std::string(673, 'x')), "EMSGSIZE");
}

// What a brick's programs find when one of them switches the adapter off.
TEST_F(Air, AdapterOffAndOn)
{
    Link();
    const int control = socket(AF_BLUETOOTH, SOCK_RAW, BTPROTO_HCI);
    hci_dev_info info{};
    ASSERT_EQ(ioctl(control, HCIDEVDOWN, 0), 0);
    EXPECT_EQ(hci_devinfo(0, &info), 0);
    EXPECT_EQ(info.flags & 1U << HCI_UP, 0U);
    EXPECT_EQ(Receive(m_Near), "ECONNABORTED");
    EXPECT_EQ(Receive(m_Near), "EAGAIN");
    EXPECT_EQ(Connect(Open(), ROBOT2, 16), "EHOSTUNREACH");
    EXPECT_EQ(Receive(m_Far), "ETIMEDOUT");
    ASSERT_EQ(ioctl(control, HCIDEVUP, 0), 0);
    EXPECT_EQ(Errno(ioctl(control, HCIDEVUP, 0)), "EALREADY");
    EXPECT_EQ(Errno(hci_get_route(nullptr)), "0");
}

// Options that are asked for, or set and asked for; of sockets of each kind.
TEST_F(Air, OptionsOfSockets)
{
    Link();
    const int hci = socket(AF_BLUETOOTH, SOCK_RAW, BTPROTO_HCI);
    const int l2cap = socket(AF_BLUETOOTH, SOCK_SEQPACKET, BTPROTO_L2CAP);
    const int fresh = Open();
    const struct
    {
        int Fd, Level, Option, Set;  // -1: only asked for
        const char *SetResult, *Got;
    } CASES[] = {
        {fresh, SOL_SOCKET, SO_DOMAIN, -1, "", "31"},
        {l2cap, SOL_SOCKET, SO_TYPE, -1, "", "5"},
        {fresh, SOL_SOCKET, SO_PROTOCOL, -1, "", "3"},
        {l2cap, SOL_SOCKET, SO_PROTOCOL, -1, "", "0"},
        {hci, SOL_SOCKET, SO_PROTOCOL, -1, "", "1"},
        {fresh, SOL_SOCKET, SO_KEEPALIVE, 1, "0", "1"},
        {fresh, SOL_BLUETOOTH, BT_SECURITY, -1, "", "1"},
        {fresh, SOL_BLUETOOTH, BT_SECURITY, BT_SECURITY_HIGH, "0", "3"},
        {fresh, SOL_BLUETOOTH, BT_SECURITY, 9, "EINVAL", "3"},
        {fresh, SOL_RFCOMM, RFCOMM_LM, -1, "", "38"},
        {fresh, SOL_RFCOMM, RFCOMM_LM, RFCOMM_LM_AUTH, "0", "2"},
        {fresh, SOL_RFCOMM, RFCOMM_LM, RFCOMM_LM_AUTH | RFCOMM_LM_ENCRYPT, "0", "6"},
        {fresh, SOL_RFCOMM, RFCOMM_LM, RFCOMM_LM_SECURE, "0", "38"},
        {fresh, SOL_RFCOMM, RFCOMM_CONNINFO, -1, "", "ENOTCONN"},
        {m_Near, SOL_RFCOMM, RFCOMM_CONNINFO, -1, "", "1"},
        {fresh, SOL_RFCOMM, 99, 1, "ENOPROTOOPT", "ENOPROTOOPT"},
        {fresh, SOL_L2CAP, L2CAP_OPTIONS, 1, "ENOPROTOOPT", "ENOPROTOOPT"},
        {l2cap, SOL_L2CAP, L2CAP_OPTIONS, 672, "0", "44040864"},  // 672 twice
        {l2cap, SOL_L2CAP, L2CAP_LM, -1, "", "2"},
        {l2cap, SOL_L2CAP, 99, -1, "", "ENOPROTOOPT"},
        {l2cap, SOL_RFCOMM, RFCOMM_LM, 1, "ENOPROTOOPT", "ENOPROTOOPT"},
        {hci, SOL_HCI, HCI_TIME_STAMP, 1, "0", "0"},
        {hci, SOL_HCI, HCI_FILTER, 16, "0", "16"},
        {hci, SOL_RFCOMM, RFCOMM_LM, 1, "ENOPROTOOPT", "ENOPROTOOPT"},
    };
    for (const auto& test : CASES) {
        SCOPED_TRACE(std::to_string(test.Level) + " " + std::to_string(test.Option) + " " + std::to_string(test.Set));
        int value = test.Set;
        const bool sets = test.Set >= 0;
        EXPECT_EQ(sets ? Errno(setsockopt(test.Fd, test.Level, test.Option, &value, sizeof(value))) : "",
                  test.SetResult);
        socklen_t length = sizeof(value);
        value = 0;
        const std::string result = Errno(getsockopt(test.Fd, test.Level, test.Option, &value, &length));
        EXPECT_EQ(result == "0" ? std::to_string(value) : result, test.Got);
    }
    int mode = 0;
    EXPECT_EQ(Errno(setsockopt(fresh, SOL_RFCOMM, RFCOMM_LM, &mode, 1)), "EINVAL") << "too short";
    const struct
    {
        int Type, Protocol;
        const char* Result;
    } SOCKETS[] = {{SOCK_DGRAM, BTPROTO_RFCOMM, "EPROTONOSUPPORT"},
                   {SOCK_SEQPACKET, BTPROTO_RFCOMM, "EPROTONOSUPPORT"},
                   {SOCK_STREAM, BTPROTO_HCI, "EPROTONOSUPPORT"},
                   {SOCK_DGRAM, BTPROTO_L2CAP, "EPROTONOSUPPORT"},
                   {SOCK_RAW, BTPROTO_SCO, "EPROTONOSUPPORT"}};
    for (const auto& test : SOCKETS)
        EXPECT_EQ(Errno(socket(AF_BLUETOOTH, test.Type, test.Protocol)), test.Result) << test.Type << test.Protocol;
}

// What hciconfig and others ask of an adapter, by ioctl and by commands.
TEST_F(Air, ControlOfTheAdapter)
{
    const int control = hci_open_dev(0);
    hci_version version{};
    EXPECT_EQ(hci_read_local_version(control, &version, 1000), 0);
    EXPECT_EQ(version.manufacturer, 0xFFFF);
    std::uint8_t features[8] = {}, type[3] = {1, 1, 1};
    EXPECT_EQ(hci_read_local_features(control, features, 1000), 0);
    EXPECT_EQ(hci_read_class_of_dev(control, type, 1000), 0);
    EXPECT_EQ(type[0] + type[1] + type[2], 0);
    bdaddr_t address{};
    EXPECT_EQ(hci_read_bd_addr(control, &address, 1000), 0);
    EXPECT_EQ(address.b[0], 1);
    EXPECT_EQ(hci_write_local_name(control, "Anna", 1000), 0);
    char name[249] = {};
    EXPECT_EQ(hci_read_local_name(control, sizeof(name), name, 1000), 0);
    EXPECT_STREQ(name, "Anna");
    std::uint8_t wanted = SCAN_PAGE, scan[2] = {};
    hci_request request{};
    request.ogf = OGF_HOST_CTL;
    request.ocf = OCF_WRITE_SCAN_ENABLE;
    request.cparam = &wanted;
    request.clen = sizeof(wanted);
    EXPECT_EQ(hci_send_req(control, &request, 1000), 0);
    request = {};
    request.ogf = OGF_HOST_CTL;
    request.ocf = OCF_READ_SCAN_ENABLE;
    request.rparam = scan;
    request.rlen = sizeof(scan);
    EXPECT_EQ(hci_send_req(control, &request, 1000), 0);
    EXPECT_EQ(scan[1], SCAN_PAGE);
    EXPECT_EQ(Errno(hci_write_inquiry_mode(control, 1, 1000)), "EIO") << "an unknown command";
    EXPECT_EQ(Errno(write(control, "ab", 2)), "EINVAL") << "no command";

    Link();
    alignas(hci_conn_list_req) char room[sizeof(hci_conn_list_req) + 2 * sizeof(hci_conn_info)] = {};
    auto* const links = reinterpret_cast<hci_conn_list_req*>(room);
    for (const bool hasRoom : {true, false}) {
        links->conn_num = hasRoom ? 2 : 0;
        EXPECT_EQ(ioctl(control, HCIGETCONNLIST, links), 0);
        EXPECT_EQ(links->conn_num, hasRoom ? 1 : 0) << "as many as there is room for";
    }
    EXPECT_EQ(links->conn_info[0].link_mode, HCI_LM_MASTER);
    EXPECT_EQ(links->conn_info[0].bdaddr.b[0], 2);

    hci_dev_req discoverable{0, SCAN_PAGE | SCAN_INQUIRY};
    struct
    {
        hci_inquiry_req Request;
        inquiry_info Room;
    } inquiry{{0, IREQ_CACHE_FLUSH, {}, 1, 1}, {}};
    const struct
    {
        unsigned long Request;
        void* Argument;
        const char *Up, *Down;
    } CASES[] = {
        {HCISETSCAN, &discoverable, "0", "ENETDOWN"},
        {HCIINQUIRY, &inquiry, "0", "ENETDOWN"},
        {HCIDEVRESET, nullptr, "0", "ENETDOWN"},
        {HCISETPTYPE, &discoverable, "EOPNOTSUPP", "ENETDOWN"},
        {HCIDEVRESTAT, reinterpret_cast<void*>(7), "ENODEV", "ENODEV"},
    };
    for (const bool isUp : {true, false}) {
        for (const auto& test : CASES)
            EXPECT_EQ(Errno(ioctl(control, test.Request, test.Argument)), isUp ? test.Up : test.Down) << test.Request;
        EXPECT_EQ(ioctl(control, HCIDEVDOWN, 0), 0);
    }
    EXPECT_EQ(Errno(hci_read_local_name(control, sizeof(name), name, 1000)), "ENETDOWN");
    sockaddr_hci monitor{AF_BLUETOOTH, HCI_DEV_NONE, 2};
    EXPECT_EQ(Errno(bind(control, reinterpret_cast<sockaddr*>(&monitor), sizeof(monitor))), "EINVAL");
    int on = 0;
    EXPECT_EQ(ioctl(control, FIONREAD, &on), 0) << "which is any socket's";
    std::uint16_t adapters = 0;
    EXPECT_EQ(ioctl(control, HCIGETDEVLIST, &adapters), 0);
    EXPECT_EQ(adapters, 0) << "no room";
}

TEST_F(Air, NamesOfDevices)
{
    tav_air::Put({"02:00:00:00:00:03", "Robot3", true, true, false});
    const int adapter = hci_open_dev(0);
    const int rfcomm = Open();
    const struct
    {
        const char* What;
        int Fd;
        const char* Brick;
        int Timeout;
        const char *Result, *Name;
    } CASES[] = {
        {"in range", adapter, ROBOT2, 0, "0", "Robot2"},
        {"absent", adapter, "02:00:00:00:00:99", 0, "EIO", ""},
        {"silent", adapter, "02:00:00:00:00:03", 0, "EIO", ""},
        {"not an adapter", rfcomm, ROBOT2, 0, "ENOPROTOOPT", ""},
    };
    for (const auto& test : CASES) {
        SCOPED_TRACE(test.What);
        const sockaddr_rc address = Address(test.Brick, 0);
        char name[8] = {};
        EXPECT_EQ(Errno(hci_read_remote_name(test.Fd, &address.rc_bdaddr, sizeof(name), name, test.Timeout)),
                  test.Result);
        EXPECT_STREQ(name, test.Name);
    }
    char own[249] = {};
    EXPECT_EQ(hci_read_local_name(adapter, sizeof(own), own, 1000), 0);
    EXPECT_STREQ(own, "Robot1");
    EXPECT_EQ(Errno(hci_open_dev(7)), "ENODEV");

    // What l2ping does.
    sockaddr_l2 device{};
    device.l2_family = AF_BLUETOOTH;
    for (const char* brick : {"02:00:00:00:00:99", ROBOT2}) {
        const int echo = socket(AF_BLUETOOTH, SOCK_RAW, BTPROTO_L2CAP);
        str2ba(brick, &device.l2_bdaddr);
        const std::string result = Errno(connect(echo, reinterpret_cast<sockaddr*>(&device), sizeof(device)));
        EXPECT_EQ(result, brick == ROBOT2 ? "0" : "EHOSTDOWN");
        if (result != "0") continue;
        EXPECT_EQ(Send(echo, "\x01 no echo") + Send(echo, "\x08 echo"), "96");
        EXPECT_EQ(Receive(echo), "\x09 echo");
    }
    Enter_Air(1);  // a program's time-outs are its own
    const sockaddr_rc absent = Address("02:00:00:00:00:99", 0);
    EXPECT_EQ(Errno(hci_read_remote_name(hci_open_dev(0), &absent.rc_bdaddr, sizeof(own), own, 50)), "ETIMEDOUT");
}

// Who asks without IREQ_CACHE_FLUSH is told what was found in the last 30 s.
TEST_F(Air, InquiriesFromTheCache)
{
    Enter_Air(20);
    const auto inquire = [](long flags) {
        inquiry_info* infos = nullptr;
        const int count = hci_inquiry(0, 1, 0, nullptr, &infos, flags);
        free(infos);
        return count;
    };
    EXPECT_EQ(inquire(0), 1);
    tav_air::Put({ROBOT2, "Robot2", false});
    EXPECT_EQ(inquire(0), 1);
    EXPECT_EQ(inquire(IREQ_CACHE_FLUSH), 0);
    tav_air::Put({ROBOT2, "Robot2"});
    EXPECT_EQ(inquire(0), 1) << "nothing found is nothing remembered";
    tav_air::Put({ROBOT2, "Robot2", false});
    std::this_thread::sleep_for(std::chrono::milliseconds(1600));
    EXPECT_EQ(inquire(0), 0);
}

TEST_F(Air, EveryCallFailsOnRequest)
{
    Link();
    const int fresh = Open(), server = Open(), adapter = hci_open_dev(0);
    EXPECT_EQ(Bind(server, ROBOT1, 5), "0");
    const bdaddr_t any{};
    const bdaddr_t robot2 = Address(ROBOT2, 0).rc_bdaddr;
    sdp_session_t* const session = sdp_connect(&any, &robot2, 0);
    ASSERT_NE(session, nullptr);
    char text[9] = {};
    int value = 0;
    socklen_t length = sizeof(value);
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(m_Near, &readable);
    const struct
    {
        const char* Call;
        std::function<std::string()> Make;
    } CASES[] = {
        {"socket", [] { return Errno(Open()); }},
        {"bind", [&] { return Bind(fresh, ROBOT1, 3); }},
        {"listen", [&] { return Errno(listen(server, 1)); }},
        {"accept", [&] { return Errno(accept(server, nullptr, nullptr)); }},
        {"connect", [&] { return Connect(fresh, ROBOT2, 3); }},
        {"select", [&] { return Errno(select(m_Near + 1, &readable, nullptr, nullptr, nullptr)); }},
        {"select", [&] { return Errno(pselect(m_Near + 1, &readable, nullptr, nullptr, nullptr, nullptr)); }},
        {"setsockopt", [&] { return Errno(setsockopt(fresh, SOL_RFCOMM, RFCOMM_LM, &value, length)); }},
        {"getsockopt", [&] { return Errno(getsockopt(fresh, SOL_SOCKET, SO_ERROR, &value, &length)); }},
        {"recv", [&] { return Receive(m_Near); }},
        {"send", [&] { return Send(m_Near, "x"); }},
        {"fcntl", [&] { return Errno(fcntl(m_Near, F_GETFL)); }},
        {"shutdown", [&] { return Errno(shutdown(m_Near, SHUT_WR)); }},
        {"close", [&] { return Errno(close(m_Near)); }},
        {"hci_devinfo", [] { return Errno(hci_devinfo(0, nullptr)); }},
        {"hci_get_route", [] { return Errno(hci_get_route(nullptr)); }},
        {"hci_open_dev", [] { return Errno(hci_open_dev(0)); }},
        {"hci_inquiry", [] { return Errno(hci_inquiry(0, 1, 1, nullptr, nullptr, 0)); }},
        {"hci_read_remote_name", [&] { return Errno(hci_read_remote_name(adapter, &robot2, 9, text, 0)); }},
        {"hci_read_local_name", [&] { return Errno(hci_read_local_name(adapter, 9, text, 0)); }},
        {"hci_close_dev", [&] { return Errno(hci_close_dev(adapter)); }},
        {"sdp_connect", [&] { return Errno(sdp_connect(&any, &robot2, 0) ? 0 : -1); }},
        {"sdp_service_search_attr_req",
         [&] { return Errno(sdp_service_search_attr_req(session, nullptr, SDP_ATTR_REQ_RANGE, nullptr, nullptr)); }},
        {"sdp_close", [&] { return Errno(sdp_close(session)); }},
    };
    for (const auto& test : CASES) {
        Ask_Faults(std::string(test.Call) + ":1=EXDEV");
        EXPECT_EQ(test.Make(), "EXDEV") << test.Call;
        EXPECT_EQ(Count(test.Call), 1);
    }
    auto left = std::vector<int>{m_Far, fresh, server};
    std::sort(left.begin(), left.end());
    EXPECT_EQ(tav_air::Get_Open(), left) << "what is told to fail to close is closed";
}

TEST_F(Air, FaultsOnRequest)
{
    const struct
    {
        const char *Rules, *Wrong;
    } CASES[] = {
        {"send:2=short:1 recv:1=short:2", ""},
        {"send", "'send' is not of the form CALL:N=EFFECT"},
        {"dance:1=EIO", "'dance' in 'dance:1=EIO' is no call that can fail"},
        {"=:", "'=:' is not of the form CALL:N=EFFECT"},
        {"send:0=EIO", "'0' in 'send:0=EIO' is neither a number from 1 on nor *"},
        {"send:x=EIO", "'x' in 'send:x=EIO' is neither a number from 1 on nor *"},
        {"recv:1=short:0", "'short:0' in 'recv:1=short:0' is neither the name of an errno (EIO, ...) nor vanish nor, "
                           "for send and recv, short:BYTES"},
        {"close:1=short:3", "'short:3' in 'close:1=short:3' is neither the name of an errno (EIO, ...) nor vanish nor, "
                            "for send and recv, short:BYTES"},
    };
    for (const auto& test : CASES)
        EXPECT_EQ(tav_air::Add_Faults(test.Rules), test.Wrong);
    Link();
    EXPECT_EQ(Send(m_Near, "one"), "3");
    EXPECT_EQ(Send(m_Near, "two"), "1");
    EXPECT_EQ(Receive(m_Far), "on");
    EXPECT_EQ(Receive(m_Far), "et");
    EXPECT_FALSE(tav_air::Enter("", 1) || tav_air::Enter(std::string(31, 'a'), 1) || tav_air::Enter("no/slash", 1));
    EXPECT_FALSE(tav_air::Enter("air", 0));
}

}  // namespace
