// Registration of a database server that asks for it: finds the service of its executable or makes one, and
// starts it. The service lock is held from the listing to the start, so that two servers cannot take one name
// or port.

#include "config/Settings.h"
#include "config/WinApi.h"
#include "manager/FailedListing.h"
#include "manager/SetupManager.h"
#include "support/accesdllres.h"
#include "support/DiskFile.h"
#include "support/WinApi.h"

#include <cerrno>
#include <cwchar>

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
} // namespace

void CSetupManager::RegisterServer(const std::wstring& csName, const std::wstring& csBinaryPath,
                                   std::uint16_t wPort, CTString* pcsError)
{
    const STRegistration stServer{csName, csBinaryPath, wPort};
    const CServiceGuard clGuard = clLockServices();
    std::unique_ptr<CService> pclService;
    if (!__bFindServer(clGuard, stServer, &pclService, pcsError)) {
        return;
    }
    if (pclService == nullptr) {
        pclService = __pclInstallServer(clGuard, stServer);
    }
    // errno is that of whichever step failed; the client gets the system's text for it.
    if (pclService == nullptr || (pclService->eGetStatus() != STATUS_RUNNING && !pclService->bStart())) {
        *pcsError = csSystemMessage(errno);
        _LogText(*pcsError);
    }
}

bool CSetupManager::__bFindServer(const CServiceGuard&, const STRegistration& stServer,
                                  std::unique_ptr<CService>* ppclFound, CTString* pcsError)
{
    CServiceListing clListing(&m_clServiceManager, g_szServerPrefix);
    while (auto pclService = clListing.pclNext()) {
        switch (__eCompare(*pclService, stServer, pcsError)) {
        case EComparison::OTHER:
            break;
        case EComparison::SAME:
            *ppclFound = std::move(pclService); // of several the last one counts
            break;
        case EComparison::CONFLICT:
            _LogText(*pcsError);
            return false;
        }
    }
    if (clListing.bFailed()) { // what is not listed may have the server's name: nothing may be written
        *pcsError = csFailedListing(clListing.nError());
        LogFailedListing(clListing.nError());
        return false;
    }
    return true;
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
    if (bSameFile) { // registered under another name, which the server learns from its configuration
        const std::wstring csFile = s_csServersConfig(csExecutable);
        (void)WritePrivateProfileString(settings::Name.pszSection, settings::Name.pszKey, csShort.c_str(),
                                        csFile.c_str());
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
    const std::wstring csService = g_szServerPrefix + stServer.csName;
    return std::unique_ptr<CService>(m_clServiceManager.pclInstall(
        csService.c_str(), csService.c_str(), (stServer.csPath + L" --SERVICE").c_str(), 1, 1));
}
