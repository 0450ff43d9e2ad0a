#include "support/WorkerPool.h"

#include "support/WorkerThread.h"

#include <tuple>

void CWorkerPool::Begin()
{
    const auto clLock = m_clWait.clLock();
    m_bStopped = false;
}

bool CWorkerPool::bRun(std::function<void()> fnWork)
{
    const auto clLock = m_clWait.clLock();
    if (m_bStopped) {
        return false;
    }
    m_tWaiting.push_back(std::move(fnWork));

    pthread_t hThread{};
    if (m_nWorkers < m_nMaxWorkers &&
        nCreateWorker(&hThread, PTHREAD_CREATE_DETACHED, s_pThread, this) == 0) {
        ++m_nWorkers; // early enough: the new thread first waits for the lock
    }

    // Without a new thread one of the others does the work, as soon as it is free.
    if (m_nWorkers == 0) {
        m_tWaiting.pop_back();
        return false;
    }
    return true;
}

void CWorkerPool::WaitFree()
{
    auto clLock = m_clWait.clLock();
    const auto bFree = [this] { return m_nWorkers < m_nMaxWorkers; };
    std::ignore = CStopWait::bWait(clLock, bFree, [this] { return m_bStopped || CStopping::bAsked(); });
}

void CWorkerPool::Stop()
{
    // From now on bRun refuses work, so each thread ends after what it has under way.
    auto clLock = m_clWait.clLock();
    m_bStopped = true;
    m_tWaiting.clear();

    // Without a limit: the threads use this object. They notice a stop of the process by themselves.
    std::ignore = CStopWait::bWait(
        clLock, [this] { return m_nWorkers == 0; }, [] { return false; });
}

void* CWorkerPool::s_pThread(void* pPool)
{
    static_cast<CWorkerPool*>(pPool)->_Run();
    return nullptr;
}

void CWorkerPool::_Run()
{
    auto clLock = m_clWait.clLock();
    while (!m_tWaiting.empty()) {
        std::function<void()> fnWork = std::move(m_tWaiting.front());
        m_tWaiting.pop_front();

        clLock.unlock();
        try {
            fnWork();
        } catch (...) { // out of memory, or the stop
        }
        fnWork = nullptr; // destroys what it holds while the lock is free
        clLock.lock();
    }

    --m_nWorkers; // comes last: once the lock is free, whoever waits may destroy the object
}
