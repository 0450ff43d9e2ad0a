// The SysV half of CService: drives the service's init script, and reads what it says about itself.

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
constexpr std::size_t s_nMaxScript = 1U << 20; ///< bytes; a larger file is no script

/// Limit of a status query. Without one a script that hangs would hold its caller for ever, and with it
/// everyone who waits for the lock of the service's name.
constexpr unsigned int s_nStatusLimitMs = 20'000;

/// Whether the error means that no such file exists: none can have a path that is too long or goes in
/// circles.
bool bIsAbsent(int nErrno)
{
    return nErrno == ENOENT || nErrno == ENOTDIR || nErrno == ELOOP || nErrno == ENAMETOOLONG;
}

/// Whether the error means that the file is something else than a script, so that another try is useless: a
/// folder, a FIFO or device, a file beyond s_nMaxScript, a socket.
bool bIsNoScript(int nErrno)
{
    return nErrno == EISDIR || nErrno == EINVAL || nErrno == EFBIG || nErrno == ENXIO;
}

/// The errno whose text a reply shows for a shell's exit code.
int nErrnoOfShell(int nExitCode)
{
    switch (nExitCode) {
    case 126:
        return EACCES; // found, but cannot be executed
    case 127:
        return ENOENT; // not found
    default:
        return ECANCELED;
    }
}
} // namespace

bool CService::_bScriptCommand(const wchar_t* pszVerb, const wchar_t* pszArguments,
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

    // Name and arguments are inert, so the line needs no quoting. The shell is there for the redirection.
    const std::wstring csLine =
        csPath + L" " + pszVerb + (csArguments.empty() ? L"" : L" ") + csArguments + L" " + pszRedirection;
    const int nStatus = nShell(csToUTF8(csLine));
    if (nStatus == -1) {
        return false;
    }

    // Only the exit code counts. WEXITSTATUS gives 0 for a shell that a signal ended, so that is a success;
    // clients rely on it.
    const int nExitCode = WEXITSTATUS(nStatus);
    if (nExitCode != 0) {
        errno = nErrnoOfShell(nExitCode);
    }
    return nExitCode == 0;
}

EServiceStatus CService::_eGetStatusByPidFile()
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

EServiceStatus CService::_eGetStatusSysV()
{
    const std::wstring csPath = csScriptPath(m_clName.csText());
    if (CServiceManager::ms_eDistri == DISTRI_SLACKWARE) {
        // Its scripts have no "status": the PID file must do.
        return csPath.empty() || !CDiskFile::bExists(csPath) ? STATUS_UNKNOWN : _eGetStatusByPidFile();
    }

    // Through the launcher and not the shell: only the launcher gives a script up that takes too long.
    CLanceProcessus clScript;
    unsigned int nExitCode = 0;
    if (csPath.empty() || !clScript.bLanceProcessus(csPath.c_str(), L"status", nullptr) ||
        !clScript.bAttendFinExecution(&nExitCode, s_nStatusLimitMs)) {
        return STATUS_UNKNOWN;
    }

    // The convention of init scripts: 0 is running, 1 is dead with a PID file left behind, 3 is stopped.
    // Every other code counts as stopped, too; clients rely on it.
    switch (nExitCode) {
    case 0:
        return STATUS_RUNNING;
    case 1:
        return STATUS_FAILED;
    default:
        return STATUS_STOPPED;
    }
}

bool CService::_bRemoveSysV()
{
    const STSysVFamily* const pstFamily = pstFindFamily(CServiceManager::ms_eDistri);
    if (pstFamily == nullptr) {
        // An unknown family has nothing to remove. Whether this counts as a success depends on what an
        // earlier operation has left in errno; clients rely on it.
        return errno == ENOENT;
    }

    if (!bInertName(m_clName.csText())) {
        errno = ENOENT;
        return false;
    }

    // The script goes last: without it nobody could stop what still runs.
    return bStopForRemoval() && pstFamily->pfnRemove(*pstFamily, m_clName.csText());
}

std::optional<std::string> CService::_csReadScriptFile() const
{
    std::string csScript;
    const std::wstring csPath = csScriptPath(m_clName.csText());
    if (csPath.empty() || !CDiskFile::bReadFile(csPath, &csScript, s_nMaxScript)) {
        return std::nullopt;
    }
    return csScript;
}

bool CService::bReadScript()
{
    const std::optional<std::string> csScript = _csReadScriptFile();
    if (!csScript) {
        errno = bIsAbsent(errno) ? ENOENT : errno;
        return bIsNoScript(errno); // what is no script counts as a service that says nothing about itself
    }

    if (const STMarker st = stProgramInScript(*csScript); st.csValue) {
        m_csBinaryPath = csFromUTF8(*st.csValue);
    }

    // Under systemd the name comes from the unit that was generated for the script.
    if (!m_csDisplayName && !CServiceManager::bSystemd()) {
        if (const STMarker st = stDisplayNameInScript(*csScript); st.csValue) {
            m_csDisplayName = csFromUTF8(*st.csValue);
        }
    }
    return true;
}

std::optional<std::wstring> CService::_csProgramInScriptFile(const std::wstring& csPath) const
{
    std::string csText;
    if (csPath.empty() || !CDiskFile::bReadFile(csPath, &csText, s_nMaxScript)) {
        return std::nullopt;
    }
    const std::optional<std::string> csProgram = csProgramStarted(csText, csToUTF8(m_clName.csText()));
    return csProgram ? std::optional(csFromUTF8(*csProgram)) : std::nullopt;
}

const wchar_t* CService::_pszDisplayNameFromScript()
{
    const std::optional<std::string> csScript = _csReadScriptFile();
    if (!csScript) {
        return nullptr;
    }

    const STMarker stName = stDisplayNameInScript(*csScript);
    if (!stName.bFound) {
        return pszGetName();
    }
    if (!stName.csValue) { // it has no closing quote, or only after the bytes that count
        errno = EINVAL;
        return nullptr;
    }

    m_csDisplayName = csFromUTF8(*stName.csValue);
    return m_csDisplayName->c_str();
}

void CService::SetBinaryPathFromSysVScript()
{
    const std::optional<std::string> csScript = _csReadScriptFile();
    if (!csScript) {
        return;
    }
    if (const STMarker stProgram = stProgramInScript(*csScript); stProgram.csValue) {
        m_csBinaryPath = csFromUTF8(*stProgram.csValue);
    }
}
