#include "service/AServiceUnix.h"

#include "service/ServiceManagerUnix.h"
#include "service/Systemctl.h"

#include <algorithm>
#include <cerrno>

CService::CService(CServiceManager* pclManager, std::wstring csName)
    : m_pclManager(pclManager), m_csName(std::move(csName))
{}

CService::CService(CServiceManager* pclManager, std::wstring csName,
                   std::optional<std::wstring> csDisplayName, std::optional<std::wstring> csBinaryPath)
    : m_pclManager(pclManager), m_csName(std::move(csName)), m_csBinaryPath(std::move(csBinaryPath)),
      m_csDisplayName(std::move(csDisplayName))
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
    const wchar_t* pszCommandLine = pszBinaryPathName();
    std::wstring csPath(pszCommandLine != nullptr ? pszCommandLine : L"");
    csPath.erase(std::min(csPath.find(L" --"), csPath.size()));
    csPath.erase(csPath.find_last_not_of(L' ') + 1);
    csPath.erase(0, std::min(csPath.find_first_not_of(L' '), csPath.size()));
    return csPath;
}

void CService::AddMissingStep(const std::wstring& csStep)
{
    m_csMissingSteps += (m_csMissingSteps.empty() ? L"" : L", ") + csStep;
}

bool CService::bStart(const wchar_t* pszArguments)
{
    if (CServiceManager::bSystemd()) {
        return bSystemctlDone(L"start " + m_csName);
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
        return bSystemctlDone(pszVerb + (L" " + m_csName));
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

bool CService::__bStopForRemoval()
{
    constexpr int nAttempts = 3; // whoever else starts services may do so in between

    for (int n = 0; n < nAttempts; ++n) {
        // systemd's rule is to stop always: that also ends an automatic restart that is about to come.
        if (n > 0 || CServiceManager::bSystemd()) {
            (void)bStop();
        }
        const EServiceStatus eStatus = eGetStatus();
        if (eStatus == STATUS_STOPPED || eStatus == STATUS_FAILED) {
            return true;
        }
    }
    errno = EBUSY;
    return false;
}

bool CService::bRemove()
{
    return CServiceManager::bSystemd() ? __bRemoveSystemd() : __bRemoveSysV();
}
