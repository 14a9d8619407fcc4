// Plays one brick of a scenario: takes the numbers of its steps on stdin and answers each on stdout.
//   scenario_brick --list                        all scenarios, a line for each thing
//   scenario_brick SCENARIO BRICK                orders: a step's number, or "kill", as does the input's end
#include "api/tav_c_api.h"
#include "tests/scenarios/scenario.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <deque>
#include <iostream>
#include <mutex>
#include <thread>
#include <unistd.h>

namespace {

constexpr std::size_t MAX_LINE = 160;   // of a log line that quotes a long text
constexpr std::size_t MAX_LINES = 300;  // of a step that polls

std::string g_Name;
std::mutex g_Mutex;                                      // guards what the accept thread logs
std::vector<std::string> g_Cycle;                        // the current one
std::vector<std::string> g_AcceptLog;                    // those that brought a client
thread_local std::vector<std::string>* t_Log = nullptr;  // of the thread that plays steps

// Numbers of sockets differ from place to place.
std::string Hide_Socket(std::string line)
{
    for (const char* before : {"AcceptClient - Start(", "(Socket : ", "(Client : ", "(Server Socket : ",
                               "CloseAllClient - 2(", "::SendMsg_", "::ReadMsg_"}) {
        const std::size_t found = line.find(before);
        if (found == std::string::npos) continue;
        const std::size_t digits = before[0] == ':' ? line.find(" - ") + 5 : found + strlen(before);
        const std::size_t end = line.find(')');
        if (digits < end && end != std::string::npos && line.find_first_not_of("0123456789", digits) == end)
            line.replace(digits, end - digits, "#");
    }
    return line;
}

// "Connect_Index: Start|1|2; ReadData: Start(9)"
std::string Compact(const std::vector<std::string>& lines)
{
    std::string text, last;
    for (const std::string& line : lines) {
        const std::size_t split = line.find(" - ");
        const std::string operation = line.substr(strlen("C_TAV_Bluetooth::"), split - strlen("C_TAV_Bluetooth::"));
        text += operation == last ? "|" : (text.empty() ? "" : "; ") + operation + ": ";
        text += line.substr(split + 3);
        last = operation;
    }
    return text;
}

bool Is_As_Expected(const std::string& text, const std::string& expected)
{
    if (expected.rfind("...", 0) == 0) return text.find(expected.substr(3)) != std::string::npos;
    return expected == "*" || text == expected;
}

std::string One_Line(std::string text)
{
    const auto isControl = [](unsigned char byte) { return byte < ' '; };
    std::replace_if(text.begin(), text.end(), isControl, '~');
    return text;
}

void Play(std::size_t number, const S_Step& step, S_Robot& robot)
{
    std::vector<std::string> lines;
    t_Log = &lines;
    const auto start = std::chrono::steady_clock::now();
    const std::string result = One_Line(step.Do(robot));
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    t_Log = nullptr;
    const std::string log = One_Line(Compact(lines));
    std::string wrong;
    if (!Is_As_Expected(result, step.Result)) wrong += "\t  result  " + result + "\twanted  " + step.Result;
    if (!Is_As_Expected(log, step.Log)) wrong += "\t  log     " + log + "\twanted  " + step.Log;
    if (took.count() < step.Least || took.count() > step.Most)
        wrong += "\t  wanted from " + std::to_string(step.Least) + " to " + std::to_string(step.Most) + " s";
    char seconds[32];
    snprintf(seconds, sizeof(seconds), "%.3f s", took.count());
    std::cout << ("log " + std::to_string(number) + " " + result + " <- " + log + "\n" +
                  (wrong.empty() ? "passed " : "failed ") + std::to_string(number) + " " + seconds + " " +
                  (wrong.empty() ? result : wrong) + "\n")
              << std::flush;
}

void List()
{
    for (const S_Scenario& scenario : All_Scenarios()) {
        std::cout << "scenario\t" << scenario.Name << '\t' << scenario.Places << '\t' << scenario.IsCore << '\t'
                  << scenario.Title << '\n';
        for (const std::string& brick : scenario.Bricks)
            std::cout << "brick\t" << Get_Address(brick.substr(0, brick.find(' '))) << '\t' << brick << '\n';
        for (const S_Step& step : scenario.Steps)
            std::cout << "step\t" << step.Who << '\t' << step.Places << '\t' << step.Begins << '\t'
                      << (step.Result == HANGS) << '\t' << step.Least << '\t' << step.Most << '\t' << step.Line << '\t'
                      << step.Command << '\n';
    }
}

}  // namespace

namespace tav_c_api {

bool g_isLog_Quorvant_TAV = false;

void WriteLog_Dbg(const char* format, ...)
{
    if (t_Log && t_Log->size() >= MAX_LINES) return;
    char text[MAX_LINE];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    std::string line = Hide_Socket(text);
    if (length >= static_cast<int>(MAX_LINE)) line += "[" + std::to_string(length) + "]";
    if (t_Log) return t_Log->push_back(line);
    const std::lock_guard<std::mutex> lock(g_Mutex);
    if (line.find("AcceptClient - Start(") != std::string::npos) g_Cycle.clear();
    g_Cycle.push_back(line);
    if (line.find("AcceptClient - End(") != std::string::npos)
        g_AcceptLog.insert(g_AcceptLog.end(), g_Cycle.begin(), g_Cycle.end());
}

}  // namespace tav_c_api

namespace tav_c_api_impl {

bool Get_TAVBrickName(std::string& name)
{
    name = g_Name;
    return true;
}

bool DeleteFile(const std::string& path)
{
    return remove(path.c_str()) == 0;
}

}  // namespace tav_c_api_impl

std::string Take_AcceptLog()
{
    const std::lock_guard<std::mutex> lock(g_Mutex);
    std::vector<std::string> lines;
    lines.swap(g_AcceptLog);
    return Compact(lines);
}

int main(int argc, char** argv)
{
    signal(SIGPIPE, SIG_IGN);
    setpgid(0, 0);
    if (argc == 2 && strcmp(argv[1], "--list") == 0) return List(), 0;
    if (argc != 3) return std::cerr << "usage: scenario_brick --list | SCENARIO BRICK\n", 2;
    g_Name = argv[2];
    const auto scenarios = All_Scenarios();
    const auto scenario =
        std::find_if(scenarios.begin(), scenarios.end(), [&](const auto& s) { return s.Name == argv[1]; });
    if (scenario == scenarios.end()) return std::cerr << "there is no scenario " << argv[1] << '\n', 2;

    // Steps are played on a thread of their own, so that a brick whose step hangs can still be killed.
    std::mutex mutex;
    std::condition_variable ordered;
    std::deque<std::size_t> orders;
    std::thread([&] {
        S_Robot robot;
        for (;;) {
            std::unique_lock<std::mutex> lock(mutex);
            ordered.wait(lock, [&] { return !orders.empty(); });
            const std::size_t number = orders.front();
            orders.pop_front();
            lock.unlock();
            Play(number, scenario->Steps[number], robot);
        }
    }).detach();
    std::cout << "ready" << std::endl;
    for (std::string order; std::getline(std::cin, order) && order != "kill";) {
        const std::lock_guard<std::mutex> lock(mutex);
        orders.push_back(std::stoul(order));
        ordered.notify_one();
    }
    kill(0, SIGKILL);  // nothing is closed in an orderly way, and what its steps started ends with it
}
