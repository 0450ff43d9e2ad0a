#include "support/StoppableLock.h"

void CStoppableLock::lock()
{
    // The threads look at their condition at different moments; a number keeps the order of their requests.
    auto clLock = m_clWait.clLock();
    const auto pMine = m_tWaiting.insert(++m_nLastNumber).first;

    // bWait asks for readiness first, so a free lock can be taken even after the stop.
    const bool bTaken = CStopWait::bWait(
        clLock, [&] { return !m_bHeld && pMine == m_tWaiting.begin(); }, CStopping::bAsked);
    m_tWaiting.erase(pMine);

    if (!bTaken) {
        CStopping::xThrowStopped();
    }
    m_bHeld = true;
}

void CStoppableLock::unlock()
{
    const auto clLock = m_clWait.clLock();
    m_bHeld = false;
}
