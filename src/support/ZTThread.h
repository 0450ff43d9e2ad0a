#pragma once

#include "support/XError.h"
#include "support/ZTSem.h"

#include <chrono>
#include <mutex>

struct _stMyModuleInfo;

/// A thread with a cooperative stop. The owner starts it, asks it to stop and may wait for that; the thread
/// function calls Started first and Stopped last (what it leaves out, or an exception skips, is made up for
/// when it returns, so that nobody waits for ever), looks at bMustStop in its loop and sleeps with
/// SleepOrStop, which a stop request wakes at once. Threads are detached, have stacks of 64 KiB (no large
/// locals on their paths) and run with SIGTERM blocked, so that a stop of the daemon always reaches the main
/// thread.
///
/// The object may be started again after it has stopped, and must outlive the call of Stopped, no longer.
class CZTThread
{
public:
    using PFNThread = void (*)(CZTThread*);
    enum EStart : int
    {
        START_FAILED = 0,
        START_OK = 1,
        START_ENDED = 2, ///< the thread ended before it reported running
    };

    CZTThread();
    CZTThread(const CZTThread&) = delete;
    CZTThread& operator=(const CZTThread&) = delete;
    /// Stops the thread and waits for its end.
    virtual ~CZTThread();

    /// Owner: start. With bWaitStart, returns when the thread runs or has ended.
    EStart eStart(PFNThread pfnThread, void* pParameter, int bWaitStart, int bSuspended);
    /// As eStart; a failure fills the error with the module's user error and errno, START_ENDED is false
    /// without one.
    bool bStart(PFNThread pfnThread, void* pParameter, const _stMyModuleInfo* pstModule,
                unsigned int nErrorCode, CXError* pclError, int bWaitStart, int bSuspended);
    /// As bStart, but throws the CXError.
    bool xbStart(PFNThread pfnThread, void* pParameter, const _stMyModuleInfo* pstModule,
                 unsigned int nErrorCode, int bWaitStart, int bSuspended);
    /// Owner: request the stop, wake a sleep; with bWait, return when the thread has stopped.
    void Stop(int bWait);
    /// Owner: request the stop and keep the state locked until LeaveSynchroStop.
    void TakeSynchroStop();
    void LeaveSynchroStop(int bWait);
    /// Owner: ask the thread to pause at its next Wait; release it.
    void Suspend();
    void Resume();
    bool bThreadRunning();

    /// Thread function only, from here on.
    void* pGetParameter() const noexcept { return m_pParameter; }
    void Started();
    bool bMustStop();
    /// Pauses here while suspended.
    void Wait();
    int Sleep(unsigned int dwMs);
    /// 0 at once when a stop is requested, else as Sleep.
    int SleepOrStop(unsigned int dwMs);
    /// Without limit. Returns 1 at once when a stop is requested: intended to differ from the timed form.
    int SleepOrStop();
    void Stopped();

protected:
    int m_nStopTimeOut = 0; ///< milliseconds of Stop in all; 0: its waits have no bound

private:
    enum EState : unsigned int
    {
        STOP_REQUESTED = 1, ///< or not running
        STARTING = 2,       ///< with SUSPENDED and RUNNING: waiting while suspended
        RUNNING = 4,
        SUSPENDED = 8, ///< a pause is requested
    };
    using CLock = std::unique_lock<std::recursive_mutex>;
    using CClock = std::chrono::steady_clock;
    class CFrame;

    /// Polls until the condition holds or the time has come; the lock is released meanwhile.
    template <class TCondition>
    static void _WaitUntil(CLock& clLock, CClock::time_point clEnd, TCondition bCondition);
    bool _bAny(unsigned int nBits) const noexcept { return (m_nState & nBits) != 0; }
    void _WaitStopped(CClock::time_point clEnd);
    EStart _eWaitStarted(CLock& clLock) const;
    int _nStartThread();
    static void* ThreadFunc(void* pThread);

    /// Recursive: eStart suspends and resumes while it holds it, TakeSynchroStop lends it to the owner.
    std::recursive_mutex m_clLock;
    unsigned int m_nState = STOP_REQUESTED;
    void* m_pParameter = nullptr;
    PFNThread m_pfnThread = nullptr;
    CZTSemNoInit m_clSuspension;
    CZTSemNoInit m_clSleep;
    CClock::time_point m_clStopEnd; ///< when the waits of the latest Stop are over
    bool* m_pbStopped = nullptr;    ///< of the running ThreadFunc: whether its function has called Stopped
};
