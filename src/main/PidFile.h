#pragma once

#include "support/Descripteur.h"

#include <string>

/// A daemon's lock and PID file. Closed, not removed, by its destructor. One thread.
class CPidFile
{
public:
    explicit CPidFile(std::string csPath) : m_csPath(std::move(csPath)) {}

    /// Opens or creates the file, mode 0644, without following a link and without truncating it: until it is
    /// locked it may be another daemon's.
    bool bOpen();
    /// False when another process holds the lock.
    bool bLock();
    /// Writes the process id and LF at the start; what an earlier, longer content left stays. False with
    /// errno when not all of it can be written (full disk, limit on file sizes).
    bool bWrite();
    void Remove();
    const std::string& csPath() const noexcept { return m_csPath; }
    int nFd() const { return m_clFile.nFd(); }

private:
    std::string m_csPath;
    CDescripteur m_clFile;
};
