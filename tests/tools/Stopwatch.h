#pragma once

#include <chrono>

/// Measures from its making on.
class CStopwatch
{
public:
    long nMs() const { return (CClock::now() - m_clStart) / std::chrono::milliseconds(1); }

private:
    using CClock = std::chrono::steady_clock;
    CClock::time_point m_clStart = CClock::now();
};
