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
    static CRateLimit s_clLimit;
    if (s_clLimit.bDue({})) { // one subject for all callers: there is only one machine to list
        CLogger clLogger;     // a new logger writes to the system log
        LogText(clLogger, csFailedListing(nError));
    }
}
