#pragma once

#include "main/ServiceUnix.h"

#include <cstddef>
#include <string>

/// Steps that the forking and the systemd service main share; for these two and the foreground mode only.
/// Main thread, gpclServiceImp set.

/// Characters of a path or user name handed out by the service, terminator included.
inline constexpr std::size_t g_nServicePath = 261;

/// Blocks SIGTERM in the main thread from before the service reports itself up until its handler is
/// installed: a stop right after the start would otherwise kill the daemon and leave its files. Main thread.
class CTermHeld
{
public:
    CTermHeld();
    /// Ignores the signal if neither of the two operations was called: the start failed.
    ~CTermHeld();
    CTermHeld(const CTermHeld&) = delete;
    CTermHeld& operator=(const CTermHeld&) = delete;

    /// Lets the signal through, to the handler that is installed by now; also one that came meanwhile.
    void Deliver();
    /// Ignores the signal from now on: the process cleans up and ends anyway.
    void Ignore();

private:
    bool m_bHeld = true;
};

/// Logs a message with one insert, at priority 2.
void LogMessage(unsigned int nMessage, const std::wstring& csInsert);
/// Allows core dumps if the service wants them. Comes once more after each switch of identity.
void __CoreDump();
/// Logs message 4012, which follows the cause of a failed start. Throws nothing.
void LogStartFailed() noexcept;
/// Starts the service; a failure, its cause being logged, is logged.
bool __bStart();
/// Hands a file (-1: none) and the service's own directory to the user and switches identity: for good, or
/// only the effective one. A failure is logged.
bool __bChangeUser(int nFd, const wchar_t* pszUser, bool bPermanent);
/// Installs the termination handler, lets SIGTERM through and runs the main loop.
void __MainLoop(CTermHeld& clHeld);

bool __bServiceMainForking(const wchar_t* pszServiceName);
bool __bServiceMainSystemdNotify();
