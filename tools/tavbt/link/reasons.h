// Why an operation of the module failed. Its result says only that it did; the reason is in its debug log, which this
// program's logger reads along.
#pragma once

#include "tools/tavbt/base/failure.h"

#include <string>

namespace tavbt {

// What the log said since the last Take_Reason.
struct S_Reason
{
    std::string Call;  // the system or BlueZ call that failed; empty: none did
    int Error = 0;     // its errno
    bool TimedOut = false;
    int Received = -1;     // bytes of the last receive; -1: there was none
    bool NoName = false;   // this brick has no name to send under
    std::string Sender;    // of what was received, as far as it was looked at
    std::string Id;        //
    std::string Mismatch;  // what about it was not as expected, in words; empty: not known
};

// Switches the log's way to stderr, or to where TAV_LOG says, on.
void Show_Log();

// Hands the reason out and starts a new one. Only the thread that calls the module may ask.
S_Reason Take_Reason();

// The failure that the last operation ended in, in words for a person; Ctrl-C is one. `peer` is the brick that it was
// about.
S_Failure Explain(const S_Reason& reason, const std::string& peer, unsigned int channel);

// The failure that a peer hung up.
S_Failure Hung_Up(const std::string& peer);

}  // namespace tavbt
