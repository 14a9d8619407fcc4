// Every operation in the small world: what is seen from outside, in its order; then again with every call and every
// allocation failed in turn, singly and from there on.
#include "tests/world.h"

#include <gtest/gtest.h>
#include <new>
#include <optional>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

using namespace world;
using namespace std::string_literals;

// ---- Memory, in all the forms that the module uses: a sanitizer's own do not call one another
// ------------------------

void* operator new(std::size_t size)
{
    if (g_IsInside && Is_Due(true)) throw std::bad_alloc();
    if (void* const memory = malloc(size)) return memory;
    std::abort();
}

void* operator new[](std::size_t size)
{
    return operator new(size);
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return g_IsInside && Is_Due(true) ? nullptr : malloc(size);
}

void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept
{
    return operator new(size, tag);
}

void operator delete(void* memory) noexcept
{
    if (g_IsInside && memory && memory == g_World->Responses) {
        const S_Outside outside;
        Trace("responses released");
    }
    free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    operator delete(memory);
}

void operator delete[](void* memory) noexcept
{
    operator delete(memory);
}

void operator delete[](void* memory, std::size_t) noexcept
{
    operator delete(memory);
}

namespace {

// ---- Operations -----------------------------------------------------------------------------------------------------

const std::string LISTED = "A listed device of a long name";
const std::string FILED = "A device from the file";
const std::string DEVICE_FILE = FILED + "\0\x1C"s + "06:05:04:03:02:01\0\x1A"s;

// A service with a class, an id, protocols with RFCOMM channel 5, a profile and a name.
const std::string SERVICE =
    "\x35\x42\x09\0\1\x35\3\x19\x11\1\x09\0\3\x19\x11\1\x09\0\4\x35\x0C\x35\3\x19\1\0\x35\5\x19\0"
    "\3\x08\5\x09\0\x09\x35\x08\x35\6\x19\x11\1\x09\1\0\x09\1\0\x25\x11"
    "A name of sixteen"s;

using Operation = std::function<std::string(Bt&)>;  // returns the result and what was filled in

void List(Bt& bt)
{
    bt.Add_BT_Device(LISTED, "06:05:04:03:02:01", -1, 0);
}

void Connect(Bt& bt)
{
    List(bt);
    bt.Connect_Index(0, 16, 0);
}

void Listen(Bt& bt)
{
    bt.m_ServerSocket = bt.OpenServer(16);
}

// The built-in server as socket 10, without its thread, and two clients, 11 and 12.
void Serve(Bt& bt)
{
    Listen(bt);
    bt.AcceptClient(bt.m_ServerSocket, 0);
    bt.AcceptClient(bt.m_ServerSocket, 0);
}

Operation Read_Text(int (Bt::*read)(const std::string&, const std::string&, std::string&, unsigned int, unsigned long),
                    unsigned int maxSize)
{
    return [=](Bt& bt) {
        std::string text = "before";
        const int result = (bt.*read)(LISTED, "id", text, maxSize, 10);
        return Text(result) + text;
    };
}

Operation Read_Bool(bool (Bt::*read)(const std::string&, const std::string&, bool&, unsigned long))
{
    return [=](Bt& bt) {
        bool value = false;
        const bool result = (bt.*read)(LISTED, "id", value, 10);
        return Text(result) + (value ? "true" : "before");
    };
}

Operation Send_Bool(bool (Bt::*send)(const std::string&, const std::string&, bool))
{
    return [=](Bt& bt) { return Text((bt.*send)(LISTED, "id", true)); };
}

Operation Send_Text(bool (Bt::*send)(const std::string&, const std::string&, const std::string&))
{
    return [=](Bt& bt) { return Text((bt.*send)(LISTED, "id", "Hi")); };
}

const std::string NAMED = LISTED + "\0id\0"s;
const std::string CLASSIC_BOOL = "\x0B\0\1\0\x81\x9E\3id\0\1\0\1"s;
const std::string CLASSIC_TEXT = "\x0D\0\1\0\x81\x9E\3id\0\3\0Hi\0"s;
const std::string OPENED = "Start(16); socket(31 1 3); 1; bind(00:00:00:00:00:00 16); 2; setsockopt(274 4 0 0); "
                           "setsockopt(18 3 0 0 0 0); fcntl(get); fcntl(set); 3; listen(1); 4; ";
const std::string CLIENTS_CLOSED = "Start(Server Socket : 10); 2(11); shutdown(11); close(11); 2(12); shutdown(12); "
                                   "close(12); ";
const std::string SERVICE_STEPS = "Service ID : 1101; Service Name : A name of sixteen; Port : 5; ";
const std::string RECORD_WRITTEN = "write(249); write(1); write(18); write(1); ";

// What AcceptClient does before it lists the client.
std::string Get_Accepted(const std::string& wait)
{
    return "Start(10); 1; select(read " + wait +
           "); 2; 3; accept(); 4; hci_read_remote_name(11 128); 5(Device Name : " + std::string(128, 'n') +
           "); 5(Addr : 06:05:04:03:02:01); 5(Socket : 11); 5(Port : 16); ";
}

const struct S_Operation
{
    const char* Name;
    void (*Prepare)(Bt&);
    Operation Run;
    std::string Incoming, Success;
    std::string Failures;  // the result when a call fails, then where it is another one: [first:]CALL=RESULT|RESULT ...
    std::string Trace;     // without failures; empty: not looked at here
} OPERATIONS[] = {
    {"Close", [](Bt& bt) { Serve(bt), Connect(bt), g_World->Allowed.insert(13); },
     [](Bt& bt) { return bt.Close(), "done"; }, "", "done", "done",
     "{ 10[ 11 12 ] on 10 }; " + CLIENTS_CLOSED + "{ 10[ ] on 10 }; End; shutdown(10); close(10); { }; "},
    {"BT_Scan", Connect, [](Bt& bt) { return Text(bt.BT_Scan()); }, "", "2", "-1 open=2 hci_read_remote_name=1 all=0",
     "Start; hci_get_route(); hci_open_dev(0); hci_inquiry(); DeleteFile(../prjs/SD_Card/__BTScan__); "
     "open(../prjs/SD_Card/__BTScan__); { 10>0 }; hci_read_remote_name(11 248); { nnnn:-1/0 10>0 }; " +
         RECORD_WRITTEN + "hci_read_remote_name(11 248); { nnnn:-1/0 nnnn:-1/0 10>0 }; " + RECORD_WRITTEN +
         "responses released; close(12); hci_close_dev(11); "},
    {"BT_ParseFileDevices", List, [](Bt& bt) { return Text(bt.BT_ParseFileDevices()); }, "", "1", "0 fopen=1 fread=0|1",
     ""},
    {"Add_BT_Device", List, [](Bt& bt) { return Text(bt.Add_BT_Device(FILED, "06:05:04:03:02:01", -1, 0)); }, "", "1",
     "-", ""},
    {"Get_ScanDevice", List,
     [](Bt& bt) {
         std::string name, address;
         return Text(bt.Get_ScanDevice(0, name, address)) + name + address;
     },
     "", "1" + LISTED + "06:05:04:03:02:01", "-", ""},
    {"Connect", List, [](Bt& bt) { return Text(bt.Connect(FILED, 16, 0)); }, "", "10", "-1 fopen=10 fread=10|-1", ""},
    {"Connect, after a scan", List, [](Bt& bt) { return Text(bt.Connect(std::string(248, 'n'), 16, 0)); }, "", "10",
     "-1 fopen=10 fread=10 open=10 hci_read_remote_name=10", ""},
    {"Connect_Index", Connect, [](Bt& bt) { return Text(bt.Connect_Index(0, 7, 4294968796)); }, "", "11", "-1",
     "Start; 1; socket(31 1 3); 2; fcntl(get); fcntl(set); 3a; connect(06:05:04:03:02:01 7); 3b; 4a; "
     "select(write 4294968.796000); 4b(1); { A li:11/7 10>0 11>0 }; "},
    {"Connect_Index, to what answers at once", Connect, [](Bt& bt) { return Text(bt.Connect_Index(0, 30, 0)); }, "",
     "11", "-1",
     "Start; 1; socket(31 1 3); 2; fcntl(get); fcntl(set); 3a; connect(06:05:04:03:02:01 30); 3b; 4a; "
     "select(write 0.000000); 4b(1); { A li:11/30 10>0 11>0 }; "},
    {"isConnected", Connect, [](Bt& bt) { return Text(bt.isConnected(LISTED)); }, "", "0", "-", ""},
    {"Disconnect", Connect, [](Bt& bt) { return Text(bt.Disconnect(10)); }, "", "1", "-",
     "shutdown(10); close(10); { A li:-1/0 10>0 }; "},
    {"OpenServer", List,
     [](Bt& bt) {
         const int server = bt.OpenServer(16);
         const S_Outside outside;
         g_World->Allowed.insert(server);
         return Text(server);
     },
     "", "10", "-1", OPENED},
    {"OpenServer_TAV", [](Bt& bt) { bt.m_StopAccept = true; }, [](Bt& bt) { return Text(bt.OpenServer_TAV()); }, "",
     "1", "0", "{ }; " + OPENED + "{ on 10 }; pthread_create(); "},
    {"AcceptClient", Listen, [](Bt& bt) { return Text(bt.AcceptClient(10, 1500)); }, "", "11",
     "-1 hci_read_remote_name=11", Get_Accepted("1.500000") + "{ 10[ 11 ] on 10 }; End(Client : 11); "},
    {"Thread_AcceptClient", [](Bt& bt) { Listen(bt), bt.m_StopAccept = true; },
     [](Bt& bt) { return bt.Thread_AcceptClient(&bt), "done"; }, "", "done", "done",
     "{ on 10 runs stop }; " + Get_Accepted("1.000000") +
         "{ 10[ 11 ] on 10 runs stop }; End(Client : 11); { 10[ 11 ] on 10 stop }; "},
    {"CloseClient",
     [](Bt& bt) {
         Serve(bt);
         bt.m_ServerClients[10][0].Name.clear();
         bt.m_ServerClients[10][0].Name.shrink_to_fit();  // no room for the name that moves there
     },
     [](Bt& bt) { return Text(bt.CloseClient(11)); }, "", "1", "-", "shutdown(11); close(11); { 10[ 12 ] on 10 }; "},
    // An entry that looking for the clients of no server has made.
    {"CloseServer, of no server", [](Bt& bt) { bt.m_ServerClients[-1]; },
     [](Bt& bt) {
         int server = -1;
         return Text(bt.CloseServer(server));
     },
     "", "1", "-", "Start(Server Socket : -1); 1(Not any client); { }; "},
    {"CloseAllServer, with no server", [](Bt& bt) { bt.m_ServerClients[-1]; },
     [](Bt& bt) { return Text(bt.CloseAllServer()); }, "", "1", "-",
     "Start(Server Socket : -1); 1(Not any client); { }; "},
    {"CloseServer_TAV", [](Bt& bt) { Serve(bt), bt.m_AcceptRunning = true; },
     [](Bt& bt) { return Text(bt.CloseServer_TAV()); }, "", "1", "-",
     "{ 10[ 11 12 ] on 10 runs stop }; usleep(); { 10[ 11 12 ] on 10 stop }; " + CLIENTS_CLOSED +
         "{ 10[ ] on 10 stop }; End; { on 10 stop }; shutdown(10); close(10); { stop }; "},
    {"Server_SendMsg_TAV_Bool", Serve, [](Bt& bt) { return Text(bt.Server_SendMsg_TAV_Bool("id", true)); }, "", "1",
     "1", ""},
    {"Server_SendMsg_TAV_String, not open", List, [](Bt& bt) { return Text(bt.Server_SendMsg_TAV_String("id", "Hi")); },
     "", "0", "0", ""},
    {"Server_ReadMsg_TAV_Bool", Serve, Read_Bool(&Bt::Server_ReadMsg_TAV_Bool), "\3" + NAMED + "\1", "1true",
     "1true gettimeofday=1before first:gettimeofday=0before", ""},
    {"Server_ReadMsg_TAV_String", Serve, Read_Text(&Bt::Server_ReadMsg_TAV_String, 9), "\1" + NAMED + "Hi\0"s, "2Hi",
     "2Hi gettimeofday=-1before", ""},
    {"Server_ReadMsg_TAV_String, a client without socket",
     [](Bt& bt) { Serve(bt), bt.m_ServerClients[10][0].Socket = -1, g_World->Allowed.insert(11); },
     Read_Text(&Bt::Server_ReadMsg_TAV_String, 9), "\1" + NAMED + "Hi\0"s, "2Hi", "2Hi gettimeofday=-1before", ""},
    {"Server_ReadMsg_TAV_String, not open", List, Read_Text(&Bt::Server_ReadMsg_TAV_String, 9), "", "-1before",
     "-1before", ""},
    {"Server_ReadMsg_TAV_Bool, across 2^32 ms", Listen,
     [](Bt& bt) {
         bool value = false;
         g_World->Clock = {0, 2147484, 4294967.5, 4294968};
         return Text(bt.Server_ReadMsg_TAV_Bool("AB", "id", value, 300));
     },
     "", "0", "0", "gettimeofday(); gettimeofday(); usleep(); gettimeofday(); usleep(); gettimeofday(); "},
    {"Get_BT_Services_Count", [](Bt& bt) { List(bt), bt.m_Services.resize(2), bt.m_Services[1].Name = "old"; },
     [](Bt& bt) {
         std::string name;
         int port = 0;
         const int count = bt.Get_BT_Services_Count(LISTED);
         bt.Get_BT_Services_Name(1, name) && bt.Get_BT_Services_PortRFCOMM(1, port);
         return Text(count) + name + Text(port);
     },
     "", "2A name of sixteen5", "-10",
     "Start; { A li:-1/0 }; sdp_connect(); sdp_service_search_attr_req(); " + SERVICE_STEPS +
         "{ A li:-1/0 services }; " + SERVICE_STEPS},
    {"SendMsg_TAV_Data", List,
     [](Bt& bt) { return Text(bt.SendMsg_TAV_Data(LISTED, "id", reinterpret_cast<const unsigned char*>("Hi"), 2)); },
     "", "1", "0", ""},
    {"SendMsg_TAV_Bool", List, Send_Bool(&Bt::SendMsg_TAV_Bool), "", "1", "0", ""},
    {"SendMsg_TAV_String", List, Send_Text(&Bt::SendMsg_TAV_String), "", "1", "0", ""},
    {"SendMsg_TAVOrg_Bool", List, Send_Bool(&Bt::SendMsg_TAVOrg_Bool), "", "1", "0", ""},
    {"SendMsg_TAVOrg_String", List, Send_Text(&Bt::SendMsg_TAVOrg_String), "", "1", "0", ""},
    {"ReadMsg_TAV_Bool", List, Read_Bool(&Bt::ReadMsg_TAV_Bool), "\3" + NAMED + "\1", "1true", "0before", ""},
    {"ReadMsg_TAV_String", List, Read_Text(&Bt::ReadMsg_TAV_String, 9), "\1" + NAMED + "Hi\0"s, "2Hi", "-1before", ""},
    {"ReadMsg_TAV_String, large", List, Read_Text(&Bt::ReadMsg_TAV_String, 2000), "\1" + NAMED + "Hi\0"s, "2Hi",
     "-1before", ""},
    {"ReadMsg_TAV_Data", List, Read_Text(&Bt::ReadMsg_TAV_Data, 9), "\4" + NAMED + "\2\0\0\0Hi"s, "2Hi",
     "-1before select=-1before|-1 recv=-1", ""},
    {"ReadMsg_TAVOrg_Bool", List, Read_Bool(&Bt::ReadMsg_TAVOrg_Bool), CLASSIC_BOOL, "1true", "0before", ""},
    {"ReadMsg_TAVOrg_String, large", List, Read_Text(&Bt::ReadMsg_TAVOrg_String, 2000), CLASSIC_TEXT, "2Hi", "-1before",
     ""},
};

// Calls whose failure changes nothing, neither the result nor what comes after; and those whose failure is not logged.
const std::string SPARED = " shutdown close fcntl setsockopt write hci_close_dev DeleteFile sdp_close ";
const std::string SILENT = " open fopen fread gettimeofday pthread_create hci_read_remote_name Get_TAVBrickName ";

// ---- One run --------------------------------------------------------------------------------------------------------

// Looks for descriptors that nothing names, and for names of closed ones.
void Check_Descriptors(const Bt& bt, S_World& world)
{
    std::set<int> records = {bt.m_ServerSocket};
    for (const auto& device : bt.m_ScanDevices)
        records.insert(device.Socket);
    for (const auto& [server, clients] : bt.m_ServerClients) {
        records.insert(server);
        for (const auto& client : clients)
            records.insert(client.Socket);
    }
    for (const int record : records)
        if (record >= 0 && world.Open.count(record) == 0) world.Broken = "a record names what is closed";
    for (const int open : world.Open)
        if (records.count(open) + world.Allowed.count(open) + bt.m_ClientSockets.count(open) == 0)
            world.Broken = "nothing names what is open";
}

std::string Play(const S_Operation& operation, const S_Fault& fault, S_World& world)
{
    std::optional<Bt> bt;
    g_World = &world;
    world.Object = &bt.emplace();
    world.Incoming = operation.Incoming;
    world.File = DEVICE_FILE;
    world.Records = {SERVICE, SERVICE};
    world.Clock = {100, 100, 100, 100.001, 100.002, 200};
    g_IsInside = true;
    operation.Prepare(*bt);
    g_IsInside = false;
    world.Trace.clear();
    world.State = Get_State(*bt);
    world.Fault = fault;
    std::string result;
    g_IsInside = true;
    try {
        result = operation.Run(*bt);
    } catch (const std::bad_alloc&) {
        result = "threw";
    }
    g_IsInside = false;
    Trace("= " + result);
    Check_Descriptors(*bt, world);
    world.Object = nullptr;
    world.Fault = {};
    g_IsInside = true;
    bt.reset();  // closes what it names
    g_IsInside = false;
    return result;
}

bool Has(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

// What is wrong with a failing run, beside one that did not fail; empty: nothing.
std::string Judge(const S_Operation& operation, const S_Fault& fault, const S_World& world, const std::string& result,
                  const S_World& whole)
{
    std::istringstream words(operation.Failures);
    std::string expected;
    words >> expected;
    std::string any = expected + "|" + operation.Success + (fault.IsAllocation ? "|threw" : "");
    for (std::string word; words >> word;) {
        const std::string results = word.substr(word.find('=') + 1);
        any += "|" + results;
        const bool isFirst = world.IsFirst && word == "first:" + world.Failed + "=" + results;
        if (isFirst || word == world.Failed + "=" + results) expected = results;
    }
    const std::string call = " " + world.Failed + " ";
    if (!world.Broken.empty()) return world.Broken;
    if (Has(SPARED, call) && !fault.OnAndOn) return world.Trace == whole.Trace ? "" : "else than without a failure";
    if (!Has("|" + (fault.IsAllocation || fault.OnAndOn ? any : expected) + "|", "|" + result + "|"))
        return "its result";
    const std::string line = "; Error in fce " + world.Failed + "(Error Code " + Text(fault.Error) + " : ";
    const bool isLogged = fault.IsAllocation || Has(SPARED + SILENT, call) || Has(world.Trace, line);
    return isLogged ? "" : "not in the log";
}

// Runs in a child process. False when nothing was left to fail, or something is wrong.
bool Run_Failing(const S_Operation& operation, const S_Fault& fault)
{
    const pid_t child = fork();
    if (child == 0) {
        alarm(20);  // for what never ends
        S_World whole, world;
        Play(operation, {}, whole);
        const std::string result = Play(operation, fault, world);
        if (world.Count < fault.At) _exit(2);
        const std::string wrong = Judge(operation, fault, world, result, whole);
        if (!wrong.empty()) fprintf(stderr, "%s: %s%s\n", wrong.c_str(), world.Trace.c_str(), world.Failed.c_str());
        _exit(wrong.empty() ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    EXPECT_TRUE(code == 0 || code == 2) << operation.Name << (fault.IsAllocation ? ", allocation " : ", call ")
                                        << fault.At << (fault.OnAndOn ? " and all that follow" : "") << ", errno "
                                        << fault.Error << ", status " << status;
    return code == 0;
}

TEST(Failures, OrderOfWhatIsSeen)
{
    for (const S_Operation& operation : OPERATIONS) {
        SCOPED_TRACE(operation.Name);
        S_World world;
        EXPECT_EQ(Play(operation, {}, world), operation.Success);
        EXPECT_EQ(world.Broken, "");
        const std::string trace = operation.Trace + "= " + operation.Success + "; ";
        if (!operation.Trace.empty()) {
            EXPECT_EQ(world.Trace, trace);
        }
    }
}

TEST(Failures, EveryCallAndEveryAllocation)
{
    const S_Fault FAULTS[] = {{false, false, EIO},  {false, false, EINTR}, {false, true, EIO},
                              {false, true, EINTR}, {true, false, 0},      {true, true, 0}};
    int runs = 0;
    for (const S_Operation& operation : OPERATIONS)
        for (S_Fault fault : FAULTS)
            for (fault.At = 1; Run_Failing(operation, fault) && fault.At < 1000; ++fault.At)
                ++runs;
    RecordProperty("runs", runs);
    EXPECT_GT(runs, 1000);
}

// Between a reader's receive and its parsing, another object receives something else.
TEST(Failures, ReadersShareNoBuffer)
{
    int tried = 0;
    for (const S_Operation& operation : OPERATIONS) {
        if (operation.Incoming.empty()) continue;
        S_Operation other = operation;
        other.Incoming.assign(operation.Incoming.size(), 'x');
        S_World world, others;
        bool done = false;
        world.OnLog = [&](const std::string&) {
            if (done || !Has(world.Trace, "recv(")) return;
            done = true;
            Play(other, {}, others);
            g_World = &world;
        };
        EXPECT_EQ(Play(operation, {}, world), operation.Success) << operation.Name;
        tried += done;
    }
    EXPECT_GE(tried, 7);
}

}  // namespace
