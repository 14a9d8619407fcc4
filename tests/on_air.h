// Two bricks on a fast air of their own, in one process: Robot1, whose adapter new sockets and HCI calls use, and
// Robot2.
#pragma once

#include "bluetooth/C_TAV_Bluetooth.h"
#include "sim/air.h"
#include "tests/support.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

constexpr const char* ROBOT1 = "02:00:00:00:00:01";
constexpr const char* ROBOT2 = "02:00:00:00:00:02";
constexpr double FAST = 1000;  // an inquiry takes 10 ms, a page time-out 5 ms

class C_OnAir : public testing::Test
{
protected:
    C_OnAir()
    {
        tav_air::Clear_Faults();
        Enter_Air(FAST);
        tav_air::Start_Trace();
    }

    // A new air; on one of speed 1, connecting takes 20 ms.
    static void Enter_Air(double speed)
    {
        tav_air::Enter("test-" + std::to_string(getpid()), speed);
        tav_air::Put({ROBOT1, "Robot1"});
        tav_air::Put({ROBOT2, "Robot2"});
    }

    // Starts a case: these faults and no others, and a new trace.
    static void Ask_Faults(const std::string& rules)
    {
        tav_air::Clear_Faults();
        EXPECT_EQ(tav_air::Add_Faults(rules), "");
        tav_air::Start_Trace();
    }

    // What `action` returns with the adapter of Robot2.
    template <typename ACTION>
    static auto As_Robot2(ACTION action)
    {
        tav_air::Act_As(ROBOT2);
        const auto result = action();
        tav_air::Act_As(ROBOT1);
        return result;
    }

    // A connection that has had time to be released, so that the same peer can be connected again.
    static void Let_Go() { std::this_thread::sleep_for(std::chrono::milliseconds(2)); }

    static bool Wait_Until(const std::function<bool()>& done)
    {
        for (int i = 0; i < 5000 && !done(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return done();
    }

    // The trace in one text; log lines of the operation as their steps alone.
    static std::string Steps(const std::string& operation)
    {
        const std::string log = "C_TAV_Bluetooth::" + operation + " - ";
        std::string steps;
        for (const std::string& line : tav_air::Get_Trace())
            steps += (steps.empty() ? "" : "; ") + (line.rfind(log, 0) == 0 ? line.substr(log.size()) : line);
        return steps;
    }

    // The number of trace lines that start with `start`.
    static long Count(const std::string& start)
    {
        const auto trace = tav_air::Get_Trace();
        return std::count_if(trace.begin(), trace.end(), [&](const auto& line) { return line.rfind(start, 0) == 0; });
    }

    C_ProjectFolder m_Folder;
};
