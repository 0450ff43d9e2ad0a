#pragma once

#include "main/ServiceUnix.h"

#include <cstddef>
#include <optional>
#include <string>

/// Steps that the forking and the systemd service main share; for these two and the foreground mode only.
/// Main thread, gpclServiceImp set.

/// Characters of a path or user name handed out by the service, terminator included.
inline constexpr std::size_t g_nServicePath = 261;

/// Holds SIGTERM back in the main thread from before the service reports itself up until its handler is
/// installed: a stop right behind the start would otherwise kill the daemon and leave its files. When it ends
/// without a main loop (the start failed), SIGTERM is ignored from then on: the process cleans up and ends
/// anyway.
class CTermHeld
{
public:
    CTermHeld();
    ~CTermHeld();
    CTermHeld(const CTermHeld&) = delete;
    CTermHeld& operator=(const CTermHeld&) = delete;
};

/// Logs a message with one insert, at priority 2.
void LogMessage(unsigned int nMessage, const std::wstring& csInsert);
/// Allows core dumps if the service wants them. Comes once more after each switch of identity.
void __CoreDump();
/// Starts the service; a failure is logged.
bool __bStart();
/// Hands a file (-1: none) and the service's own directory to the user and switches identity: for good, or
/// only the effective one. A failure is logged.
bool __bChangeUser(int nFd, const wchar_t* pszUser, bool bPermanent);
/// Installs the termination handler, lets SIGTERM through and runs the main loop.
void __MainLoop(std::optional<CTermHeld>* pclHeld);

bool __bServiceMainForking(const wchar_t* pszServiceName);
bool __bServiceMainSystemdNotify();
