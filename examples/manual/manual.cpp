// The examples of the manual pages, in one program that two bricks
// play:
//   manual Robot2         serves
//   manual Robot1 Robot2  looks for Robot2 and talks to it
// Like a firmware it brings the four things that api/ asks for.
#include "api/tav_c_api.h"
#include "bluetooth/C_TAV_Bluetooth.h"
#include "host/descriptors.h"
#include "host/printable.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <iostream>
#include <mutex>
#include <thread>
#include <unistd.h>

using namespace tav_c_api_impl;
using std::string;
using std::this_thread::sleep_for;
using tav_host::Printable;

static string g_BrickName;

//! [tav_api]
// Logs to stderr while TAV_LOG is set.
bool tav_c_api::g_isLog_Quorvant_TAV = getenv("TAV_LOG") != nullptr;

void tav_c_api::WriteLog_Dbg(const char* format, ...)
{
    static std::mutex mutex;  // the accept thread logs, too
    const std::lock_guard lock(mutex);
    if (!g_isLog_Quorvant_TAV) return;
    char line[2000];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof(line), format, arguments);
    va_end(arguments);
    std::cerr << Printable(line) << '\n';  // peers are quoted in it
}

bool tav_c_api_impl::Get_TAVBrickName(string& name)
{
    name = g_BrickName;
    return !name.empty();
}

bool tav_c_api_impl::DeleteFile(const string& path)
{
    return std::remove(path.c_str()) == 0;
}
//! [tav_api]

//! [tav_bluetooth]
// Says hello to a brick and prints its answer.
static bool Greet(const string& brick)
{
    signal(SIGPIPE, SIG_IGN);
    C_TAV_Bluetooth bluetooth;
    const int socket = bluetooth.Connect(brick, 16, 20000);
    if (socket < 0) return false;
    string answer;
    if (bluetooth.SendMsg_TAV_String(brick, "question", "How are you?"))
        bluetooth.ReadMsg_TAV_String(brick, "answer", answer, 100,
                                     5000);
    std::cout << brick << " says " << Printable(answer) << '\n';
    // Neither Close() nor the destructor would close this connection.
    bluetooth.Disconnect(socket);
    return !answer.empty();
}
//! [tav_bluetooth]

//! [tav_devices]
// Lists the bricks around: those of the device list file, or, if there
// is none, those that an inquiry finds.
static bool Look_Around(C_TAV_Bluetooth& bluetooth)
{
    if (!bluetooth.BT_ParseFileDevices() && bluetooth.BT_Scan() < 0)
        return false;  // no adapter that works
    for (const S_BT_ScanDevice& device : bluetooth.m_ScanDevices)
        std::cout << device.AddrText << "  " << Printable(device.Name)
                  << '\n';
    return true;
}
//! [tav_devices]

//! [tav_services]
// The RFCOMM channel of a service, or -1.
static int Find_Channel(C_TAV_Bluetooth& bluetooth, const string& brick,
                        const string& service)
{
    if (!bluetooth.Get_BT_Services(brick)) return -1;
    for (const S_BT_ServicesData& data : bluetooth.m_Services)
        if (data.Name == service) return data.PortRFCOMM;
    return -1;
}
//! [tav_services]

//! [tav_connections]
// A socket to a listed brick, or -1. A brick whose last connection is
// not given up yet cannot be connected for 20 s: tries every second.
static int Reach(C_TAV_Bluetooth& bluetooth, const string& brick,
                 unsigned char channel)
{
    for (int attempt = 0; attempt < 30; ++attempt) {
        const int socket = bluetooth.Connect(brick, channel, 10000);
        if (socket >= 0) return socket;  // to be closed by Disconnect()
        sleep_for(std::chrono::seconds(1));
    }
    return -1;
}
//! [tav_connections]

//! [tav_named_messages]
// Asks a brick and waits for its answer. If that fails, the connection
// is closed, and the second attempt makes it anew.
static bool Ask(C_TAV_Bluetooth& bluetooth, const string& brick,
                const string& question, string& answer)
{
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (bluetooth.SendMsg_TAV_String(brick, "question", question) &&
            bluetooth.ReadMsg_TAV_String(brick, "answer", answer, 100,
                                         5000) >= 0)
            return true;
        const int index = bluetooth.isConnected(brick);
        if (index < 0) return false;  // it could not be connected
        const auto position = static_cast<std::size_t>(index);
        bluetooth.Disconnect(bluetooth.m_ScanDevices[position].Socket);
        sleep_for(std::chrono::milliseconds(300));
    }
    return false;
}
//! [tav_named_messages]

//! [tav_classic_messages]
// Puts a text into the mailbox "inbox" of a brick that is not
// connected, and waits for true in its own mailbox "done".
static bool Put(C_TAV_Bluetooth& bluetooth, const string& brick,
                const string& text)
{
    bool done = false;
    return bluetooth.SendMsg_TAVOrg_String(brick, "inbox", text) &&
           bluetooth.ReadMsg_TAVOrg_Bool(brick, "done", done, 5000) &&
           done;
}
//! [tav_classic_messages]

//! [tav_server]
// Answers one question of a brick. The server is opened by waiting for
// it.
static bool Answer(C_TAV_Bluetooth& bluetooth, const string& brick)
{
    string text;
    const bool answered =
        bluetooth.Server_ReadMsg_TAV_String(brick, "question", text,
                                            100, 60000) >= 0 &&
        bluetooth.Server_SendMsg_TAV_String("answer", "Fine");
    // In every case: the accept thread must end before the object does.
    bluetooth.CloseServer_TAV();
    return answered;
}
//! [tav_server]

