// Chooses between the ways to run the service, and has the simplest of them.

#include "main/ServiceUnix.h"

#include "main/Daemonise.h"
#include "main/ServiceSteps.h"
#include "main/SystemdNotify.h"

#include <syslog.h>

void RunDebugMode()
{
    CTermBlocked clBlocked;

    // During the start a copy of each entry goes to standard error: whoever started the process sees why it
    // does not run.
    ::openlog(nullptr, LOG_PERROR, LOG_USER);
    const bool bStarted = bStartService();
    ::closelog();
    ::openlog(nullptr, 0, LOG_USER);

    if (bStarted) {
        __MainLoop(clBlocked);
    }
}

bool bServiceMain(const wchar_t* pszServiceName)
{
    return bIsSystemdNotify() ? __bServiceMainSystemdNotify() : __bServiceMainForking(pszServiceName);
}
