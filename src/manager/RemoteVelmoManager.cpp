#include "manager/RemoteVelmoManager.h"

#include "config/Config.h"
#include "config/Settings.h"
#include "manager/Dialog.h"
#include "manager/ServerFolder.h"
#include "service/ServiceManagerUnix.h"
#include "support/DiskFile.h"
#include "support/ManagerNames.h"

#include <cerrno>
#include <tuple>

namespace {
/// Replies with the C library's text for errno, which the failed step has left.
void Refuse(CDialog& clDialog, eError eCode)
{
    clDialog.ACK(eCode, static_cast<unsigned int>(errno));
}

/// Replies "OK", or the error with the text of errno.
void Conclude(CDialog& clDialog, bool bDone, eError eCode)
{
    if (bDone) {
        clDialog.ACK(ERREUR_AUCUNE, 0u);
    } else {
        Refuse(clDialog, eCode);
    }
}

std::wstring csNextArgument(CDialog& clDialog)
{
    CTString csArgument;
    clDialog.GetString(&csArgument);
    return csArgument;
}

/// Looks a service up; null with errno. A name with a NUL in it is no name: a lookup would only see what
/// stands before the NUL.
std::unique_ptr<CService> pclLookup(CServiceManager* pclManager, const std::wstring& csService)
{
    if (csService.find(L'\0') != std::wstring::npos) {
        errno = ENOENT;
        return nullptr;
    }
    return std::unique_ptr<CService>(pclManager->pclGetService(csService.c_str()));
}

/// Looks a service up by its own name only. An ordinary lookup takes ";" and "|" at either end of a name for
/// spaces: "Plain|" finds "Plain", which must not lose its files for that.
std::unique_ptr<CService> pclLookupOwn(CServiceManager* pclManager, const std::wstring& csService)
{
    std::unique_ptr<CService> pclService = pclLookup(pclManager, csService);
    const bool bOwn =
        pclService != nullptr && CServiceName::s_clSaid(csService.c_str()).bNames(pclService->clName());
    return bOwn ? std::move(pclService) : nullptr;
}

/// Looks a service up as pclLookup does. With pclHold, takes its lock first: somebody who has the lock may be
/// about to remove the service. Null with ECANCELED, and nothing taken, when the stop of the manager comes
/// first.
std::unique_ptr<CService> pclTakeAndLookup(CServiceManager* pclManager, const std::wstring& csService,
                                           CServiceLocks::CHold* pclHold)
{
    if (pclHold != nullptr) {
        pclHold->Release(); // before the wait: two that hold one name each could wait for each other
        *pclHold = pclManager->clGetLocks().clTake(CServiceManager::csLockName(csService));
        if (!pclHold->bTaken()) {
            errno = ECANCELED;
            return nullptr;
        }
    }
    return pclLookup(pclManager, csService);
}

/// Takes the service's lock for its removal, and cancels a start that is under way. Empty when the stop of
/// the manager comes first. Locks and stops the service of exactly this name: a lookup of "Plain|" would find
/// "Plain", whose start must go on.
CServiceLocks::CHold clTakeToRemove(CServiceManager* pclManager, const std::wstring& csService)
{
    const std::wstring csLock = CServiceName::s_clSaid(csService.c_str()).csRegistry();
    return pclManager->clGetLocks().clTakeToRemove(csLock, [&] {
        if (const auto pclStarting = pclLookupOwn(pclManager, csService)) {
            std::ignore = pclStarting->bStop(); // called again as long as the start goes on
        }
    });
}

/// Unregisters a service and replies. Releases the lock before the reply.
void Remove(CDialog& clDialog, CService& clService, CServiceLocks::CHold* pclHold)
{
    const bool bRemoved = clService.bRemove();
    pclHold->Release();
    Conclude(clDialog, bRemoved, ERREUR_UNINSTALL_SERVICE);
}

/// As Remove, but deletes the server's directory first. A completed deletion is answered with error 12 and
/// leaves the service registered: clients rely on it. A directory that may not or cannot be deleted does not
/// keep the service from being removed.
void RemoveWithFiles(CDialog& clDialog, CServiceManager* pclManager, CService& clService,
                     CServiceLocks::CHold* pclHold)
{
    // No file is deleted while a process may still use it.
    if (!clService.bStopForRemoval()) {
        pclHold->Release();
        Refuse(clDialog, ERREUR_UNINSTALL_SERVICE);
        return;
    }

    std::wstring csMessage;
    if (bDeleteServerFolder(pclManager, clService, &csMessage)) {
        pclHold->Release();
        clDialog.ACK(ERREUR_UNINSTALL_FICHIERS, csMessage);
        return;
    }
    Remove(clDialog, clService, pclHold);
}
} // namespace

