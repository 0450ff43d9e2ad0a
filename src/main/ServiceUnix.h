#pragma once

#include "main/Logger.h"
#include "main/ServiceImp.h"

/// The two ways to run the service of this process (gpclServiceImp). Main thread only.

/// Runs the service: under systemd's notification protocol when the process was started so, otherwise
/// detached under the given name with a locked PID file. The detached form returns in the launcher, too.
/// Returns false when the service could not run.
bool bServiceMain(const wchar_t* pszServiceName);
/// Runs the service in the foreground. When it cannot start, nothing is logged but the cause, by the service.
void RunDebugMode();
