#pragma once

#include <sys/select.h>
#include <sys/time.h>
#include <vector>

/// A read set for select() that is as large as its highest descriptor needs: the fixed-size fd_set is overrun
/// by descriptors of 1024 and more. Used by one thread.
class CSelectSet
{
public:
    void Add(int nFd);
    /// select() over the set; the timeout may be null (no limit). As select: above 0, some are readable; 0,
    /// the time is over; -1 with errno (EINTR included: a signal is meant to wake some callers). Keeps the
    /// set for the next call; bReadable tells of the last one.
    int nSelect(timeval* pstTimeout);
    bool bReadable(int nFd) const;

private:
    std::vector<fd_mask> m_tAsked;
    std::vector<fd_mask> m_tReady;
    int m_nHighest = -1;
};
