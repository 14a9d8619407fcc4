// A small world in place of Linux and BlueZ: the calls of the module, by --wrap, and what it requires. It hands out
// descriptors, writes down calls, log lines and what they find in the object, and fails the n-th call when told to.
#pragma once

#include "bluetooth/C_TAV_Bluetooth.h"

#include <cstdio>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace world {

using Bt = tav_c_api_impl::C_TAV_Bluetooth;

struct S_Fault
{
    bool IsAllocation = false;
    bool OnAndOn = false;
    int Error = 0;
    long At = 0;  // the how manyth; 0: none fails
};

struct S_World
{
    S_Fault Fault;
    long Count = 0;              // of what may fail
    std::string Failed;          // the call that failed first
    bool IsFirst = false;        // and it was the first of that name
    std::set<int> Open;          // descriptors
    std::set<int> Allowed;       // to stay open although nothing names them
    std::string Broken;          // what must never happen
    const Bt* Object = nullptr;  // while it is watched
    std::string Trace;           // calls, log lines less the operation's name, and changes of the object before them
    std::string State;           // of the object
    std::string Incoming;        // what every receive brings
    int Wire = -1;               // a socket of Linux that is waited for and received from instead
    std::string File;            // the device list file
    std::vector<std::string> Records;               // of the device that is asked for its services
    std::vector<double> Clock = {0};                // what it shows; the last value stays
    std::function<void(const std::string&)> OnLog;  // done with each log line
    const void* Responses = nullptr;                // the buffer of an inquiry
    std::vector<FILE*> Streams;                     // opened, and not closed by the module

    S_World() = default;
    S_World(const S_World&) = delete;
    ~S_World();
};

extern S_World* g_World;
extern bool g_IsInside;  // an operation runs, and none of the world's own code

// While code runs that the calls of an operation are not meant for.
struct S_Outside
{
    const bool Before = std::exchange(g_IsInside, false);
    ~S_Outside() { g_IsInside = Before; }
};

std::string Text(int number);
std::string Get_State(const Bt& bt);
void Trace(const std::string& event);

// Counts a call or an allocation; true when it is to fail.
bool Is_Due(bool isAllocation);

}  // namespace world
