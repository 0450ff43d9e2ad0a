#include "manager/FailedListing.h"

#include "main/Logger.h"
#include "support/accesdllres.h"
#include "support/Conversion.h"
#include "support/RateLimit.h"
#include "support/WinApi.h"

std::wstring csFailedListing(int nError)
{
    CTString csText;
    DLLRES_bFormatMessage(&g_stMyModule, MSG_SERVICES_NOT_ASKED, &csText, csSystemMessage(nError).c_str());
    return csText;
}

void LogFailedListing(int nError)
{
    static CRateLimit s_clLimit; // one for all callers: there is only one machine to list
    if (s_clLimit.bDue({})) {
        CLogger().AddLog(ILogger::PRIORITY_CRITICAL, L"%1!s!",
                         csEscapePercent(csFailedListing(nError)).c_str());
    }
}