std::unique_ptr<CService> CRemoteVelmoManager::_pclFind(CDialog& clDialog, CServiceLocks::CHold* pclHold)
{
    const std::wstring csName = csNextArgument(clDialog);
    const auto bStopped = [&] { return pclHold != nullptr && !pclHold->bTaken(); };

    std::unique_ptr<CService> pclService = pclTakeAndLookup(m_pclManager, g_szServerPrefix + csName, pclHold);
    // The one server whose service may have no prefix.
    if (pclService == nullptr && !bStopped() && csName == g_szDefaultServer) {
        pclService = pclTakeAndLookup(m_pclManager, g_szDefaultServer, pclHold);
    }

    if (pclService == nullptr) {
        Refuse(clDialog, bStopped() ? ERREUR_START : ERREUR_SERVICE_INCONNU);
    }
    return pclService;
}

void CRemoteVelmoManager::Start(CDialog& clDialog)
{
    CServiceLocks::CHold clHold;
    if (const auto pclService = _pclFind(clDialog, &clHold)) {
        const bool bStarted = clHold.bStart(*pclService);
        clHold.Release(); // before the reply: a tool that does not read it must not hold up others
        Conclude(clDialog, bStarted, ERREUR_START);
    }
}

void CRemoteVelmoManager::Stop(CDialog& clDialog)
{
    if (const auto pclService = _pclFind(clDialog)) {
        Conclude(clDialog, pclService->bStop(), ERREUR_STOP);
    }
}

void CRemoteVelmoManager::GetStatus(CDialog& clDialog)
{
    // Index: EServiceStatus; 0 is also for a number beyond the last. No init system here knows 5 to 7. A
    // failed server (8) is reported as stopped: clients rely on it.
    static constexpr const wchar_t* s_tWords[] = {
        L"UNKWNOWN", // clients rely on this spelling
        L"STOPPED",          L"START_PENDING", L"STOP_PENDING", L"RUNNING",
        L"CONTINUE_PENDING", L"PAUSE_PENDING", L"PAUSED",       L"STOPPED",
    };
    const auto pclService = _pclFind(clDialog);
    if (pclService == nullptr) {
        return;
    }

    const EServiceStatus eStatus = pclService->eGetStatus();
    if (eStatus == STATUS_UNKNOWN) {
        Refuse(clDialog, ERREUR_STATUS);
        return;
    }

    const auto nWord = static_cast<std::size_t>(eStatus);
    clDialog.Answer(std::wstring(L"STATUS\t") + s_tWords[nWord < std::size(s_tWords) ? nWord : 0]);
}

void CRemoteVelmoManager::UnInstall(CDialog& clDialog)
{
    const std::wstring csName = csNextArgument(clDialog);
    const bool bDeleteFiles = clDialog.dwGetUInt32() != 0;
    const std::wstring csService = g_szServerPrefix + csName;
    auto clHold = clTakeToRemove(m_pclManager, csService);
    if (!clHold.bTaken()) { // the stop of the manager came first
        errno = ECANCELED;
        Refuse(clDialog, ERREUR_STOP);
        return;
    }

    // Before each reply the lock is released: a tool that does not read the reply must not hold up others.
    const std::unique_ptr<CService> pclService = pclLookupOwn(m_pclManager, csService);
    if (pclService == nullptr) {
        clHold.Release();
        clDialog.ACK(ERREUR_UNINSTALL_INCONNU, 0u);
        return;
    }
    if (!pclService->bStop()) {
        clHold.Release();
        Refuse(clDialog, ERREUR_STOP);
        return;
    }

    if (bDeleteFiles) {
        RemoveWithFiles(clDialog, m_pclManager, *pclService, &clHold);
    } else {
        Remove(clDialog, *pclService, &clHold);
    }
}

void CRemoteVelmoManager::ClusterInfo(CDialog& clDialog)
{
    const auto pclService = _pclFind(clDialog);
    if (pclService == nullptr) {
        return;
    }

    const std::wstring csDirectory = CDiskFile::csDirectory(pclService->csGetExecutable());
    if (csDirectory.empty() || !CDiskFile::bDirectoryExists(csDirectory)) {
        errno = ENOENT;
        Refuse(clDialog, ERREUR_SERVICE_INCONNU);
        return;
    }

    // The server's own settings, not the manager's.
    const CConfig clConfig(csDirectory.c_str());
    std::wstring csMachine(settings::ClusterManager.nSize, L'\0');
    if (clConfig.bClusterNode()) {
        clConfig.GetClusterManagerName(csMachine.data());
    }

    csMachine.resize(wcsnlen(csMachine.c_str(), settings::ClusterManager.nSize - 1));
    clDialog.Answer((csMachine.empty() ? L"YES\t0\t" : L"YES\t1\t") + csMachine);
}
