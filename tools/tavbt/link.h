// Ways to another brick: looking it up, a connection to it, and a server that outlives its clients.
#pragma once

#include "bluetooth/C_TAV_Bluetooth.h"

#include <chrono>
#include <string>
#include <vector>

namespace tavbt {

using tav_c_api_impl::C_TAV_Bluetooth;
using tav_c_api_impl::S_BT_ScanDevice;

constexpr unsigned char CLASSIC_CHANNEL = 1;
constexpr unsigned char NAMED_CHANNEL = 16;

// Milliseconds until a time that is `seconds` away; without end for 0 or less.
class C_Deadline
{
public:
    explicit C_Deadline(double seconds);
    bool Is_Over() const { return Get_Left() == 0; }
    int Get_Left() const;

private:
    const bool m_Endless;
    const std::chrono::steady_clock::time_point m_End;
};

// Where the device list file is, or would be; empty if neither folder is there.
std::string Get_ListFolder();
std::string Get_ListFile();  // the one that would be read; empty: none

// Where the device list file is damaged, from this byte on; npos: nowhere.
std::size_t Find_ListDamage(const std::string& path);

// What to type for a folder that keeps the list.
constexpr const char* MAKE_LIST_FOLDER = "mkdir -p ~/bricks/prjs ~/bricks/run && cd ~/bricks/run";

// BT_Scan with a progress bar. Throws S_Failure.
void Scan(C_TAV_Bluetooth& bluetooth);

// Index of the brick in the device list: at `address` if that is not empty, else as the device list file says, else as
// a scan finds. Throws S_Failure.
unsigned int Find_Brick(C_TAV_Bluetooth& bluetooth, const std::string& name, const std::string& address);

// An outgoing connection, closed with its object.
class C_Connection
{
public:
    // Throws S_Failure. A refusal shows at the first transfer only.
    C_Connection(C_TAV_Bluetooth& bluetooth, const std::string& name, const std::string& address,
                 unsigned char channel);
    ~C_Connection();
    C_Connection(const C_Connection&) = delete;
    C_Connection& operator=(const C_Connection&) = delete;

    int Get_Socket() const { return m_Socket; }

private:
    C_TAV_Bluetooth& m_Bluetooth;
    int m_Socket;
};

enum class E_Event
{
    CAME,
    DATA,  // to be read; a client that hung up is first read to its end
    GONE   // to be dropped
};

struct S_Event
{
    E_Event What;
    S_BT_ScanDevice Client;
};

// A server whose clients may leave, crash or fall silent: their sockets do not block, and it waits by poll.
class C_Server
{
public:
    C_Server(C_TAV_Bluetooth& bluetooth, unsigned char channel);  // throws S_Failure
    ~C_Server();
    C_Server(const C_Server&) = delete;
    C_Server& operator=(const C_Server&) = delete;

    // What has happened, after at most `timeout` ms; empty also when a signal came.
    std::vector<S_Event> Wait(int timeout);

    std::vector<S_BT_ScanDevice> Get_Clients() const;
    void Drop(const S_BT_ScanDevice& client);

private:
    C_TAV_Bluetooth& m_Bluetooth;
    int m_Socket;
};

// Whether a short message can be sent without waiting. A client that never reads must not hold up the others.
bool Takes_Data(int socket);

// The name that the device list file has for an address, else the address.
std::string Get_NameOf(const C_TAV_Bluetooth& bluetooth, const S_BT_ScanDevice& client);

}  // namespace tavbt
