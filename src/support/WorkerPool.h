#pragma once

#include "support/Stopping.h"

#include <deque>
#include <functional>

/// Runs pieces of work on up to a number of worker threads (see nCreateWorker); more than that wait in order.
/// The threads end when no work is left. Any thread may call the operations.
class CWorkerPool
{
public:
    explicit CWorkerPool(int nMaxWorkers) : m_nMaxWorkers(nMaxWorkers) {}
    ~CWorkerPool() { Stop(); }
    CWorkerPool(const CWorkerPool&) = delete;
    CWorkerPool& operator=(const CWorkerPool&) = delete;

    /// Accepts work again after a Stop.
    void Begin();
    /// Gives the pool a piece of work. False when the work will not be done: the pool has no thread and can
    /// create none, or is stopped. Throws std::bad_alloc. Exceptions that the work throws are dropped.
    bool bRun(std::function<void()> fnWork);
    /// Waits until a new piece of work would begin at once, or the pool or the process stops.
    void WaitFree();
    /// Drops the work that waits; returns when the work under way is done.
    void Stop();

private:
    static void* s_pThread(void* pPool);
    void _Run();

    const int m_nMaxWorkers;
    CStopWait m_clWait; ///< the lock of the members below
    bool m_bStopped = false;
    int m_nWorkers = 0;
    std::deque<std::function<void()>> m_tWaiting;
};
