// Connections to other bricks: one to a brick, and a server that outlives its clients.
#pragma once

#include "tools/tavbt/link/device_list.h"

#include <string>
#include <vector>

namespace tavbt {

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

    // What has happened, after at most `timeout` ms; empty also when a signal came, or when there is something to read
    // from another descriptor, `input`.
    std::vector<S_Event> Wait(int timeout, int input = -1);

    std::vector<S_BT_ScanDevice> Get_Clients() const;
    void Drop(const S_BT_ScanDevice& client);

private:
    C_TAV_Bluetooth& m_Bluetooth;
    int m_Socket;
};

// Whether a short message can be sent without waiting. A client that never reads must not hold up the others.
bool Takes_Data(int socket);

}  // namespace tavbt
