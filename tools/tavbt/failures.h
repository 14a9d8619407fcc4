// How tavbt fails: with an exit code, a sentence that says what happened, and one that says what to try.
#pragma once

#include <string>

namespace tavbt {

enum E_Exit
{
    DONE = 0,
    FAILED = 1,  // for a reason that has no code of its own
    USAGE = 2,
    NOT_FOUND = 3,
    NOT_CONNECTED = 4,
    TIMED_OUT = 5,
    NO_ADAPTER = 6,
    DAMAGED = 7,  // input
    INTERRUPTED = 130
};

// Thrown by verbs, reported in main.
struct S_Failure
{
    E_Exit Exit;
    std::string What;
    std::string Try = {};  // may be empty
};

}  // namespace tavbt
