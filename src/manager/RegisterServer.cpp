// Registration of a database server: finds the service of its executable or installs one, and starts it.
//
// The service lock is held from the listing to the installation, so that two servers cannot take the same
// name or port. It is not held during the start, which may take as long as the server likes; only the lock of
// the server's own name is.

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
#include <tuple>
#include <vector>

namespace {
/// The name that the server was registered under, without the prefix.
std::wstring csShortName(CService& clService)
{
    const std::wstring csName = clService.csRegisteredName();
    return csName.substr(std::min(csName.size(), std::size(g_szServerPrefix) - 1));
}

std::wstring csServiceName(const STRegistration& stServer)
{
    return g_szServerPrefix + stServer.csName;
}

/// Whether the service has the name that the server asks for, in any of the forms of a name.
bool bSameName(const CService& clService, const STRegistration& stServer)
{
    return CServiceName::s_clSaid(csServiceName(stServer).c_str()) == clService.clName();
}

/// The name by which CServiceLocks knows a service.
std::wstring csLockName(const std::wstring& csService)
{
    return CServiceManager::csLockName(csService);
}

/// Adds the services' names; false when the set had all of them already.
bool bAddNames(const std::vector<std::unique_ptr<CService>>& tServices, std::set<std::wstring>* ptNames)
{
    const std::size_t nBefore = ptNames->size();
    for (const auto& pclService : tServices) {
        ptNames->insert(csLockName(pclService->pszGetName()));
    }
    return ptNames->size() != nBefore;
}

/// Writes the name into the server's configuration: that is where a server learns the name that it is
/// registered under. A failure is ignored: the registration counts without it.
void WriteName(CService& clService)
{
    const std::wstring csFile = CSetupManager::s_csServersConfig(clService.csGetExecutable());
    std::ignore = WritePrivateProfileString(settings::Name.pszSection, settings::Name.pszKey,
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

    // The client gets the text of the errno that the failed step of the start has left.
    if (pclService->eGetStatus() == STATUS_RUNNING || clHold.bStart(*pclService)) {
        return;
    }
    *pcsError = csSystemMessage(errno);

    // A service that was there before stays in any case.
    if (bInstalled && !CStopping::bAsked()) {
        std::ignore = m_clServiceManager.bTakeBackRefused(*pclService);
    }
    // Asked again, as the stop may have begun during the take-back. After the stop nothing is started.
    if (bInstalled && CStopping::bAsked()) {
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
    // Starts with the server's own name. The loop ends: each further turn adds a name of another service.
    std::set<std::wstring> tNames{csLockName(csServiceName(stServer))};
    for (;;) {
        // Names come before the service lock: a wait for a start that hangs, with the service lock taken,
        // would hold up everybody.
        pclHold->Release();
        *pclHold = m_clServiceManager.clGetLocks().clTake(tNames);
        if (!pclHold->bTaken()) {
            CStopping::xThrowStopped();
        }
        const CServiceGuard clGuard = clLockServices();
        STFound stFound = _stFindServer(clGuard, stServer, pcsError);

        // The executable may be registered under other names. Those names go into the configuration below, so
        // their locks are needed, too; with all locks taken, everything is looked at again.
        if (bAddNames(stFound.tOtherNames, &tNames)) {
            pcsError->clear();
            continue;
        }
        for (const auto& pclOther : stFound.tOtherNames) {
            WriteName(*pclOther);
        }
        if (stFound.bRefused) {
            if (!stFound.bLogged) { // only here: an earlier turn may have been refused, too
                _LogText(*pcsError);
            }
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
    pstFound->tOtherNames.clear(); // this refusal writes nothing
    *pcsError = csFailedListing(nError);
    LogFailedListing(nError); // with a rate limit of its own
    pstFound->bLogged = true;
}

void CSetupManager::_FindUnlisted(const STRegistration& stServer, STFound* pstFound, CTString* pcsError)
{
    std::unique_ptr<CService> pclUnlisted(m_clServiceManager.pclGetService(csServiceName(stServer).c_str()));
    CStopping::xCheck(); // a lookup that the stop cut short has not failed
    if (pclUnlisted == nullptr) {
        if (errno != ENOENT) { // it is unknown whether there is one
            _RefuseUnasked(errno, pstFound, pcsError);
        }
        return;
    }

    if (!bSameName(*pclUnlisted, stServer)) { // the lookup also finds services of a similar name
        return;
    }

    if (_eCompare(*pclUnlisted, stServer, pcsError) == EComparison::SAME) {
        pstFound->pclService = std::move(pclUnlisted);
        return;
    }
    pstFound->bRefused = true;
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
        case EComparison::SAME: // of several services the last one counts; clients rely on it
            if (!bSameName(*pclService, stServer)) {
                stFound.tOtherNames.push_back(std::make_unique<CService>(*pclService));
            }
            stFound.pclService = std::move(pclService);
            break;
        case EComparison::CONFLICT:
            stFound.bRefused = true;
            return stFound;
        }
    }
    CStopping::xCheck(); // a listing that the stop cut short has not failed

    // A service that is missing in half a list may have the server's name or port: nothing may be written.
    if (clListing.bFailed()) {
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

    // The name decides first: of one name there can be one service only.
    if (bSameName(clService, stServer)) {
        if (bSameFile) {
            return EComparison::SAME;
        }
        DLLRES_bFormatMessage(&g_stMyModule, MSG_SERVER_NAME_TAKEN, pcsError, stServer.csName.c_str(),
                              stServer.csPath.c_str(), csExecutable.c_str());
        return EComparison::CONFLICT;
    }

    if (bSameFile) { // registered under another name
        return EComparison::SAME;
    }

    // A service whose executable is not known has no configuration, so it has no port to conflict with.
    if (csExecutable.empty() ||
        std::wcstol(s_csAccessPort(clService).c_str(), nullptr, 10) != stServer.wPort) {
        return EComparison::OTHER;
    }

    DLLRES_bFormatMessage(&g_stMyModule, MSG_SERVER_PORT_TAKEN, pcsError, stServer.csName.c_str(),
                          static_cast<unsigned int>(stServer.wPort), csShortName(clService).c_str());
    return EComparison::CONFLICT;
}

std::unique_ptr<CService> CSetupManager::_pclInstallServer(const CServiceGuard&,
                                                           const STRegistration& stServer)
{
    const CProgram clProgram = CProgram::s_clAt(stServer.csPath);

    // Checked here, as the registry sees the name only after the prefix, where these names look well-formed.
    if (stServer.csName.empty() || stServer.csName.front() == L' ' || !clProgram.bWholePath()) {
        errno = EINVAL;
        return nullptr;
    }

    // From here on something is written, which a stop must not leave half done.
    const CStopRight clRight(CStopRight::WRITES);
    const std::wstring csService = csServiceName(stServer);
    const std::wstring csCommandLine = clProgram.csCommandLine(L"--SERVICE");
    return std::unique_ptr<CService>(
        m_clServiceManager.pclInstall(csService.c_str(), csService.c_str(), csCommandLine.c_str(), 1, 1));
}
