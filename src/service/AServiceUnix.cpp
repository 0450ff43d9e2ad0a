// The part of CService that both kinds of init system share, and the choice between them.

#include "service/AServiceUnix.h"

#include "service/CommandLine.h"
#include "service/ServiceManagerUnix.h"
#include "service/StrayProcesses.h"
#include "service/Systemctl.h"
#include "service/SysVFamily.h"

#include <cerrno>
#include <tuple>

namespace {
/// A text as a field of the record: a null pointer leaves it null.
std::optional<std::wstring> csField(const wchar_t* psz)
{
    return psz != nullptr ? std::optional<std::wstring>(psz) : std::nullopt;
}
} // namespace

CService::CService(CServiceManager* pclManager, const wchar_t* pszName)
    : CService(pclManager, CServiceName::s_clSaid(pszName))
{}

CService::CService(CServiceManager* pclManager, const wchar_t* pszName, const wchar_t* pszDisplayName,
                   const wchar_t* pszBinaryPath)
    : CService(pclManager, CServiceName::s_clSaid(pszName), csField(pszDisplayName), csField(pszBinaryPath))
{}

CService::CService(CServiceManager* pclManager, CServiceName clName,
                   std::optional<std::wstring> csDisplayName, std::optional<std::wstring> csBinaryPath,
                   std::optional<std::wstring> csExecutable)
    : m_pclManager(pclManager), m_clName(std::move(clName)), m_csBinaryPath(std::move(csBinaryPath)),
      m_csDisplayName(std::move(csDisplayName)), m_csExecutable(std::move(csExecutable))
{}

// Under systemd the lookup has filled the fields of the next two operations from what systemctl shows: there
// a null field stays null.
const wchar_t* CService::pszGetDisplayName()
{
    if (!m_csDisplayName && !CServiceManager::bSystemd()) {
        return _pszDisplayNameFromScript();
    }
    return m_csDisplayName ? m_csDisplayName->c_str() : nullptr;
}

const wchar_t* CService::pszBinaryPathName()
{
    if (!m_csBinaryPath && !CServiceManager::bSystemd()) {
        SetBinaryPathFromSysVScript();
    }
    return m_csBinaryPath ? m_csBinaryPath->c_str() : nullptr;
}

std::wstring CService::csGetExecutable()
{
    if (m_csExecutable) {
        return *m_csExecutable;
    }
    const wchar_t* pszCommandLine = pszBinaryPathName();
    return CProgram::s_clOf(pszCommandLine != nullptr ? pszCommandLine : L"").csPath();
}

std::optional<std::wstring> CService::csProgramOnDisk()
{
    return CServiceManager::bSystemd() ? _csProgramOnDiskSystemd()
                                       : _csProgramInScriptFile(csScriptPath(m_clName.csText()));
}

bool CService::_bUnitCommand(const wchar_t* pszVerb)
{
    if (m_clName.csAsked().empty()) {
        errno = ENOENT;
        return false;
    }
    return bSystemctlDone(pszVerb + (L" " + m_clName.csAsked()));
}

void CService::AddMissingStep(const std::wstring& csStep)
{
    m_csMissingSteps += (m_csMissingSteps.empty() ? L"" : L", ") + csStep;
}

bool CService::bStart(const wchar_t* pszArguments)
{
    if (CServiceManager::bSystemd()) {
        return _bUnitCommand(L"start");
    }

    // The script's standard error stays open: whoever runs the manager in the foreground sees its complaints.
    return _bScriptCommand(L"start", pszArguments, L">/dev/null");
}

bool CService::bStop()
{
    return _bCommand(L"stop");
}

bool CService::bRestart()
{
    return _bCommand(L"restart");
}

bool CService::_bReload()
{
    return _bCommand(L"reload");
}

bool CService::_bCommand(const wchar_t* pszVerb)
{
    if (CServiceManager::bSystemd()) {
        return _bUnitCommand(pszVerb);
    }
    return _bScriptCommand(pszVerb, nullptr, L">/dev/null 2>/dev/null");
}

bool CService::bSendControlCommand(unsigned int nCode)
{
    switch (nCode) {
    case CONTROL_STOP:
        return bStop();
    case CONTROL_RELOAD:
        return _bReload();
    default: // a code of other systems, or none at all: runs nothing
        errno = EINVAL;
        return false;
    }
}

EServiceStatus CService::eGetStatus()
{
    return CServiceManager::bSystemd() ? _eGetStatusSystemd() : _eGetStatusSysV();
}

bool CService::bActive()
{
    const EServiceStatus eStatus = eGetStatus();
    return eStatus == STATUS_START_PENDING || eStatus == STATUS_RUNNING;
}

bool CService::bStopForRemoval()
{
    // Somebody else may start the service between the stop and the look.
    constexpr int nAttempts = 3;

    for (int n = 0; n < nAttempts; ++n) {
        // A script is first asked whether there is anything to stop. systemd is told to stop at once, even
        // what does not run: the stop cancels an automatic restart that is due.
        if (n > 0 || CServiceManager::bSystemd()) {
            std::ignore = bStop(); // the status decides
        }

        const EServiceStatus eStatus = eGetStatus();
        if (eStatus == STATUS_STOPPED || eStatus == STATUS_FAILED) {
            return CServiceManager::bSystemd() || bEndStrayProcesses(csGetExecutable(), m_clName.csText());
        }
    }

    errno = EBUSY;
    return false;
}

bool CService::bRemove()
{
    return CServiceManager::bSystemd() ? _bRemoveSystemd() : _bRemoveSysV();
}
