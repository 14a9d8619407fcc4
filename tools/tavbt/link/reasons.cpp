#include "tools/tavbt/link/reasons.h"

#include "api/tav_c_api.h"
#include "host/log_file.h"
#include "tools/tavbt/base/signals.h"
#include "tools/tavbt/base/text.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace tavbt {

namespace {

S_Reason g_Reason;

bool Starts_With(std::string_view text, std::string_view start)
{
    return text.substr(0, start.size()) == start;
}

// What stands in the brackets of "Msg Id(abc)".
std::string Get_Bracketed(std::string_view step)
{
    const std::size_t open = step.find('(');
    return std::string(step.substr(open + 1, step.size() - open - 2));
}

// ---- Lines of the log -----------------------------------------------------------------------------------------------

void Take_Call(std::string_view step)
{
    constexpr std::string_view CALL = "Error in fce ";
    constexpr std::string_view ERROR = "(Error Code ";
    const std::size_t error = step.find(ERROR);
    if (error == std::string_view::npos) return;
    g_Reason.Call = step.substr(CALL.size(), error - CALL.size());
    g_Reason.Error = atoi(std::string(step.substr(error + ERROR.size())).c_str());
}

void Take_Type(std::string_view step)
{
    constexpr const char* TYPES[][2] = {{": 1)", "it is a text"}, {": 3)", "it is a bool"}, {": 4)", "it is data"}};
    g_Reason.Mismatch.clear();
    for (const auto& [type, words] : TYPES)
        if (step.find(type) != std::string_view::npos) g_Reason.Mismatch = words;
}

void Take_Sender(std::string_view step)
{
    g_Reason.Sender = Get_Bracketed(step);
}

void Take_Id(std::string_view step)
{
    g_Reason.Id = Get_Bracketed(step);
}

void Blame_Sender(std::string_view /*step*/)
{
    g_Reason.Mismatch = "its sender is " + Quoted(g_Reason.Sender);
}

void Blame_Id(std::string_view /*step*/)
{
    g_Reason.Mismatch = "its id is " + Quoted(g_Reason.Id);
}

// The steps of operations that tell something, as in "C_TAV_Bluetooth::_ReadMsg_TAV_String - 4(abc)".
struct S_Step
{
    const char* Operation;  // how its name starts
    const char* Start;      // how the step starts
    void (*Take)(std::string_view step);
};

constexpr S_Step STEPS[] = {
    {"", "Error in fce ", Take_Call},
    {"", "Timeout", [](std::string_view) { g_Reason.TimedOut = true; }},
    {"", "Error(Not Brick Name)", [](std::string_view) { g_Reason.NoName = true; }},
    {"ReadData", "2(", [](std::string_view step) { g_Reason.Received = atoi(Get_Bracketed(step).c_str()); }},
    {"_ReadMsg_", "3(", Take_Sender},
    {"_ReadMsg_", "Brick Name(", Take_Sender},
    {"_ReadMsg_", "4(", Take_Id},
    {"_ReadMsg_", "Msg Id(", Take_Id},
    {"_ReadMsg_", "MsgId : ", [](std::string_view step) { g_Reason.Id = step.substr(strlen("MsgId : ")); }},
    {"", "Error (Device Name)", Blame_Sender},
    {"", "Error(Device Name)", Blame_Sender},
    {"", "Error (Msg Id)", Blame_Id},
    {"", "Error(Msg Id)", Blame_Id},
    {"", "Error (Not type", Take_Type},
};

void Note_Line(std::string_view line)
{
    constexpr std::string_view CLASS = "C_TAV_Bluetooth::";
    constexpr std::string_view DASH = " - ";
    const std::size_t dash = line.find(DASH);
    if (!Starts_With(line, CLASS) || dash == std::string_view::npos) return;
    const std::string_view operation = line.substr(CLASS.size(), dash - CLASS.size());
    const std::string_view step = line.substr(dash + DASH.size());
    for (const S_Step& known : STEPS)
        if (Starts_With(operation, known.Operation) && Starts_With(step, known.Start)) return known.Take(step);
}

// ---- Words ----------------------------------------------------------------------------------------------------------

struct S_Explanation
{
    const char* Calls;  // separated by blanks; null: any
    int Error;
    E_End End;
    const char* What;  // NAME and CHANNEL are filled in
    const char* Try;
};

constexpr const char* SEE_DOCTOR = "tavbt doctor says what is missing";
constexpr const char* ADAPTER_CALLS = "hci_get_route hci_open_dev hci_inquiry";

constexpr S_Explanation EXPLANATIONS[] = {
    {ADAPTER_CALLS, ENODEV, NO_ADAPTER, "there is no Bluetooth adapter that is switched on", SEE_DOCTOR},
    {ADAPTER_CALLS, ENETDOWN, NO_ADAPTER, "the Bluetooth adapter is switched off", SEE_DOCTOR},
    {nullptr, EAFNOSUPPORT, NO_ADAPTER, "this system's kernel has no Bluetooth",
     "tavbt doctor says what is missing; without Bluetooth: tav-air Robot1 -- tavbt ..."},
    {nullptr, EPROTONOSUPPORT, NO_ADAPTER, "this system's kernel does not know RFCOMM", SEE_DOCTOR},
    {"connect send recv", EACCES, NOT_CONNECTED, "NAME refused to pair with this brick",
     "sudo hciconfig hci0 sspmode 0, on one of the two"},
    {nullptr, EPERM, FAILED, "this user is not permitted to do that", "run it as root, with sudo"},
    {nullptr, EACCES, FAILED, "this user is not permitted to do that", "run it as root, with sudo"},
    {"bind listen", EADDRINUSE, FAILED, "another program on this brick has channel CHANNEL",
     "end that program; if it is tavbt: pgrep -a tavbt"},
    {nullptr, EHOSTUNREACH, NO_ADAPTER, "no adapter of this brick reaches NAME, or NAME is this brick itself",
     SEE_DOCTOR},
    {nullptr, EBUSY, NOT_CONNECTED, "this brick has a connection to channel CHANNEL of NAME already",
     "end the program that has it; if NAME went out of range just now, wait 20 s"},
    {"sdp_connect", ECONNREFUSED, NOT_CONNECTED, "NAME is there, but lists no services: it has no SDP server",
     "messages do not need one; tavbt doctor, run on NAME, says how to start it"},
    {nullptr, ECONNREFUSED, NOT_CONNECTED,
     "NAME is there, but refused the connection: no program on it listens on channel CHANNEL",
     "start one there, for example: tavbt serve --any (with --classic on channel 1)"},
    {nullptr, EHOSTDOWN, NOT_CONNECTED,
     "NAME does not answer: it is switched off, out of range, or has another address now (\"Host is down\")",
     "tavbt scan looks who is there, and learns new addresses"},
    {nullptr, ETIMEDOUT, NOT_CONNECTED, "NAME fell silent: it was switched off, or is out of range",
     "tavbt scan looks who is there"},
    {nullptr, ECONNABORTED, NO_ADAPTER, "this brick's adapter was switched off", "sudo hciconfig hci0 up"},
};

bool Applies(const S_Explanation& explanation, const S_Reason& reason)
{
    if (explanation.Error != reason.Error) return false;
    if (!explanation.Calls) return true;
    return (" " + std::string(explanation.Calls) + " ").find(" " + reason.Call + " ") != std::string::npos;
}

std::string Get_Name(const std::string& peer)
{
    return peer.empty() ? "the other brick" : Printable(peer);
}

void Replace(std::string& text, std::string_view what, const std::string& by)
{
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + by.size()))
        text.replace(at, what.size(), by);
}

}  // namespace

