// Options of the verbs that send messages, and of those that wait for some.
#pragma once

#include "tools/tavbt/base/options.h"
#include "tools/tavbt/link/exchange.h"

#include <string>

namespace tavbt {

// The value to send: one of --bool, --text, --data and --file.
struct S_GivenValue
{
    bool IsTrue = false;
    std::string Text;
    std::string Hex;
    std::string File;
    CLI::Option* Bool = nullptr;
    CLI::Option* Data = nullptr;
    CLI::Option* Path = nullptr;
};

void Add_Value(CLI::App& verb, S_GivenValue& given);
S_Value Get_Value(const S_GivenValue& given, bool isClassic);  // throws S_Failure

// The messages to wait for, how many and how long.
struct S_Awaited
{
    std::string Sender;
    std::string Id;
    bool IsBool = false;
    bool IsText = false;
    bool IsData = false;
    bool IsAny = false;
    bool IsDump = false;
    bool IsClassic = false;
    bool IsRaw = false;
    unsigned int Count = 0;  // 0: without end
    double Seconds = 0;      //

    bool Is_Enough(std::size_t count) const { return Count > 0 && count >= Count; }
};

void Add_Awaited(CLI::App& verb, S_Awaited& awaited, const std::string& timeOut);
S_Wanted Get_Wanted(const S_Awaited& awaited);  // throws S_Failure

// Throws S_Failure if it is no good end that so many came: Ctrl-C is one where no number of messages was asked for, the
// end of the time where as many came as were asked for, or any.
void Check_End(const S_Awaited& awaited, std::size_t count);

constexpr E_Format Get_Format(bool isClassic)
{
    return isClassic ? E_Format::CLASSIC : E_Format::NAMED;
}

}  // namespace tavbt
