#pragma once

#include "support/Descripteur.h"

#include <string>

/// A daemon's PID file, which is also its lock: held from bLock until the object closes it. The destructor
/// closes the file and does not remove it. One thread.
class CPidFile
{
public:
    explicit CPidFile(std::string csPath) : m_csPath(std::move(csPath)) {}

    /// Opens or creates the file, mode 0644, without following a link. Does not truncate it: until it is
    /// locked it may be another daemon's. False with errno.
    bool bOpen();
    /// Takes the lock; false with errno, at once, when another process holds it.
    bool bLock();
    /// Writes the process id and a newline at the start; the rest of an earlier, longer content stays. False
    /// with errno when not all of it can be written (full disk, limit on file sizes).
    bool bWrite();
    void Remove();
    const std::string& csPath() const noexcept { return m_csPath; }
    int nFd() const { return m_clFile.nFd(); }

private:
    std::string m_csPath;
    CDescripteur m_clFile;
};
