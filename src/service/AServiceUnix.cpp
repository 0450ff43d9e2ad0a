#include "service/AServiceUnix.h"

#include "service/CommandLine.h"
#include "service/ServiceManagerUnix.h"
#include "service/StrayProcesses.h"
#include "service/Systemctl.h"

#include <cerrno>

namespace {
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

const wchar_t* CService::pszGetDisplayName()
{
    if (!m_csDisplayName && !CServiceManager::bSystemd()) {
        return __pszDisplayNameFromScript();
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

bool CService::__bAsk(const wchar_t* pszVerb)
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
        return __bAsk(L"start");
    }
    return __bScriptCommand(L"start", pszArguments, L">/dev/null");
}

bool CService::bStop()
{
    return __bCommand(L"stop");
}

bool CService::bRestart()
{
    return __bCommand(L"restart");
}

bool CService::__bReload()
{
    return __bCommand(L"reload");
}

bool CService::__bCommand(const wchar_t* pszVerb)
{
    if (CServiceManager::bSystemd()) {
        return __bAsk(pszVerb);
    }
    return __bScriptCommand(pszVerb, nullptr, L">/dev/null 2>/dev/null");
}

bool CService::bSendControlCommand(unsigned int nCode)
{
    switch (nCode) {
    case CONTROL_STOP:
        return bStop();
    case CONTROL_RELOAD:
        return __bReload();
    default:
        errno = EINVAL;
        return false;
    }
}

EServiceStatus CService::eGetStatus()
{
    return CServiceManager::bSystemd() ? __eGetStatusSystemd() : __eGetStatusSysV();
}

bool CService::bActive()
{
    const EServiceStatus eStatus = eGetStatus();
    return eStatus == STATUS_START_PENDING || eStatus == STATUS_RUNNING;
}

bool CService::bStopForRemoval()
{
    constexpr int nAttempts = 3; // whoever else starts services may do so in between

    for (int n = 0; n < nAttempts; ++n) {
        // systemd's rule is to stop always: that also ends an automatic restart that is about to come.
        if (n > 0 || CServiceManager::bSystemd()) {
            (void)bStop();
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
    return CServiceManager::bSystemd() ? __bRemoveSystemd() : __bRemoveSysV();
}