//! [tav_channel_servers]
// Takes one client of a channel, within a minute, and serves it.
static bool Serve(C_TAV_Bluetooth& bluetooth, unsigned char channel,
                  bool (*serve)(C_TAV_Bluetooth&, int client))
{
    int server = bluetooth.OpenServer(channel);
    if (server < 0) return false;
    const int client = bluetooth.AcceptClient(server, 60000);
    // So that no read waits for ever when the client has left.
    if (client >= 0) fcntl(client, F_SETFL, O_NONBLOCK);
    const bool served = client >= 0 && serve(bluetooth, client);
    // Closes the client, too; but nothing if there never was one.
    if (!bluetooth.CloseServer(server)) close(server);
    return served;
}
//! [tav_channel_servers]

//! [tav_socket_messages]
// Answers a question that comes from Robot1 on a socket.
static bool Answer_On(C_TAV_Bluetooth& bluetooth, int socket)
{
    string text;
    return bluetooth._ReadMsg_TAV_String(socket, "Robot1", "question",
                                         text, 100, 5000) >= 0 &&
           bluetooth._SendMsg_TAV_String(socket, "answer", text);
}
//! [tav_socket_messages]

//! [tav_transfer]
// Sends all bytes, also if the socket takes only some of them at a
// time.
static bool Write_All(C_TAV_Bluetooth& bluetooth, int socket,
                      const string& bytes)
{
    std::size_t done = 0;
    while (done < bytes.size()) {
        const auto left =
            static_cast<unsigned int>(bytes.size() - done);
        const int count =
            bluetooth.WriteData(socket, bytes.data() + done, left);
        if (count < 0) return false;
        done += static_cast<std::size_t>(count);
    }
    return true;
}

// Receives exactly so many bytes; false if nothing comes for 5 s.
static bool Read_All(C_TAV_Bluetooth& bluetooth, int socket,
                     std::size_t size, string& bytes)
{
    bytes.clear();
    char buffer[1000];
    while (bytes.size() < size) {
        const auto left =
            static_cast<unsigned int>(size - bytes.size());
        const int count = bluetooth.ReadData(
            socket, buffer, std::min(left, 1000U), 5000);
        if (count <= 0) return false;
        bytes.append(buffer, static_cast<std::size_t>(count));
    }
    return true;
}
//! [tav_transfer]

//! [tav_fields]
// Closes all that Close() would leave open.
static void Close_All(C_TAV_Bluetooth& bluetooth)
{
    for (const S_BT_ScanDevice& device : bluetooth.m_ScanDevices)
        if (device.Socket >= 0) bluetooth.Disconnect(device.Socket);
    if (bluetooth.m_ServerSocket >= 0 && !bluetooth.CloseServer_TAV()) {
        close(bluetooth.m_ServerSocket);  // it never had a client
        bluetooth.m_ServerSocket = -1;
    }
    bluetooth.Close();
}
//! [tav_fields]

// What Robot1 asks, and what Robot2 does with it, step by step.

static const string LONG(3000, 'x');

static bool Serve_Robot1(C_TAV_Bluetooth& bluetooth, int client)
{
    string bytes;
    return Answer_On(bluetooth, client) &&
           Read_All(bluetooth, client, LONG.size(), bytes) &&
           bytes == LONG;
}

static bool Serve_Inbox(C_TAV_Bluetooth& bluetooth, int client)
{
    string text;
    return bluetooth._ReadMsg_TAVOrg_String(client, "", "inbox", text,
                                            100, 5000) >= 0 &&
           bluetooth._SendMsg_TAVOrg_Bool(client, "done", text == "Hi");
}

static bool Play_Robot2(C_TAV_Bluetooth& bluetooth)
{
    return Serve(bluetooth, 5, Serve_Robot1) &&
           Serve(bluetooth, 1, Serve_Inbox) &&
           Answer(bluetooth, "Robot1");
}

static bool Play_Robot1(C_TAV_Bluetooth& bluetooth, const string& brick)
{
    const auto next = [&] {
        Close_All(bluetooth);
        sleep_for(std::chrono::seconds(1));  // it opens its next server
        return true;
    };
    string answer;
    if (!Look_Around(bluetooth)) return false;
    const int channel = Find_Channel(bluetooth, brick, "Echo");
    if (channel < 0) return false;
    const int socket =
        Reach(bluetooth, brick, static_cast<unsigned char>(channel));
    return socket >= 0 && Ask(bluetooth, brick, "Echo?", answer) &&
           answer == "Echo?" && Write_All(bluetooth, socket, LONG) &&
           next() && Look_Around(bluetooth) &&
           Put(bluetooth, brick, "Hi") && next() && Greet(brick);
}

int main(int argc, char** argv)
{
    if (argc != 2 && argc != 3) return 2;
    g_BrickName = argv[1];
    tav_host::Limit_Descriptors();
    C_TAV_Bluetooth bluetooth;
    const bool played = argc == 3 ? Play_Robot1(bluetooth, argv[2])
                                  : Play_Robot2(bluetooth);
    Close_All(bluetooth);
    std::cout << g_BrickName
              << (played ? ": all done\n" : ": failed\n");
    return played ? 0 : 1;
}
