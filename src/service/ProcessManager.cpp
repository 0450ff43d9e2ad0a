#include "service/ProcessManager.h"

#include "support/SignalMask.h"
#include "support/Stopping.h"

#include <cerrno>
#include <ctime>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

CProcessManager* CProcessManager::m_gpclManager = nullptr;

namespace {
/// Holds the child table. Blocks SIGCHLD in this thread before it takes the lock, so that the handler never
/// waits for a lock of its own thread; the destructor undoes both in reverse.
class CChildGuard
{
public:
    explicit CChildGuard(std::atomic<int>& nLock) noexcept : m_nLock(nLock), m_nHolder(::gettid())
    {
        const timespec st10ms{0, 10'000'000};
        for (int nFree = 0; !m_nLock.compare_exchange_strong(nFree, m_nHolder); nFree = 0) {
            nanosleep(&st10ms, nullptr);
        }
    }
    ~CChildGuard() { ReleaseLock(); }
    /// Releases the lock early, SIGCHLD stays blocked. Also for the child that this thread waits for: its
    /// record is written then, and executing its program must not hold the others up.
    __attribute__((noinline)) void ReleaseLock() noexcept
    {
        int nHolder = m_nHolder;
        m_nLock.compare_exchange_strong(nHolder, 0);
    }
    CChildGuard(const CChildGuard&) = delete;
    CChildGuard& operator=(const CChildGuard&) = delete;

private:
    static_assert(std::atomic<int>::is_always_lock_free);
    CSignalsHeld m_clHeld{SIGCHLD};
    std::atomic<int>& m_nLock;
    int m_nHolder;
};

/// First of all in a child: its record is written.
void ReleaseGuard(void* pGuard)
{
    static_cast<CChildGuard*>(pGuard)->ReleaseLock();
}

/// Exit status, or the signal's number: what the signal information calls the status.
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
    m_gpclManager = this;
    struct sigaction stAction
    {};
    sigemptyset(&stAction.sa_mask);
    stAction.sa_sigaction = lance_processus_child_sigaction;
    stAction.sa_flags = SA_SIGINFO;
    ::sigaction(SIGCHLD, &stAction, &m_stPrevious);
    // Writing to the input of a child that does not read must be an error, not the end of the daemon.
    stAction.sa_handler = SIG_IGN;
    stAction.sa_flags = 0;
    ::sigaction(SIGPIPE, &stAction, &m_stPreviousPipe);
}

CProcessManager::~CProcessManager()
{
    ::sigaction(SIGPIPE, &m_stPreviousPipe, nullptr);
    ::sigaction(SIGCHLD, &m_stPrevious, nullptr);
    m_gpclManager = nullptr;
}

template <class TAction>
void CProcessManager::__ForEach(TAction action)
{
    for (STBlock* pstBlock = &m_stFirst; pstBlock != nullptr; pstBlock = pstBlock->pstNext.get()) {
        for (STChild& stRecord : pstBlock->tChildren) {
            action(stRecord);
        }
    }
}

CProcessManager::STChild* CProcessManager::__pstFind(pid_t nPid)
{
    STChild* pstFound = nullptr;
    __ForEach([&](STChild& stRecord) {
        if (pstFound == nullptr && stRecord.nPid == nPid) {
            pstFound = &stRecord;
        }
    });
    return pstFound;
}

void CProcessManager::__Append(std::unique_ptr<STBlock> pstBlock)
{
    std::unique_ptr<STBlock>* ppstLast = &m_stFirst.pstNext;
    while (*ppstLast != nullptr) {
        ppstLast = &(*ppstLast)->pstNext;
    }
    *ppstLast = std::move(pstBlock);
}

pid_t CProcessManager::Fork(const STChildStart& stStart)
{
    CChildStarter clStarter;
    std::unique_ptr<STBlock> pstSpare;
    for (;;) { // once, or once more with the block that was wanting
        {
            CChildGuard clGuard(m_nLock);
            if (pstSpare != nullptr) {
                __Append(std::move(pstSpare));
            }
            if (STChild* pstFree = __pstFind(0); pstFree != nullptr) {
                *pstFree = {0, 0, FLAG_OWNED, 0};
                return clStarter.nStart(stStart, &pstFree->nPid, ReleaseGuard, &clGuard);
            }
        }
        // Outside the guard: a thread that the signal interrupted inside the heap may be waiting for it.
        pstSpare = std::make_unique<STBlock>();
    }
}

/// Takes the end of a child if it has come.
void CProcessManager::__Reap(STChild& stRecord)
{
    int nStatus = 0;
    if (stRecord.nPid == 0 || (stRecord.nFlags & FLAG_ENDED) != 0 ||
        ::waitpid(stRecord.nPid, &nStatus, WNOHANG) != stRecord.nPid) {
        return;
    }
    stRecord.nCode = nStatusCode(nStatus);
    stRecord.nFlags |= FLAG_ENDED | (WIFSIGNALED(nStatus) ? FLAG_SIGNAL : 0);
    if ((stRecord.nFlags & FLAG_OWNED) == 0) {
        stRecord.nPid = 0;
    }
}

