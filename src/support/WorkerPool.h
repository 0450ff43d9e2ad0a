#pragma once

#include "support/Stopping.h"

#include <deque>
#include <functional>

/// Does several things at once, each on a worker thread (see nCreateWorker); what is too much waits for its
/// turn. The threads end when nothing is left to do. Any thread may call the operations.
class CWorkerPool
{
public:
    explicit CWorkerPool(int nMaxWorkers) : m_nMaxWorkers(nMaxWorkers) {}
    ~CWorkerPool() { Stop(); }
    CWorkerPool(const CWorkerPool&) = delete;
    CWorkerPool& operator=(const CWorkerPool&) = delete;

    /// After a Stop: things may be given again.
    void Begin();
    /// Has it done, or answers false when it cannot be: no thread can be had, or the pool has been stopped.
    /// What it throws is dropped.
    bool bRun(std::function<void()> fnWork);
    /// Waits until a thing that is given would be begun at once, or there is a stop.
    void WaitFree();
    /// Forgets what waits; returns when what is under way is done.
    void Stop();

private:
    static void* s_pThread(void* pPool);
    void _Run();

    const int m_nMaxWorkers;
    CStopWait m_clWait; ///< of the members below
    bool m_bStopped = false;
    int m_nWorkers = 0;
    std::deque<std::function<void()>> m_tWaiting;
};
