// Until when something waits.
#pragma once

#include <algorithm>
#include <chrono>

namespace tavbt {

// Milliseconds until a time that is `seconds` away; without end for 0 or less.
class C_Deadline
{
public:
    using Clock = std::chrono::steady_clock;

    explicit C_Deadline(double seconds)
        : m_Endless(!(seconds > 0)),  // also for what is no number
          m_End(Clock::now() +
                std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(m_Endless ? 0 : seconds)))
    {
    }

    int Get_Left() const
    {
        constexpr int ENDLESS_STEP_MS = 3600000;
        if (m_Endless) return ENDLESS_STEP_MS;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_End - Clock::now()).count();
        return static_cast<int>(std::clamp<long long>(left, 0, ENDLESS_STEP_MS));
    }

    bool Is_Over() const { return Get_Left() == 0; }

private:
    const bool m_Endless;
    const Clock::time_point m_End;
};

}  // namespace tavbt
