#include "tests/scenarios/scenario.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr const char* R1 = "Robot1";
constexpr const char* R2 = "Robot2";
constexpr const char* R3 = "Robot3";
constexpr const char* R4 = "Robot4";

const std::string LINKED = "Connect_Index: Start|1|2|3a|3b|4a|4b(1)";
const auto SAY_TRUE = [](S_Robot& robot) { return robot.Say_True(); };

std::string Receive_Fails(const std::string& error)
{
    return "ReadData: Start(1024)|1(1)|Error in fce recv(Error Code " + error + ")|2(-1)";
}

std::string Send_Fails(const std::string& error)
{
    return "WriteData: Start(12)|1(1)|Error in fce send(Error Code " + error + ")|2(-1)";
}

// ---- What many scenarios have in common -----------------------------------------------------------------------------

S_Steps Open(const std::string& who, unsigned char channel, int line = __builtin_LINE())
{
    const auto open = [=](S_Robot& robot) { return robot.Open(channel); };
    return Do(who, "#", "OpenServer: Start(" + Text(channel) + ")|1|2|3|4", open, line);
}

S_Steps Reach(const std::string& who, const std::string& whom, unsigned char channel, int line = __builtin_LINE())
{
    const auto reach = [=](S_Robot& robot) { return robot.Reach(whom, channel, 20000); };
    return Do(who, "#", LINKED, reach, line);
}

std::string Accepted(const std::string& whom, unsigned char channel)
{
    return "AcceptClient: Start(#)|1|2|3|4|5(Device Name : )|5(Addr : " + Get_Address(whom) +
           ")|5(Socket : #)|5(Port : " + Text(channel) + ")|End(Client : #)";
}

S_Steps Accept(const std::string& who, const std::string& whom, unsigned char channel, int line = __builtin_LINE())
{
    const auto accept = [](S_Robot& robot) { return robot.Accept(); };
    return Do(who, "#", Accepted(whom, channel), accept, line);
}

// Robot1 is connected to Robot2.
S_Steps Connected(unsigned char channel, int line = __builtin_LINE())
{
    return Join({Open(R2, channel, line), Reach(R1, R2, channel, line), Accept(R2, R1, channel, line)});
}

S_Steps Hang_Up(const std::string& who, int line = __builtin_LINE())
{
    const auto hangUp = [](S_Robot& robot) { return robot.Hang_Up(); };
    return Join({Do(who, "true", "", hangUp, line), Pause(0.4)});
}

// ---- Discovery and connections --------------------------------------------------------------------------------------

const std::string LAMP_AND_2 = "Lamp 02:00:00:00:00:21, Robot2 02:00:00:00:00:02";

S_Steps Inquiry()
{
    const auto scan = [](S_Robot& robot) { return robot.BT_Scan(); };
    return Join({
        // The name request to Ghost, which tells none, takes the page time-out of 5.12 s.
        Takes(15.3, 25, Meanwhile(Do(R1, "2", "BT_Scan: Start", scan))),
        Takes(15.3, 25, Meanwhile(Do(R2, "2", "BT_Scan: Start", scan))),
        Do(R1, LAMP_AND_2, [](S_Robot& robot) { return robot.Devices(); }),
        Do(R2, "Lamp 02:00:00:00:00:21, Robot1 02:00:00:00:00:01", [](S_Robot& robot) { return robot.Devices(); }),
        Do(R1, "true", [](S_Robot& robot) { return robot.Close(), robot.BT_ParseFileDevices(); }),
        Do(R1, LAMP_AND_2, [](S_Robot& robot) { return robot.Devices(); }),
        Do(R1, "false", [](S_Robot&) { return Text(access("../prjs/__BTScan__", F_OK) == 0); }),  // it has a card
        Do(R2, "true", [](S_Robot&) { return Text(access("../prjs/__BTScan__", F_OK) == 0); }),
    });
}

S_Steps Nobody()
{
    return Join({
        Takes(10.2, 13, Do(R1, "-1", [](S_Robot& robot) { return robot.Connect("Robot2", 16, 2000); })),
        Do(R1, "true", [](S_Robot& robot) { return robot.BT_ParseFileDevices(); }),
        Do(R1, "-1", [](S_Robot& robot) { return robot.Get_IndexScanDevice("Robot2"); }),
    });
}

// Without an adapter, or with one that is down.
S_Steps Without_Adapter()
{
    return Join({
        Do(R1, "-1", "BT_Scan: Start|Error in fce hci_get_route(Error Code 19 : No such device)",
           [](S_Robot& robot) { return robot.BT_Scan(); }),
        Do(R1, "-1", "Connect_Index: Start|1|2|3a|Error in fce connect(Error Code 113 : No route to host)",
           [](S_Robot& robot) { return robot.Reach("Robot2", 16, 2000); }),
        Open(R1, 5),
        Do(R1, "false", "Get_BT_Services: Start|Error in fce sdp_connect(Error Code 113 : No route to host)",
           [](S_Robot& robot) { return robot.Get_BT_Services("Robot2"); }),
    });
}

S_Steps Adapter_Down()
{
    return Join({
        Connected(16),
        Shell(R1, "hciconfig hci0 down && echo down", "down"),
        Do(R1, "false", Receive_Fails("103 : Software caused connection abort"),
           [](S_Robot& robot) { return robot.Read_Bool(R2, 500); }),
        Do(R1, "false", Send_Fails("107 : Transport endpoint is not connected"), SAY_TRUE),
        Without_Adapter(),
        Shell(R1, "hciconfig hci0 up && hciconfig hci0 piscan && hciconfig hci0", "UP RUNNING PSCAN ISCAN"),
    });
}

