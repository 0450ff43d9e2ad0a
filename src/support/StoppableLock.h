#pragma once

#include "support/Stopping.h"

#include <set>

/// A lock that is handed on in the order in which it was asked for; a stop makes those who wait for it leave,
/// but one that is free can still be taken. For std::unique_lock and its like.
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
