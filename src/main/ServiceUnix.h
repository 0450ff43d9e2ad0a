#pragma once

#include "main/Logger.h"
#include "main/ServiceImp.h"

/// Runs the service of this process (gpclServiceImp), as a daemon or in the foreground. Main thread only.

/// Runs the service: under systemd's notification protocol when the process was started so, otherwise
/// detached under the given name with a locked PID file. The detached form returns in the launcher, too.
/// Returns false when the service could not run; for the detached form only an empty name counts as that.
bool bServiceMain(const wchar_t* pszServiceName);
/// From now on a copy of each log entry goes to standard error, or no longer does.
void CopyLogToStandardError(bool bCopy);
/// Runs the service in the foreground. When it cannot start, only its cause is logged, by the service itself.
/// While it starts, the log is copied to standard error; afterwards not any more.
void RunDebugMode();