S_Steps Adapter_Absent()
{
    const std::string attach = "(setsid btattach -B /dev/hvc0 -P h4 >/dev/null 2>&1 &); "
                               "while ! hciconfig hci0 up 2>/dev/null; do usleep 50000; done; "
                               "hciconfig hci0 name Robot1; hciconfig hci0 piscan && echo up";
    return Join({
        Only(LAB, Shell(R1, "killall btattach && sleep 1; ls /sys/class/bluetooth && echo gone", "gone")),
        Without_Adapter(),
        Only(LAB, Shell(R1, attach, "up")),
    });
}

S_Steps Connect()
{
    const auto connect = [](S_Robot& robot) { return robot.Dial("Robot2", 16, 20000); };
    const auto read = [](S_Robot& robot) { return robot.Read_Bool(R2, 500); };
    const auto forget = [](S_Robot& robot) { return robot.Close(), robot.Get_IndexScanDevice("Robot2"); };
    return Join({
        Open(R2, 16),
        // By name through an inquiry: neither listed nor in a file.
        Takes(10.2, 15, Do(R1, "#", "...BT_Scan: Start; " + LINKED, connect)),
        Accept(R2, R1, 16),
        Do(R1, "0", [](S_Robot& robot) { return robot.isConnected("Robot2"); }),
        // The same device and channel twice.
        Do(R1, "-1", "Connect_Index: Start|1|2|3a|Error in fce connect(Error Code 16 : Device or resource busy)",
           [](S_Robot& robot) { return robot.Connect("Robot2", 16, 20000); }),
        // Another channel of it.
        Do(R2, "true", [](S_Robot& robot) { return robot.OpenServer(5) >= 0; }),
        Takes(0, 4,
              Do(R1, "true", LINKED, [](S_Robot& robot) { return robot.Connect_Index(0, 5, 20000) != robot.Link; })),
        Do(R1, "true", [](S_Robot& robot) { return robot.Disconnect(robot.m_ScanDevices[0].Socket); }),
        Hang_Up(R1),
        Do(R1, "-1", [](S_Robot& robot) { return robot.isConnected("Robot2"); }),
        // A reader at the other end sees the end once, as an error.
        Do(R2, "false", Receive_Fails("104 : Connection reset by peer"),
           [](S_Robot& robot) { return robot.Read_Bool("Robot1", 5000); }),
        Hang_Up(R2),
        // Through the list. The other side hangs up: the end shows once.
        Takes(0, 4, Do(R1, "#", LINKED, connect)),
        Accept(R2, R1, 16),
        Hang_Up(R2),
        Do(R1, "false", Receive_Fails("104 : Connection reset by peer"), read),
        Do(R1, "false", Receive_Fails("11 : Resource temporarily unavailable"), read),
        Do(R1, "false", Send_Fails("107 : Transport endpoint is not connected"), SAY_TRUE),
        Hang_Up(R1),
        // Through the file that the inquiry left.
        Do(R1, "-1", forget),
        Takes(0, 4, Do(R1, "#", "..." + LINKED, connect)),
        Accept(R2, R1, 16),
        Hang_Up(R1),
        Hang_Up(R2),
        // By index, polling once; then an index that is none.
        Do(R1, "-1", "Connect_Index: Start|1|2|3a|3b|4a|Timeout",
           [](S_Robot& robot) { return robot.Connect_Index(0, 16, 0); }),
        Do(R1, "-1", "Connect_Index: Start", [](S_Robot& robot) { return robot.Connect_Index(1, 16, 1000); }),
        Do(R1, "false", [](S_Robot& robot) { return robot.Disconnect(500); }),
        // A channel in use.
        Do(R2, "-1", "OpenServer: Start(16)|1|Error in fce bind(Error Code 98 : Address already in use)",
           [](S_Robot& robot) { return robot.OpenServer(16); }),
    });
}

S_Steps Refused()
{
    const auto reach = [](S_Robot& robot) { return robot.Reach("Robot2", 5, 20000); };
    const auto read = [](S_Robot& robot) { return robot.Read_Bool("Robot2", 500); };
    return Join({
        Takes(0, 4, Do(R1, "#", LINKED, reach)),
        Do(R1, "false", Send_Fails("111 : Connection refused"), SAY_TRUE),
        Do(R1, "false", Send_Fails("107 : Transport endpoint is not connected"), SAY_TRUE),
        Hang_Up(R1),
        Takes(0, 4, Do(R1, "#", LINKED, reach)),
        Do(R1, "false", Receive_Fails("111 : Connection refused"), read),
        Do(R1, "false", Receive_Fails("11 : Resource temporarily unavailable"), read),
        Hang_Up(R1),
    });
}

S_Steps Absent()
{
    const auto read = [](S_Robot& robot) { return robot.Read_Bool("Nobody", 500); };
    return Join({
        Takes(2, 3.5,
              Do(R1, "-1", "Connect_Index: Start|1|2|3a|3b|4a|Timeout",
                 [](S_Robot& robot) { return robot.Reach("Nobody", 16, 2000); })),
        Pause(4),  // until the stack has stopped paging: who connects meanwhile fails together with the first
        Takes(5.1, 7, Do(R1, "#", LINKED, [](S_Robot& robot) { return robot.Reach("Nobody", 16, 20000); })),
        Do(R1, "false", Receive_Fails("112 : Host is down"), read),
        Hang_Up(R1),
        Do(R1, "-1", "Connect_Index: Start|1|2|3a|Error in fce connect(Error Code 113 : No route to host)",
           [](S_Robot& robot) { return robot.Reach("Robot1", 16, 2000); }),
    });
}

