// The SysV back end: init scripts, and their registration with the family's own tool.

#include "service/Distribution.h"
#include "service/InitScript.h"
#include "service/ServiceManagerUnix.h"
#include "service/ServiceName.h"
#include "service/SysVFamily.h"
#include "support/Conversion.h"
#include "support/DiskFile.h"
#include "support/Stopping.h"
#include "support/SystemCall.h"

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {
/// A place where scripts are: what stands before a script's name is split at its last "/".
struct STScriptPlace
{
    std::wstring csDirectory;
    std::wstring csFilePrefix;
};

/// Name of the service whose script a file is; empty when it is none that is asked for, or is listed from an
/// earlier place already.
std::wstring csServiceOf(const STScriptPlace& stPlace, const std::wstring& csStart,
                         const std::wstring& csFile)
{
    if (!csFile.starts_with(stPlace.csFilePrefix)) {
        return {};
    }
    std::wstring csName = csFile.substr(stPlace.csFilePrefix.size());
    const bool bWanted = csName.starts_with(csStart) && bInertName(csName) &&
                         csScriptPath(csName) == stPlace.csDirectory + csFile;
    return bWanted ? csName : std::wstring();
}

/// Appends the names of the services whose scripts lie in one place; a place that does not exist has none.
/// False, with errno, when it cannot be read to its end.
bool bListPlace(const STScriptPlace& stPlace, const std::wstring& csStart, std::vector<std::wstring>* ptNames)
{
    const CDirectory pDirectory(::opendir(csToUTF8(stPlace.csDirectory).c_str()));
    if (pDirectory == nullptr) {
        return errno == ENOENT || errno == ENOTDIR;
    }
    for (;;) {
        errno = 0; // nothing else tells the end from a failure
        const dirent* const pstEntry = ::readdir(pDirectory.get());
        if (pstEntry == nullptr) {
            return errno == 0;
        }
        if (std::wstring csName = csServiceOf(stPlace, csStart, csFromUTF8(pstEntry->d_name));
            !csName.empty()) {
            ptNames->push_back(std::move(csName));
        }
    }
}

/// Where scripts of this machine's family lie. The family's own place comes first: a script there hides one
/// of the same name in the usual place.
std::vector<STScriptPlace> tScriptPlaces()
{
    const STScriptPlace stUsual{g_szScriptDirectory, L""};
    std::vector<STScriptPlace> tPlaces{stUsual};
    if (const STSysVFamily* const pstFamily = pstFindFamily(CServiceManager::ms_eDistri);
        pstFamily != nullptr) {
        STScriptPlace stOwn;
        CDiskFile::__SplitPath(pstFamily->pszScriptPrefix, &stOwn.csDirectory, &stOwn.csFilePrefix);
        if (stOwn.csDirectory != stUsual.csDirectory) {
            tPlaces.insert(tPlaces.begin(), stOwn);
        }
    }
    return tPlaces;
}

/// An existing file keeps its identity; whoever owned it, it is root's afterwards. One that cannot be made so
/// goes: root would run what is another user's.
bool bWriteScript(const std::wstring& csPath, const std::string& csText)
{
    constexpr mode_t nMode = 0755;
    const std::string csDisk = csToUTF8(csPath);
    if (!CDiskFile::bWriteFile(csPath, csText)) {
        return false;
    }
    if (::chown(csDisk.c_str(), 0, 0) == 0 && ::chmod(csDisk.c_str(), nMode) == 0) {
        return true;
    }
    const int nErrno = errno;
    (void)CDiskFile::bDelete(csPath);
    errno = nErrno;
    return false;
}
} // namespace

EDistri CServiceManager::__eFindDistri()
{
    return eFindDistribution();
}

std::unique_ptr<CService> CServiceManager::__pclGetServiceSysV(const std::wstring& csName)
{
    for (const std::wstring& csCandidate : {csScriptName(csName), csName}) {
        auto pclService = std::make_unique<CService>(this, csCandidate);
        if (pclService->bReadScript()) {
            return pclService;
        }
        if (errno != ENOENT) {
            return nullptr;
        }
    }
    return nullptr;
}

std::unique_ptr<CServiceEnumeration> CServiceManager::__pclEnumServiceSysV(const std::wstring& csPrefix)
{
    std::vector<std::wstring> tNames;
    for (const STScriptPlace& stPlace : tScriptPlaces()) {
        if (!bListPlace(stPlace, csScriptName(csPrefix), &tNames)) {
            return nullptr;
        }
    }

    std::vector<std::unique_ptr<CService>> tServices;
    for (const std::wstring& csName : tNames) {
        auto pclService = std::make_unique<CService>(this, csName);
        if (pclService->bReadScript()) {
            tServices.push_back(std::move(pclService));
        } else if (errno != ENOENT) { // not known is not gone
            return nullptr;
        }
    }
    return std::make_unique<CServiceEnumeration>(std::move(tServices));
}

std::unique_ptr<CService> CServiceManager::__pclInstallSysV(const std::wstring& csName,
                                                            const std::wstring& csDisplayName,
                                                            const std::wstring& csBinaryPath, bool bAutoStart)
{
    const std::wstring csScript = csScriptName(csName);
    const std::string csCommandLine = csToUTF8(csBinaryPath);
    const STSysVFamily* const pstFamily = pstFindFamily(ms_eDistri);
    if (pstFamily == nullptr || !bInertName(csScript) || !bScriptable(csCommandLine)) {
        errno = EINVAL;
        return nullptr;
    }
    // The script's name is that of its lock file too, and what the tools know the service by.
    std::string csText(*pstFamily->pcsTemplate);
    std::string csLockFile = csToUTF8(csScript);
    __PatchScript(&csText, &csLockFile, csCommandLine.c_str(), csToUTF8(csDisplayName).c_str());
    if (!bWriteScript(pstFamily->pszScriptPrefix + csScript, csText)) {
        return nullptr;
    }
    auto pclService = std::make_unique<CService>(this, csScript);
    if (bAutoStart) {
        pstFamily->pfnRegister(*pstFamily, csLockFile);
        if (!CStopping::bMayGoOn()) {
            pclService->AddMissingStep(L"start at boot");
        }
    }
    return pclService;
}
