// Outgoing connections and the server on the air: who is found and reached, and what stays open.
#include "tests/on_air.h"

#include <fcntl.h>
#include <sys/socket.h>

using namespace tav_c_api_impl;
using Lines = std::vector<std::string>;

namespace {

class Connections : public C_OnAir
{
protected:
    Connections()
    {
        m_One.Add_BT_Device("Robot2", ROBOT2, -1, 0);
        m_Server = As_Robot2([&] { return m_Two.OpenServer(5); });
        tav_air::Start_Trace();
    }

    C_TAV_Bluetooth m_One;
    C_TAV_Bluetooth m_Two;
    int m_Server = -1;
};

// ---- Client ---------------------------------------------------------------------------------------------------------

TEST_F(Connections, ConnectTimesOutAndNeedsAnIndex)
{
    Enter_Air(1);
    tav_air::Start_Trace();
    EXPECT_EQ(m_One.Connect_Index(0, 5, 0), -1);
    EXPECT_EQ(Log_Lines().back(), "C_TAV_Bluetooth::Connect_Index - Timeout");
    EXPECT_TRUE(tav_air::Get_Open().empty());
    EXPECT_TRUE(m_One.m_ClientSockets.empty() && m_One.m_ScanDevices[0].Socket == -1);
    tav_air::Start_Trace();
    EXPECT_EQ(m_One.Connect_Index(1, 5, 0), -1);
    EXPECT_EQ(Steps("Connect_Index"), "Start");
}

TEST_F(Connections, ConnectLooksInListThenFileThenAir)
{
    const std::string file = Bytes("47 68 6F 73 74 00 1C 30 00 1A");  // a device named Ghost without a valid address
    const struct
    {
        const char *What, *Name;
        bool File;
        const char* Fault;
        bool Found;
        long Reads, Scans;
    } CASES[] = {
        {"listed", "Robot2", true, "", true, 0, 0},
        {"listed, connect fails", "Robot2", true, "connect:1=EACCES", false, 0, 0},
        {"in the file", "Ghost", true, "", true, 1, 0},
        {"on the air, no file", "Robot3", false, "", true, 1, 1},
        {"on the air, not in the file", "Robot3", true, "", true, 1, 1},
        {"nowhere", "Robot4", true, "", false, 1, 1},
        {"scan fails", "Robot3", true, "hci_inquiry:1=EIO", false, 1, 1},
    };
    tav_air::Put({"02:00:00:00:00:03", "Robot3"});
    for (const auto& test : CASES) {
        SCOPED_TRACE(test.What);
        C_TAV_Bluetooth bluetooth;
        bluetooth.Add_BT_Device("Robot2", ROBOT2, -1, 0);
        DeleteFile("../prjs/SD_Card/__BTScan__");
        if (test.File) m_Folder.Write_List(C_ProjectFolder::CARD, file);
        Ask_Faults(test.Fault);
        const int socket = bluetooth.Connect(test.Name, 5, 2000);
        EXPECT_EQ(socket >= 0, test.Found);
        EXPECT_EQ(Count("C_TAV_Bluetooth::BT_ParseFileDevices - Start"), test.Reads);
        EXPECT_EQ(Count("hci_inquiry"), test.Scans);
        EXPECT_EQ(bluetooth.isConnected(test.Name) >= 0, test.Found);
        bluetooth.Disconnect(socket);
        Let_Go();
    }
}

TEST_F(Connections, DisconnectGoesByTheRememberedIndex)
{
    m_One.Add_BT_Device("Other", "02:00:00:00:00:03", -1, 0);
    EXPECT_FALSE(m_One.Disconnect(m_Server));
    const int first = m_One.Connect_Index(0, 5, 2000);
    const int second = m_One.Connect_Index(0, 7, 2000);  // same device: the earlier socket stays open
    EXPECT_EQ(m_One.m_ClientSockets.size(), 2U);
    EXPECT_EQ(m_One.m_ScanDevices[0].Socket, second);
    EXPECT_TRUE(m_One.Disconnect(first));
    EXPECT_EQ(m_One.m_ScanDevices[0].Socket, -1);
    EXPECT_EQ(m_One.m_ScanDevices[0].Port, 0);
    tav_air::Start_Trace();
    EXPECT_TRUE(m_One.Disconnect(second));
    EXPECT_TRUE(m_One.Disconnect(second)) << "the entry outlives the connection";
    EXPECT_EQ(Steps(""), "shutdown(SHUT_RDWR); close()");
    EXPECT_EQ(m_One.m_ClientSockets.count(second), 1U);

    const int third = m_One.Connect_Index(0, 7, 2000);
    m_One.m_ScanDevices.clear();
    EXPECT_FALSE(m_One.Disconnect(third)) << "its index is out of range";
    m_One.Close();
    EXPECT_EQ(tav_air::Get_Open(), (std::vector<int>{std::min(m_Server, third), std::max(m_Server, third)}));
}

TEST_F(Connections, CloseClientTakesTheLowestServersRecord)
{
    S_SocketPair link;
    S_BT_ScanDevice client;
    client.Socket = link.Near;
    EXPECT_FALSE(m_One.CloseClient(link.Near));
    m_One.m_ServerClients[900] = {client};
    m_One.m_ServerClients[800] = {S_BT_ScanDevice(), client, S_BT_ScanDevice()};
    m_One.m_ServerClients[800][2].Name = "last";
    EXPECT_TRUE(m_One.CloseClient(link.Near));
    char byte = 0;
    EXPECT_EQ(recv(link.Far, &byte, 1, 0), 0) << "closed";
    link.Near = -1;
    ASSERT_EQ(m_One.m_ServerClients[800].size(), 2U);
    EXPECT_EQ(m_One.m_ServerClients[800][1].Name, "last");
    EXPECT_EQ(m_One.m_ServerClients[900].size(), 1U);
    EXPECT_FALSE(m_One.CloseClient(12345));
    m_One.m_ServerClients.clear();
}

// ---- Server ---------------------------------------------------------------------------------------------------------

TEST_F(Connections, AcceptedSocketsAreBlocking)
{
    m_One.Connect_Index(0, 5, 2000);
    const int client = m_Two.AcceptClient(m_Server, 1500);
    const auto& record = m_Two.m_ServerClients.at(m_Server).at(0);
    EXPECT_TRUE(record.AddrText == ROBOT1 && record.Port == 5 && record.Socket == client && record.Name.empty());
    EXPECT_EQ(record.Addr.b[0], 1) << "last byte first";
    EXPECT_FALSE(fcntl(client, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(m_Two.AcceptClient(m_Server, 0), -1);
    EXPECT_EQ(Log_Lines().back(), "C_TAV_Bluetooth::AcceptClient - Timeout");
    EXPECT_EQ(m_Two.m_ServerClients.at(m_Server).size(), 1U);
}

TEST_F(Connections, OnlyAServerWithClientsIsClosed)
{
    int server = m_Server;
    tav_air::Start_Trace();
    EXPECT_FALSE(m_Two.CloseServer(server));
    EXPECT_FALSE(m_Two.CloseAllClient(server));
    EXPECT_TRUE(m_Two.CloseAllServer());
    const std::string start = "Start(Server Socket : " + std::to_string(server) + ")";
    EXPECT_EQ(Steps("CloseAllClient"), start);
    EXPECT_EQ(server, m_Server);

    m_One.Connect_Index(0, 5, 2000);
    const int client = m_Two.AcceptClient(m_Server, 1000);
    tav_air::Start_Trace();
    EXPECT_TRUE(m_Two.CloseAllClient(server));
    EXPECT_TRUE(m_Two.CloseAllClient(server));
    EXPECT_TRUE(m_Two.CloseServer(server));
    EXPECT_EQ(Steps("CloseAllClient"), start + "; 2(" + std::to_string(client) +
                                           "); shutdown(SHUT_RDWR); close(); End; " + start + "; 1(Not any client); " +
                                           start + "; 1(Not any client); shutdown(SHUT_RDWR); close()");
    EXPECT_EQ(server, -1);
    EXPECT_TRUE(m_Two.m_ServerClients.empty());
}

// ---- The built-in server --------------------------------------------------------------------------------------------

class BuiltInServer : public Connections
{
protected:
    ~BuiltInServer() override
    {
        if (m_Two.m_AcceptRunning) m_Two.CloseServer_TAV();
    }

    // Connects `count` bricks of their own to the server's list, without the accept thread.
    void Connect_Clients(int count)
    {
        m_Two.m_ServerSocket = As_Robot2([&] { return m_Two.OpenServer(16); });
        for (int i = 0; i < count; ++i) {
            const std::string address = "02:00:00:00:01:0" + std::to_string(i);
            tav_air::Put({address, "Client"});
            tav_air::Act_As(address);
            m_Clients.push_back(m_One.Connect_Index(0, 16, 2000));
            ASSERT_GE(m_Two.AcceptClient(m_Two.m_ServerSocket, 1000), 0);
        }
        tav_air::Act_As(ROBOT1);
    }

    std::vector<int> m_Clients;
};

TEST_F(BuiltInServer, AcceptsOnItsThreadAndTalksBothWays)
{
    for (int round = 0; round < 2; ++round) {  // opened again after a close
        ASSERT_TRUE(As_Robot2([&] { return m_Two.OpenServer_TAV(); }));
        ASSERT_TRUE(m_One.SendMsg_TAV_String("Robot2", "abc", "Hi"));
        std::string text;
        EXPECT_EQ(m_Two.Server_ReadMsg_TAV_String("AB", "abc", text, 100, 5000), 2);
        EXPECT_TRUE(m_Two.Server_SendMsg_TAV_Bool("abc", true));
        bool value = false;
        EXPECT_FALSE(m_One.ReadMsg_TAV_Bool("Robot2", "abc", value, 2000)) << "the sender is AB, not Robot2";
        g_BrickName = "Robot2";
        EXPECT_TRUE(m_Two.Server_SendMsg_TAV_Bool("abc", true));
        EXPECT_TRUE(m_One.ReadMsg_TAV_Bool("Robot2", "abc", value, 2000));
        EXPECT_TRUE(value);
        const unsigned char data[] = {0, 0xFF};
        const int client = m_Two.m_ServerClients.at(m_Two.m_ServerSocket).at(0).Socket;
        EXPECT_TRUE(m_Two._SendMsg_TAV_Data(client, "raw", data, 2));
        EXPECT_EQ(m_One.ReadMsg_TAV_Data("Robot2", "raw", text, 100, 2000), 2);
        EXPECT_EQ(text, Bytes("00 FF"));
        g_BrickName = "AB";
        EXPECT_TRUE(m_Two.CloseServer_TAV());
        EXPECT_EQ(m_Two.m_ServerSocket, -1);
        EXPECT_FALSE(m_Two.m_AcceptRunning);
        EXPECT_TRUE(m_One.Disconnect(m_One.m_ScanDevices[0].Socket));
        EXPECT_EQ(tav_air::Get_Open(), std::vector<int>{m_Server});
        Let_Go();
    }
}

TEST_F(BuiltInServer, WithoutClientsStaysOpen)
{
    EXPECT_FALSE(m_Two.CloseServer_TAV()) << "never opened";
    EXPECT_FALSE(As_Robot2([&] { return m_Two.Server_SendMsg_TAV_Bool("abc", true); }));
    EXPECT_GE(m_Two.m_ServerSocket, 0) << "opened on demand";
    bool value = true;
    EXPECT_FALSE(m_Two.Server_ReadMsg_TAV_Bool("AB", "abc", value, 0));
    ASSERT_TRUE(Wait_Until([&] { return m_Two.m_AcceptRunning; }));
    EXPECT_FALSE(m_Two.CloseServer_TAV());
    EXPECT_GE(m_Two.m_ServerSocket, 0);
    m_Two.Close();
    EXPECT_EQ(m_Two.m_ServerSocket, -1);
    EXPECT_EQ(tav_air::Get_Open().size(), 2U) << "the socket itself is left";
}

TEST_F(BuiltInServer, BroadcastReachesEveryClientAndIgnoresFailures)
{
    Connect_Clients(3);
    m_Two.m_ServerClients[m_Two.m_ServerSocket][1].Socket = -1;
    Ask_Faults("send:1=EIO");
    EXPECT_TRUE(m_Two.Server_SendMsg_TAV_String("abc", "Hi"));
    std::string text;
    EXPECT_EQ(m_One._ReadMsg_TAV_String(m_Clients[0], "AB", "abc", text, 100, 0), -1) << "its send failed";
    EXPECT_EQ(m_One._ReadMsg_TAV_String(m_Clients[1], "AB", "abc", text, 100, 0), -1) << "its record has no socket";
    EXPECT_EQ(m_One._ReadMsg_TAV_String(m_Clients[2], "AB", "abc", text, 100, 0), 2);
}

TEST_F(BuiltInServer, ReadsFromTheFirstClientThatMatches)
{
    Connect_Clients(3);
    g_BrickName = "Other";
    m_One._SendMsg_TAV_String(m_Clients[0], "abc", "from another brick");
    g_BrickName = "AB";
    m_One._SendMsg_TAV_String(m_Clients[1], "abc", "second");
    m_One._SendMsg_TAV_String(m_Clients[2], "abc", "third");
    std::string text;
    EXPECT_EQ(m_Two.Server_ReadMsg_TAV_String("AB", "abc", text, 100, 1000), 6);
    EXPECT_EQ(text, "second");
    EXPECT_EQ(m_Two.Server_ReadMsg_TAV_String("AB", "abc", text, 100, 1000), 5);
    EXPECT_EQ(m_Two.Server_ReadMsg_TAV_String("AB", "abc", text, 100, 5), -1) << "the first one's is consumed";
    EXPECT_EQ(text, "third");
}

// ---- The public message operations ----------------------------------------------------------------------------------

TEST_F(Connections, MessageOperationsConnectOnDemand)
{
    bool flag = true;
    std::string text = "before";
    const std::string name = "Robot2";
    const struct
    {
        const char* Operation;
        bool Logs;
        const char* NotConnected;
        int Channel;
        std::function<bool(C_TAV_Bluetooth&)> Fails;
    } CASES[] = {
        {"SendMsg_TAV_Data", true, "1", 16, [&](auto& b) { return !b.SendMsg_TAV_Data(name, "abc", nullptr, 0); }},
        {"SendMsg_TAV_Bool", false, "", 16, [&](auto& b) { return !b.SendMsg_TAV_Bool(name, "abc", true); }},
        {"SendMsg_TAV_String", true, "1", 16, [&](auto& b) { return !b.SendMsg_TAV_String(name, "abc", "Hi"); }},
        {"ReadMsg_TAV_Data", true, "1(Not Connected)", 16,
         [&](auto& b) { return b.ReadMsg_TAV_Data(name, "abc", text, 9, 0) == -1; }},
        {"ReadMsg_TAV_Bool", false, "", 16, [&](auto& b) { return !b.ReadMsg_TAV_Bool(name, "abc", flag, 0); }},
        {"ReadMsg_TAV_String", true, "1(Not Connected)", 16,
         [&](auto& b) { return b.ReadMsg_TAV_String(name, "abc", text, 9, 0) == -1; }},
        {"SendMsg_TAVOrg_Bool", true, "1", 1, [&](auto& b) { return !b.SendMsg_TAVOrg_Bool(name, "abc", true); }},
        {"SendMsg_TAVOrg_String", true, "1", 1, [&](auto& b) { return !b.SendMsg_TAVOrg_String(name, "abc", "Hi"); }},
        {"ReadMsg_TAVOrg_Bool", true, "1(Not Connected)", 1,
         [&](auto& b) { return !b.ReadMsg_TAVOrg_Bool(name, "abc", flag, 0); }},
        {"ReadMsg_TAVOrg_String", true, "1(Not Connected)", 1,
         [&](auto& b) { return b.ReadMsg_TAVOrg_String(name, "abc", text, 9, 0) == -1; }},
    };
    for (const auto& test : CASES) {
        SCOPED_TRACE(test.Operation);
        const std::string log = std::string("C_TAV_Bluetooth::") + test.Operation + " - ";
        const auto steps = [&] {
            Lines lines;
            for (const auto& line : Log_Lines())
                if (line.rfind(log, 0) == 0) lines.push_back(line.substr(log.size()));
            return test.Logs ? lines : Lines{lines.empty() ? "none" : "unexpected"};
        };
        C_TAV_Bluetooth bluetooth;
        bluetooth.Add_BT_Device(name, ROBOT2, -1, 0);
        Ask_Faults("connect:1=EACCES");
        text = "before";
        EXPECT_TRUE(test.Fails(bluetooth));
        EXPECT_EQ(text, "before");
        EXPECT_EQ(steps(), test.Logs ? (Lines{"Start", test.NotConnected, "Error(Not Connect)"}) : Lines{"none"});
        EXPECT_EQ(Count("connect(02:00:00:00:00:02, " + std::to_string(test.Channel) + ")"), 1);
        EXPECT_EQ(Count("select(write, 20.000000)"), 0);

        tav_air::Clear_Faults();
        tav_air::Start_Trace();
        test.Fails(bluetooth);  // connects, though nobody listens
        const std::string socket = "(" + std::to_string(bluetooth.m_ScanDevices[0].Socket) + ")";
        EXPECT_EQ(steps(), test.Logs ? (Lines{"Start", test.NotConnected, "2" + socket}) : Lines{"none"});
        EXPECT_EQ(Count("select(write, 20.000000)"), 1);
        tav_air::Start_Trace();
        test.Fails(bluetooth);
        EXPECT_EQ(steps(), test.Logs ? (Lines{"Start", "3" + socket}) : Lines{"none"});
        EXPECT_TRUE(bluetooth.Disconnect(bluetooth.m_ScanDevices[0].Socket));
        EXPECT_TRUE(flag);
    }
}

}  // namespace
