// The SysV back end of CServiceManager: finds, lists and writes init scripts, and registers them with the
// family's own tool.

#include "service/CommandLine.h"
#include "service/Distribution.h"
#include "service/InitScript.h"
#include "service/ServiceManagerUnix.h"
#include "service/SysVFamily.h"
#include "support/Conversion.h"
#include "support/DiskFile.h"
#include "support/Stopping.h"
#include "support/SystemCall.h"

#include <cerrno>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>
#include <vector>

namespace {
/// A place where scripts lie: what precedes a script's name in its path, split at the last "/". (Slackware
/// has its scripts in a shared folder, with names that begin with "rc.".)
struct STScriptPlace
{
    std::wstring csDirectory;
    std::wstring csFilePrefix;
};

/// The service whose script a file is. Nothing when the file is no script, not one that is asked for, or
/// hidden by a script of the same name in an earlier place.
std::optional<CServiceName> clServiceOf(const STScriptPlace& stPlace, const std::wstring& csStart,
                                        const std::string& csFile)
{
    const std::string csPrefix = csToUTF8(stPlace.csFilePrefix);
    if (!csFile.starts_with(csPrefix)) {
        return std::nullopt;
    }

    // csScriptPath names the one file that counts for this service; only that one lists it. The comparison of
    // bytes also leaves out a file name that is not UTF-8, which no path of ours would find again.
    CServiceName clName = CServiceName::s_clListed(csFile.substr(csPrefix.size()));
    const bool bWanted = clName.csText().starts_with(csStart) && bInertName(clName.csText()) &&
                         csToUTF8(csScriptPath(clName.csText())) == csToUTF8(stPlace.csDirectory) + csFile;
    return bWanted ? std::optional(std::move(clName)) : std::nullopt;
}

/// Appends the names of the services whose scripts lie in one place; a place that does not exist has none.
/// False, with errno, when it cannot be read to its end.
bool bListPlace(const STScriptPlace& stPlace, const std::wstring& csStart, std::vector<CServiceName>* ptNames)
{
    const CDirectory pDirectory(::opendir(csToUTF8(stPlace.csDirectory).c_str()));
    if (pDirectory == nullptr) {
        return errno == ENOENT || errno == ENOTDIR;
    }

    for (;;) {
        // readdir returns null at the end, too: only errno tells a failure from it.
        errno = 0;
        const dirent* const pstEntry = ::readdir(pDirectory.get());
        if (pstEntry == nullptr) {
            return errno == 0;
        }
        if (std::optional<CServiceName> clName = clServiceOf(stPlace, csStart, pstEntry->d_name)) {
            ptNames->push_back(std::move(*clName));
        }
    }
}

/// A listing of scripts. All of them are read when the listing is made: reading files needs no launch of a
/// tool, so nothing is gained by waiting.
class CScriptListing : public CServiceEnumeration
{
public:
    /// Adds a service; null, with errno, stands for one that could not be read. Leaves out one that is absent
    /// (ENOENT). Returns false for any other errno: a service of which nothing is known may still exist.
    bool bAdd(std::unique_ptr<CService> pclService)
    {
        if (pclService == nullptr) {
            return errno == ENOENT;
        }
        _Add(std::move(pclService));
        return true;
    }

private:
    bool _bMore() override { return false; }
};

/// Where the scripts of this machine's family lie. The family's own place comes first: a script there hides
/// one of the same name in the usual place.
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

/// Writes a script that only root can change. A file that exists is replaced and gets that owner and mode,
/// too. When owner and mode cannot be set, the file is deleted: root would run what another user may change.
bool bWriteScript(const std::wstring& csPath, const std::string& csText)
{
    if (!CDiskFile::bWriteFile(csPath, csText)) {
        return false;
    }

    constexpr mode_t nMode = 0755;
    const std::string csDisk = csToUTF8(csPath);
    if (::chown(csDisk.c_str(), 0, 0) == 0 && ::chmod(csDisk.c_str(), nMode) == 0) {
        return true;
    }

    const int nErrno = errno; // of the call that failed
    std::ignore = CDiskFile::bDelete(csPath);
    errno = nErrno;
    return false;
}

/// Whether later lookups read from the script exactly the program that was registered.
bool bScriptReadsBack(const std::string& csText, const std::wstring& csCommandLine)
{
    // What is no text (a surrogate, say) does not survive the way through UTF-8.
    const std::string csBytes = csToUTF8(csCommandLine);
    if (!bScriptable(csBytes) || csFromUTF8(csBytes) != csCommandLine) {
        return false;
    }

    // The reader of the server's settings takes a backslash in the path for a slash.
    const std::wstring csProgram = csFromUTF8(stSplitCommandLine(csBytes).csProgram);
    if (csProgram.find(L'\\') != std::wstring::npos) {
        return false;
    }

    const std::optional<std::string> csRead = stProgramInScript(csText).csValue;
    return csRead && CProgram::s_clOf(csFromUTF8(*csRead)).csPath() == csProgram;
}

/// Whether a display name that is the service's own name, spaces included, is read back unchanged: nothing
/// else in the script says what the registry form has substituted. Any other display name may change.
bool bNameReadsBack(const std::string& csText, const CServiceName& clName, const std::wstring& csDisplayName)
{
    const bool bOwnName = CServiceName::s_clSaid(csDisplayName.c_str()) == clName;
    const bool bNothingSubstituted = clName.csRegisteredAs(csDisplayName.c_str()) == clName.csRegistry();
    if (!bOwnName || bNothingSubstituted) {
        return true;
    }

    const std::optional<std::string> csRead = stDisplayNameInScript(csText).csValue;
    return csRead && csFromUTF8(*csRead) == csDisplayName;
}
} // namespace

