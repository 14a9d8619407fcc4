#include "tools/tavbt/verbs/message_options.h"

#include "tools/tavbt/base/failure.h"
#include "tools/tavbt/base/process.h"
#include "tools/tavbt/base/signals.h"
#include "tools/tavbt/base/text.h"

namespace tavbt {

void Add_Value(CLI::App& verb, S_GivenValue& given)
{
    CLI::App& group = Add_Choice(verb);
    given.Bool = Add_Bool(group, "--bool", given.IsTrue, "a bool: true or false");
    Add_Text(group, "--text", given.Text, "a text; one that starts with a dash: --text=-1");
    given.Data = Add_Hex(group, "--data", given.Hex, "raw data in hexadecimal");
    given.Path = Add_Text(group, "--file", given.File, "raw data: what the file holds; - is stdin", "FILE");
}

S_Value Get_Value(const S_GivenValue& given, bool isClassic)
{
    if (Is_Given(given.Bool)) return {E_Kind::BOOL, given.IsTrue, ""};
    const bool isData = Is_Given(given.Data) || Is_Given(given.Path);
    if (isClassic && isData) throw S_Failure{USAGE, "the classic format has no raw data", "send a --bool or a --text"};
    if (Is_Given(given.Path)) return {E_Kind::DATA, false, Read_File(given.File)};
    if (isData) return {E_Kind::DATA, false, Parse_Hex(given.Hex).value_or("")};
    return {E_Kind::TEXT, false, given.Text};
}

void Add_Awaited(CLI::App& verb, S_Awaited& awaited, const std::string& timeOut)
{
    CLI::App& group = Add_Choice(verb);
    Add_Flag(group, "--bool", awaited.IsBool, "bools, printed as true or false");
    Add_Flag(group, "--text", awaited.IsText, "texts");
    Add_Flag(group, "--data", awaited.IsData, "raw data, printed in hexadecimal");
    Add_Flag(group, "--any", awaited.IsAny, "whatever comes, whoever sent it, with sender, kind and id");
    Add_Flag(group, "--dump", awaited.IsDump, "all bytes that come, in hexadecimal, as for tavbt decode");
    Add_Flag(verb, "--raw", awaited.IsRaw, "prints texts and data as they are, without line breaks");
    Add_Count(verb, "-n,--count", awaited.Count, "end after so many messages; 0: never");
    Add_Seconds(verb, "-t,--timeout", awaited.Seconds, timeOut);
    Add_Classic(verb, awaited.IsClassic);
    Add_Time(verb);
}

S_Wanted Get_Wanted(const S_Awaited& awaited)
{
    S_Wanted wanted;
    wanted.Sender = awaited.Sender;
    wanted.Id = awaited.Id;
    wanted.Format = Get_Format(awaited.IsClassic);
    wanted.Kind = awaited.IsBool   ? E_Kind::BOOL
                  : awaited.IsText ? E_Kind::TEXT
                  : awaited.IsData ? E_Kind::DATA
                                   : E_Kind::UNKNOWN;
    wanted.AsBytes = awaited.IsDump;
    if (awaited.IsClassic && awaited.IsData)
        throw S_Failure{USAGE, "the classic format has no raw data", "take --bool, --text or --any"};
    if (awaited.Id.empty() && wanted.Kind != E_Kind::UNKNOWN)
        throw S_Failure{USAGE, "the id of the messages is missing", "give it, or take --any"};
    return wanted;
}

void Check_End(const S_Awaited& awaited, std::size_t count)
{
    if (awaited.Count == 0 ? count > 0 || Is_Stopped() : count >= awaited.Count) return;
    Stop_If_Asked();
    const bool isAny = awaited.IsAny || awaited.IsDump;
    const std::string what = count == 0 ? (isAny ? "nothing" : "nothing that matches")
                                        : std::to_string(count) + " of " + Count_Of(awaited.Count, "message");
    throw S_Failure{TIMED_OUT, what + " came in " + Format_Number(awaited.Seconds) + " s",
                    isAny ? ""
                          : "sender, kind and id must be exactly those that are expected; --any shows whatever comes"};
}

}  // namespace tavbt
