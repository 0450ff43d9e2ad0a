// The modes that put the manager among the system's services and take it out again.

#include "main/AutoInstall.h"

#include "main/ErrorMsg.h"
#include "main/GestionServiceLigneCmd.h"
#include "service/CommandLine.h"
#include "support/accesdllres.h"
#include "support/Conversion.h"
#include "support/DiskFile.h"
#include "support/FileVersion.h"
#include "support/ManagerNames.h"
#include "support/StrCompare.h"
#include "support/Version.h"
#include "support/WinApi.h"

#include <cerrno>
#include <cstdio>
#include <memory>
#include <tuple>
#include <unistd.h>

namespace {
using CServicePtr = std::unique_ptr<CService>;

/// Whether a registered manager must give way. One whose version cannot be read stays.
bool bOlderThanThis(CService& clService)
{
    CFileVersion clVersion;
    std::wstring csVersion;
    return clVersion.bLoad(clService.csGetExecutable()) &&
           clVersion.bGetStringValue(L"\\StringFileInfo\\000004E4\\FileVersion", &csVersion) &&
           STR_nCompareRespecteNumeriqueW(csVersion.c_str(), g_szVersion) < 0;
}

/// Registers this executable as the service; null after a message.
CServicePtr pclRegister(int nStyle, CServiceManager* pclManager)
{
    if (::getuid() != 0) {
        ShowErrorIDS(nStyle, MSG_ROOT_ONLY);
        return nullptr;
    }

    const std::wstring csCommandLine = CProgram::s_clAt(GetModuleFileNameW()).csCommandLine(L"--SERVICE");
    CServicePtr pclService(pclManager->pclInstall(g_szManagerService, g_szManagerService,
                                                  csCommandLine.c_str(),
                                                  /*bAutoStart=*/1, /*bRestartOnAbnormal=*/1));
    if (pclService == nullptr) {
        ShowErrorIDSError_Service(nStyle, MSG_CANNOT_REGISTER);
    }
    return pclService;
}

/// The service of this executable or of another current one; null after a message.
CServicePtr pclProvide(int nStyle, CServiceManager* pclManager)
{
    if (!pclManager->bInit(nullptr, 0)) {
        ShowErrorIDSError_Service(nStyle, MSG_CANNOT_REGISTER);
        return nullptr;
    }

    // ENOENT: none is registered. After any other error one may be, so nothing may be overwritten.
    CServicePtr pclService = pclManagerService(pclManager);
    if (pclService == nullptr && errno != ENOENT) {
        ShowErrorIDSError_Service(nStyle, MSG_CANNOT_REGISTER);
        return nullptr;
    }

    // Failures are ignored: when the older one stays, registering this one overwrites it or fails.
    if (pclService != nullptr && bOlderThanThis(*pclService)) {
        std::ignore = pclService->bStop();
        std::ignore = pclService->bRemove();
        pclService.reset();
    }
    return pclService != nullptr ? std::move(pclService) : pclRegister(nStyle, pclManager);
}

/// Whether the service is this executable's own: its command line begins with this executable's path, in
/// double quotes or without.
bool bIsThisExecutable(CService& clService)
{
    const std::wstring csOwn = GetModuleFileNameW();
    const wchar_t* pszCommandLine = clService.pszBinaryPathName();
    const std::wstring csText(pszCommandLine != nullptr ? pszCommandLine : L"");

    return STR_nNCompare(csText.c_str() + (csText.starts_with(L'"') ? 1 : 0), csOwn.c_str(), csOwn.size()) ==
           0;
}
} // namespace

bool bAutoInstall(int bInstaller, CServiceManager* pclManager)
{
    // Two rounds at most. In the second one no service is registered any more, unless it could not be
    // removed.
    for (bool bMayReplace = true;; bMayReplace = false) {
        const CServicePtr pclService = pclProvide(bInstaller, pclManager);
        if (pclService == nullptr) {
            return false;
        }
        if (pclService->bActive() || pclService->bStart()) {
            return true;
        }

        // Does not start. The service of another executable is replaced by this one's, but this one's own
        // would only fail again.
        if (!bMayReplace || bIsThisExecutable(*pclService)) {
            ShowErrorIDS(bInstaller, MSG_CANNOT_START);
            return false;
        }
        std::ignore = pclService->bRemove();
    }
}

bool bUnInstall(CServiceManager* pclManager)
{
    if (::getuid() != 0) {
        CTString csText;
        DLLRES_bLoadString(g_stMyModule, MSG_ROOT_ONLY, &csText);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
        // The message is the format, and no newline follows: clients rely on both.
        std::printf(csToUTF8(csText).c_str());
#pragma GCC diagnostic pop
        return false;
    }

    // The executable goes even when the service could not be found or removed.
    pclManager->bInit(nullptr, 0);
    if (const CServicePtr pclService = pclManagerService(pclManager)) {
        if (pclService->bActive()) {
            std::ignore = pclService->bStop();
        }
        std::ignore = pclService->bRemove();
    }
    std::ignore = CDiskFile::bDelete(GetModuleFileNameW());
    return true;
}
