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
    /// Writes the process id and a line end at the start; what an earlier, longer content left behind stays.
    void Write();
    void Remove();
    int nFd() const { return m_clFile.nFd(); }

private:
    std::string m_csPath;
    CDescripteur m_clFile;
};
