// How tavbt ends: with a kind, which decides the exit code, a sentence that says what happened, and one that says what
// to try.
#pragma once

#include <string>

namespace tavbt {

enum E_End
{
    DONE,
    FAILED,  // for a reason that has no kind of its own
    USAGE,
    NOT_FOUND,
    NOT_CONNECTED,
    TIMED_OUT,
    NO_ADAPTER,
    DAMAGED,  // input
    HUNG_UP,  // the other side, in mid-connection
    INTERRUPTED
};

constexpr int Get_ExitCode(E_End end)
{
    return end == HUNG_UP ? NOT_CONNECTED : end == INTERRUPTED ? 130 : end;
}

// Thrown by verbs, reported by Run_Reported.
struct S_Failure
{
    E_End End;
    std::string What;      // empty: has been said
    std::string Try = {};  // may be empty
};

}  // namespace tavbt