// ---- Messages -------------------------------------------------------------------------------------------------------

std::string Letters(unsigned int size)
{
    std::string text(size, ' ');
    for (unsigned int i = 0; i < size; ++i)
        text[i] = static_cast<char>('a' + i % 26);
    return text;
}

// What a transfer that succeeds logs.
std::string Received(std::size_t asked, std::size_t came)
{
    return "ReadData: Start(" + std::to_string(asked) + ")|1(1)|2(" + std::to_string(came) + ")";
}

std::string Sent(std::size_t size)
{
    const std::string count = std::to_string(size);
    return "WriteData: Start(" + count + ")|1(1)|2(" + count + ")";
}

// Named messages over the brick's link; what is said is given time to arrive.
S_Steps Says(const std::string& who, const std::string& text, int line = __builtin_LINE())
{
    const auto send = [=](S_Robot& robot) { return robot.Say(text); };
    return Join({Do(who, "true", send, line), Pause(0.1)});
}

S_Steps Says_True(const std::string& who, int line = __builtin_LINE())
{
    return Join({Do(who, "true", Sent(12), SAY_TRUE, line), Pause(0.1)});
}

S_Steps Hears(const std::string& who, const std::string& from, const std::string& text, int line = __builtin_LINE())
{
    const auto read = [=](S_Robot& robot) { return robot.Read_Text(from, 100, 3000); };
    return Do(who, std::to_string(text.size()) + " " + text, read, line);
}

S_Steps Hears_True(const std::string& who, const std::string& from, int line = __builtin_LINE())
{
    const auto read = [=](S_Robot& robot) { return robot.Read_Bool(from, 3000); };
    return Do(who, "true true", "...ReadData: Start(1024)|1(1)|2(", read, line);
}

// Seconds until a message has arrived to its last byte, also on a busy machine.
double Settle(unsigned int size)
{
    return size < 1000 ? 0.05 : 0.4;
}

// A raw data and a text message of `size` bytes. A reader logs its steps up to its limit, beyond it only the transfer.
S_Steps Exchange_Named(const std::string& who, unsigned int size)
{
    const std::string reader = who == R1 ? R2 : R1, value = Letters(size), count = std::to_string(size);
    const std::size_t dataSize = 1 + 7 + 3 + 4 + size, textSize = 1 + 7 + 3 + size + 1;
    const std::string dataLog = "_ReadMsg_TAV_Data: Start; " + Received(size <= 835 ? 1024 : size + 189, dataSize);
    const std::string dataSteps = "; _ReadMsg_TAV_Data: Read Data(" + std::to_string(dataSize) + ")|Brick Name(" + who;
    const std::string textLog = "_ReadMsg_TAV_String: Start; " + Received(size <= 839 ? 1024 : size + 185, textSize);
    const std::string textSteps = "; _ReadMsg_TAV_String: 1(" + std::to_string(textSize) + ")|3(" + who + ")|4(id)|5(";
    const auto sendData = [value](S_Robot& robot) { return robot.Say_Data(value); };
    return Join({
        Do(who, "true", sendData),
        Pause(Settle(size)),
        Do(reader, size == 0 ? "-1 " : count + " " + value,
           size <= 835 ? dataLog + dataSteps + ")|Msg Id(id)" : dataLog,
           [=](S_Robot& robot) { return robot.Read_Data(who, size, 5000); }),
        Says(who, value),
        Pause(Settle(size)),
        Do(reader, count + " " + value, size <= 839 ? "..." + textLog + textSteps : textLog,
           [=](S_Robot& robot) { return robot.Read_Text(who, size, 5000); }),
    });
}

S_Steps Named()
{
    S_Steps steps = Connected(16);
    for (const std::string who : {R1, R2}) {
        for (const unsigned int size : {0u, 1u, 100u, 835u, 836u, 837u, 838u, 839u, 840u, 1000u, 4000u})
            steps = Join({steps, Exchange_Named(who, size)});
        steps = Join({steps, Says_True(who), Hears_True(who == R1 ? R2 : R1, who)});
    }
    return steps;
}

S_Steps Exchange_Classic(const std::string& who, unsigned int size)
{
    const std::string value = Letters(size), count = std::to_string(14 + size);
    return Join({
        Do(who, "true",
           "_SendMsg_TAVOrg_String: Start; " + Sent(14 + size) + "; _SendMsg_TAVOrg_String: 5(" + count + ")|End",
           [=](S_Robot& robot) { return robot.Say_Classic(value); }),
        Pause(Settle(size)),
        // A text of 244 bytes gives a length field whose low byte is 0, which is taken for a stray zero.
        Do(who == R1 ? R2 : R1, size == 244 ? "-1 " : std::to_string(size) + " " + value,
           "..._ReadMsg_TAVOrg_String: Start; " + Received(size <= 950 ? 1024 : size + 74, 14 + size),
           [=](S_Robot& robot) { return robot.Read_Classic(size, 5000); }),
    });
}

S_Steps Classic()
{
    const auto send = [](S_Robot& robot) { return robot._SendMsg_TAVOrg_Bool(robot.Link, "abc", true); };
    const auto read = [](S_Robot& robot) { return robot.Read_ClassicBool(5000); };
    S_Steps steps = Connected(1);
    for (const std::string who : {R1, R2}) {
        for (const unsigned int size : {0u, 1u, 100u, 244u, 950u, 951u, 1000u, 4000u})
            steps = Join({steps, Exchange_Classic(who, size)});
        const std::string log = "_ReadMsg_TAVOrg_Bool: Start; " + Received(32, 14) +
                                "; _ReadMsg_TAVOrg_Bool: 1(14)|Length of MsgId : 4|MsgId : abc|Bool Value : 1";
        steps = Join({steps, Do(who, "true", send), Pause(0.05), Do(who == R1 ? R2 : R1, "true true", log, read)});
    }
    return steps;
}

