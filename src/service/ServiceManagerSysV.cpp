// The SysV back end: init scripts, and their registration with the family's own tool.

#include "service/Distribution.h"
#include "service/InitScript.h"
#include "service/ServiceManagerUnix.h"
#include "service/ServiceName.h"
#include "service/SysVFamily.h"
#include "support/Conversion.h"
#include "support/DiskFile.h"
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

/// Walks through the directories of a family's scripts. A directory's handle is closed when the walk leaves
/// it.
class CScriptEnumeration : public CServiceEnumeration
{
public:
    CScriptEnumeration(CServiceManager* pclManager, std::vector<STScriptPlace> tPlaces, std::wstring csStart)
        : m_pclManager(pclManager), m_tPlaces(std::move(tPlaces)), m_csStart(std::move(csStart))
    {}

    /// Opens the next directory that can be opened; false when there is none.
    bool bOpenNext()
    {
        m_pDirectory.reset();
        while (m_pDirectory == nullptr && m_nOpened < m_tPlaces.size()) {
            m_pDirectory.reset(::opendir(csToUTF8(m_tPlaces[m_nOpened++].csDirectory).c_str()));
        }
        return m_pDirectory != nullptr;
    }

    std::unique_ptr<CService> pclNext() override
    {
        while (m_pDirectory != nullptr) {
            const dirent* const pstEntry = ::readdir(m_pDirectory.get());
            if (pstEntry == nullptr) {
                (void)bOpenNext();
            } else if (const std::wstring csName = __csServiceOf(csFromUTF8(pstEntry->d_name));
                       !csName.empty()) {
                return std::make_unique<CService>(m_pclManager, csName);
            }
        }
        return nullptr;
    }

private:
    /// Name of the service whose script a file of the current directory is; empty when it is none that is
    /// asked for, or was handed out before from an earlier directory.
    std::wstring __csServiceOf(const std::wstring& csFile) const
    {
        const STScriptPlace& stPlace = m_tPlaces[m_nOpened - 1];
        if (!csFile.starts_with(stPlace.csFilePrefix)) {
            return {};
        }
        std::wstring csName = csFile.substr(stPlace.csFilePrefix.size());
        const bool bWanted = csName.starts_with(m_csStart) && bInertName(csName) &&
                             csScriptPath(csName) == stPlace.csDirectory + csFile;
        return bWanted ? csName : std::wstring();
    }

    CServiceManager* m_pclManager; ///< not owned
    std::vector<STScriptPlace> m_tPlaces;
    std::wstring m_csStart;
    std::size_t m_nOpened = 0; ///< places up to this one have been opened or passed over
    CDirectory m_pDirectory;
};

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
        const std::wstring csPath = csScriptPath(csCandidate);
        if (!csPath.empty() && CDiskFile::bExists(csPath)) {
            return std::make_unique<CService>(this, csCandidate);
        }
    }
    return nullptr;
}

std::unique_ptr<CServiceEnumeration> CServiceManager::__pclEnumServiceSysV(const std::wstring& csPrefix)
{
    // The family's own place first: a script there hides one of the same name in the usual place.
    const STScriptPlace stUsual{g_szScriptDirectory, L""};
    std::vector<STScriptPlace> tPlaces{stUsual};
    if (const STSysVFamily* const pstFamily = pstFindFamily(ms_eDistri); pstFamily != nullptr) {
        STScriptPlace stOwn;
        CDiskFile::__SplitPath(pstFamily->pszScriptPrefix, &stOwn.csDirectory, &stOwn.csFilePrefix);
        if (stOwn.csDirectory != stUsual.csDirectory) {
            tPlaces.insert(tPlaces.begin(), stOwn);
        }
    }
    auto pclEnumeration =
        std::make_unique<CScriptEnumeration>(this, std::move(tPlaces), csScriptName(csPrefix));
    if (!pclEnumeration->bOpenNext()) {
        return nullptr;
    }
    return pclEnumeration;
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
    if (bAutoStart) {
        pstFamily->pfnRegister(*pstFamily, csLockFile);
    }
    return std::make_unique<CService>(this, csScript);
}