void Show_Log()
{
    tav_c_api::g_isLog_Quorvant_TAV = true;
}

S_Reason Take_Reason()
{
    S_Reason reason;
    std::swap(reason, g_Reason);
    return reason;
}

S_Failure Explain(const S_Reason& reason, const std::string& peer, unsigned int channel)
{
    if (Is_Stopped()) return {INTERRUPTED, "interrupted"};
    const std::string name = Get_Name(peer);
    const auto fill_in = [&](std::string text) {
        Replace(text, "CHANNEL", std::to_string(channel));
        Replace(text, "NAME", name);
        return text;
    };
    if (reason.NoName) return {FAILED, "this brick has no name to send under", "TAV_BRICK_NAME=NAME tavbt ..."};
    const bool isEnd = reason.Error == ECONNRESET || reason.Error == ENOTCONN;
    if (reason.Call.empty() && reason.TimedOut)
        return {NOT_CONNECTED, name + " did not answer in time", "tavbt scan looks who is there"};
    if (reason.Call.empty() ? reason.Received == 0 : isEnd) return Hung_Up(peer);
    if (reason.Call.empty()) return {FAILED, "it failed, and the log does not say why", "--log shows every step"};
    for (const S_Explanation& explanation : EXPLANATIONS)
        if (Applies(explanation, reason)) return {explanation.End, fill_in(explanation.What), fill_in(explanation.Try)};
    return {FAILED, reason.Call + " failed: " + strerror(reason.Error), "--log shows every step"};
}

S_Failure Hung_Up(const std::string& peer)
{
    return {HUNG_UP, Get_Name(peer) + " hung up"};
}

}  // namespace tavbt

// ---- The module's logger --------------------------------------------------------------------------------------------

namespace tav_c_api {

bool g_isLog_Quorvant_TAV = getenv("TAV_LOG") != nullptr;

void WriteLog_Dbg(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    char line[512];  // no line that matters here is longer
    va_list again;
    va_copy(again, arguments);
    vsnprintf(line, sizeof(line), format, again);
    va_end(again);
    tavbt::Note_Line(line);
    if (g_isLog_Quorvant_TAV) tav_host::Write_LogLine(format, arguments);
    va_end(arguments);
}

}  // namespace tav_c_api