// How receives cut and join messages on a stream.
S_Steps Stream()
{
    const auto receive = [](unsigned int size) { return [size](S_Robot& robot) { return robot.Receive(size, 3000); }; };
    const auto readBool = [](S_Robot& robot) { return robot.Read_Bool("Robot1", 200); };
    return Join({
        Connected(16),
        // Sent back to back, read later: joined, and the second is lost in the text of the first.
        Says(R1, "one"),
        Says(R1, "two"),
        Do(R2, "18 one~~Robot1~id~two", [](S_Robot& robot) { return robot.Read_Text("Robot1", 100, 1000); }),
        // Of two bools the second is dropped.
        Says_True(R1),
        Says_True(R1),
        Do(R2, "true true", Received(1024, 24), readBool),
        Do(R2, "false", "ReadData: Start(1024)|Timeout", readBool),
        // A receive that asks for less leaves the rest to the next.
        Says(R1, Letters(2000)),
        Do(R2, "1024", receive(1024)),
        Do(R2, "988", receive(1024)),
        // A reader that is waiting gets what comes first: a frame of the stream, not the message.
        Only(LAB, Radio("slow Robot1 20000")),
        Only(LAB, Meanwhile(Do(R2, "1016", receive(5000)))),
        Only(LAB, Pause(0.3)),
        Only(LAB, Says(R1, Letters(4000))),
        Only(LAB, Pause(0.5)),
        Only(LAB, Radio("slow Robot1 0")),
    });
}

// 40000 bytes are more than a send buffer takes. A socket of Connect does not block and takes what fits, so that the
// message fails in its middle; the blocking one of an accepted client sends nothing and returns when the peer leaves.
S_Steps Big()
{
    const auto send = [](S_Robot& robot) { return robot.Say(Letters(40000)); };
    const auto sendData = [](S_Robot& robot) { return robot.Say_Data(Letters(40000)); };
    return Join({
        Connected(16),
        Do(R1, "false", "...WriteData: Start(40012)|1(1)|2(23368); _SendMsg_TAV_String: 5(23368)", send),
        Pause(0.5),
        Do(R2, "23368", [](S_Robot& robot) { return robot.Receive(40012, 500); }),
        Do(R2, "-1", [](S_Robot& robot) { return robot.Receive(1024, 500); }),
        Do(R1, "false", sendData),
        Pause(0.5),
        Do(R2, "23368", [](S_Robot& robot) { return robot.Receive(40012, 500); }),
        Meanwhile(Do(R2, "false", "...Error in fce send(Error Code 107 : Transport endpoint is not connected)", send)),
        Do(R1, "-1", [](S_Robot& robot) { return robot.Receive(40012, 3000); }),
        Hang_Up(R1),
    });
}

// ---- Servers --------------------------------------------------------------------------------------------------------

S_Steps Opens_Server(const std::string& who, int line = __builtin_LINE())
{
    const auto open = [](S_Robot& robot) { return robot.OpenServer_TAV(); };
    return Do(who, "true", "OpenServer: Start(16)|1|2|3|4", open, line);
}

// A brick connects to the built-in server of Robot1, which then has these clients.
S_Steps Joins(const std::string& who, const std::string& clients, int line = __builtin_LINE())
{
    const auto look = [size = clients.size()](S_Robot& robot) { return robot.Clients(size); };
    return Join({Reach(who, R1, 16, line), Do(R1, clients, look, line)});
}

// What the built-in server of Robot1 reads within 2 s.
S_Steps Server_Hears(const std::string& from, const std::string& result, int line = __builtin_LINE())
{
    const auto read = [from](S_Robot& robot) {
        std::string text;
        return Text(robot.Server_ReadMsg_TAV_String(from, "id", text, 100, 2000)) + " " + text;
    };
    return Do(R1, result, read, line);
}

// A client of the built-in server leaves while the server waits for its messages: the accepted socket is blocking and
// stays readable, and the receive after the first failed one does not return.
S_Steps Leaves()
{
    return Join({
        Opens_Server(R1),
        Joins(R2, "Robot2"),
        Takes(2, 3, Server_Hears("Robot2", "-1 ")),  // as long as the client stays, the time-out holds
        Meanwhile(Server_Hears("Robot2", HANGS)),
        Pause(0.5),
        Hang_Up(R2),
        Pause(5),
    });
}

// The same with a thread that watches the client. A shutdown or close of the socket does not end the read that hangs; a
// signal does, and if the socket has been made non-blocking before, reading goes on until the time is out.
S_Steps Watched()
{
    const auto serve = [](S_Robot& robot) {
        struct sigaction action = {};
        action.sa_handler = [](int) {};  // without SA_RESTART
        sigaction(SIGUSR1, &action, nullptr);
        std::thread watcher([client = robot.m_ServerClients[robot.m_ServerSocket][0].Socket, reader = pthread_self()] {
            pollfd end = {client, 0, 0};
            poll(&end, 1, -1);
            fcntl(client, F_SETFL, fcntl(client, F_GETFL) | O_NONBLOCK);
            usleep(500000);  // the read hangs by now
            pthread_kill(reader, SIGUSR1);
        });
        bool value = false;
        const bool result = robot.Server_ReadMsg_TAV_Bool("Robot2", "id", value, 3000);
        watcher.join();
        return result;
    };
    return Join({
        Opens_Server(R1),
        Joins(R2, "Robot2"),
        Meanwhile(Takes(3, 4, Do(R1, "false", serve))),
        Pause(0.5),
        Hang_Up(R2),
    });
}

