#include "service/ServiceLocks.h"

#include "service/ServiceManagerUnix.h"

#include <atomic>
#include <cerrno>
#include <chrono>

namespace {
using CClock = std::chrono::steady_clock;
using namespace std::chrono_literals;

/// Between two stops: the first may have come before the init system knew of the start.
constexpr auto s_clStopAgain = 250ms;
/// After which a start that no stop has ended is given up: a script may hang before there is anything that
/// its stop could find.
constexpr auto s_clGiveUp = 2s;
} // namespace

struct CServiceLocks::STName
{
    bool bHeld = false;
    bool bStarting = false;
    bool bInterrupted = false; ///< a removal has sent the stop
    int nRemovals = 0;         ///< that wait: one of them is next
    std::atomic<bool> bGivenUp{false};
};

CServiceLocks::CHold& CServiceLocks::CHold::operator=(CHold&& clOther) noexcept
{
    Release();
    m_pclLocks = clOther.m_pclLocks;
    m_tNames.swap(clOther.m_tNames);
    return *this;
}

void CServiceLocks::CHold::Release()
{
    if (m_tNames.empty()) {
        return;
    }
    const int nErrno = errno; // of what was done with the names
    const auto clLock = m_pclLocks->m_clWait.clLock();
    for (auto& [csName, pstName] : m_tNames) {
        pstName->bHeld = false;
        m_pclLocks->__Forget(csName, &pstName);
    }
    m_tNames.clear();
    errno = nErrno;
}

bool CServiceLocks::CHold::bStart(CService& clService)
{
    const auto pFound = m_tNames.find(CServiceManager::csRegisteredName(clService.pszGetName()));
    if (pFound == m_tNames.end() || !m_pclLocks->__bBeginStart(*pFound->second)) {
        errno = ECANCELED;
        return false;
    }

    bool bStarted = false;
    try {
        const CStopRight clRight(&pFound->second->bGivenUp);
        bStarted = clService.bStart();
    } catch (...) { // out of memory
        errno = ENOMEM;
    }
    const int nErrno = errno;

    // Whatever its tool said, a start that a removal has met does not last.
    const bool bKept = m_pclLocks->__bEndStart(*pFound->second);
    errno = bKept ? nErrno : ECANCELED;
    return bStarted && bKept;
}

std::shared_ptr<CServiceLocks::STName> CServiceLocks::__pstName(const std::wstring& csName)
{
    auto& pstName = m_tNames[csName];
    if (pstName == nullptr) {
        pstName = std::make_shared<STName>();
    }
    return pstName;
}

/// One user less; the last one takes the name out of the table.
void CServiceLocks::__Forget(const std::wstring& csName, std::shared_ptr<STName>* ppstName)
{
    constexpr long nTableAndMine = 2;
    if (ppstName->use_count() == nTableAndMine) {
        m_tNames.erase(csName);
    }
    ppstName->reset();
}

bool CServiceLocks::__bTakeOne(const std::wstring& csName, CHold* pclHold)
{
    auto clLock = m_clWait.clLock();
    auto pstName = __pstName(csName);
    const bool bTaken = CStopWait::bWait(
        clLock, [&] { return !pstName->bHeld && pstName->nRemovals == 0; }, CStopping::bAsked);
    if (!bTaken) {
        __Forget(csName, &pstName);
        return false;
    }
    pclHold->m_tNames[csName] = pstName;
    pstName->bHeld = true;
    return true;
}

CServiceLocks::CHold CServiceLocks::clTake(const std::set<std::wstring>& tNames)
{
    CHold clHold;
    clHold.m_pclLocks = this;
    for (const std::wstring& csName : tNames) {
        if (!__bTakeOne(csName, &clHold)) {
            return {};
        }
    }
    return clHold;
}

CServiceLocks::CHold CServiceLocks::clTakeToRemove(const std::wstring& csName,
                                                   const std::function<void()>& fnStop)
{
    CHold clHold;
    clHold.m_pclLocks = this;
    auto clLock = m_clWait.clLock();
    auto pstName = __pstName(csName);
    clHold.m_tNames[csName]; // allocated while nothing depends on it

    ++pstName->nRemovals;
    CClock::time_point clMet{};
    while (pstName->bHeld && !CStopping::bAsked()) {
        if (!pstName->bStarting) { // and no start begins any more
            (void)CStopWait::bWait(
                clLock, [&] { return !pstName->bHeld; }, CStopping::bAsked);
            continue;
        }
        clMet = clMet == CClock::time_point{} ? CClock::now() : clMet;
        pstName->bInterrupted = true;
        pstName->bGivenUp = CClock::now() - clMet >= s_clGiveUp;
        clLock.unlock();
        try {
            fnStop();
        } catch (...) { // out of memory: sent again
        }
        clLock.lock();
        CStopWait::WaitFor(clLock, s_clStopAgain, [&] { return !pstName->bHeld; });
    }
    --pstName->nRemovals;

    if (pstName->bHeld) { // the stop came first
        clHold.m_tNames.clear();
        __Forget(csName, &pstName);
        return {};
    }
    pstName->bHeld = true;
    clHold.m_tNames[csName] = std::move(pstName);
    return clHold;
}

bool CServiceLocks::bHeld(const std::wstring& csName)
{
    const auto clLock = m_clWait.clLock();
    const auto pFound = m_tNames.find(csName);
    return pFound != m_tNames.end() && pFound->second->bHeld;
}

bool CServiceLocks::__bBeginStart(STName& stName)
{
    const auto clLock = m_clWait.clLock();
    if (stName.nRemovals != 0) {
        return false;
    }
    stName.bStarting = true;
    stName.bInterrupted = false;
    stName.bGivenUp = false;
    return true;
}

bool CServiceLocks::__bEndStart(STName& stName)
{
    const auto clLock = m_clWait.clLock();
    stName.bStarting = false;
    return !stName.bInterrupted;
}