/// The kernel gives the end of a child to the thread that created it, unless a signal of another child is
/// pending already; so whoever notes an end passes it on to the thread that pauses for it.
void CProcessManager::__Wake(const STChild& stRecord)
{
    constexpr int nWanted = FLAG_PAUSE | FLAG_ENDED;
    if ((stRecord.nFlags & nWanted) == nWanted && stRecord.nPausing != ::gettid()) {
        ::tgkill(::getpid(), stRecord.nPausing, SIGCHLD);
    }
}

void CProcessManager::SigAction(int nSignal, siginfo_t* pstInfo, void* pContext)
{
    if (pstInfo->si_code == SI_TKILL && pstInfo->si_pid == ::getpid()) {
        return; // from __Wake: it has done its work by interrupting the pause
    }
    bool bOurs = false;
    {
        const CChildGuard clGuard(m_nLock);
        bOurs = pstInfo->si_pid != 0 && __pstFind(pstInfo->si_pid) != nullptr; // 0 marks a free record
        __ForEach([](STChild& stRecord) {
            __Reap(stRecord);
            __Wake(stRecord);
        });
    }
    if (!bOurs) {
        __ForwardToPrevious(nSignal, pstInfo, pContext);
    }
}

void CProcessManager::__ForwardToPrevious(int nSignal, siginfo_t* pstInfo, void* pContext) const
{
    if ((m_stPrevious.sa_flags & SA_SIGINFO) != 0) {
        m_stPrevious.sa_sigaction(nSignal, pstInfo, pContext);
    } else if (m_stPrevious.sa_handler != SIG_DFL && m_stPrevious.sa_handler != SIG_IGN) {
        m_stPrevious.sa_handler(nSignal);
    }
}

bool CProcessManager::bGetCode(pid_t nPid, int* pnCode)
{
    const CChildGuard clGuard(m_nLock);
    STChild* pstRecord = __pstFind(nPid);
    if (pstRecord != nullptr) {
        __Reap(*pstRecord);
        if ((pstRecord->nFlags & FLAG_ENDED) == 0) {
            return false;
        }
    }
    *pnCode = pstRecord != nullptr ? pstRecord->nCode : -1;
    return true;
}

bool CProcessManager::bEndedBySignal(pid_t nPid)
{
    const CChildGuard clGuard(m_nLock);
    const STChild* pstRecord = __pstFind(nPid);
    return pstRecord != nullptr && (pstRecord->nFlags & FLAG_SIGNAL) != 0;
}

void CProcessManager::Pause(pid_t nPid)
{
    // An end that comes after the look below stays pending for the pause instead of slipping in ahead of it.
    const CSignalsHeld clHeld{SIGCHLD};
    {
        const CChildGuard clGuard(m_nLock);
        STChild* pstRecord = __pstFind(nPid);
        if (pstRecord == nullptr) {
            return;
        }
        __Reap(*pstRecord);
        if ((pstRecord->nFlags & FLAG_ENDED) != 0) {
            return;
        }
        pstRecord->nFlags |= FLAG_PAUSE;
        pstRecord->nPausing = ::gettid();
    }
    // Once, not re-armed: SIGCHLD ends it, and so does the stop of the daemon.
    const int nMs = CStopping::nPollMs(2000);
    const timespec stPause{nMs / 1000, nMs % 1000 * 1'000'000L};
    pollfd stStop{CStopping::nFdToPoll(), POLLIN, 0};
    ::ppoll(&stStop, 1, &stPause, &clHeld.stBefore());
    const CChildGuard clGuard(m_nLock);
    if (STChild* pstRecord = __pstFind(nPid); pstRecord != nullptr) {
        pstRecord->nFlags &= ~FLAG_PAUSE;
    }
}

void CProcessManager::FreePid(pid_t nPid)
{
    const CChildGuard clGuard(m_nLock);
    if (STChild* pstRecord = __pstFind(nPid); pstRecord != nullptr) {
        pstRecord->nFlags &= ~FLAG_OWNED;
        if ((pstRecord->nFlags & FLAG_ENDED) != 0) {
            pstRecord->nPid = 0;
        }
    }
}

void CProcessManager::Kill(pid_t nPid, int nSignal)
{
    const CChildGuard clGuard(m_nLock);
    if (const STChild* pstRecord = __pstFind(nPid);
        pstRecord != nullptr && (pstRecord->nFlags & FLAG_ENDED) == 0) {
        ::kill(nPid, nSignal);
    }
}

int CProcessManager::nCountRecords()
{
    const CChildGuard clGuard(m_nLock);
    int nCount = 0;
    __ForEach([&](const STChild& stRecord) { nCount += stRecord.nPid != 0 ? 1 : 0; });
    return nCount;
}
