#pragma once

#include "main/ServiceImp.h"

#include <cstddef>
#include <string>

/// Steps that the service mains (forking, systemd, foreground) share, and that nobody else takes. Main
/// thread, gpclServiceImp set.

/// Characters of a path or user name handed out by the service, terminator included.
inline constexpr std::size_t g_nServicePath = 261;

/// Blocks SIGTERM in the main thread from before the service reports itself up until its handler is
/// installed. Otherwise a stop right after the start would kill the daemon, and its files would stay.
class CTermBlocked
{
public:
    CTermBlocked();
    /// Ignores the signal unless Deliver or Ignore was called: the start failed.
    ~CTermBlocked();
    CTermBlocked(const CTermBlocked&) = delete;
    CTermBlocked& operator=(const CTermBlocked&) = delete;

    /// Unblocks the signal; the handler, which must be installed, also gets one that came meanwhile.
    void Deliver();
    /// Ignores the signal from now on: the process cleans up and ends anyway.
    void Ignore();

private:
    bool m_bBlocked = true;
};

/// Logs a message with one insert, at priority 2.
void LogMessage(unsigned int nMessage, const std::wstring& csInsert);
/// Logs message 4012, which follows the cause of a failed start. Throws nothing.
void LogStartFailed() noexcept;

/// Raises the core-file size limits; a failure is logged.
void AllowCoreDump();
/// Calls AllowCoreDump if the service wants core dumps. Called again after each switch of identity.
void AllowWantedCoreDump();

/// Starts the service. Returns false when it cannot; the cause has then been logged.
bool bStartService();
/// Starts the service; a failed start is logged as message 4012, after its cause.
bool __bStart();
/// Gives a file (-1: none) and the service's own directory to the user and switches identity: for good, or
/// only the effective one. A failure is logged.
bool __bChangeUser(int nFd, const wchar_t* pszUser, bool bPermanent);

/// Makes SIGTERM end the main loop of the calling thread.
void SetTermHandler();
/// Installs the termination handler, unblocks SIGTERM and runs the main loop.
void __MainLoop(CTermBlocked& clBlocked);