// The example server of the safe kind survives clients that come, leave, are killed and fall silent.
S_Steps Safe()
{
    const auto ask = [](const char* who, const char* what) {
        const auto send = [=](S_Robot& robot) {
            robot.Add_BT_Device("Robot2", Get_Address("Robot2"), -1, 0);
            return robot.SendMsg_TAV_String("Robot2", "say", what);
        };
        const auto read = [](S_Robot& robot) {
            std::string text;
            robot.ReadMsg_TAV_String("Robot2", "say", text, 100, 5000);
            return text;
        };
        return Join({Do(who, "true", send), Do(who, what, read)});
    };
    const auto leave = [](const char* who) {
        const auto disconnect = [](S_Robot& robot) { return robot.Disconnect(robot.m_ScanDevices[0].Socket); };
        return Join({Do(who, "true", disconnect), Pause(0.5)});
    };
    return Join({
        Meanwhile(Shell(R2, "timeout 46 brick_echo; true",
                        "serving~Robot1 says hello~Robot1 is gone~Robot3 says good day~Robot1 says back~Robot1 is gone~"
                        "Robot3 says still here~Robot1 says once more~Robot3 says and now~Robot1 is gone~"
                        "Robot3 says bye~Robot3 is gone~")),
        Pause(14),  // it looks around first
        ask(R1, "hello"),
        leave(R1),
        ask(R3, "good day"),
        ask(R1, "back"),
        Kill(R1),
        Pause(0.5),
        ask(R3, "still here"),
        ask(R1, "once more"),
        Radio("out Robot1"),
        ask(R3, "and now"),
        Pause(21),  // until the silent link is given up
        ask(R3, "bye"),
        leave(R3),
    });
}

// Three clients of the built-in server.
S_Steps Server()
{
    const auto stop = [](S_Robot& robot) { return robot.CloseServer_TAV(); };
    const auto sendAll = [](S_Robot& robot) { return robot.Server_SendMsg_TAV_String("id", "to all"); };
    const auto close = [](S_Robot& robot) {
        return robot.CloseClient(robot.m_ServerClients[robot.m_ServerSocket][1].Socket);
    };
    return Join({
        Opens_Server(R1),
        Do(R1, "false", "", sendAll),  // no client yet
        Joins(R2, "Robot2"),
        Do(R1, Accepted(R2, 16), [](S_Robot&) { return Take_AcceptLog(); }),
        Joins(R3, "Robot2 Robot3"),
        Joins(R4, "Robot2 Robot3 Robot4"),
        Do(R1, "true", sendAll),
        Hears(R2, R1, "to all"),
        Hears(R3, R1, "to all"),
        Hears(R4, R1, "to all"),
        // From the one that is meant; what others sent meanwhile is consumed.
        Says(R4, "four"),
        Says(R3, "three"),
        Server_Hears(R4, "4 four"),
        Takes(2, 3, Server_Hears(R3, "-1 ")),
        // A client that leaves is closed before messages are looked for again.
        Hang_Up(R3),
        Do(R1, "true", "", close),
        Says(R4, "still here"),
        Server_Hears(R4, "10 still here"),
        // Stopped, and started again.
        Takes(0, 2, Do(R1, "true", "CloseAllClient: Start(Server Socket : #)|2(#)|2(#)|End", stop)),
        Do(R2, "false", Receive_Fails("104 : Connection reset by peer"),
           [](S_Robot& robot) { return robot.Read_Bool(R1, 3000); }),
        Hang_Up(R2),
        Opens_Server(R1),
        Joins(R2, "Robot2"),
        Says(R2, "again"),
        Server_Hears(R2, "5 again"),
        Do(R1, "true", stop),
    });
}

S_Steps Seven()
{
    S_Steps arrive, hear;
    std::string clients;
    for (const std::string who : {"Robot2", "Robot3", "Robot4", "Robot5", "Robot6", "Robot7", "Robot8"}) {
        clients += (clients.empty() ? "" : " ") + who;
        arrive = Join({arrive, Joins(who, clients)});
        hear = Join({hear, Hears_True(who, R1)});
    }
    return Join({
        Opens_Server(R1),
        arrive,
        Do(R1, "true", [](S_Robot& robot) { return robot.Server_SendMsg_TAV_Bool("id", true); }),
        hear,
        // An eighth link is one too many.
        Do(R1, "true",
           [](S_Robot& robot) {
               return robot.Reach("Lamp", 16, 20000) == "#" && !robot.Say_True() && errno == EMLINK;
           }),
        Says("Robot8", "last"),
        Server_Hears("Robot8", "4 last"),
        Do(R1, "true", [](S_Robot& robot) { return robot.CloseServer_TAV(); }),
    });
}

// ---- Clients that mean no good
// ----------------------------------------------------------------------------------------

// How often hostile things are done, by play --times, so many times what is done every day.
int Times(int everyDay)
{
    int times = 1;
    std::ifstream("times") >> times;
    return times * everyDay;
}

constexpr double FOR_EVER = 10000;  // s, for steps whose length goes by Times

int Count_Descriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<int>(std::distance(begin(all), end(all)));
}

