#include "manager/RemoteVelmoManager.h"

#include "config/Config.h"
#include "config/Settings.h"
#include "manager/Dialog.h"
#include "manager/ServerFolder.h"
#include "manager/SetupManager.h"
#include "service/ServiceManagerUnix.h"
#include "support/DiskFile.h"

#include <cerrno>

namespace {

/// A reply with the system text of what has just failed.
void Refuse(CDialog& clDialog, eError eCode)
{
    clDialog.ACK(eCode, static_cast<unsigned int>(errno));
}

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

/// A name that goes on behind a NUL is not the name in front of it.
std::unique_ptr<CService> pclLookup(CServiceManager* pclManager, const std::wstring& csService)
{
    if (csService.find(L'\0') != std::wstring::npos) {
        errno = ENOENT;
        return nullptr;
    }
    return std::unique_ptr<CService>(pclManager->pclGetService(csService.c_str()));
}

/// The service that the name is the own name of. A lookup takes ";" and "|" at an end for spaces: "Plain|"
/// finds "Plain", which must not cost it its files.
std::unique_ptr<CService> pclLookupOwn(CServiceManager* pclManager, const std::wstring& csService)
{
    std::unique_ptr<CService> pclService = pclLookup(pclManager, csService);
    const bool bOwn =
        pclService != nullptr && CServiceName::s_clSaid(csService.c_str()).bNames(pclService->clName());
    return bOwn ? std::move(pclService) : nullptr;
}
} // namespace

std::unique_ptr<CService> CRemoteVelmoManager::__pclFind(CDialog& clDialog, CServiceLocks::CHold* pclHold)
{
    const std::wstring csName = csNextArgument(clDialog);
    const auto pclFind = [&](const std::wstring& csService) {
        if (pclHold != nullptr) { // before the look: until then somebody may be removing it
            pclHold->Release();
            *pclHold = m_pclManager->clGetLocks().clTake(CServiceManager::csRegisteredName(csService));
            if (!pclHold->bTaken()) {
                return std::unique_ptr<CService>();
            }
        }
        return pclLookup(m_pclManager, csService);
    };

    std::unique_ptr<CService> pclService = pclFind(g_szServerPrefix + csName);
    if (pclHold != nullptr && !pclHold->bTaken()) { // the stop of the manager came first
        errno = ECANCELED;
        Refuse(clDialog, ERREUR_START);
        return nullptr;
    }
    if (pclService == nullptr && csName == g_szDefaultServer) {
        pclService = pclFind(g_szDefaultServer);
    }
    if (pclService == nullptr) {
        Refuse(clDialog, ERREUR_SERVICE_INCONNU);
    }
    return pclService;
}

void CRemoteVelmoManager::Start(CDialog& clDialog)
{
    CServiceLocks::CHold clHold;
    if (const auto pclService = __pclFind(clDialog, &clHold)) {
        const bool bStarted = clHold.bStart(*pclService);
        clHold.Release(); // before the reply: a tool that does not read must hold nobody up
        Conclude(clDialog, bStarted, ERREUR_START);
    }
}

void CRemoteVelmoManager::Stop(CDialog& clDialog)
{
    if (const auto pclService = __pclFind(clDialog)) {
        Conclude(clDialog, pclService->bStop(), ERREUR_STOP);
    }
}

void CRemoteVelmoManager::GetStatus(CDialog& clDialog)
{
    /// Index: the status. 5 to 7 are other systems'; a failed server is reported as stopped, intended.
    static constexpr const wchar_t* s_tWords[] = {
        L"UNKWNOWN", // spelled so on the wire
        L"STOPPED",          L"START_PENDING", L"STOP_PENDING", L"RUNNING",
        L"CONTINUE_PENDING", L"PAUSE_PENDING", L"PAUSED",       L"STOPPED",
    };
    const auto pclService = __pclFind(clDialog);
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
    // By its own name: one that a lookup takes for another must not end that one's start.
    const std::wstring csLock = CServiceName::s_clSaid(csService.c_str()).csRegistry();
    auto clHold = m_pclManager->clGetLocks().clTakeToRemove(csLock, [&] {
        if (const auto pclStarting = pclLookupOwn(m_pclManager, csService)) {
            (void)pclStarting->bStop();
        }
    });
    if (!clHold.bTaken()) { // the stop of the manager came first
        errno = ECANCELED;
        Refuse(clDialog, ERREUR_STOP);
        return;
    }
    const std::unique_ptr<CService> pclService = pclLookupOwn(m_pclManager, csService);
    if (pclService == nullptr) {
        clHold.Release(); // before each reply: a tool that does not read must hold nobody up
        clDialog.ACK(ERREUR_UNINSTALL_INCONNU, 0u);
        return;
    }
    if (!pclService->bStop()) {
        clHold.Release();
        Refuse(clDialog, ERREUR_STOP);
        return;
    }
    const bool bEnded = !bDeleteFiles || pclService->bStopForRemoval(); // before any file goes
    if (std::wstring csMessage;
        bEnded && bDeleteFiles && bDeleteServerFolder(m_pclManager, *pclService, &csMessage)) {
        clHold.Release();
        // A completed deletion is told with error 12 and the service stays registered; intended.
        clDialog.ACK(ERREUR_UNINSTALL_FICHIERS, csMessage);
        return;
    }
    const bool bRemoved = bEnded && pclService->bRemove();
    clHold.Release();
    Conclude(clDialog, bRemoved, ERREUR_UNINSTALL_SERVICE);
}

void CRemoteVelmoManager::ClusterInfo(CDialog& clDialog)
{
    const auto pclService = __pclFind(clDialog);
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
    std::wstring csManager(settings::ClusterManager.nSize, L'\0');
    if (clConfig.bClusterNode()) {
        clConfig.GetClusterManagerName(csManager.data());
    }
    csManager.resize(wcsnlen(csManager.c_str(), settings::ClusterManager.nSize - 1));
    clDialog.Answer((csManager.empty() ? L"YES\t0\t" : L"YES\t1\t") + csManager);
}
