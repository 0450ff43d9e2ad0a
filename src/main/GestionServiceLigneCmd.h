#pragma once

#include "service/ServiceManagerUnix.h"
#include "support/XYString.h"

#include <memory>

/// The command line: its options, and the two commands that stop servers. Main thread only.

/// Whether an option is among the arguments. Compares whole arguments, without regard to the case of ASCII
/// letters.
bool bSetOnCmdLine(int nCount, char** ppszArguments, const wchar_t* pszOption);
/// The argument after an option, read as Windows-1252; empty when the option is the last one. False, with the
/// value unchanged, when the option is absent.
bool bGetCmdLineValue(int nCount, char** ppszArguments, const wchar_t* pszOption, CTString* pcsValue);
/// Whether the process must run as the service: the option is present, or systemd waits for its report.
bool bModeService(int nCount, char** ppszArguments, const wchar_t* pszOption);

/// The manager's own service; null with errno: ENOENT when it is not registered, anything else when it cannot
/// be looked up.
std::unique_ptr<CService> pclManagerService(CServiceManager* pclManager);
/// Stops every database server that runs or is starting, then the manager's own service. A failure is
/// reported on standard error and does not keep the others from being stopped.
void StopAllCmd();
/// Stops the first database server whose executable lies in the directory, then the manager's service if its
/// executable lies there, too. Without such a server nothing is stopped.
void StopOneServer(const wchar_t* pszDirectory);
