#pragma once

#include <string>

/// Ends the processes that run a program and have a service's name as one of their arguments: servers without
/// a PID file. No script finds a server whose start was given up before the server had written that file.
///
/// Sends SIGTERM, and SIGKILL to those that are left after 5 seconds. True when none is left, also for an
/// empty program, which no process runs. False with EBUSY when one is left a second after the first SIGKILL,
/// or the calling thread may not go on (CStopping). Links in the program's path are resolved.
bool bEndStrayProcesses(const std::wstring& csProgram, const std::wstring& csService);
