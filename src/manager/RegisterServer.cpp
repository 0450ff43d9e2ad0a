// Registration of a database server: finds the service of its executable or installs one, and starts it.
//
// The service lock is held from the listing to the installation, so that two servers cannot take the same
// name or port. It is not held during the start, which may take as long as the server likes; only the locks
// of the names that the server is registered under are.

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

/// Adds the services' names; false when the set had all of them already.
bool bAddNames(const std::vector<std::unique_ptr<CService>>& tServices, std::set<std::wstring>* ptNames)
{
    const std::size_t nBefore = ptNames->size();
    for (const auto& pclService : tServices) {
        ptNames->insert(CServiceManager::csLockName(pclService->pszGetName()));
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
    stServer.csPath = CProgram::s_clAt(stServer.csPath).csPath(); // without the double quotes, if it has any
    CServiceLocks::CHold clHold;
    bool bInstalled = false;
    const auto pclService = _pclMakeService(stServer, &clHold, &bInstalled, pcsError);
    if (pclService == nullptr) {
        return;
    }

    if (pclService->eGetStatus() == STATUS_RUNNING || clHold.bStart(*pclService)) {
        return;
    }
    *pcsError = csSystemMessage(errno); // which the failed step of the start has left

    // A unit that systemd refuses is taken back, unless the service was there before. After the stop systemd
    // cannot be asked any more whether it refuses the unit.
    if (bInstalled && !CStopping::bAsked()) {
        std::ignore = m_clServiceManager.bTakeBackRefused(*pclService);
    }

    // After the stop nothing is started, so the text says what is left to do. Looked at again, as the stop
    // may have begun during the take-back.
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
    std::set<std::wstring> tNames{CServiceManager::csLockName(csServiceName(stServer))};
    for (;;) {
        // The names' locks come before the service lock: a wait for a start that hangs, with the service lock
        // taken, would hold up everybody. Those of the last turn are released first, since names are taken in
        // ascending order: a thread that held a later name than the one it waits for could deadlock.
        pclHold->Release();
        *pclHold = m_clServiceManager.clGetLocks().clTake(tNames);
        if (!pclHold->bTaken()) {
            CStopping::xThrowStopped();
        }
        const CServiceGuard clGuard = clLockServices();
        STFound stFound = _stFindServer(clGuard, stServer, pcsError);

        // The executable may be registered under other names. One of these services may be started below, and
        // the names go into the configuration, so their locks are needed, too; with all locks taken,
        // everything is looked at again.
        if (!bAddNames(stFound.tOtherNames, &tNames)) {
            return _pclConclude(clGuard, stServer, std::move(stFound), pbInstalled, pcsError);
        }
        pcsError->clear(); // the reason, if this turn was refused; the next one decides anew
    }
}

std::unique_ptr<CService> CSetupManager::_pclConclude(const CServiceGuard& clGuard,
                                                      const STRegistration& stServer, STFound stFound,
                                                      bool* pbInstalled, CTString* pcsError)
{
    // Even when the registration is refused for a conflict that the listing showed after these services:
    // clients have always seen this.
    for (const auto& pclOther : stFound.tOtherNames) {
        WriteName(*pclOther);
    }
    if (stFound.bRefused) {
        if (!stFound.bLogged) {
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

void CSetupManager::_RefuseUnasked(int nError, STFound* pstFound, CTString* pcsError)
{
    pstFound->bRefused = true;
    pstFound->tOtherNames.clear(); // no name is written because of half a list
    *pcsError = csFailedListing(nError);
    LogFailedListing(nError); // with its rate limit: a server may try again and again
    pstFound->bLogged = true;
}

void CSetupManager::_FindUnlisted(const STRegistration& stServer, STFound* pstFound, CTString* pcsError)
{
    std::unique_ptr<CService> pclUnlisted(m_clServiceManager.pclGetService(csServiceName(stServer).c_str()));
    const int nErrno = errno;
    CStopping::xCheck(); // a lookup that the stop cut short has not failed
    if (pclUnlisted == nullptr) {
        if (nErrno != ENOENT) { // it is unknown whether there is such a service
            _RefuseUnasked(nErrno, pstFound, pcsError);
        }
        return;
    }

    if (!bSameName(*pclUnlisted, stServer)) { // systemd: a lookup reads ";" and "|" as spaces
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
            if (!bSameName(*pclService, stServer)) { // a copy: the record itself may become pclService
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

    // Checked here: the registry gets the name with the prefix before it, where neither an empty name nor a
    // leading space shows.
    if (stServer.csName.empty() || stServer.csName.front() == L' ' || !clProgram.bWholePath()) {
        errno = EINVAL;
        return nullptr;
    }

    // From here on something is written, which a stop must not leave half done.
    const CStopRight clRight(CStopRight::WRITES);
    const std::wstring csService = csServiceName(stServer);
    const std::wstring csCommandLine = clProgram.csCommandLine(L"--SERVICE");
    return std::unique_ptr<CService>(
        m_clServiceManager.pclInstall(csService.c_str(), csService.c_str(), csCommandLine.c_str(),
                                      /*bAutoStart=*/1, /*bRestartOnAbnormal=*/1));
}
