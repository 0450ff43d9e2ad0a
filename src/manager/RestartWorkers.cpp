#include "manager/RestartWorkers.h"

#include "service/ServiceManagerUnix.h"

#include <tuple>
#include <utility>

class CRestartWorkers::CNote
{
public:
    CNote(CRestartWorkers* pclWorkers, std::wstring csName)
        : m_pclWorkers(pclWorkers), m_csName(std::move(csName))
    {
        const std::lock_guard<std::mutex> clGuard(m_pclWorkers->m_clLock);
        m_pclWorkers->m_tNames.insert(m_csName);
    }
    ~CNote()
    {
        const std::lock_guard<std::mutex> clGuard(m_pclWorkers->m_clLock);
        m_pclWorkers->m_tNames.erase(m_csName);
    }
    CNote(const CNote&) = delete;
    CNote& operator=(const CNote&) = delete;

private:
    CRestartWorkers* m_pclWorkers;
    std::wstring m_csName;
};

bool CRestartWorkers::bHas(const std::wstring& csName)
{
    const std::lock_guard<std::mutex> clGuard(m_clLock);
    return m_tNames.count(csName) != 0;
}

void CRestartWorkers::Restart(const std::shared_ptr<CService>& pclService)
{
    // Shared, as std::function copies what it holds: the note lives as long as the work, queued or running.
    const auto pclNote = std::make_shared<CNote>(this, pclService->pszGetName());

    // Without a thread for the work, the monitor's next pass tries again.
    std::ignore = m_clPool.bRun([this, pclService, pclNote] { _Restart(*pclService); });
}

/// Asks for the state again, under the service's lock: somebody may have started or removed the service
/// since.
void CRestartWorkers::_Restart(CService& clService)
{
    auto clHold = m_pclManager->clGetLocks().clTake(CServiceManager::csLockName(clService.pszGetName()));
    if (clHold.bTaken() && clService.eGetStatus() == STATUS_FAILED) {
        std::ignore = clHold.bStart(clService); // the next pass finds a service that has failed again
    }
}
