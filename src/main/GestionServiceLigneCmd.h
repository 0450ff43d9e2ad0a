#pragma once

#include "service/ServiceManagerUnix.h"
#include "support/XYString.h"

#include <memory>

/// The command line: what it asks for, and the two commands that stop servers. Main thread only.

/// Whether an option is among the arguments: whole argument, ASCII letters in any case.
bool bSetOnCmdLine(int nCount, char** ppszArguments, const wchar_t* pszOption);
/// The argument behind an option, read as Windows-1252; empty when the option is the last. False, and the
/// value left alone, when the option is absent.
bool bGetCmdLineValue(int nCount, char** ppszArguments, const wchar_t* pszOption, CTString* pcsValue);
/// Whether the process must run as the service: the option is present, or systemd waits for a notification.
bool bModeService(int nCount, char** ppszArguments, const wchar_t* pszOption);

/// The manager's own service; null when it is not registered.
std::unique_ptr<CService> pclManagerService(CServiceManager* pclManager);
/// Stops every database server that runs or starts, then the manager's own service.
void StopAllCmd();
/// Stops the first database server whose executable lies in the directory, then the manager's service if its
/// own lies there, too. Without such a server nothing is stopped.
void StopOneServer(const wchar_t* pszDirectory);
