// Messages of every kind behind one pair of operations.
#pragma once

#include "tools/tavbt/base/deadline.h"
#include "tools/tavbt/link/connection.h"
#include "tools/tavbt/link/format.h"

#include <functional>
#include <string>
#include <vector>

namespace tavbt {

// What is to be read.
struct S_Wanted
{
    std::string Sender;
    std::string Id;
    E_Kind Kind = E_Kind::UNKNOWN;  // UNKNOWN: whatever comes, Sender and Id are not looked at
    bool AsBytes = false;           // with UNKNOWN: what one receive brought, not taken apart
    E_Format Format = E_Format::NAMED;
};

unsigned char Get_Channel(E_Format format);

// Sends one message. Throws S_Failure with `peer` in its words.
void Send(C_TAV_Bluetooth& bluetooth, int socket, const std::string& peer, E_Format format, const std::string& id,
          const S_Value& value);

// Takes one receive and returns the messages that the module's reader of the wanted kind takes from it, usually one;
// notes tell of what is lost to it. Empty when nothing came within `timeout` ms, or nothing that is wanted. Throws
// S_Failure when the connection has ended.
std::vector<S_Message> Read(C_TAV_Bluetooth& bluetooth, int socket, const std::string& peer, const S_Wanted& wanted,
                            int timeout);

// Sends a message back to a client that it came from. Throws S_Failure also when the client does not read.
void Send_Back(C_TAV_Bluetooth& bluetooth, const S_BT_ScanDevice& client, E_Format format, const S_Message& message);

using Taker = std::function<void(const S_BT_ScanDevice& client, const S_Message& message)>;

// Does what the events of a server ask for. Clients come and leave as they like, of which notes tell; their messages
// that are wanted are handed to `take`, and a client for which that throws S_Failure is dropped.
void Serve(C_TAV_Bluetooth& bluetooth, C_Server& server, const S_Wanted& wanted, const std::vector<S_Event>& events,
           const Taker& take);

// Serves until `is_done`, the deadline or a signal.
void Run_Server(C_TAV_Bluetooth& bluetooth, C_Server& server, const S_Wanted& wanted, const C_Deadline& deadline,
                const std::function<bool()>& is_done, const Taker& take);

// A message as a result: its value alone, or as JSON; with `whole` also sender, kind and id.
void Print_Message(const S_Message& message, bool whole, bool raw);

}  // namespace tavbt