EDistri CServiceManager::__eFindDistri()
{
    return eFindDistribution();
}

std::unique_ptr<CService> CServiceManager::__pclGetServiceSysV(const CServiceName& clName)
{
    // First the script that an installation would write, then one that somebody else has given this very
    // name.
    for (const CServiceName& clCandidate :
         {clName.clRegistered(), CServiceName::s_clListed(csToUTF8(clName.csText()))}) {
        auto pclService = std::make_unique<CService>(this, clCandidate);
        if (pclService->bReadScript()) {
            return pclService;
        }
        if (errno != ENOENT) {
            return nullptr;
        }
    }
    return nullptr;
}

std::unique_ptr<CServiceEnumeration> CServiceManager::__pclEnumServiceSysV(const std::wstring& csPrefix,
                                                                           const wchar_t* pszFurther)
{
    // A place that cannot be read fails the whole listing: a server that is not listed would count as
    // removed.
    const std::wstring csStart = CServiceName::s_clSaid(csPrefix.c_str()).csScript();
    std::vector<CServiceName> tNames;
    for (const STScriptPlace& stPlace : tScriptPlaces()) {
        if (!bListPlace(stPlace, csStart, &tNames)) {
            return nullptr;
        }
    }

    auto pclListing = std::make_unique<CScriptListing>();
    for (const CServiceName& clName : tNames) {
        auto pclService = std::make_unique<CService>(this, clName);
        if (!pclListing->bAdd(pclService->bReadScript() ? std::move(pclService) : nullptr)) {
            return nullptr;
        }
    }

    if (pszFurther != nullptr && !pclListing->bAdd(__pclGetServiceSysV(CServiceName::s_clSaid(pszFurther)))) {
        return nullptr;
    }
    return pclListing;
}

std::unique_ptr<CService> CServiceManager::__pclInstallSysV(const CServiceName& clName,
                                                            const wchar_t* pszDisplayName,
                                                            const std::wstring& csBinaryPath, bool bAutoStart)
{
    const STSysVFamily* const pstFamily = pstFindFamily(ms_eDistri);
    if (pstFamily == nullptr) {
        errno = EINVAL;
        return nullptr;
    }

    // The script's name is also its lock file's, and the one by which the family's tools know the service.
    const std::wstring csScript = clName.csRegistry();
    const std::wstring csDisplayName(pszDisplayName != nullptr ? pszDisplayName : L"");
    std::string csScriptBytes = csToUTF8(csScript);
    std::string csText(*pstFamily->pcsTemplate);
    __PatchScript(&csText, &csScriptBytes, csToUTF8(csBinaryPath).c_str(), csToUTF8(csDisplayName).c_str());

    // Refuse what could not be read back: nobody could stop or remove such a service.
    if (!bScriptReadsBack(csText, csBinaryPath) || !bNameReadsBack(csText, clName, csDisplayName)) {
        errno = EINVAL;
        return nullptr;
    }

    if (!bWriteScript(pstFamily->pszScriptPrefix + csScript, csText)) {
        return nullptr;
    }

    auto pclService = std::make_unique<CService>(this, csScript.c_str());
    if (bAutoStart) {
        pstFamily->pfnRegister(*pstFamily, csScriptBytes);
        if (!CStopping::bMayGoOn()) {
            // The daemon's stop may have kept the tool from its work.
            pclService->AddMissingStep(L"start at boot");
        }
    }
    return pclService;
}
