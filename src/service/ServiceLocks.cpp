// The table of service names that somebody holds or waits for.

#include "service/ServiceLocks.h"

#include "service/ServiceManagerUnix.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <optional>
#include <tuple>

namespace {
using CClock = std::chrono::steady_clock;
using namespace std::chrono_literals;

/// Time between two stops: the first may have come before the init system knew of the start.
constexpr auto s_clStopAgain = 250ms;
/// After how long a start that the stops have not ended is given up (its tool is killed): a script may hang
/// before there is anything that a stop could find.
constexpr auto s_clGiveUp = 2s;
} // namespace

/// State of one name; all but bGivenUp under the table's lock.
struct CServiceLocks::STName
{
    bool bHeld = false;
    bool bStarting = false;            ///< its holder is inside CHold::bStart
    bool bInterrupted = false;         ///< a removal sends the stop to this start
    int nRemovals = 0;                 ///< removals that wait; one of them is next
    std::atomic<bool> bGivenUp{false}; ///< the starting thread must kill the start's tool
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

    // The caller may be about to report with errno why its work with the names failed.
    const int nErrno = errno;
    const auto clLock = m_pclLocks->m_clWait.clLock();
    for (auto& [csName, pstName] : m_tNames) {
        pstName->bHeld = false;
        m_pclLocks->_Forget(csName, &pstName);
    }
    m_tNames.clear();
    errno = nErrno;
}

bool CServiceLocks::CHold::bStart(CService& clService)
{
    const auto pFound = m_tNames.find(CServiceManager::csLockName(clService.pszGetName()));
    if (pFound == m_tNames.end() || !m_pclLocks->_bBeginStart(*pFound->second)) {
        errno = ECANCELED;
        return false;
    }

    // Go on to _bEndStart even when out of memory: with bStarting left set, removals would wait for ever.
    bool bStarted = false;
    try {
        const CStopRight clRight(&pFound->second->bGivenUp); // through it a removal kills the tool
        bStarted = clService.bStart();
    } catch (...) { // out of memory
        errno = ENOMEM;
    }
    const int nErrno = errno;

    // The service of an interrupted start is being stopped, so the start has failed even when the tool
    // succeeded.
    const bool bUndisturbed = m_pclLocks->_bEndStart(*pFound->second);
    errno = bUndisturbed ? nErrno : ECANCELED;
    return bStarted && bUndisturbed;
}

/// The name's entry in the table, made if there is none yet.
std::shared_ptr<CServiceLocks::STName> CServiceLocks::_pstName(const std::wstring& csName)
{
    auto& pstName = m_tNames[csName];
    if (pstName == nullptr) {
        pstName = std::make_shared<STName>();
    }
    return pstName;
}

/// Gives up one use of a name; the last user removes the name from the table.
void CServiceLocks::_Forget(const std::wstring& csName, std::shared_ptr<STName>* ppstName)
{
    // The count is exact: pointers to an entry are copied and dropped only with the lock held.
    constexpr long nTableAndMine = 2;
    if (ppstName->use_count() == nTableAndMine) {
        m_tNames.erase(csName);
    }
    ppstName->reset();
}

bool CServiceLocks::_bTakeOne(const std::wstring& csName, CHold* pclHold)
{
    auto clLock = m_clWait.clLock();
    auto pstName = _pstName(csName); // counts as a use: the entry stays in the table during the wait

    // A waiting removal goes first: otherwise a crowd of starters could keep it out.
    const bool bTaken = CStopWait::bWait(
        clLock, [&] { return !pstName->bHeld && pstName->nRemovals == 0; }, CStopping::bAsked);
    if (!bTaken) {
        _Forget(csName, &pstName);
        return false;
    }

    pclHold->m_tNames[csName] = pstName; // first: this may throw, and nobody would give the name back
    pstName->bHeld = true;
    return true;
}

CServiceLocks::CHold CServiceLocks::clTake(const std::set<std::wstring>& tNames)
{
    CHold clHold;
    clHold.m_pclLocks = this;
    // Everybody takes names in the set's order, so that no two callers wait for each other.
    for (const std::wstring& csName : tNames) {
        if (!_bTakeOne(csName, &clHold)) {
            return {};
        }
    }
    return clHold;
}

/// A removal's answer to a start that is under way: sends the stop, and waits a moment for the name. With
/// bGiveUp, also has the start's tool killed.
void CServiceLocks::_CancelStart(CStopWait::CLock& clLock, STName& stName, bool bGiveUp,
                                 const std::function<void()>& fnStop)
{
    stName.bInterrupted = true;
    // Never back to false: another removal may have waited longer for the same start.
    stName.bGivenUp = stName.bGivenUp || bGiveUp;

    // Without the lock, as the stop runs a tool.
    clLock.unlock();
    try {
        fnStop();
    } catch (...) { // out of memory: the next round tries again
    }
    clLock.lock();

    CStopWait::WaitFor(clLock, s_clStopAgain, [&] { return !stName.bHeld; });
}

CServiceLocks::CHold CServiceLocks::clTakeToRemove(const std::wstring& csName,
                                                   const std::function<void()>& fnStop)
{
    CHold clHold;
    clHold.m_pclLocks = this;
    auto clLock = m_clWait.clLock();
    auto pstName = _pstName(csName);
    clHold.m_tNames[csName]; // allocates now, while running out of memory changes nothing yet

    // From here on only removals take the name, and no start of it begins: at most one is under way.
    ++pstName->nRemovals;
    std::optional<CClock::time_point> clStartSeen;
    while (pstName->bHeld && !CStopping::bAsked()) {
        if (pstName->bStarting) {
            clStartSeen = clStartSeen.value_or(CClock::now());
            _CancelStart(clLock, *pstName, CClock::now() - *clStartSeen >= s_clGiveUp, fnStop);
        } else {
            std::ignore = CStopWait::bWait(
                clLock, [&] { return !pstName->bHeld; }, CStopping::bAsked);
        }
    }
    --pstName->nRemovals;

    // The stop of the daemon came before the name was free. clHold has no name yet, only an empty entry,
    // which its destructor would take for a name to give back.
    if (pstName->bHeld) {
        clHold.m_tNames.clear();
        _Forget(csName, &pstName);
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

bool CServiceLocks::_bBeginStart(STName& stName)
{
    const auto clLock = m_clWait.clLock();
    if (stName.nRemovals != 0) {
        return false;
    }

    // One hold may start its service several times: what cancelled one start must not cancel the next.
    stName.bStarting = true;
    stName.bInterrupted = false;
    stName.bGivenUp = false;
    return true;
}

bool CServiceLocks::_bEndStart(STName& stName)
{
    const auto clLock = m_clWait.clLock();
    stName.bStarting = false;
    return !stName.bInterrupted;
}
