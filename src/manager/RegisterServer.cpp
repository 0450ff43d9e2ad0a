// Registration of a database server that asks for it: finds the service of its executable or makes one, and
// starts it. The service lock is held from the listing to the installation, so that two servers cannot take
// one name or port; the server's own name also during its start, which may take as long as the server likes.

#include "config/Settings.h"
#include "config/WinApi.h"
#include "manager/FailedListing.h"
#include "manager/SetupManager.h"
#include "service/CommandLine.h"
#include "support/accesdllres.h"
#include "support/DiskFile.h"
#include "support/ManagerNames.h"
#include "support/Stopping.h"
#include "support/WinApi.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cwchar>
#include <set>
#include <vector>

namespace {
/// As it was registered, without the prefix.
std::wstring csShortName(CService& clService)
{
    const std::wstring csName = clService.csRegisteredName();
    return csName.substr(std::min(csName.size(), std::size(g_szServerPrefix) - 1));
}

std::wstring csServiceName(const STRegistration& stServer)
{
    return g_szServerPrefix + stServer.csName;
}

bool bSameName(const CService& clService, const STRegistration& stServer)
{
    return CServiceName::s_clSaid(csServiceName(stServer).c_str()) == clService.clName();
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

void CSetupManager::RegisterServer(STRegistration stServer, CTString* pcsError)
{
    stServer.csPath = CProgram::s_clAt(stServer.csPath).csPath();
    CServiceLocks::CHold clHold;
    bool bInstalled = false;
    const auto pclService = _pclMakeService(stServer, &clHold, &bInstalled, pcsError);
    if (pclService == nullptr) {
        return;
    }

    // errno is that of whichever step failed; the client gets the system's text for it.
    if (pclService->eGetStatus() == STATUS_RUNNING || clHold.bStart(*pclService)) {
        return;
    }
    *pcsError = csSystemMessage(errno);
    if (bInstalled && !CStopping::bAsked()) {
        (void)m_clServiceManager.bTakeBackRefused(*pclService);
    }
    if (bInstalled && CStopping::bAsked()) { // after a stop nothing is started
        pclService->AddMissingStep(L"start");
        *pcsError = L"The registration of \"" + stServer.csName +
                    L"\" was cut short by the stop of the manager. Not done: " +
                    pclService->csMissingSteps() + L". Register the server again.";
    }
    _LogText(*pcsError);
}

std::unique_ptr<CService> CSetupManager::_pclMakeService(const STRegistration& stServer,
                                                         CServiceLocks::CHold* pclHold, bool* pbInstalled,
                                                         CTString* pcsError)
{
    std::set<std::wstring> tNames{csLockName(csServiceName(stServer))};
    for (;;) {
        // The names first: with the service lock held, waiting for a start that hangs would hold up
        // everybody.
        pclHold->Release();
        *pclHold = m_clServiceManager.clGetLocks().clTake(tNames);
        if (!pclHold->bTaken()) {
            CStopping::xThrowStopped();
        }
        const CServiceGuard clGuard = clLockServices();
        STFound stFound = _stFindServer(clGuard, stServer, pcsError);

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
            stFound.pclService = _pclInstallServer(clGuard, stServer);
            *pbInstalled = stFound.pclService != nullptr;
        }
        if (stFound.pclService == nullptr) {
            *pcsError = csSystemMessage(errno);
            _LogText(*pcsError);
        }
        return std::move(stFound.pclService);
    }
}

void CSetupManager::_RefuseUnasked(int nError, STFound* pstFound, CTString* pcsError)
{
    pstFound->bRefused = true;
    pstFound->tOtherNames.clear(); // nothing is written
    *pcsError = csFailedListing(nError);
    LogFailedListing(nError);
}

void CSetupManager::_FindUnlisted(const STRegistration& stServer, STFound* pstFound, CTString* pcsError)
{
    std::unique_ptr<CService> pclUnlisted(m_clServiceManager.pclGetService(csServiceName(stServer).c_str()));
    CStopping::xCheck();
    if (pclUnlisted == nullptr && errno != ENOENT) {
        _RefuseUnasked(errno, pstFound, pcsError);
    }
    if (pclUnlisted == nullptr || !bSameName(*pclUnlisted, stServer)) {
        return;
    }
    if (_eCompare(*pclUnlisted, stServer, pcsError) == EComparison::SAME) {
        pstFound->pclService = std::move(pclUnlisted);
        return;
    }
    pstFound->bRefused = true;
    _LogText(*pcsError);
}

CSetupManager::STFound CSetupManager::_stFindServer(const CServiceGuard&, const STRegistration& stServer,
                                                    CTString* pcsError)
{
    STFound stFound;
    CServiceListing clListing(&m_clServiceManager, g_szServerPrefix);
    while (auto pclService = clListing.pclNext()) {
        switch (_eCompare(*pclService, stServer, pcsError)) {
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
        _RefuseUnasked(clListing.nError(), &stFound, pcsError);
    } else if (stFound.pclService == nullptr) {
        _FindUnlisted(stServer, &stFound, pcsError);
    }
    return stFound;
}

CSetupManager::EComparison CSetupManager::_eCompare(CService& clService, const STRegistration& stServer,
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

std::unique_ptr<CService> CSetupManager::_pclInstallServer(const CServiceGuard&,
                                                           const STRegistration& stServer)
{
    const CProgram clProgram = CProgram::s_clAt(stServer.csPath);
    // No service could come of it; the registry sees the name only after its prefix.
    if (stServer.csName.empty() || stServer.csName.front() == L' ' || !clProgram.bWholePath()) {
        errno = EINVAL;
        return nullptr;
    }
    const CStopRight clRight(CStopRight::WRITES);
    const std::wstring csService = csServiceName(stServer);
    const std::wstring csCommandLine = clProgram.csCommandLine(L"--SERVICE");
    return std::unique_ptr<CService>(
        m_clServiceManager.pclInstall(csService.c_str(), csService.c_str(), csCommandLine.c_str(), 1, 1));
}
