// The SysV half of CService.

#include "service/AServiceUnix.h"
#include "service/InitScript.h"
#include "service/LanceProcessus.h"
#include "service/ServerProcess.h"
#include "service/SysVFamily.h"
#include "support/Conversion.h"
#include "support/DiskFile.h"
#include "support/Shell.h"

#include <cerrno>
#include <sys/wait.h>

namespace {
constexpr std::size_t s_nMaxScript = 1U << 20;

/// A status query that takes longer has failed; without a limit, one hanging script would hold its caller for
/// ever, and whoever waits for the service lock.
constexpr unsigned int s_nStatusLimitMs = 20'000;

/// Whether there is no file of a name; none can have a name that is too long.
bool bIsAbsent(int nErrno)
{
    return nErrno == ENOENT || nErrno == ENOTDIR || nErrno == ELOOP || nErrno == ENAMETOOLONG;
}

/// Whether a file that could not be read is something else than a script, now and at the next try.
bool bIsNoScript(int nErrno)
{
    return nErrno == EISDIR || nErrno == EINVAL || nErrno == EFBIG || nErrno == ENXIO;
}

/// What a shell says with its exit code, as the error that a reply can tell.
int nErrnoOfShell(int nExitCode)
{
    switch (nExitCode) {
    case 126:
        return EACCES;
    case 127:
        return ENOENT;
    default:
        return ECANCELED;
    }
}
} // namespace

bool CService::__bScriptCommand(const wchar_t* pszVerb, const wchar_t* pszArguments,
                                const wchar_t* pszRedirection)
{
    const std::wstring csArguments(pszArguments != nullptr ? pszArguments : L"");
    const std::wstring csPath = csScriptPath(m_clName.csText());
    if (csPath.empty()) {
        return false;
    }
    if (!bInertWords(csArguments)) {
        errno = EINVAL;
        return false;
    }
    // Name and arguments are inert, so the line needs no quoting; it is the shell that redirects.
    const int nStatus = nShell(csToUTF8(csPath + L" " + pszVerb + (csArguments.empty() ? L"" : L" ") +
                                        csArguments + L" " + pszRedirection));
    const int nExitCode = nStatus == -1 ? -1 : WEXITSTATUS(nStatus);
    if (nStatus != -1 && nExitCode != 0) {
        errno = nErrnoOfShell(nExitCode);
    }
    return nExitCode == 0;
}

EServiceStatus CService::__eGetStatusByPidFile()
{
    switch (eReadPidFile(m_clName.csText(), csGetExecutable())) {
    case EPidFile::SERVER:
        return STATUS_RUNNING;
    case EPidFile::STALE:
        return STATUS_FAILED;
    default:
        return STATUS_STOPPED;
    }
}

EServiceStatus CService::__eGetStatusSysV()
{
    CLanceProcessus clScript;
    unsigned int nExitCode = 0;
    const std::wstring csPath = csScriptPath(m_clName.csText());
    if (CServiceManager::ms_eDistri == DISTRI_SLACKWARE) { // its script has no "status"
        return csPath.empty() || !CDiskFile::bExists(csPath) ? STATUS_UNKNOWN : __eGetStatusByPidFile();
    }
    // By the launcher and not by the shell: only it can give a hanging script up.
    if (csPath.empty() || !clScript.bLanceProcessus(csPath.c_str(), L"status", nullptr) ||
        !clScript.bAttendFinExecution(&nExitCode, s_nStatusLimitMs)) {
        return STATUS_UNKNOWN;
    }
    switch (nExitCode) {
    case 0:
        return STATUS_RUNNING;
    case 1:
        return STATUS_FAILED;
    default:
        return STATUS_STOPPED;
    }
}

bool CService::__bRemoveSysV()
{
    const STSysVFamily* const pstFamily = pstFindFamily(CServiceManager::ms_eDistri);
    if (pstFamily == nullptr) {
        return errno == ENOENT; // nothing to do on a machine of no known family
    }
    if (!bInertName(m_clName.csText())) {
        errno = ENOENT;
        return false;
    }
    return bStopForRemoval() && pstFamily->pfnRemove(*pstFamily, m_clName.csText());
}

bool CService::bReadScript()
{
    std::string csScript;
    const std::wstring csPath = csScriptPath(m_clName.csText());
    if (csPath.empty()) {
        return false;
    }
    if (!CDiskFile::bReadFile(csPath, &csScript, s_nMaxScript)) {
        errno = bIsAbsent(errno) ? ENOENT : errno;
        return bIsNoScript(errno);
    }
    if (const STMarker st = stProgramInScript(csScript); st.csValue) {
        m_csBinaryPath = csFromUTF8(*st.csValue);
    }
    if (!m_csDisplayName && !CServiceManager::bSystemd()) { // a unit has a description of its own
        if (const STMarker st = stDisplayNameInScript(csScript); st.csValue) {
            m_csDisplayName = csFromUTF8(*st.csValue);
        }
    }
    return true;
}

const wchar_t* CService::__pszDisplayNameFromScript()
{
    std::string csScript;
    const std::wstring csPath = csScriptPath(m_clName.csText());
    if (csPath.empty() || !CDiskFile::bReadFile(csPath, &csScript, s_nMaxScript)) {
        return nullptr;
    }
    const STMarker stName = stDisplayNameInScript(csScript);
    if (!stName.bFound) {
        return pszGetName();
    }
    if (!stName.csValue) {
        errno = EINVAL;
        return nullptr;
    }
    m_csDisplayName = csFromUTF8(*stName.csValue);
    return m_csDisplayName->c_str();
}

void CService::SetBinaryPathFromSysVScript()
{
    std::string csScript;
    const std::wstring csPath = csScriptPath(m_clName.csText());
    if (csPath.empty() || !CDiskFile::bReadFile(csPath, &csScript, s_nMaxScript)) {
        return;
    }
    if (const STMarker stProgram = stProgramInScript(csScript); stProgram.csValue) {
        m_csBinaryPath = csFromUTF8(*stProgram.csValue);
    }
}
