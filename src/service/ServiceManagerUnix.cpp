// The part of CServiceManager that both back ends share: the choice between them, and the cursors of
// listings.

#include "service/ServiceManagerUnix.h"

#include "service/ServiceName.h"

#include <cerrno>

EDistri CServiceManager::ms_eDistri = DISTRI_UNKNOWN;

std::unique_ptr<CService> CServiceEnumeration::pclNext()
{
    while (m_tReady.empty()) {
        if (m_nError != 0 || !_bMore()) {
            return nullptr;
        }
    }

    std::unique_ptr<CService> pclService = std::move(m_tReady.front());
    m_tReady.pop_front();
    return pclService;
}

bool CServiceManager::bInit(const wchar_t*, unsigned int)
{
    if (ms_eDistri == DISTRI_UNKNOWN) {
        ms_eDistri = _bSystemdWorks() ? DISTRI_SYSTEMD : __eFindDistri();
    }
    return true;
}

CService* CServiceManager::pclGetService(const wchar_t* pszName, unsigned int)
{
    // A lookup under systemd replaces some characters of the name that was said; see clLookedUp.
    const CServiceName clName = CServiceName::s_clSaid(pszName);
    auto pclService = bSystemd() ? __pclGetServiceSystemd(clName.clLookedUp()) : __pclGetServiceSysV(clName);
    return pclService.release();
}

std::shared_ptr<CServiceEnumeration>
CServiceManager::_pclEnumeration(unsigned long* pnCursor, const wchar_t* pszPrefix, const wchar_t* pszFurther)
{
    if (*pnCursor != 0) {
        const std::lock_guard<std::mutex> clGuard(m_clMutex);
        const auto pFound = m_tEnumerations.find(*pnCursor);
        return pFound != m_tEnumerations.end() ? pFound->second : nullptr; // null: ended, aborted or failed
    }

    std::shared_ptr<CServiceEnumeration> pclMade = bSystemd() ? __pclEnumServiceSystemd(pszPrefix, pszFurther)
                                                              : __pclEnumServiceSysV(pszPrefix, pszFurther);
    if (pclMade == nullptr) {
        *pnCursor = s_nFailedListing;
        return nullptr;
    }

    const std::lock_guard<std::mutex> clGuard(m_clMutex);
    *pnCursor = ++m_nLastCursor;
    m_tEnumerations[*pnCursor] = pclMade;
    return pclMade;
}

CService* CServiceManager::pclEnumServiceAnd(unsigned long* pnCursor, const wchar_t* pszPrefix,
                                             const wchar_t* pszFurther)
{
    const std::shared_ptr<CServiceEnumeration> pclEnumeration =
        _pclEnumeration(pnCursor, pszPrefix, pszFurther);
    if (pclEnumeration == nullptr) {
        return nullptr;
    }

    // Without the mutex, as this may run a tool. The pointer is shared: another thread may abort the
    // enumeration.
    auto pclService = pclEnumeration->pclNext();

    if (pclService == nullptr) { // at the end, or failed: either way the cursor names nothing any more
        {
            const std::lock_guard<std::mutex> clGuard(m_clMutex);
            m_tEnumerations.erase(*pnCursor);
        }
        if (pclEnumeration->nError() != 0) {
            *pnCursor = s_nFailedListing;
            errno = pclEnumeration->nError();
        }
    }
    return pclService.release();
}

void CServiceManager::AbortEnumService(unsigned long* pnCursor)
{
    const std::lock_guard<std::mutex> clGuard(m_clMutex);
    m_tEnumerations.erase(*pnCursor);
    if (!bSystemd()) {
        *pnCursor = 0;
    }
}

CService* CServiceManager::pclInstall(const wchar_t* pszName, const wchar_t* pszDisplayName,
                                      const wchar_t* pszBinaryPath, int bAutoStart, int bRestartOnAbnormal)
{
    const CServiceName clName = CServiceName::s_clSaid(pszName);
    const std::wstring csBinaryPath(pszBinaryPath != nullptr ? pszBinaryPath : L"");
    if (!clName.bInstallable()) {
        errno = EINVAL;
        return nullptr;
    }

    auto pclService = bSystemd() ? __pclInstallSystemd(clName, pszDisplayName, csBinaryPath, bAutoStart != 0,
                                                       bRestartOnAbnormal != 0)
                                 : __pclInstallSysV(clName, pszDisplayName, csBinaryPath, bAutoStart != 0);
    return pclService.release();
}

CService* CServiceManager::pclInstallEx(const wchar_t* pszName, const wchar_t* pszDisplayName,
                                        const wchar_t* pszBinaryPath, unsigned int, const wchar_t*,
                                        const wchar_t*, unsigned int, unsigned int nStartType)
{
    return pclInstall(pszName, pszDisplayName, pszBinaryPath, nStartType == 2 ? 1 : 0, 0);
}

std::optional<std::vector<std::unique_ptr<CService>>>
CServiceManager::tRegistered(const wchar_t* pszPrefix, std::initializer_list<const wchar_t*> tFurther)
{
    std::vector<std::unique_ptr<CService>> tServices;
    CServiceListing clListing(this, pszPrefix);
    while (auto pclService = clListing.pclNext()) {
        tServices.push_back(std::move(pclService));
    }
    if (clListing.bFailed()) {
        errno = clListing.nError();
        return std::nullopt;
    }

    for (const wchar_t* pszName : tFurther) {
        if (std::unique_ptr<CService> pclService(pclGetService(pszName)); pclService != nullptr) {
            tServices.push_back(std::move(pclService));
        } else if (errno != ENOENT) {
            return std::nullopt;
        }
    }

    // The listing above has only what systemd has loaded; a unit that neither is enabled nor runs may be
    // missing.
    if (bSystemd() && !_bAddUnloaded(pszPrefix, tFurther, &tServices)) {
        return std::nullopt;
    }
    return tServices;
}

std::wstring CServiceManager::csLockName(const std::wstring& csName)
{
    const CServiceName clName = CServiceName::s_clSaid(csName.c_str());
    return bSystemd() ? clName.clLookedUp().csRegistry() : clName.csRegistry();
}
