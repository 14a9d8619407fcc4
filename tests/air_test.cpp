// The simulated air itself: that it does what was measured on Linux, and the faults that are asked for.
#include "tests/on_air.h"

#include <bluetooth/hci.h>
#include <bluetooth/hci_lib.h>
#include <bluetooth/rfcomm.h>
#include <fcntl.h>
#include <future>
#include <poll.h>
#include <sys/socket.h>

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

    static std::string Send(int fd, const std::string& bytes) { return Errno(send(fd, bytes.data(), bytes.size(), 0)); }

    static std::string Receive(int fd)
    {
        char bytes[100];
        const ssize_t count = recv(fd, bytes, sizeof(bytes), 0);
        return count > 0 ? std::string(bytes, static_cast<std::size_t>(count)) : Errno(count);
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
    EXPECT_EQ(Receive(m_Near), "last");
    EXPECT_EQ(Receive(m_Near), "ECONNRESET");
    EXPECT_EQ(Receive(m_Near), "EAGAIN");
    EXPECT_EQ(Send(m_Near, "more"), "ENOTCONN") << "and no SIGPIPE";
    pollfd end{m_Near, POLLIN | POLLOUT, 0};
    EXPECT_EQ(poll(&end, 1, 0), 1);
    EXPECT_EQ(end.revents & (POLLIN | POLLOUT | POLLHUP), POLLIN | POLLOUT | POLLHUP);
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
    std::string states;
    for (int i = 0; i < 3; ++i) {
        const std::string address = "02:00:00:00:02:0" + std::to_string(i);
        tav_air::Put({address, "Client"});
        tav_air::Act_As(address);
        const int client = Open();
        EXPECT_EQ(Connect(client, ROBOT2, 3), "EINPROGRESS");
        EXPECT_TRUE(Is_Writable(client, 2000));
        states += Receive(client) + " ";
    }
    EXPECT_EQ(states, "EAGAIN EAGAIN ECONNREFUSED ") << "a backlog of 1 lets 2 wait";
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
        {"silent", adapter, "02:00:00:00:00:03", 1000, "ETIMEDOUT", ""},
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
