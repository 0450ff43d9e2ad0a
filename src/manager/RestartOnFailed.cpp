#include "manager/RestartOnFailed.h"

#include "manager/FailedListing.h"
#include "manager/SetupManager.h"
#include "service/ServiceManagerUnix.h"
#include "support/accesdllres.h"

#include <memory>

namespace {
void RestartOnFailedThreadFunc(CZTThread* pclThread)
{
    pclThread->Started();
    static_cast<CRestartOnFailed*>(pclThread->pGetParameter())->Run();
    pclThread->Stopped();
}
} // namespace

CRestartOnFailed::CRestartOnFailed(CServiceManager* pclManager, unsigned int dwPeriod)
    : m_dwPeriod(dwPeriod), m_pclManager(pclManager)
{}

CRestartOnFailed::~CRestartOnFailed()
{
    Stop();
}

void CRestartOnFailed::xStart()
{
    (void)xbStart(RestartOnFailedThreadFunc, this, &g_stMyModule, USER_ERROR_THREAD, 1, 0);
}

void CRestartOnFailed::Stop()
{
    CZTThread::Stop(1);
}

void CRestartOnFailed::Run()
{
    constexpr unsigned int dwMsPerSecond = 1000;
    while (!bMustStop()) {
        SleepOrStop(m_dwPeriod * dwMsPerSecond);
        if (bMustStop()) {
            break;
        }
        try {
            __Check();
        } catch (...) { // want of memory: costs this pass
        }
    }
}

void CRestartOnFailed::__Check()
{
    CServiceListing clListing(m_pclManager, g_szServerPrefix);
    while (const auto pclService = clListing.pclNext()) {
        if (pclService->eGetStatus() == STATUS_FAILED) {
            (void)pclService->bStart();
        }
    }
    if (clListing.bFailed()) { // before its first service: the next pass looks again
        LogFailedListing(clListing.nError());
    }
}
