#include "main/PidFile.h"

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

bool CPidFile::bOpen()
{
    m_clFile = CDescripteur(::open(m_csPath.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
    return m_clFile.bOpen();
}

bool CPidFile::bLock()
{
    return ::lockf(m_clFile.nFd(), F_TLOCK, 0) == 0;
}

void CPidFile::Write()
{
    ::dprintf(m_clFile.nFd(), "%d\n", static_cast<int>(::getpid()));
}

void CPidFile::Remove()
{
    ::unlink(m_csPath.c_str());
}
