#include "service/ServiceManagerUnix.h"

#include "service/ServiceName.h"

#include <cerrno>

EDistri CServiceManager::ms_eDistri = DISTRI_UNKNOWN;

bool CServiceManager::bInit(const wchar_t*, unsigned int)
{
    if (ms_eDistri == DISTRI_UNKNOWN) {
        ms_eDistri = __bSystemdWorks() ? DISTRI_SYSTEMD : __eFindDistri();
    }
    return true;
}

CService* CServiceManager::pclGetService(const wchar_t* pszName, unsigned int)
{
    auto pclService = bSystemd() ? __pclGetServiceSystemd(pszName) : __pclGetServiceSysV(pszName);
    return pclService.release();
}

CService* CServiceManager::pclEnumService(unsigned long* pnCursor, const wchar_t* pszPrefix, unsigned int)
{
    std::shared_ptr<CServiceEnumeration> pclEnumeration;
    if (*pnCursor == 0) {
        pclEnumeration = bSystemd() ? __pclEnumServiceSystemd(pszPrefix) : __pclEnumServiceSysV(pszPrefix);
        if (pclEnumeration == nullptr) {
            *pnCursor = s_nFailedListing;
            return nullptr;
        }
        const std::lock_guard<std::mutex> clGuard(m_clLock);
        *pnCursor = ++m_nLastCursor;
        m_tEnumerations[*pnCursor] = pclEnumeration;
    } else {
        const std::lock_guard<std::mutex> clGuard(m_clLock);
        const auto pFound = m_tEnumerations.find(*pnCursor);
        if (pFound == m_tEnumerations.end()) {
            return nullptr;
        }
        pclEnumeration = pFound->second;
    }
    // Outside the lock: it may run a tool. Shared, so that it outlives an end of the listing meanwhile.
    auto pclService = pclEnumeration->pclNext();
    if (pclService == nullptr) {
        const std::lock_guard<std::mutex> clGuard(m_clLock);
        m_tEnumerations.erase(*pnCursor);
    }
    return pclService.release();
}

void CServiceManager::AbortEnumService(unsigned long* pnCursor)
{
    const std::lock_guard<std::mutex> clGuard(m_clLock);
    m_tEnumerations.erase(*pnCursor);
    if (!bSystemd()) {
        *pnCursor = 0;
    }
}

CService* CServiceManager::pclInstall(const wchar_t* pszName, const wchar_t* pszDisplayName,
                                      const wchar_t* pszBinaryPath, int bAutoStart, int bRestartOnAbnormal)
{
    auto pclService = bSystemd() ? __pclInstallSystemd(pszName, pszDisplayName, pszBinaryPath,
                                                       bAutoStart != 0, bRestartOnAbnormal != 0)
                                 : __pclInstallSysV(pszName, pszDisplayName, pszBinaryPath, bAutoStart != 0);
    return pclService.release();
}

CService* CServiceManager::pclInstallEx(const wchar_t* pszName, const wchar_t* pszDisplayName,
                                        const wchar_t* pszBinaryPath, unsigned int, const wchar_t*,
                                        const wchar_t*, unsigned int, unsigned int nStartType)
{
    return pclInstall(pszName, pszDisplayName, pszBinaryPath, nStartType == 2 ? 1 : 0, 0);
}

std::wstring CServiceManager::csRegisteredName(const std::wstring& csName)
{
    std::wstring csUnit = csName;
    if (!bSystemd()) {
        return csScriptName(csName);
    }
    (void)bUnitName(csName, &csUnit); // a name that no unit can have stands as it is: it equals none
    return csUnit;
}
