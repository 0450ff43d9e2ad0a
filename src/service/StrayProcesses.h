#pragma once

#include <string>

/// Ends the processes that run a program with a service's name as one of their arguments: a server whose
/// start was given up before it had written its PID file is found by no script. SIGTERM, and SIGKILL for
/// those that are still there after a few seconds. False (EBUSY) when one cannot be ended.
bool bEndStrayProcesses(const std::wstring& csProgram, const std::wstring& csService);
