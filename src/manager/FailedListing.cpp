#include "manager/FailedListing.h"

#include "main/Logger.h"
#include "support/accesdllres.h"
#include "support/Conversion.h"
#include "support/WinApi.h"

#include <chrono>
#include <mutex>
#include <optional>

namespace {
using CClock = std::chrono::steady_clock;
constexpr std::chrono::minutes s_clLogPeriod{1};

/// Whether the last entry is old enough for another one, which then counts as written.
bool bLogIsDue()
{
    static std::mutex s_clLock;
    static std::optional<CClock::time_point> s_clLast;
    const std::lock_guard<std::mutex> clGuard(s_clLock);
    const CClock::time_point clNow = CClock::now();
    if (s_clLast && clNow - *s_clLast < s_clLogPeriod) {
        return false;
    }
    s_clLast = clNow;
    return true;
}
} // namespace

std::wstring csFailedListing(int nError)
{
    CTString csText;
    DLLRES_bFormatMessage(&g_stMyModule, MSG_SERVICES_NOT_ASKED, &csText, csSystemMessage(nError).c_str());
    return csText;
}

void LogFailedListing(int nError)
{
    if (bLogIsDue()) {
        CLogger().AddLog(ILogger::PRIORITY_CRITICAL, L"%1!s!",
                         csEscapePercent(csFailedListing(nError)).c_str());
    }
}
