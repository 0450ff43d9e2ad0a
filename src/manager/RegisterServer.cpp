// Registration of a database server that asks for it: finds the service of its executable or makes one, and
// starts it. The service lock is held from the listing to the installation, so that two servers cannot take
// one name or port; the server's own name also during its start, which may take as long as the server likes.

#include "config/Settings.h"
#include "config/WinApi.h"
#include "manager/FailedListing.h"
#include "manager/SetupManager.h"
#include "support/accesdllres.h"
#include "support/DiskFile.h"
#include "support/Stopping.h"
#include "support/WinApi.h"

#include <cerrno>
#include <cwchar>
#include <set>
#include <vector>

namespace {
std::wstring csShortName(const CService& clService)
{
    return std::wstring(clService.pszGetName()).substr(std::size(g_szServerPrefix) - 1);
}

/// Names are compared as they stand in the registry, where a blank is "_".
bool bSameName(const CService& clService, const STRegistration& stServer)
{
    return CServiceManager::csRegisteredName(g_szServerPrefix + stServer.csName) == clService.pszGetName();
}

std::wstring csLockName(const std::wstring& csService)
{
    return CServiceManager::csRegisteredName(csService);
}

/// Adds the services' names; false when all were there.
bool bAddNames(const std::vector<std::unique_ptr<CService>>& tServices, std::set<std::wstring>* ptNames)
{
    const std::size_t nBefore = ptNames->size();
    for (const auto& pclService : tServices) {
        ptNames->insert(csLockName(pclService->pszGetName()));
    }
    return ptNames->size() != nBefore;
}

/// A server learns the name that it is registered under from its configuration.
void TellName(CService& clService)
{
    const std::wstring csFile = CSetupManager::s_csServersConfig(clService.csGetExecutable());
    (void)WritePrivateProfileString(settings::Name.pszSection, settings::Name.pszKey,
                                    csShortName(clService).c_str(), csFile.c_str());
}
} // namespace

void CSetupManager::RegisterServer(const std::wstring& csName, const std::wstring& csBinaryPath,
                                   std::uint16_t wPort, CTString* pcsError)
{
    CServiceLocks::CHold clHold;
    bool bInstalled = false;
    const auto pclService = __pclMakeService({csName, csBinaryPath, wPort}, &clHold, &bInstalled, pcsError);
    if (pclService == nullptr) {
        return;
    }

    // errno is that of whichever step failed; the client gets the system's text for it.
    if (pclService->eGetStatus() == STATUS_RUNNING || clHold.bStart(*pclService)) {
        return;
    }
    *pcsError = csSystemMessage(errno);
    if (bInstalled && CStopping::bAsked()) { // after a stop nothing is started
        pclService->AddMissingStep(L"start");
        *pcsError = L"The registration of \"" + csName +
                    L"\" was cut short by the stop of the manager. Not done: " +
                    pclService->csMissingSteps() + L". Register the server again.";
    }
    _LogText(*pcsError);
}

std::unique_ptr<CService> CSetupManager::__pclMakeService(const STRegistration& stServer,
                                                          CServiceLocks::CHold* pclHold, bool* pbInstalled,
                                                          CTString* pcsError)
{
    std::set<std::wstring> tNames{csLockName(g_szServerPrefix + stServer.csName)};
    for (;;) {
        // The names first: with the service lock held, waiting for a start that hangs would hold up
        // everybody.
        pclHold->Release();
        *pclHold = m_clServiceManager.clGetLocks().clTake(tNames);
        if (!pclHold->bTaken()) {
            CStopping::xThrowStopped();
        }
        const CServiceGuard clGuard = clLockServices();
        STFound stFound = __stFindServer(clGuard, stServer, pcsError);

        // A service that has another name is changed under that one's lock, too.
        if (bAddNames(stFound.tOtherNames, &tNames)) {
            pcsError->clear();
            continue;
        }
        for (const auto& pclOther : stFound.tOtherNames) {
            TellName(*pclOther);
        }
        if (stFound.bRefused) {
            return nullptr;
        }
        if (stFound.pclService == nullptr) {
            stFound.pclService = __pclInstallServer(clGuard, stServer);
            *pbInstalled = stFound.pclService != nullptr;
        }
        if (stFound.pclService == nullptr) {
            *pcsError = csSystemMessage(errno);
            _LogText(*pcsError);
        }
        return std::move(stFound.pclService);
    }
}

CSetupManager::STFound CSetupManager::__stFindServer(const CServiceGuard&, const STRegistration& stServer,
                                                     CTString* pcsError)
{
    STFound stFound;
    CServiceListing clListing(&m_clServiceManager, g_szServerPrefix);
    while (auto pclService = clListing.pclNext()) {
        switch (__eCompare(*pclService, stServer, pcsError)) {
        case EComparison::OTHER:
            break;
        case EComparison::SAME: // of several the last one counts
            if (!bSameName(*pclService, stServer)) {
                stFound.tOtherNames.push_back(std::make_unique<CService>(*pclService));
            }
            stFound.pclService = std::move(pclService);
            break;
        case EComparison::CONFLICT:
            stFound.bRefused = true;
            _LogText(*pcsError);
            return stFound;
        }
    }
    CStopping::xCheck();       // then nothing has failed
    if (clListing.bFailed()) { // what is not listed may have the server's name: nothing may be written
        stFound.bRefused = true;
        *pcsError = csFailedListing(clListing.nError());
        LogFailedListing(clListing.nError());
    }
    return stFound;
}

CSetupManager::EComparison CSetupManager::__eCompare(CService& clService, const STRegistration& stServer,
                                                     CTString* pcsError)
{
    const std::wstring csExecutable = clService.csGetExecutable();
    const bool bSameFile = CDiskFile::bSameFileName(csExecutable, stServer.csPath);
    if (bSameName(clService, stServer)) {
        if (bSameFile) {
            return EComparison::SAME;
        }
        DLLRES_bFormatMessage(&g_stMyModule, MSG_SERVER_NAME_TAKEN, pcsError, stServer.csName.c_str(),
                              stServer.csPath.c_str(), csExecutable.c_str());
        return EComparison::CONFLICT;
    }
    const std::wstring csShort = csShortName(clService);
    if (bSameFile) { // registered under another name
        return EComparison::SAME;
    }
    if (csExecutable.empty() || // then it holds no port
        std::wcstol(s_csAccessPort(clService).c_str(), nullptr, 10) != stServer.wPort) {
        return EComparison::OTHER;
    }
    DLLRES_bFormatMessage(&g_stMyModule, MSG_SERVER_PORT_TAKEN, pcsError, stServer.csName.c_str(),
                          static_cast<unsigned int>(stServer.wPort), csShort.c_str());
    return EComparison::CONFLICT;
}

std::unique_ptr<CService> CSetupManager::__pclInstallServer(const CServiceGuard&,
                                                            const STRegistration& stServer)
{
    if (stServer.csName.empty() || !stServer.csPath.starts_with(L'/')) { // no service could come of it
        errno = EINVAL;
        return nullptr;
    }
    const CStopRight clRight(CStopRight::WRITES);
    const std::wstring csService = g_szServerPrefix + stServer.csName;
    return std::unique_ptr<CService>(m_clServiceManager.pclInstall(
        csService.c_str(), csService.c_str(), (stServer.csPath + L" --SERVICE").c_str(), 1, 1));
}