// One of three clients is killed: the server goes on sending to all, closes the one that is gone, and takes it back.
S_Steps Killed()
{
    const auto sendAll = [](S_Robot& robot) { return robot.Server_SendMsg_TAV_String("id", "to all"); };
    const auto closeGone = [](S_Robot& robot) {
        for (const auto& client : robot.m_ServerClients[robot.m_ServerSocket]) {
            pollfd state = {client.Socket, 0, 0};
            if (poll(&state, 1, 2000) == 1) return robot.CloseClient(client.Socket);
        }
        return false;
    };
    return Join({
        Opens_Server(R1),
        Joins(R2, "Robot2"),
        Joins(R3, "Robot2 Robot3"),
        Joins(R4, "Robot2 Robot3 Robot4"),
        Kill(R3),
        Pause(0.5),
        Do(R1, "true", sendAll),
        Hears(R2, R1, "to all"),
        Hears(R4, R1, "to all"),
        // Not in the order of the clients, as those that are there are waited for first.
        Takes(0, 15, Do(R1, "true", closeGone)),
        Joins(R3, "Robot2 Robot4 Robot3"),
        Do(R1, "true", sendAll),
        Hears(R3, R1, "to all"),
        Says(R4, "four"),
        Server_Hears(R4, "4 four"),
        Do(R1, "true", [](S_Robot& robot) { return robot.CloseServer_TAV(); }),
    });
}

// A client that never reads fills its socket, and holds up nobody whose server asks before it sends.
S_Steps Deaf()
{
    // The bytes that were sent whole, each message only when the socket took data.
    const auto fill = [](S_Robot& robot) {
        fcntl(robot.Link, F_SETFL, O_NONBLOCK);
        int sent = 0;
        for (pollfd state = {robot.Link, POLLOUT, 0}; poll(&state, 1, 300) == 1 && robot.Say(Letters(488));)
            sent += 500;
        return sent >= 20000;
    };
    const auto isWhole = [](S_Robot& robot) {
        std::string text;
        int whole = 0;
        while (robot.Receive(500, 1000) == 500)
            ++whole;
        return whole >= 40;
    };
    return Join({
        Connected(16),
        Takes(0, 20, Do(R2, "true", fill)),
        Reach(R3, R2, 16),
        Accept(R2, R3, 16),
        Says(R2, "you hear"),
        Hears(R3, R2, "you hear"),
        // It was only slow: what was sent whole arrives.
        Takes(0, 20, Do(R1, "true", isWhole)),
    });
}

// A client that connects and leaves, again and again.
S_Steps Restless()
{
    const int times = Times(20);
    const auto serve = [times](S_Robot& robot) {
        const int before = Count_Descriptors();
        int came = 0;
        for (; came < times && robot.AcceptClient(robot.Listening, 20000) >= 0; ++came)
            robot.CloseClient(robot.m_ServerClients[robot.Listening][0].Socket);
        // One may be reset before it is accepted, of hundreds some: it came too soon after the last.
        return Text(came >= times - 1 - times / 100) + ", " + std::to_string(Count_Descriptors() - before) +
               " descriptors more, clients: " + std::to_string(robot.m_ServerClients[robot.Listening].size());
    };
    // Too soon after it has left it is refused; then it waits a little longer.
    const auto come = [times](S_Robot& robot) {
        const int before = Count_Descriptors();
        const int most = 10 * times;  // on a busy machine it takes longer
        int refused = 0;
        for (int left = times; left > 0 && refused < most;) {
            const bool connected =
                robot.Reach(R2, 16, 20000) == "#" && robot.Receive(1, 5000) < 0 && errno == ECONNRESET;
            connected ? --left : ++refused;
            robot.Disconnect(robot.Link);
            usleep(connected ? 100000 : 300000);
        }
        return (refused < most ? "true, " : "refused too often, ") + std::to_string(Count_Descriptors() - before) +
               " descriptors more";
    };
    return Join({
        Open(R2, 16),
        Meanwhile(Takes(0, FOR_EVER, Do(R2, "true, 0 descriptors more, clients: 0", serve))),
        Takes(0, FOR_EVER, Do(R1, "true, 0 descriptors more", come)),
    });
}

// PyBluez sends messages of both formats with bytes changed, cut and doubled, and compares what the readers make of
// each with what its own decoder makes of it.
S_Steps Mutants()
{
    const int times = Times(300);
    const auto judge = [times](S_Robot& robot) {
        fcntl(robot.Link, F_SETFL, O_NONBLOCK);  // so that this ends when the peer has given up
        for (int i = 0; i < times; ++i) {
            std::string result;
            if (i % 5 == 0) result = robot.Read_Text(R1, 500, 30000);
            if (i % 5 == 1) result = robot.Read_Data(R1, 500, 30000);
            if (i % 5 == 2) result = robot.Read_Bool(R1, 30000);
            if (i % 5 == 3) result = robot.Read_Classic(500, 30000);
            if (i % 5 == 4) result = robot.Read_ClassicBool(30000);
            const std::size_t blank = result.find(' ');
            const std::string value = result.substr(blank + 1);
            const bool failed = result.rfind("-1", 0) == 0 || result == "false";
            const bool isBool = i % 5 == 2 || i % 5 == 4;
            while (robot.Receive(1024, 0) > 0) {
            }  // what a reader has left
            if (!robot.Say_Data(failed ? "-" : "+" + (isBool ? std::string(1, value == "true" ? '\1' : '\0') : value)))
                return false;
        }
        return true;
    };
    const std::string command = "python3 ./peer.py mutants " + Get_Address(R2) + " " + std::to_string(times);
    return Join({
        Open(R2, 16),
        Meanwhile(Takes(0, FOR_EVER, Shell(R1, command, "all well"))),
        Accept(R2, R1, 16),
        Takes(0, FOR_EVER, Do(R2, "true", judge)),
    });
}

