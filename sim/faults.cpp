// Faults on request, and the trace.
#include "sim/internals.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace tav_air {

namespace {

constexpr const char* CALLS = " socket bind listen accept connect select setsockopt getsockopt recv send fcntl "
                              "shutdown close hci_devinfo hci_get_route hci_open_dev "
                              "hci_inquiry hci_read_remote_name hci_read_local_name hci_close_dev sdp_connect "
                              "sdp_service_search_attr_req sdp_close ";
constexpr int LAST_ERRNO = 133;

int Get_Errno(const std::string& name)
{
    for (int error = 1; error <= LAST_ERRNO; ++error) {
        const char* const known = strerrorname_np(error);
        if (known && name == known) return error;
    }
    return 0;
}

// What is wrong with the rule CALL:N=EFFECT; empty: nothing.
std::string Parse_Rule(const std::string& text, S_Rule& rule)
{
    const std::size_t colon = text.find(':'), equals = text.find('=');
    if (equals == std::string::npos || colon > equals) return "'" + text + "' is not of the form CALL:N=EFFECT";
    rule.Call = text.substr(0, colon);
    const std::string at = text.substr(colon + 1, equals - colon - 1);
    const std::string effect = text.substr(equals + 1);
    if (!strstr(CALLS, (" " + rule.Call + " ").c_str()))
        return "'" + rule.Call + "' in '" + text + "' is no call that can fail";
    if (at != "*" && (!Parse_Number(at, rule.At) || rule.At == 0))
        return "'" + at + "' in '" + text + "' is neither a number from 1 on nor *";
    unsigned long limit = 0;
    const bool isShort = effect.rfind("short:", 0) == 0 && (rule.Call == "send" || rule.Call == "recv");
    if (isShort && Parse_Number(effect.substr(6), limit) && limit > 0) rule.Limit = limit;
    rule.Vanish = effect == "vanish";
    rule.Error = Get_Errno(effect);
    if (rule.Error || rule.Vanish || rule.Limit < SIZE_MAX) return "";
    return "'" + effect + "' in '" + text +
           "' is neither the name of an errno (EIO, ...) nor vanish nor, for send and recv, short:BYTES";
}

}  // namespace

thread_local int t_Inside = 0;

bool Parse_Number(const std::string& text, unsigned long& number)
{
    if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    number = std::stoul(text);
    return true;
}

std::string Take_Faults(const std::string& rules)
{
    std::vector<S_Rule> added;
    std::istringstream words(rules);
    for (std::string word; words >> word;) {
        std::string wrong = Parse_Rule(word, added.emplace_back());
        if (!wrong.empty()) return wrong;
    }
    State().Rules.insert(State().Rules.end(), added.begin(), added.end());
    return "";
}

std::string Add_Faults(const std::string& rules)
{
    const std::lock_guard lock(State().Mutex);
    return Take_Faults(rules);
}

void Clear_Faults()
{
    const std::lock_guard lock(State().Mutex);
    State().Rules.clear();
}

void Start_Trace()
{
    const std::lock_guard lock(State().Mutex);
    State().Trace.emplace();
}

void Record(const std::string& line)
{
    const std::lock_guard lock(State().Mutex);
    if (State().Trace) State().Trace->push_back(line);
}

std::vector<std::string> Get_Trace()
{
    const std::lock_guard lock(State().Mutex);
    return State().Trace.value_or(std::vector<std::string>());
}

S_Fault Begin(const char* call, const std::string& arguments, int fd)
{
    if (t_Inside > 0) return {};
    static const bool print = getenv("TAV_AIR_TRACE") != nullptr;
    const std::string line = std::string(call) + "(" + arguments + ")";
    Record(line);
    S_Fault fault;
    std::unique_lock lock(State().Mutex);
    for (S_Rule& rule : State().Rules) {
        if (rule.Call != call || (++rule.Count != rule.At && rule.At != 0)) continue;
        fault.Error = rule.Error ? rule.Error : fault.Error;
        fault.Limit = std::min(rule.Limit, fault.Limit);
        fault.Vanish = rule.Vanish || fault.Vanish;
    }
    if (print)
        fprintf(stderr, "air: %s%s%s%s\n", line.c_str(), fault.Vanish ? ", the brick falls silent" : "",
                fault.Limit < SIZE_MAX ? ", cut short" : "", fault.Error ? ", told to fail" : "");
    if (fault.Vanish) {
        const SocketPointer socket = Find_Socket(fd);
        const auto local = State().Bricks.find(socket ? socket->Own : Get_Acting());
        if (local == State().Bricks.end()) return fault;
        S_Adapter silent = local->second.Brick;
        silent.Present = false;
        Change_Brick(silent);
    }
    return fault;
}

bool Fails(const char* call, const std::string& arguments, int fd)
{
    const int error = Begin(call, arguments, fd).Error;
    if (error) errno = error;
    return error != 0;
}

}  // namespace tav_air
