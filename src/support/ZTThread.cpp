#include "support/ZTThread.h"

#include "support/accesdllres.h"
#include "support/WorkerThread.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cxxabi.h>
#include <sched.h>
#include <thread>
#include <utility>

namespace {
using namespace std::chrono_literals;

/// Pauses between two looks at a state: 101 of 1 ms, then each is 1 ms longer than the last, up to 100 ms.
class CBackOff
{
public:
    void Pause()
    {
        std::this_thread::sleep_for(m_clPause);
        if (++m_nRounds > 100) {
            m_clPause = std::min(m_clPause + 1ms, std::chrono::milliseconds(100ms));
        }
    }

private:
    std::chrono::milliseconds m_clPause = 1ms;
    int m_nRounds = 0;
};
} // namespace

template <class TCondition>
void CZTThread::_WaitUntil(CLock& clLock, CClock::time_point clEnd, TCondition bCondition)
{
    CBackOff clBackOff;
    while (!bCondition() && CClock::now() <= clEnd) {
        clLock.unlock();
        clBackOff.Pause();
        clLock.lock();
    }
}

CZTThread::CZTThread()
{
    m_clSuspension.Init(0, 1);
    m_clSleep.Init(0, INT_MAX);
}

CZTThread::~CZTThread()
{
    Stop(1);
}

CZTThread::EStart CZTThread::eStart(PFNThread pfnThread, void* pParameter, int bWaitStart, int bSuspended)
{
    CLock clLock(m_clLock);

    // A running thread that was asked to stop is waited for and then started again; any other is left alone.
    _WaitUntil(clLock, CClock::time_point::max(),
               [this] { return !_bAny(RUNNING) || !_bAny(STOP_REQUESTED); });
    if (_bAny(STARTING | RUNNING)) {
        return bWaitStart != 0 ? _eWaitStarted(clLock) : START_OK;
    }

    m_pParameter = pParameter;
    m_pfnThread = pfnThread;
    m_nState = (m_nState & ~STOP_REQUESTED) | STARTING;
    if (bSuspended != 0) {
        Suspend(); // before the thread exists: it could otherwise get past its first Wait
    }

    const int nError = _nStartThread();
    if (nError != 0) {
        m_nState = STOP_REQUESTED;
        clLock.unlock();
        errno = nError;
        return START_FAILED;
    }

    // A thread that owns this object may free it as soon as the lock is free: without bWaitStart no member
    // may be touched from here on. The yield lets the thread begin, which may spare the first pause below.
    clLock.unlock();
    ::sched_yield();
    if (bWaitStart == 0) {
        return START_OK;
    }

    clLock.lock();
    return _eWaitStarted(clLock);
}

bool CZTThread::bStart(PFNThread pfnThread, void* pParameter, const _stMyModuleInfo* pstModule,
                       unsigned int nErrorCode, CXError* pclError, int bWaitStart, int bSuspended)
{
    const EStart eResult = eStart(pfnThread, pParameter, bWaitStart, bSuspended);
    if (eResult == START_FAILED) {
        DLLRES_SetUserError(pclError, pstModule != nullptr ? *pstModule : g_stMyModule, nErrorCode, errno);
    }
    return eResult == START_OK;
}

bool CZTThread::xbStart(PFNThread pfnThread, void* pParameter, const _stMyModuleInfo* pstModule,
                        unsigned int nErrorCode, int bWaitStart, int bSuspended)
{
    CXError clError;
    const bool bStarted =
        bStart(pfnThread, pParameter, pstModule, nErrorCode, &clError, bWaitStart, bSuspended);
    if (clError.bIsSet()) {
        throw clError;
    }
    return bStarted;
}

void CZTThread::Stop(int bWait)
{
    TakeSynchroStop();
    LeaveSynchroStop(bWait);
}

void CZTThread::TakeSynchroStop()
{
    CLock clLock(m_clLock);
    m_clStopEnd = m_nStopTimeOut > 0 ? CClock::now() + std::chrono::milliseconds(m_nStopTimeOut)
                                     : CClock::time_point::max();

    // A thread that is still starting gets time to call Started: LeaveSynchroStop can wait only for one that
    // runs.
    _WaitUntil(clLock, m_clStopEnd, [this] { return _bAny(STOP_REQUESTED | RUNNING); });
    m_nState |= STOP_REQUESTED;
    clLock.release(); // LeaveSynchroStop adopts it
}

void CZTThread::LeaveSynchroStop(int bWait)
{
    const CClock::time_point clEnd = m_clStopEnd;
    {
        // The thread is woken while the lock is still held: once the lock is free, a thread that owns this
        // object may end and free it.
        const CLock clLock(m_clLock, std::adopt_lock);
        Resume();
        m_clSleep.__Post(0);
    }

    ::sched_yield(); // lets the thread see the request, which may spare the first pause of _WaitStopped
    if (bWait != 0) {
        _WaitStopped(clEnd);
    }
}

