// The table of children, and the SIGCHLD handler that reaps them. Whatever the handler runs must be
// async-signal-safe: no allocation, no log, no exception.

#include "service/ProcessManager.h"

#include "support/SignalMask.h"
#include "support/Stopping.h"

#include <cerrno>
#include <ctime>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

std::unique_ptr<CProcessManager> CProcessManager::m_gpclManager;

namespace {
/// Holds the child table. Blocks SIGCHLD in this thread before it takes the lock: otherwise the handler could
/// wait for a lock that its own thread holds. The destructor first gives the lock back, then unblocks the
/// signal: so the mask is a member, not a local of the constructor. Keeps errno.
class CChildGuard
{
public:
    explicit CChildGuard(std::atomic<bool>& bLocked) noexcept : m_bLocked(bLocked)
    {
        const int nErrno = errno;
        const timespec st10ms{0, 10'000'000};
        while (m_bLocked.exchange(true)) { // no mutex: the handler takes the lock, too, and may not lock one
            nanosleep(&st10ms, nullptr);
        }
        errno = nErrno;
    }
    ~CChildGuard() { m_bLocked.store(false); }
    CChildGuard(const CChildGuard&) = delete;
    CChildGuard& operator=(const CChildGuard&) = delete;

private:
    static_assert(std::atomic<bool>::is_always_lock_free);
    CSignalsBlocked m_clBlocked{SIGCHLD};
    std::atomic<bool>& m_bLocked;
};

/// Exit status, or the number of the signal that ended the child.
int nStatusCode(int nWaitStatus)
{
    return WIFEXITED(nWaitStatus) ? WEXITSTATUS(nWaitStatus) : WTERMSIG(nWaitStatus);
}

void lance_processus_child_sigaction(int nSignal, siginfo_t* pstInfo, void* pContext)
{
    const int nErrno = errno;
    if (CProcessManager::m_gpclManager != nullptr) {
        CProcessManager::m_gpclManager->SigAction(nSignal, pstInfo, pContext);
    }
    errno = nErrno;
}
} // namespace

CProcessManager::CProcessManager()
{
    STSigAction stAction{};
    sigemptyset(&stAction.sa_mask);
    stAction.sa_sigaction = lance_processus_child_sigaction;
    stAction.sa_flags = SA_SIGINFO;
    ::sigaction(SIGCHLD, &stAction, &m_stPrevious);

    // Writing to a child that no longer reads must be an error, not the daemon's death.
    stAction.sa_handler = SIG_IGN;
    stAction.sa_flags = 0;
    ::sigaction(SIGPIPE, &stAction, &m_stPreviousPipe);
}

CProcessManager::~CProcessManager()
{
    ::sigaction(SIGPIPE, &m_stPreviousPipe, nullptr);
    ::sigaction(SIGCHLD, &m_stPrevious, nullptr);
}

template <class TAction>
void CProcessManager::_ForEach(TAction action)
{
    for (STBlock* pstBlock = &m_stFirst; pstBlock != nullptr; pstBlock = pstBlock->pstNext.get()) {
        for (STChild& stRecord : pstBlock->tChildren) {
            action(stRecord);
        }
    }
}

CProcessManager::STChild* CProcessManager::_pstFindFree()
{
    STChild* pstFree = nullptr; // the first one
    _ForEach([&](STChild& stRecord) {
        if (pstFree == nullptr && stRecord.nPid == 0 && stRecord.nFlags == 0) {
            pstFree = &stRecord;
        }
    });
    return pstFree;
}

void CProcessManager::_Append(std::unique_ptr<STBlock> pstBlock)
{
    std::unique_ptr<STBlock>* ppstLast = &m_stFirst.pstNext;
    while (*ppstLast != nullptr) {
        ppstLast = &(*ppstLast)->pstNext;
    }
    *ppstLast = std::move(pstBlock);
}

/// Takes a free record for a child that is about to be created. Until its pid is noted nobody else touches
/// the record: it is neither free nor reaped.
CProcessManager::STChild* CProcessManager::_pstReserve()
{
    std::unique_ptr<STBlock> pstSpare;
    for (;;) { // again with one more block as long as no record is free
        {
            const CChildGuard clGuard(m_bLocked);
            if (pstSpare != nullptr) {
                _Append(std::move(pstSpare));
            }
            if (STChild* pstFree = _pstFindFree(); pstFree != nullptr) {
                *pstFree = {0, 0, FLAG_OWNED, 0};
                return pstFree;
            }
        }
        // Allocate without the guard: a handler that interrupted malloc in another thread may be waiting for
        // it, and the two would deadlock.
        pstSpare = std::make_unique<STBlock>();
    }
}

CProcessManager::STChild* CProcessManager::pstFork(const STChildStart& stStart)
{
    CChildStarter clStarter; // first: it allocates, and when that throws, no record may be reserved
    STChild* pstChild = _pstReserve();

    // SIGCHLD is blocked in this thread until the pid is noted, so that its handler finds the record of a
    // child that exits at once. Another thread may get the signal earlier and find none: whoever asks about
    // the child then reaps it. The guard comes only after the creation: other threads need the table while
    // this one waits for the exec.
    const CSignalsBlocked clBlocked{SIGCHLD};
    const pid_t nPid = clStarter.nStart(stStart);

    const CChildGuard clGuard(m_bLocked);
    if (nPid < 0) {
        *pstChild = {}; // free again
        return nullptr;
    }
    pstChild->nPid = nPid;
    return pstChild;
}

