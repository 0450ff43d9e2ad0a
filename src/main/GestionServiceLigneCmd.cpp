// Reads the command line, and does what "--STOPALL" and "--STOP-SERVER" ask for.

#include "main/GestionServiceLigneCmd.h"

#include "main/SystemdNotify.h"
#include "manager/FailedListing.h"
#include "manager/SetupManager.h"
#include "support/Conversion.h"
#include "support/DiskFile.h"
#include "support/ManagerNames.h"

#include <cerrno>
#include <cstdio>
#include <memory>
#include <strings.h>
#include <tuple>

namespace {
/// Index of an option's first occurrence; 0 when it is absent.
int nFindOption(int nCount, char** ppszArguments, const wchar_t* pszOption)
{
    const std::string csOption = csToUTF8(pszOption);
    for (int n = 1; n < nCount; ++n) {
        if (strcasecmp(csOption.c_str(), ppszArguments[n]) == 0) {
            return n;
        }
    }
    return 0;
}

/// Reports on standard error, the only place: these commands exit with status 0 whatever happens.
void SayFailure(int nError)
{
    std::fprintf(stderr, "%s: %s\n", g_szManagerServiceA, csToUTF8(csFailedListing(nError)).c_str());
}

void StopIfActive(CService& clService)
{
    const EServiceStatus eStatus = clService.eGetStatus();
    if (eStatus == STATUS_UNKNOWN) {
        SayFailure(errno);
    } else if (eStatus == STATUS_START_PENDING || eStatus == STATUS_RUNNING) {
        std::ignore = clService.bStop(); // whether or not it succeeds, the next one is stopped
    }
}

/// As pclManagerService, but reports a service that cannot be looked up.
std::unique_ptr<CService> pclManagerServiceOrReport(CServiceManager* pclManager)
{
    auto pclService = pclManagerService(pclManager);
    if (pclService == nullptr && errno != ENOENT) {
        SayFailure(errno);
    }
    return pclService;
}

bool bLiesIn(CService& clService, const wchar_t* pszDirectory)
{
    return CDiskFile::bSameDirectoryName(CDiskFile::csDirectory(clService.csGetExecutable()), pszDirectory);
}
} // namespace

std::unique_ptr<CService> pclManagerService(CServiceManager* pclManager)
{
    return std::unique_ptr<CService>(pclManager->pclGetService(g_szManagerService));
}

bool bSetOnCmdLine(int nCount, char** ppszArguments, const wchar_t* pszOption)
{
    return nFindOption(nCount, ppszArguments, pszOption) != 0;
}

bool bGetCmdLineValue(int nCount, char** ppszArguments, const wchar_t* pszOption, CTString* pcsValue)
{
    const int nOption = nFindOption(nCount, ppszArguments, pszOption);
    if (nOption == 0) {
        return false;
    }
    const char* pszValue = ppszArguments[nOption + 1]; // null after the last argument
    *pcsValue = csWide(pszValue != nullptr ? pszValue : "", CP_1252);
    return true;
}

bool bModeService(int nCount, char** ppszArguments, const wchar_t* pszOption)
{
    return bSetOnCmdLine(nCount, ppszArguments, pszOption) || bIsSystemdNotify();
}

void StopAllCmd()
{
    CServiceManager* pclManager = gpclSetupManager->pclGetServiceManager();
    pclManager->bInit(nullptr, 0);
    // This process's own lock: a running daemon holds another one and is neither waited for nor delayed.
    const CServiceGuard clGuard = gpclSetupManager->clLockServices();

    CServiceListing clListing(pclManager, g_szServerPrefix);
    while (const auto pclServer = clListing.pclNext()) {
        StopIfActive(*pclServer);
    }
    if (clListing.bFailed()) {
        SayFailure(clListing.nError());
    }

    if (const auto pclService = pclManagerServiceOrReport(pclManager)) {
        StopIfActive(*pclService);
    }
}

void StopOneServer(const wchar_t* pszDirectory)
{
    CServiceManager* pclManager = gpclSetupManager->pclGetServiceManager();
    pclManager->bInit(nullptr, 0);
    const CServiceGuard clGuard = gpclSetupManager->clLockServices();

    // Only the first match counts, so the listing is left early.
    CServiceListing clListing(pclManager, g_szServerPrefix);
    auto pclServer = clListing.pclNext();
    while (pclServer != nullptr && !bLiesIn(*pclServer, pszDirectory)) {
        pclServer = clListing.pclNext();
    }
    if (clListing.bFailed()) {
        SayFailure(clListing.nError());
    }
    if (pclServer == nullptr) {
        return;
    }
    StopIfActive(*pclServer);

    // The product's folder may hold the manager beside the server: then both are in the way of a setup.
    const auto pclService = pclManagerServiceOrReport(pclManager);
    if (pclService != nullptr && bLiesIn(*pclService, pszDirectory)) {
        StopIfActive(*pclService);
    }
}