// ---- Radio ----------------------------------------------------------------------------------------------------------

// A brick is switched off: its peer notices after the link supervision time-out of 20 s, and sends in vain until then.
S_Steps Switched_Off()
{
    const auto receive = [](S_Robot& robot) { return robot.Receive_All(); };
    return Join({
        Connected(16),
        // In mid-message: what was on its way arrives, the rest never does.
        Only(LAB, Radio("slow Robot2 1500")),
        Only(LAB, Says(R2, Letters(4000))),
        Only(LAB, Pause(1)),
        Radio("out Robot2"),
        Says_True(R1),
        Only(LAB, Takes(18, 23, Do(R1, "1016 ETIMEDOUT", receive))),
        Only(AIR, Takes(18, 23, Do(R1, "0 ETIMEDOUT", receive))),
        Do(R1, "false", Send_Fails("107 : Transport endpoint is not connected"), SAY_TRUE),
        Only(LAB, Radio("slow Robot2 0")),
    });
}

// Out of range for five seconds: nothing is lost. Who hangs up meanwhile cannot connect anew before the silent link has
// been given up, or the other is back.
S_Steps Out_And_Back()
{
    return Join({
        Connected(16),
        Radio("out Robot2"),
        Says(R1, "held"),
        Takes(5, 6, Do(R2, "-1 ", [](S_Robot& robot) { return robot.Read_Text(R1, 100, 5000); })),
        Radio("back Robot2"),
        Hears(R2, R1, "held"),
        Radio("out Robot2"),
        Hang_Up(R1),
        Do(R1, "-1", "Connect_Index: Start|1|2|3a|Error in fce connect(Error Code 16 : Device or resource busy)",
           [](S_Robot& robot) { return robot.Dial(R2, 16, 20000); }),
        Radio("back Robot2"),
        Pause(1),
        Reach(R1, R2, 16),
        Accept(R2, R1, 16),
    });
}

S_Steps Page_Refused()
{
    return Join({
        Radio("refuse Robot2"),
        Do(R1, "#", [](S_Robot& robot) { return robot.Reach(R2, 16, 20000); }),
        Do(R1, "false", Send_Fails("111 : Connection refused"), SAY_TRUE),
        Radio("accept Robot2"),
        Hang_Up(R1),
        Connected(16),
    });
}

// ---- Peers that nobody here wrote -----------------------------------------------------------------------------------

S_Steps Services()
{
    const auto ask = [](const char* whom) {
        return [=](S_Robot& robot) {
            robot.Add_BT_Device(whom, Get_Address(whom), -1, 0);
            return robot.Get_BT_Services_Count(whom);
        };
    };
    const auto askEnough = [=](S_Robot& robot) { return ask(R2)(robot) >= 5; };
    const auto service = [](int channel) {
        return "|Service Name : Serial Port|Service Description : COM Port|Service Provider : BlueZ|Port : " +
               Text(channel);
    };
    return Join({
        // Before anything else: over a link that is up already, Linux may miss a refusal and wait for 41 s.
        Do(R2, "-1", "Get_BT_Services: Start|Error in fce sdp_connect(Error Code 111 : Connection refused)", ask(R1)),
        Only(AIR, Do(R1, "2", "Get_BT_Services: Start" + service(1) + service(16), ask(R2))),
        // bluetoothd has records of its own before these, that of Debian 13 more of them: some without a channel.
        Only(LAB, Do(R1, "true", "...Get_BT_Services: Start|Service Name : AVRCP CT|Port : 0|", askEnough)),
        Only(LAB, Do(R1, "true", "...|Service ID : 1101" + service(1) + "|Service ID : 1101" + service(16), askEnough)),
        Takes(5.1, 7,
              Do(R1, "-1", "Get_BT_Services: Start|Error in fce sdp_connect(Error Code 112 : Host is down)",
                 ask("Nobody"))),
        // Neither listed nor in a file: no inquiry.
        Do(R1, "false", "...Get_BT_Services: Start; BT_ParseFileDevices: Start",
           [](S_Robot& robot) { return robot.Close(), robot.Get_BT_Services("Robot2"); }),
    });
}

S_Steps Tools()
{
    const std::string first = Get_Address(R1), second = Get_Address(R2), nobody = Get_Address("Nobody");
    return Join({
        Shell(R1, "hciconfig", "BD Address: " + first + "  ACL MTU: 1021:8"),
        Shell(R1, "hciconfig hci0 name", "Name: 'Robot1'"),
        Shell(R1, "hcitool dev", "hci0~" + first),
        Shell(R1, "hcitool name " + second, "Robot2"),
        Shell(R1, "hcitool scan --length=2", second + "~Robot2"),
        Shell(R1, "hcitool inq --length=2", second + "~clock offset"),
        Shell(R1, "l2ping -c 3 " + second, "3 sent, 3 received"),
        Shell(R1, "sdptool browse " + second, "Channel: 16"),
        Shell(R1, "sdptool search --bdaddr " + second + " SP", "Channel: 16"),
        Shell(R1, "sdptool records " + second, "Channel: 16"),
        Shell(R1, "rctest -n -P 16 " + nobody + "; true", "Can't connect: Host is down (112)"),
        Open(R2, 16),
        Meanwhile(Shell(R1, "timeout 5 rctest -n -P 16 " + second + "; true", "Received 12 bytes")),
        Accept(R2, R1, 16),
        Shell(R2, "hcitool con", "ACL " + first),
        Says_True(R2),
    });
}

