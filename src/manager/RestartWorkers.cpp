#include "manager/RestartWorkers.h"

#include "service/ServiceManagerUnix.h"
#include "support/WorkerThread.h"

void CRestartWorkers::Begin()
{
    const auto clLock = m_clWait.clLock();
    m_bEnding = false;
}

bool CRestartWorkers::bHas(const std::wstring& csName)
{
    const auto clLock = m_clWait.clLock();
    return m_tNames.count(csName) != 0;
}

void CRestartWorkers::Restart(std::unique_ptr<CService> pclService)
{
    const auto clLock = m_clWait.clLock();
    if (m_bEnding) {
        return;
    }
    const auto pName = m_tNames.insert(pclService->pszGetName()).first;
    try {
        m_tWaiting.push_back(std::move(pclService));
    } catch (...) {
        m_tNames.erase(pName);
        throw;
    }
    if (m_nWorkers < s_nMaxWorkers) {
        __StartWorker();
    }
    if (m_nWorkers == 0) { // no thread can be had: the next pass tries again
        m_tWaiting.clear();
        m_tNames.clear();
    }
}

void CRestartWorkers::__StartWorker()
{
    pthread_t hThread{};
    ++m_nWorkers; // it may end before this thread goes on
    if (nCreateWorker(&hThread, PTHREAD_CREATE_DETACHED, s_pThread, this) != 0) {
        --m_nWorkers;
    }
}

void CRestartWorkers::Stop()
{
    auto clLock = m_clWait.clLock();
    m_bEnding = true;
    m_tWaiting.clear();
    (void)m_clWait.bWait(
        clLock, [this] { return m_nWorkers == 0; }, [] { return false; });
    m_tNames.clear();
}

void* CRestartWorkers::s_pThread(void* pWorkers)
{
    static_cast<CRestartWorkers*>(pWorkers)->__Run();
    return nullptr;
}

void CRestartWorkers::__Run()
{
    auto clLock = m_clWait.clLock();
    while (!m_tWaiting.empty()) {
        const std::unique_ptr<CService> pclService = std::move(m_tWaiting.front());
        m_tWaiting.pop_front();
        clLock.unlock();
        try {
            __Restart(*pclService);
        } catch (...) { // out of memory: costs this restart
        }
        clLock.lock();
        m_tNames.erase(pclService->pszGetName());
    }
    --m_nWorkers;
    m_clWait.NotifyAll(); // with the lock held: whoever waits may destroy the object at once
}

/// The state is asked again under the service's lock: meanwhile somebody may have started or removed it.
void CRestartWorkers::__Restart(CService& clService)
{
    auto clHold =
        m_pclManager->clGetLocks().clTake(CServiceManager::csRegisteredName(clService.pszGetName()));
    if (clHold.bTaken() && clService.eGetStatus() == STATUS_FAILED) {
        (void)clHold.bStart(clService);
    }
}
