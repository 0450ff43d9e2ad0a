#pragma once

#include "support/XError.h"
#include "support/ZTSem.h"

#include <chrono>
#include <mutex>

struct _stMyModuleInfo;

/// A thread with a cooperative stop. The owner starts it, asks it to stop and may wait until it has stopped.
/// The thread function calls Started first and Stopped last, looks at bMustStop in its loop and sleeps with
/// SleepOrStop, which a stop request wakes at once. A function that returns or throws without having called
/// Stopped counts as stopped all the same, so nobody waits for ever.
///
/// Threads are those of nCreateWorker: stacks of 64 KiB, so no large locals, and SIGTERM blocked. They are
/// detached. The object may be started again after the thread has stopped. It must live until Stopped has
/// been called; the function itself may free it after that.
class CZTThread
{
public:
    using PFNThread = void (*)(CZTThread*);
    enum EStart : int
    {
        START_FAILED = 0,
        START_OK = 1,
        START_ENDED = 2, ///< the thread ended before it called Started
    };

    CZTThread();
    CZTThread(const CZTThread&) = delete;
    CZTThread& operator=(const CZTThread&) = delete;
    /// Stops the thread and waits until it has stopped. A derived class whose thread uses its members must
    /// call Stop(1) in its own destructor.
    virtual ~CZTThread();

    /// Owner: starts the thread, whose function gets this object and finds pParameter in pGetParameter. With
    /// bWaitStart, returns when the thread runs or has ended; with bSuspended, the thread pauses at its first
    /// Wait. A running thread is left alone, and START_OK returned; one that was asked to stop is waited for
    /// and started again. START_FAILED sets errno.
    EStart eStart(PFNThread pfnThread, void* pParameter, int bWaitStart, int bSuspended);
    /// As eStart, true for START_OK. START_FAILED fills the error with errno and the user error nErrorCode of
    /// the module (null: the manager's); START_ENDED returns false without an error.
    bool bStart(PFNThread pfnThread, void* pParameter, const _stMyModuleInfo* pstModule,
                unsigned int nErrorCode, CXError* pclError, int bWaitStart, int bSuspended);
    /// As bStart, but throws the CXError.
    bool xbStart(PFNThread pfnThread, void* pParameter, const _stMyModuleInfo* pstModule,
                 unsigned int nErrorCode, int bWaitStart, int bSuspended);
    /// Owner: requests the stop and wakes a sleep; with bWait, returns when the thread has stopped.
    void Stop(int bWait);
    /// Owner: the two halves of Stop. The first requests the stop and keeps the state locked, so that the
    /// thread cannot call Stopped; the second unlocks it.
    void TakeSynchroStop();
    void LeaveSynchroStop(int bWait);
    /// Owner: asks the thread to pause at its next Wait.
    void Suspend();
    /// Owner: ends the pause, or takes the request back.
    void Resume();
    /// Any thread: whether the thread function is between Started and Stopped.
    bool bThreadRunning();

    // From here on only the thread function may call.
    void* pGetParameter() const noexcept { return m_pParameter; }
    void Started();
    bool bMustStop();
    /// Pauses here while suspended.
    void Wait();
    /// Sleeps for dwMs milliseconds, or until a stop is requested; results are those of
    /// CZTSemNoInit::WaitTimeout. A request that came while the thread was awake ends the next sleep.
    int Sleep(unsigned int dwMs);
    /// 0 at once when a stop is requested, else as Sleep.
    int SleepOrStop(unsigned int dwMs);
    /// Sleeps until a stop is requested. Returns 1 at once when that has happened already: required to differ
    /// from the timed form, which returns 0.
    int SleepOrStop();
    void Stopped();

protected:
    int m_nStopTimeOut = 0; ///< milliseconds that all waits of one Stop may take; 0: no limit

private:
    /// Bits of the state; it begins as STOP_REQUESTED alone.
    ///
    /// | set by | cleared by |
    /// |---|---|
    /// | STOP_REQUESTED: Stop, TakeSynchroStop, Stopped, a failed start | eStart |
    /// | STARTING: eStart, Wait | Started, Resume, Stopped, a failed start |
    /// | RUNNING: Started | Stopped |
    /// | SUSPENDED: Suspend, Wait | Resume, a failed start |
    enum EState : unsigned int
    {
        STOP_REQUESTED = 1, ///< or not running
        STARTING = 2,       ///< with SUSPENDED and RUNNING: waiting while suspended
        RUNNING = 4,
        SUSPENDED = 8, ///< a pause is requested
    };
    using CLock = std::unique_lock<std::recursive_mutex>;
    using CClock = std::chrono::steady_clock;
    class CFrame; ///< encloses the thread function

    /// Looks again and again until the condition holds or clEnd has come; between two looks the lock is free.
    template <class TCondition>
    static void _WaitUntil(CLock& clLock, CClock::time_point clEnd, TCondition bCondition);
    bool _bAny(unsigned int nBits) const noexcept { return (m_nState & nBits) != 0; }
    void _WaitStopped(CClock::time_point clEnd);
    /// START_OK or START_ENDED.
    EStart _eWaitStarted(CLock& clLock) const;
    /// 0, or the error number.
    int _nStartThread();
    /// What the C library runs in the new thread.
    static void* ThreadFunc(void* pThread);

    /// Recursive: eStart calls Suspend, and LeaveSynchroStop calls Resume, while they hold the lock; and from
    /// TakeSynchroStop to LeaveSynchroStop the owner holds it and may call other operations.
    std::recursive_mutex m_clLock;
    unsigned int m_nState = STOP_REQUESTED;
    void* m_pParameter = nullptr;
    PFNThread m_pfnThread = nullptr;
    CZTSemNoInit m_clSuspension;
    CZTSemNoInit m_clSleep;
    CClock::time_point m_clStopEnd; ///< until when the latest Stop may wait
    bool* m_pbStopped = nullptr;    ///< on the stack of the running ThreadFunc: Stopped has been called
};