// Programs that wait by asyncio, Asio, poll or not at all, as clients and servers of each other.
S_Steps Loops()
{
    const std::string python = "python3 ./loops.py ", second = Get_Address(R2);
    const struct
    {
        std::string Server, Client;
    } PAIRS[] = {{python, python + "client "},
                 {python, "./loops asio client "},
                 {"./loops asio ", "./loops poll client "},
                 {"./loops poll ", python + "plain "}};
    // Servers begin when they can: who comes first tries again.
    const auto until = [](const std::string& client) {
        return "for n in $(seq 20); do said=$(" + client +
               "); test \"${said%ECONNREFUSED}\" = \"$said\" && break; sleep 1; done; echo $said";
    };
    S_Steps steps;
    for (const auto& pair : PAIRS)
        steps = Join({steps, Meanwhile(Shell(R2, pair.Server + "server", "3000, then ECONNRESET")),
                      Shell(R1, until(pair.Client + second), "echoed"), Pause(0.5)});
    return Join({
        steps,
        Shell(R1, "./loops poll client " + second, "ECONNREFUSED"),
        Shell(R1, python + "client " + Get_Address("Nobody"), "EHOSTDOWN"),
    });
}

// A Python program as client and server of both formats.
S_Steps Python(const std::string& program)
{
    return Join({
        Open(R2, 16),
        Meanwhile(Shell(R1, program + " client " + Get_Address(R2), "all well")),
        Accept(R2, R1, 16),
        Do(R2, "2 Hi", [](S_Robot& robot) { return robot.Read_Text("Robot1", 100, 20000); }),
        Do(R2, "true", [](S_Robot& robot) { return robot.Say("Hello"); }),
        Hang_Up(R2),
        Open(R2, 1),
        Accept(R2, R1, 1),
        Do(R2, "2 Hi", [](S_Robot& robot) { return robot.Read_Classic(100, 20000); }),
        Do(R2, "true", [](S_Robot& robot) { return robot.Say_Classic("Hello"); }),
        Meanwhile(Shell(R1, program + " server", "all well")),
        Pause(3),
        Reach(R2, R1, 16),
        Do(R2, "true", [](S_Robot& robot) { return robot.Say("Hi"); }),
        Do(R2, "2 Hi", [](S_Robot& robot) { return robot.Read_Text("Robot1", 100, 20000); }),
        Hang_Up(R2),
        Reach(R2, R1, 1),
        Do(R2, "true", [](S_Robot& robot) { return robot.Say_Classic("Hi"); }),
        Do(R2, "2 Hi", [](S_Robot& robot) { return robot.Read_Classic(100, 20000); }),
    });
}

}  // namespace

std::vector<S_Scenario> All_Scenarios()
{
    const std::vector<std::string> pair = {"Robot1", "Robot2"};
    const std::vector<std::string> served = {"Robot1 python", "Robot2 sdp python"};
    return {
        {"inquiry",
         "two bricks look around at once; a device that tells no name",
         {"Robot1 card", "Robot2", "Lamp device", "Ghost device nameless"},
         Inquiry(),
         BOTH,
         true},
        {"nobody", "nobody is there", {"Robot1"}, Nobody()},
        {"adapter-down", "the adapter is down", pair, Adapter_Down()},
        {"adapter-absent", "there is no adapter", {"Robot1 no-adapter"}, Adapter_Absent(), LAB},
        {"connect", "by name through inquiry, list and file; by index; twice; a channel in use", pair, Connect(), BOTH,
         true},
        {"refused", "a channel that nobody listens on", pair, Refused(), BOTH, true},
        {"absent", "a device that is not there, and oneself", pair, Absent(), BOTH, true},
        {"named", "named messages of every kind and size, both ways", pair, Named(), BOTH, true},
        {"classic", "classic messages, both ways", pair, Classic(), BOTH, true},
        {"stream", "how receives cut and join messages", pair, Stream(), BOTH, true},
        {"big", "messages of 40000 bytes", pair, Big()},
        {"leaves", "a client leaves, and the waiting server hangs", pair, Leaves(), BOTH, true},
        {"watched", "a thread that watches a client frees the server that hangs", pair, Watched(), BOTH, true},
        {"switched-off", "a brick is switched off in mid-message", pair, Switched_Off()},
        {"out-and-back", "a brick goes out of range and comes back", pair, Out_And_Back()},
        {"page-refused", "a brick that takes no more links", pair, Page_Refused(), LAB},
        {"safe", "a server that survives whatever its clients do", {"Robot1", "Robot2", "Robot3"}, Safe(), BOTH, true},
        {"server",
         "three clients of the built-in server",
         {"Robot1", "Robot2", "Robot3", "Robot4"},
         Server(),
         BOTH,
         true},
        {"killed", "one of three clients is killed", {"Robot1", "Robot2", "Robot3", "Robot4"}, Killed()},
        {"deaf", "a client that does not read", {"Robot1", "Robot2", "Robot3"}, Deaf()},
        {"restless", "a client that connects and leaves again and again", pair, Restless()},
        {"seven",
         "seven clients of the built-in server",
         {"Robot1", "Robot2", "Robot3", "Robot4", "Robot5", "Robot6", "Robot7", "Robot8", "Lamp device"},
         Seven()},
        {"services", "SDP with and without a server", served, Services(), BOTH, true},
        {"tools", "BlueZ's tools as peers", served, Tools()},
        {"python", "PyBluez as client and server of both formats", served, Python("python3 ./peer.py")},
        {"module", "the module for Python as client and server of both formats", served, Python("python3 ./module.py")},
        {"mutants", "damaged messages from PyBluez, and what its decoder says of each", served, Mutants(), LAB},
        {"loops", "asyncio, Asio, poll and plain sockets", served, Loops()},
    };
}
