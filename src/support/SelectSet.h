#pragma once

#include <sys/select.h>
#include <sys/time.h>
#include <vector>

/// A read set for select() that is as large as its highest descriptor needs: descriptors of 1024 and more lie
/// beyond the end of the fixed-size fd_set. The descriptors stay their owners'. Used by one thread.
class CSelectSet
{
public:
    /// A negative number is ignored.
    void Add(int nFd);
    /// Calls select() for the set; the timeout may be null (no limit), and the kernel stores in it the time
    /// that is left. Returns the number of readable descriptors, 0 when the time is over, -1 with errno.
    /// EINTR is returned, too: a signal is meant to wake some callers. The set is kept for the next call.
    int nSelect(timeval* pstTimeout);
    /// Whether the last nSelect found this descriptor readable.
    bool bReadable(int nFd) const;

private:
    std::vector<fd_mask> m_tAsked;
    std::vector<fd_mask> m_tReady;
    int m_nHighest = -1;
};
