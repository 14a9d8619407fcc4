// The simulated air itself: that it does what was measured on Linux, and the faults that are asked for.
#include "tests/on_air.h"

#include <bluetooth/hci.h>
#include <bluetooth/hci_lib.h>
#include <bluetooth/l2cap.h>
#include <bluetooth/rfcomm.h>
#include <cstring>
#include <fcntl.h>
#include <future>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

using namespace tav_c_api_impl;

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
            EXPECT_EQ(call == 0   ? epoll_wait(watch, &event, 1, 0)
                      : call == 1 ? epoll_pwait(watch, &event, 1, 0, nullptr)
                                  : epoll_pwait2(watch, &event, 1, &now, nullptr),
                      1);
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
    EXPECT_EQ(listen(first, 1), 0);
    EXPECT_EQ(Call_FromBricks(3), "EAGAIN EAGAIN ECONNREFUSED ") << "a backlog of 1 lets 2 wait";
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
    dup2(0, copies[0]);
    close(copies[1]);
    EXPECT_EQ(Send(copies[2], "y"), "1");
    EXPECT_EQ(close_range(601, 602, 0), 0);
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

TEST_F(Air, FaultsOnRequest)
{
    const struct
    {
        const char *Rules, *Wrong;
    } CASES[] = {
        {"send:2=short:1 recv:1=short:2", ""},
        {"send", "'send' is not of the form CALL:N=EFFECT"},
        {"dance:1=EIO", "'dance' in 'dance:1=EIO' is no call that can fail"},
        {"send:0=EIO", "'0' in 'send:0=EIO' is neither a number from 1 on nor *"},
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
    EXPECT_FALSE(tav_air::Enter("no/slash", 1));
    EXPECT_FALSE(tav_air::Enter("air", 0));
}

}  // namespace
