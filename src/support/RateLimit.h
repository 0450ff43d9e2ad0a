#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <string>

/// Lets one event a minute pass for each subject, so that a repeated event does not fill the log. Remembers a
/// subject for that minute only. Any thread.
class CRateLimit
{
public:
    using CClock = std::chrono::steady_clock;

    /// Whether this event is the first of its minute. Throws std::bad_alloc.
    bool bDue(const std::wstring& csSubject, CClock::time_point clNow = CClock::now())
    {
        const std::lock_guard<std::mutex> clGuard(m_clLock);
        std::erase_if(m_tLast,
                      [clNow](const auto& st) { return clNow - st.second >= std::chrono::minutes(1); });
        return m_tLast.emplace(csSubject, clNow).second;
    }

private:
    std::mutex m_clLock;
    std::map<std::wstring, CClock::time_point> m_tLast;
};