/// Reaps a child if it has exited, and frees its record if nobody owns it. Never waits.
void CProcessManager::_Reap(STChild& stRecord)
{
    int nStatus = 0;
    if (stRecord.nPid == 0 || (stRecord.nFlags & FLAG_ENDED) != 0 ||
        ::waitpid(stRecord.nPid, &nStatus, WNOHANG) != stRecord.nPid) {
        return;
    }

    stRecord.nCode = nStatusCode(nStatus);
    stRecord.nFlags |= FLAG_ENDED | (WIFSIGNALED(nStatus) ? FLAG_SIGNAL : 0);
    if ((stRecord.nFlags & FLAG_OWNED) == 0) {
        stRecord = {};
    }
}

/// Wakes the thread that pauses for a child that has exited. The kernel prefers the thread that created the
/// child for the signal of its exit. But that signal merges with a pending one, and goes to another thread
/// while this one blocks it. So the handler passes it on, in whichever thread it runs.
void CProcessManager::_Wake(const STChild& stRecord)
{
    constexpr int nWanted = FLAG_PAUSE | FLAG_ENDED;
    if ((stRecord.nFlags & nWanted) == nWanted && stRecord.nPausing != ::gettid()) {
        ::tgkill(::getpid(), stRecord.nPausing, SIGCHLD);
    }
}

void CProcessManager::SigAction(int nSignal, siginfo_t* pstInfo, void* pContext)
{
    if (pstInfo->si_code == SI_TKILL && pstInfo->si_pid == ::getpid()) {
        return; // from _Wake: the signal has done its work by ending the pause
    }

    bool bOurs = false;
    {
        const CChildGuard clGuard(m_bLocked);
        _ForEach([&](STChild& stRecord) {
            // Asked before _Reap, which may clear the record.
            bOurs = bOurs || (stRecord.nPid != 0 && stRecord.nPid == pstInfo->si_pid);
            _Reap(stRecord);
            _Wake(stRecord);
        });
    }

    if (!bOurs) { // without the guard: the previous handler may take its time
        _ForwardToPrevious(nSignal, pstInfo, pContext);
    }
}

void CProcessManager::_ForwardToPrevious(int nSignal, siginfo_t* pstInfo, void* pContext) const
{
    if ((m_stPrevious.sa_flags & SA_SIGINFO) != 0) {
        m_stPrevious.sa_sigaction(nSignal, pstInfo, pContext);
    } else if (m_stPrevious.sa_handler != SIG_DFL && m_stPrevious.sa_handler != SIG_IGN) {
        m_stPrevious.sa_handler(nSignal);
    }
}

bool CProcessManager::bGetCode(STChild* pstChild, int* pnCode)
{
    const CChildGuard clGuard(m_bLocked);
    _Reap(*pstChild);
    if ((pstChild->nFlags & FLAG_ENDED) == 0) {
        return false;
    }
    *pnCode = pstChild->nCode;
    return true;
}

bool CProcessManager::bEndedBySignal(const STChild* pstChild)
{
    const CChildGuard clGuard(m_bLocked);
    return (pstChild->nFlags & FLAG_SIGNAL) != 0;
}

void CProcessManager::Pause(STChild* pstChild)
{
    // SIGCHLD is blocked from before the look at the child until ppoll unblocks it. The signal of an exit in
    // between, or the one that _Wake then sends, stays pending and ends the pause at once. Unblocked, it
    // would be handled before the pause, which would then last its 2 seconds.
    const CSignalsBlocked clBlocked{SIGCHLD};
    {
        const CChildGuard clGuard(m_bLocked);
        _Reap(*pstChild);
        if ((pstChild->nFlags & FLAG_ENDED) != 0) {
            return;
        }
        pstChild->nFlags |= FLAG_PAUSE;
        pstChild->nPausing = ::gettid();
    }

    // Not resumed after a signal, because SIGCHLD is to end the pause. The daemon's stop ends it, too: it
    // makes the polled descriptor readable.
    const int nMs = CStopping::nPollMs(2000);
    const timespec stPause{nMs / 1000, nMs % 1000 * 1'000'000L};
    pollfd stStop{CStopping::nFdToPoll(), POLLIN, 0};
    ::ppoll(&stStop, 1, &stPause, &clBlocked.stBefore());

    const CChildGuard clGuard(m_bLocked);
    pstChild->nFlags &= ~FLAG_PAUSE;
}

void CProcessManager::FreePid(STChild* pstChild)
{
    const CChildGuard clGuard(m_bLocked);
    pstChild->nFlags &= ~FLAG_OWNED;
    _Reap(*pstChild); // frees the record of a child that has just exited
    if ((pstChild->nFlags & FLAG_ENDED) != 0) {
        *pstChild = {}; // the child was reaped earlier, while its record was still owned
    }
}

void CProcessManager::Kill(const STChild* pstChild, int nSignal)
{
    const CChildGuard clGuard(m_bLocked);
    if ((pstChild->nFlags & FLAG_ENDED) == 0) {
        ::kill(pstChild->nPid, nSignal);
    }
}

int CProcessManager::nCountRecords()
{
    const CChildGuard clGuard(m_bLocked);
    int nCount = 0;
    _ForEach([&](const STChild& stRecord) { nCount += stRecord.nPid != 0 || stRecord.nFlags != 0 ? 1 : 0; });
    return nCount;
}
