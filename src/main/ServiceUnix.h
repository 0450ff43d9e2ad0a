#pragma once

#include "main/Logger.h"

/// The behaviour of a service, as the daemon machinery drives it. All on the main thread; Stop also from the
/// termination handler. The manager keeps the defaults of the "vb" operations: it runs as root and allows no
/// core dumps; other services of the product do not.
class CServiceImp
{
public:
    /// Runs the service until it is stopped.
    virtual void MainLoop() = 0;
    virtual ILogger* pclGetLogger() = 0;
    /// Starts the service's work; false when it cannot, which it has logged then. May throw std::bad_alloc.
    virtual bool bStart() = 0;
    /// Makes MainLoop return. Async-signal-safe.
    virtual void Stop() = 0;
    /// Whether core dumps are to be allowed.
    virtual bool vbWithCoreDump() { return false; }
    /// True, and the name, when the daemon must run as another user. Room for 261 characters.
    virtual bool vbGetServiceUser(wchar_t* pszUser);
    /// True, and the directory, when that must belong to the service user. Room for 261 characters.
    virtual bool vbGetOwnDirectory(wchar_t* pszDirectory);
    virtual bool vbLogStartOK() { return true; }
    /// Last, so that the operations above keep their slots.
    virtual ~CServiceImp() = default;
};

/// The service of this process; null outside main's Init to Term.
extern CServiceImp* gpclServiceImp;

/// Runs the service: under systemd's notification protocol when the process was started so, else detached
/// under the given name with a locked PID file. Returns in the launcher, too. False when the service could
/// not run.
bool bServiceMain(const wchar_t* pszServiceName);
/// Whether NOTIFY_SOCKET names a socket.
bool bIsSystemdNotify();
/// Runs the service in the foreground. A failed start has its cause logged by the service, and no more.
void RunDebugMode();
/// Makes SIGTERM end the main loop of the calling thread.
void SetTermHandler();
/// Raises the core-file size limits; a failure is logged.
void AllowCoreDump();