void CZTThread::Suspend()
{
    const CLock clLock(m_clLock);
    if (_bAny(STARTING | RUNNING)) {
        m_nState |= SUSPENDED;
    }
}

void CZTThread::Resume()
{
    constexpr unsigned int nWaiting = STARTING | RUNNING | SUSPENDED;
    const CLock clLock(m_clLock);
    if (!_bAny(SUSPENDED)) {
        return;
    }

    // The three bits together mean a thread that pauses in Wait. STARTING without RUNNING means one that has
    // not begun: were the bit cleared then, the thread could be started twice.
    if ((m_nState & nWaiting) == nWaiting) {
        m_clSuspension.__Post(1);
        m_nState &= ~STARTING;
    }
    m_nState &= ~SUSPENDED;
}

bool CZTThread::bThreadRunning()
{
    const CLock clLock(m_clLock);
    return _bAny(RUNNING);
}

void CZTThread::Started()
{
    const CLock clLock(m_clLock);
    m_nState = (m_nState & ~STARTING) | RUNNING;
}

bool CZTThread::bMustStop()
{
    const CLock clLock(m_clLock);
    return _bAny(STOP_REQUESTED);
}

void CZTThread::Wait()
{
    {
        const CLock clLock(m_clLock);
        if (!_bAny(SUSPENDED)) {
            return;
        }
        m_nState |= STARTING | SUSPENDED;
    }
    m_clSuspension
        .Wait(); // without the lock, which Resume needs; a Resume that came first has posted already
}

int CZTThread::Sleep(unsigned int dwMs)
{
    return m_clSleep.WaitTimeout(dwMs);
}

int CZTThread::SleepOrStop(unsigned int dwMs)
{
    return bMustStop() ? CZTSemNoInit::SEM_OK : Sleep(dwMs);
}

int CZTThread::SleepOrStop()
{
    return bMustStop() ? 1 : m_clSleep.Wait();
}

void CZTThread::Stopped()
{
    const CLock clLock(m_clLock);
    // STARTING goes, too: a thread that ends without having called Started can be started again.
    m_nState = (m_nState & ~(RUNNING | STARTING)) | STOP_REQUESTED;
    if (m_pbStopped != nullptr) {
        *std::exchange(m_pbStopped, nullptr) = true;
    }
}

void CZTThread::_WaitStopped(CClock::time_point clEnd)
{
    CLock clLock(m_clLock);
    _WaitUntil(clLock, clEnd, [this] {
        if (!_bAny(RUNNING)) {
            return true;
        }
        m_nState |= STOP_REQUESTED; // again: somebody may have started the thread anew
        return false;
    });
}

CZTThread::EStart CZTThread::_eWaitStarted(CLock& clLock) const
{
    _WaitUntil(clLock, CClock::time_point::max(), [this] { return _bAny(STOP_REQUESTED | RUNNING); });
    return _bAny(RUNNING) ? START_OK : START_ENDED;
}

/// Tries for 0.4 seconds: being out of memory or at the limit on threads may pass.
int CZTThread::_nStartThread()
{
    constexpr int nAttempts = 11;
    pthread_t hThread{}; // not kept: the thread is detached
    int nError = nCreateWorker(&hThread, PTHREAD_CREATE_DETACHED, &ThreadFunc, this);
    for (int n = 1; n < nAttempts && nError != 0; ++n) {
        std::this_thread::sleep_for(40ms);
        nError = nCreateWorker(&hThread, PTHREAD_CREATE_DETACHED, &ThreadFunc, this);
    }
    return nError;
}

/// Encloses the thread function and calls Stopped in its place if it did not. The flag lies on the thread's
/// stack, not in the CZTThread: once Stopped has been called, that object may be gone.
class CZTThread::CFrame
{
public:
    explicit CFrame(CZTThread* pclThread) : m_pclThread(pclThread)
    {
        const CLock clLock(pclThread->m_clLock);
        pclThread->m_pbStopped = &m_bStopped;
    }
    ~CFrame()
    {
        if (!m_bStopped) {
            m_pclThread->Stopped();
        }
    }
    CFrame(const CFrame&) = delete;
    CFrame& operator=(const CFrame&) = delete;

private:
    CZTThread* m_pclThread;
    bool m_bStopped = false;
};

/// Not instrumented: pthread_exit and a cancel unwind the stack by an exception without an object, and the
/// sanitizer reports the reference by which it is caught.
__attribute__((no_sanitize("undefined"))) void* CZTThread::ThreadFunc(void* pThread)
{
    auto* pclThread = static_cast<CZTThread*>(pThread);
    const CFrame clFrame(pclThread);
    try {
        pclThread->m_pfnThread(pclThread); // may free the object
    } catch (const abi::__forced_unwind&) {
        throw; // the C library aborts the process when this exception is not passed on
    } catch (...) {
        // A thread function has no one to report to.
    }
    return nullptr;
}
