#include "manager/RestartOnFailed.h"

#include "manager/FailedListing.h"
#include "service/ServiceManagerUnix.h"
#include "support/accesdllres.h"
#include "support/ManagerNames.h"
#include "support/Stopping.h"

#include <memory>
#include <tuple>
#include <vector>

namespace {
void RestartOnFailedThreadFunc(CZTThread* pclThread)
{
    pclThread->Started();
    try {
        static_cast<CRestartOnFailed*>(pclThread->pGetParameter())->Run();
    } catch (...) {
        // Ends the monitor, not the daemon.
    }
    pclThread->Stopped();
}

using CServices = std::vector<std::unique_ptr<CService>>;

/// Lists the servers. False when that fails, which is logged; what was listed by then must not be used.
bool bListServers(CServiceManager* pclManager, CServices* ptServices)
{
    CServiceListing clListing(pclManager, g_szServerPrefix);
    while (auto pclService = clListing.pclNext()) {
        ptServices->push_back(std::move(pclService));
    }

    if (clListing.bFailed() && !CStopping::bAsked()) { // a listing that the stop cut short has not failed
        LogFailedListing(clListing.nError());
    }
    return !clListing.bFailed();
}
} // namespace

CRestartOnFailed::CRestartOnFailed(CServiceManager* pclManager, unsigned int dwPeriod)
    : m_dwPeriod(dwPeriod), m_pclManager(pclManager), m_clWorkers(pclManager)
{}

CRestartOnFailed::~CRestartOnFailed()
{
    Stop();
}

void CRestartOnFailed::xStart()
{
    m_clWorkers.Begin();
    std::ignore = xbStart(RestartOnFailedThreadFunc, this, &g_stMyModule, USER_ERROR_THREAD, /*bWaitStart=*/1,
                          /*bSuspended=*/0);
}

void CRestartOnFailed::Stop()
{
    CZTThread::Stop(1); // first: the thread hands the workers their work
    m_clWorkers.Stop();
}

void CRestartOnFailed::Run()
{
    constexpr unsigned int dwMsPerSecond = 1000;
    while (!bMustStop()) {
        // Sleeps first: when the manager starts with the machine, its servers are still coming up.
        SleepOrStop(m_dwPeriod * dwMsPerSecond);
        if (bMustStop()) {
            break;
        }

        try {
            __Check();
        } catch (...) { // out of memory: costs this pass only
        }
    }
}

void CRestartOnFailed::__Check()
{
    // The whole list before the first restart: half a list is no reason to start anything.
    CServices tServices;
    if (!bListServers(m_pclManager, &tServices)) {
        return; // the next pass looks again
    }

    for (auto& pclService : tServices) {
        if (CStopping::bAsked()) {
            return;
        }

        // A service that is being started, by us or by somebody else, is not even asked for its state: its
        // script may hang, and this thread with it.
        const std::wstring csLockName = CServiceManager::csLockName(pclService->pszGetName());
        if (m_clWorkers.bHas(pclService->pszGetName()) || m_pclManager->clGetLocks().bHeld(csLockName)) {
            continue;
        }
        if (pclService->eGetStatus() == STATUS_FAILED) {
            m_clWorkers.Restart(std::move(pclService));
        }
    }
}
