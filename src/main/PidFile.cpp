// The daemon's PID file, which is also the lock that keeps a second daemon out.

#include "main/PidFile.h"

#include "support/SignalMask.h"
#include "support/SystemCall.h"

#include <array>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

bool CPidFile::bOpen()
{
    // Following a link planted under this name, root's daemon would write to any file.
    m_clFile = CDescripteur(::open(m_csPath.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
    return m_clFile.bOpen();
}

bool CPidFile::bLock()
{
    return ::lockf(m_clFile.nFd(), F_TLOCK, 0) == 0;
}

bool CPidFile::bWrite()
{
    std::array<char, 16> szLine;
    const int nLength = std::snprintf(szLine.data(), szLine.size(), "%d\n", static_cast<int>(::getpid()));
    const CNoFileSizeSignal clNoSignal; // a limit on file sizes is an error to report, not the daemon's death
    return bWriteAll(m_clFile.nFd(), {szLine.data(), static_cast<std::size_t>(nLength)});
}

void CPidFile::Remove()
{
    ::unlink(m_csPath.c_str());
}
