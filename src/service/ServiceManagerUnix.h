#pragma once

#include "service/AServiceUnix.h"
#include "service/ServiceLocks.h"
#include "support/XYString.h"

#include <cerrno>
#include <deque>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

/// Init-system family of the machine.
enum EDistri : int
{
    DISTRI_DEBIAN = 0,
    DISTRI_REDHAT = 1,
    DISTRI_MANDRAKE = 2,
    DISTRI_FEDORA = 3,
    DISTRI_SUSE = 4,
    DISTRI_GENTOO = 5,
    DISTRI_SLACKWARE = 6,
    DISTRI_SYSTEMD = 7, ///< every other value is a SysV flavour
    DISTRI_UNKNOWN = 8, ///< before bInit
};

/// One listing of services; made by a back end, stepped by one thread.
class CServiceEnumeration
{
public:
    virtual ~CServiceEnumeration() = default;
    /// Next record. Null at the end, and from the place on where the listing fails.
    std::unique_ptr<CService> pclNext();
    /// The errno of a listing that has failed; 0 otherwise.
    int nError() const { return m_nError; }

protected:
    void _Add(std::unique_ptr<CService> pclService) { m_tReady.push_back(std::move(pclService)); }
    /// What was added and not handed out yet goes: of the last batch nothing is to be used.
    void _Fail(int nError)
    {
        m_nError = nError;
        m_tReady.clear();
    }

private:
    /// Looks up what comes next and adds it; false when nothing is left. Called when all records that were
    /// added have been handed out.
    virtual bool _bMore() = 0;

    std::deque<std::unique_ptr<CService>> m_tReady;
    int m_nError = 0;
};

/// Entry to the machine's service registry: looks services up by name, lists those whose names begin with a
/// prefix, installs new ones. Records returned belong to the caller.
///
/// bInit comes first, on one thread; after that all operations may run in several threads at once, each
/// enumeration with a cursor of its own. Absence and failure are both null; of a lookup, a listing and an
/// installation errno tells why. Nothing throws but std::bad_alloc.
class CServiceManager
{
public:
    /// Family of the machine, detected by the first bInit of the process and fixed from then on.
    static EDistri ms_eDistri;
    static bool bSystemd() { return ms_eDistri == DISTRI_SYSTEMD; }

    /// Detects the init system if that has not happened yet. Always true; the arguments are not looked at.
    bool bInit(const wchar_t* pszReserved, unsigned int nReserved);

    /// Null with ENOENT when there is no such service; with any other error it is not known whether there is.
    CService* pclGetService(const wchar_t* pszName, unsigned int nReserved = 0);
    /// Cursor of a listing that failed: it could not be made, or a service in it could not be looked up. That
    /// is not the end of one. Services may have been handed out before.
    static constexpr unsigned long s_nFailedListing = ~0UL;
    /// The cursor is 0 before the first call and opaque afterwards. Null at the end, and again with the
    /// cursor of an enumeration that has ended, which may be aborted all the same.
    CService* pclEnumService(unsigned long* pnCursor, const wchar_t* pszPrefix, unsigned int nReserved = 0)
    {
        (void)nReserved;
        return pclEnumServiceAnd(pnCursor, pszPrefix, nullptr);
    }
    /// The same with one more service, of any name (null: none), which comes last if it exists: to ask for it
    /// together with the last ones listed costs next to nothing.
    CService* pclEnumServiceAnd(unsigned long* pnCursor, const wchar_t* pszPrefix, const wchar_t* pszFurther);
    /// Ends an enumeration early and releases what it still holds. On SysV the cursor is then 0, that of a
    /// new enumeration; under systemd it stays and gives null: intended.
    void AbortEnumService(unsigned long* pnCursor);
    /// Registers a service under a command line; neither starts it nor checks that the name is free.
    /// bRestartOnAbnormal is for systemd only.
    CService* pclInstall(const wchar_t* pszName, const wchar_t* pszDisplayName, const wchar_t* pszBinaryPath,
                         int bAutoStart, int bRestartOnAbnormal);
    /// The same with classic arguments; start type 2 is automatic, all others are not looked at.
    CService* pclInstallEx(const wchar_t* pszName, const wchar_t* pszDisplayName,
                           const wchar_t* pszBinaryPath, unsigned int nServiceType,
                           const wchar_t* pszReserved1, const wchar_t* pszReserved2, unsigned int nReserved,
                           unsigned int nStartType);
    /// Value of one unit property; empty when there is none (systemd only).
    CTString csGetSystemdProp(const char* pszProperty, const wchar_t* pszName);
    /// The same; null, with errno, when systemd could not be asked.
    std::optional<std::wstring> csAskSystemdProp(const char* pszProperty, const CServiceName& clName);

