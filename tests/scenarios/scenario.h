// Scenarios: what several bricks do step by step, written once and played on the simulated air and on the real Linux
// Bluetooth stack. The runner (runner.py) gives the steps out in order; scenario_brick does one brick's.
#pragma once

#include "bluetooth/C_TAV_Bluetooth.h"

#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

// Where a step or a scenario is played.
enum E_Place
{
    AIR = 1,
    LAB = 2,
    BOTH = AIR | LAB
};

// A brick in a scenario: the module, and what steps keep between them. Results are texts, a socket is "#".
struct S_Robot : tav_c_api_impl::C_TAV_Bluetooth
{
    int Listening = -1;  // the last server opened
    int Link = -1;       // the last connection made or accepted

    std::string Open(unsigned char channel);
    std::string Accept();
    std::string Dial(const std::string& name, unsigned char channel, unsigned long timeout);
    std::string Reach(const std::string& name, unsigned char channel, unsigned long timeout);  // lists it if need be
    bool Hang_Up();  // however Link came about

    // On Link. The readers allow for `size` bytes and give "RESULT VALUE".
    bool Say(const std::string& text);
    bool Say_True();
    bool Say_Data(const std::string& data);
    std::string Read_Text(const std::string& from, unsigned int size, unsigned long timeout);
    std::string Read_Data(const std::string& from, unsigned int size, unsigned long timeout);
    std::string Read_Bool(const std::string& from, unsigned long timeout);
    bool Say_Classic(const std::string& text);
    std::string Read_Classic(unsigned int size, unsigned long timeout);
    std::string Read_ClassicBool(unsigned long timeout);

    // Bare receives on Link: one; all until one fails, and why.
    int Receive(unsigned int size, unsigned long timeout);
    std::string Receive_All();

    std::string Devices() const;            // names and addresses, sorted
    std::string Clients(std::size_t size);  // of the built-in server, once their text is so long
};

struct S_Step
{
    std::string Who;                          // a brick, "radio" or "pause"
    std::function<std::string(S_Robot&)> Do;  // a brick's; gives the result
    std::string Command;                      // the radio's, the seconds of a pause, or "kill" for a brick
    std::string Result;                       // what is expected; "...TEXT": contains TEXT; HANGS
    std::string Log = "*";                    // of the playing thread, in the same way; "*": not looked at
    double Least = 0;                         // seconds
    double Most = 10;
    bool Begins = false;  // the next ones begin while this step lasts
    int Places = BOTH;
    int Line = 0;  // in the source of the scenarios
};
using S_Steps = std::vector<S_Step>;

constexpr const char* HANGS = "hangs";  // result of a step that does not return

struct S_Scenario
{
    std::string Name;
    std::string Title;
    // Each brick and its traits: card, sdp (an SDP server with a serial port on channels 1 and 16), python, no-adapter
    // (on the simulated air), device (nobody runs it), nameless.
    std::vector<std::string> Bricks;
    S_Steps Steps;
    int Places = BOTH;
    bool IsCore = false;  // also where time is short
};

std::string Get_Address(const std::string& name);
std::vector<S_Scenario> All_Scenarios();

// ---- Steps (steps.cpp) ----------------------------------------------------------------------------------------------

inline std::string Text(const std::string& text)
{
    return text;
}
inline std::string Text(bool value)
{
    return value ? "true" : "false";
}
inline std::string Text(int number)
{
    return std::to_string(number);
}

S_Steps Make_Step(const std::string& who, const std::string& result, const std::string& log,
                  std::function<std::string(S_Robot&)> action, int line);

// A brick does something, and this comes of it.
template <typename ACTION>
S_Steps Do(const std::string& who, const std::string& result, const std::string& log, const ACTION& action,
           int line = __builtin_LINE())
{
    const auto say = [action](S_Robot& robot) { return Text(action(robot)); };
    return Make_Step(who, result, log, say, line);
}

template <typename ACTION>
S_Steps Do(const std::string& who, const std::string& result, const ACTION& action, int line = __builtin_LINE())
{
    return Do(who, result, "*", action, line);
}

// A command of the system, in the brick's folder; what it says must contain `result`.
S_Steps Shell(const std::string& who, const std::string& command, const std::string& result,
              int line = __builtin_LINE());

S_Steps Pause(double seconds);
S_Steps Radio(const std::string& command);
S_Steps Kill(const std::string& who);  // the brick's program; a new one goes on

S_Steps Meanwhile(S_Steps steps);  // the next ones begin while the step lasts
S_Steps Takes(double least, double most, S_Steps steps);
S_Steps Only(E_Place place, S_Steps steps);
S_Steps Join(std::initializer_list<S_Steps> parts);

// What the accept thread logged of clients that came since the last call (scenario_brick.cpp).
std::string Take_AcceptLog();
