// Chooses between the ways to run the service, and has the simplest of them.

#include "main/ServiceUnix.h"

#include "main/Daemonise.h"
#include "main/ServiceSteps.h"
#include "main/SystemdNotify.h"

#include <syslog.h>

void CopyLogToStandardError(bool bCopy)
{
    ::closelog();
    ::openlog(nullptr, bCopy ? LOG_PERROR : 0, LOG_USER);
}

void RunDebugMode()
{
    CTermBlocked clBlocked;

    CopyLogToStandardError(true); // whoever started the process sees why it does not run
    const bool bStarted = bStartService();
    CopyLogToStandardError(false);

    if (bStarted) {
        __MainLoop(clBlocked);
    }
}

bool bServiceMain(const wchar_t* pszServiceName)
{
    return bIsSystemdNotify() ? __bServiceMainSystemdNotify() : __bServiceMainForking(pszServiceName);
}
