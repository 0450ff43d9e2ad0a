#pragma once

#include <string>

/// Ends the processes that run a program with a service's name as one of their arguments. No script finds a
/// server whose start was given up before it had written its PID file. Sends SIGTERM, and SIGKILL to those
/// that are left after 5 seconds. False with EBUSY when one is left a second later, or the calling thread may
/// not go on (CStopping).
bool bEndStrayProcesses(const std::wstring& csProgram, const std::wstring& csService);
