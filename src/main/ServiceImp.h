#pragma once

class ILogger;

/// The behaviour of a service, as the daemon machinery drives it.
///
/// All operations run on the main thread; the termination handler calls Stop, too. The manager keeps the
/// defaults of the "vb" operations: it runs as root and allows no core dumps. Other services of the product
/// override them.
class CServiceImp
{
public:
    /// Runs the service until it is stopped.
    virtual void MainLoop() = 0;
    virtual ILogger* pclGetLogger() = 0;
    /// Starts the service's work. Returns false when it cannot, after it has logged why. May throw
    /// std::bad_alloc.
    virtual bool bStart() = 0;
    /// Makes MainLoop return. Async-signal-safe.
    virtual void Stop() = 0;
    /// Whether core dumps are to be allowed.
    virtual bool vbWithCoreDump() { return false; }
    /// True, and the name, when the daemon must run as another user. Room for 261 characters, the terminator
    /// included.
    virtual bool vbGetServiceUser(wchar_t* pszUser);
    /// True, and the directory, when there is one that must belong to the service user. Room as above.
    virtual bool vbGetOwnDirectory(wchar_t* pszDirectory);
    /// For the product's other programs; nothing here asks.
    virtual bool vbLogStartOK() { return true; }
    /// Declared last, so that the operations above keep their slots in the virtual table.
    virtual ~CServiceImp() = default;
};

/// The service of this process; null outside main's Init to Term.
extern CServiceImp* gpclServiceImp;
