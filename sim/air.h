// The simulated air: BR/EDR bricks in user space, without Bluetooth in the kernel, root or a daemon.
//
// Linked into a test program, or preloaded into any program (libtav_air.so), it takes the place of the socket calls on
// RFCOMM sockets and of the BlueZ calls that reach an adapter; everything else passes through. Bricks are processes or,
// with this header, any number of them within one process. sim/README.md says what is modelled and what is not.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tav_air {

// One SDP record in the public browse group. An empty text is an attribute that the record lacks.
struct S_Service
{
    std::string Name;
    std::string Description;
    std::string Provider;
    int Channel = 0;       // RFCOMM channel; 0: L2CAP only; -1: no protocol list
    std::uint16_t Id = 0;  // ServiceID as a 16-bit UUID; 0: none
    std::string Hex = {};  // bytes to send instead of a record of all that, which need not make sense; empty: none
};

// One Bluetooth device.
struct S_Brick
{
    std::string Address;       // "02:00:00:00:00:01", also what the brick is known by here
    std::string Name;          // up to 248 bytes
    bool Present = true;       // in range
    bool Discoverable = true;  // answers inquiries
    bool TellsName = true;     // answers name requests
    bool HasSdpServer = true;  // else SDP connections are refused
    std::vector<S_Service> Services = {};
    bool Powered = true;  // else its adapter is switched off: there to be seen, of no use
};

// The address that a brick gets from its name when it is given none.
std::string Get_Address(const std::string& name);

// Enters the air of this name; all that was put there or opened before by this process is gone. Time on the air runs
// `speed` times as fast as on a real one. Bricks of other users of this machine are not there, unless both sides share
// the air. Returns false when the name is not 1 to 30 letters, digits, '-', '_' or '.', or when `speed` is below 0.001.
bool Enter(const std::string& air, double speed, bool isShared = false);

// Puts a brick on the air, or changes the one with this address. One that ceases to be present falls silent: its peers
// notice after the link supervision time-out of 20 s; one that is present again by then keeps its links. Returns false
// when another user has a brick of this address on the air.
bool Put(const S_Brick& brick);

// The brick whose adapter the calling thread's next sockets and HCI calls use; "": a brick without an adapter. A thread
// that never called this uses the brick that this process put on the air first.
void Act_As(const std::string& address);

// Asks for faults: rules separated by blanks, each CALL:N=EFFECT for the N-th call from now on (* for every call).
//   connect:2=ECONNREFUSED   fails with this errno
//   send:1=short:5           moves at most 5 bytes (send, recv)
//   recv:3=vanish            the brick falls silent, as one that ceased to be present; the call goes on
// CALL is the name of any call in the trace. Returns an empty text, or what is wrong with a rule (no rule is taken).
std::string Add_Faults(const std::string& rules);

// Forgets all faults.
void Clear_Faults();

// The trace: the Bluetooth calls of this process since Start_Trace, as "call(arguments)", and the lines that
// Record added (a test's log lines), in one order.
void Start_Trace();
void Record(const std::string& line);
std::vector<std::string> Get_Trace();

// Bluetooth descriptors (sockets, opened adapters, SDP sessions) of this process that are open.
std::vector<int> Get_Open();

}  // namespace tav_air