    /// One change of one service at a time. The operations of records take no lock themselves: who changes a
    /// service asks about it first, under the same lock.
    CServiceLocks& clGetLocks() { return m_clLocks; }

    /// The form in which the name of a service that is said stands in the registry, for its lock.
    static std::wstring csRegisteredName(const std::wstring& csName);

    /// All services whose names begin with the prefix, and those of the further names that exist: also such
    /// as no listing holds, being neither enabled nor running, or masked: of those that systemd does not show
    /// only the name is known. Null, with errno, when all that cannot be told.
    std::optional<std::vector<std::unique_ptr<CService>>>
    tRegistered(const wchar_t* pszPrefix, std::initializer_list<const wchar_t*> tFurther);

    /// Takes back an installation that systemd itself refuses ("bad unit file setting" and the like): the
    /// unit that was written, with its links. False when it does not refuse the service, which then stays.
    bool bTakeBackRefused(const CService& clService);

private:
    friend class CSystemdListing;

    static bool __bSystemdWorks();
    /// Adds the services that only have a unit file. False, with errno, when they cannot be listed.
    bool __bAddUnloaded(std::initializer_list<const wchar_t*> tFurther, const wchar_t* pszPrefix,
                        std::vector<std::unique_ptr<CService>>* ptServices);
    static EDistri __eFindDistri();

    std::unique_ptr<CService> __pclGetServiceSystemd(const CServiceName& clName);
    /// The record of one unit, from what "show" printed of it; null when that is no unit.
    std::unique_ptr<CService> __pclMakeShown(const CServiceName& clName, std::string_view csOutput);
    std::unique_ptr<CServiceEnumeration> __pclEnumServiceSystemd(const std::wstring& csPrefix,
                                                                 const wchar_t* pszFurther);
    std::unique_ptr<CService> __pclInstallSystemd(const CServiceName& clName, const wchar_t* pszDisplayName,
                                                  const std::wstring& csBinaryPath, bool bAutoStart,
                                                  bool bRestartOnAbnormal);

    std::unique_ptr<CService> __pclGetServiceSysV(const CServiceName& clName);
    std::unique_ptr<CServiceEnumeration> __pclEnumServiceSysV(const std::wstring& csPrefix,
                                                              const wchar_t* pszFurther);
    std::unique_ptr<CService> __pclInstallSysV(const CServiceName& clName, const wchar_t* pszDisplayName,
                                               const std::wstring& csBinaryPath, bool bAutoStart);

    CServiceLocks m_clLocks;
    std::mutex m_clLock; ///< guards the two members below, never held while a tool runs
    std::map<unsigned long, std::shared_ptr<CServiceEnumeration>> m_tEnumerations;
    unsigned long m_nLastCursor = 0;
};

/// One listing of services, which ends with the object, also when it is left early or by an exception.
class CServiceListing
{
public:
    /// All of them must outlive the object. pszFurther: see CServiceManager::pclEnumServiceAnd.
    CServiceListing(CServiceManager* pclManager, const wchar_t* pszPrefix,
                    const wchar_t* pszFurther = nullptr)
        : m_pclManager(pclManager), m_pszPrefix(pszPrefix), m_pszFurther(pszFurther)
    {}
    CServiceListing(const CServiceListing&) = delete;
    CServiceListing& operator=(const CServiceListing&) = delete;
    ~CServiceListing() { m_pclManager->AbortEnumService(&m_nCursor); }

    /// Next service, null at the end or when the listing fails.
    std::unique_ptr<CService> pclNext()
    {
        std::unique_ptr<CService> pclService(
            m_pclManager->pclEnumServiceAnd(&m_nCursor, m_pszPrefix, m_pszFurther));
        if (pclService == nullptr && bFailed() && m_nError == 0) {
            m_nError = errno;
        }
        return pclService;
    }
    /// Whether pclNext was null because the listing failed.
    bool bFailed() const { return m_nCursor == CServiceManager::s_nFailedListing; }
    /// Why it failed.
    int nError() const { return m_nError; }

private:
    CServiceManager* m_pclManager;
    const wchar_t* m_pszPrefix;
    const wchar_t* m_pszFurther;
    unsigned long m_nCursor = 0;
    int m_nError = 0;
};
