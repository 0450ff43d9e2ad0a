#pragma once

#include "support/Stopping.h"

#include <set>

/// A lock that threads get in the order in which they asked for it. A stop of the process ends every wait for
/// the lock; a free lock can be taken even after that. For std::unique_lock and its like.
class CStoppableLock
{
public:
    /// Throws std::system_error (ECANCELED) when the stop ends the wait.
    void lock();
    void unlock();

private:
    CStopWait m_clWait;
    bool m_bHeld = false;
    unsigned long m_nLastNumber = 0;
    std::set<unsigned long> m_tWaiting; ///< the lowest number is next
};
