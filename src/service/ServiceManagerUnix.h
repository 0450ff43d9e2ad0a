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

/// The registry's side of a listing: what a back end has found. It lies in the registry under the number of
/// the caller's cursor. One thread steps through it. (CServiceListing is the caller's side.)
class CServiceEnumeration
{
public:
    virtual ~CServiceEnumeration() = default;
    /// Next record. Null at the end, and once the listing has failed (nError).
    std::unique_ptr<CService> pclNext();
    /// The errno of a listing that has failed; 0 otherwise.
    int nError() const { return m_nError; }

protected:
    void _Add(std::unique_ptr<CService> pclService) { m_tReady.push_back(std::move(pclService)); }
    /// Makes the listing fail, for good. Records that were added and not yet handed out are dropped: they
    /// belong to the batch that failed.
    void _Fail(int nError)
    {
        m_nError = nError;
        m_tReady.clear();
    }

private:
    /// Looks up the next batch and adds its records, perhaps none; false when no batch is left. Called when
    /// all records that were added have been handed out.
    virtual bool _bMore() = 0;

    std::deque<std::unique_ptr<CService>> m_tReady;
    int m_nError = 0;
};

/// Entry to the machine's service registry: looks services up by name, lists those whose names begin with a
/// prefix, installs new ones. The caller owns the records that are returned.
///
/// bInit comes first, on one thread. After that all operations may run in several threads at once, each
/// enumeration with a cursor of its own. Null means absent or failed: after a lookup or an installation errno
/// says which, in an enumeration the cursor (s_nFailedListing; errno then says why). Nothing throws but
/// std::bad_alloc.
class CServiceManager
{
public:
    /// Family of the machine, detected by the first bInit of the process and fixed from then on.
    static EDistri ms_eDistri;
    static bool bSystemd() { return ms_eDistri == DISTRI_SYSTEMD; }

    /// Detects the init system if that has not happened yet. Always true; the arguments are ignored.
    bool bInit(const wchar_t* pszReserved, unsigned int nReserved);

    /// Null with ENOENT when there is no such service. With any other errno it is unknown whether there is
    /// one.
    CService* pclGetService(const wchar_t* pszName, unsigned int nReserved = 0);
    /// Cursor of an enumeration that failed: it could not be made, or a service in it could not be looked up.
    /// Services may have been handed out before. An enumeration that ends without failure never gets this
    /// cursor.
    static constexpr unsigned long s_nFailedListing = ~0UL;
    /// The cursor is 0 before the first call and opaque afterwards. Null at the end, and at each call after
    /// it; an enumeration that has ended may be aborted all the same.
    CService* pclEnumService(unsigned long* pnCursor, const wchar_t* pszPrefix,
                             unsigned int /*nReserved*/ = 0)
    {
        return pclEnumServiceAnd(pnCursor, pszPrefix, nullptr);
    }
    /// The same with one more service, of any name (null: none), which comes last if it exists. Under systemd
    /// it is asked about together with the last ones listed, which costs next to nothing.
    CService* pclEnumServiceAnd(unsigned long* pnCursor, const wchar_t* pszPrefix, const wchar_t* pszFurther);
    /// Ends an enumeration early and releases what it still holds. On SysV the cursor becomes 0, that of a
    /// new enumeration; under systemd it is unchanged and yields null from then on. Clients rely on the
    /// difference.
    void AbortEnumService(unsigned long* pnCursor);
    /// Registers a service with a command line; with bAutoStart it starts at boot. Neither starts it now nor
    /// checks that the name is free. bRestartOnAbnormal counts under systemd only. Null with EINVAL, and
    /// nothing written, for a name or a program that a later lookup would not find or would read differently.
    CService* pclInstall(const wchar_t* pszName, const wchar_t* pszDisplayName, const wchar_t* pszBinaryPath,
                         int bAutoStart, int bRestartOnAbnormal);
    /// The same with classic arguments: start type 2 is automatic, no other is. The service type and the
    /// reserved arguments are ignored.
    CService* pclInstallEx(const wchar_t* pszName, const wchar_t* pszDisplayName,
                           const wchar_t* pszBinaryPath, unsigned int nServiceType,
                           const wchar_t* pszReserved1, const wchar_t* pszReserved2, unsigned int nReserved,
                           unsigned int nStartType);
    /// Value of one unit property; empty when there is none, or systemd could not be asked (systemd only).
    CTString csGetSystemdProp(const char* pszProperty, const wchar_t* pszName);
    /// The same, but nothing, with errno, when systemd could not be asked.
    std::optional<std::wstring> csAskSystemdProp(const char* pszProperty, const CServiceName& clName);

    /// The locks that allow one change of one service at a time. The operations of records take no lock
    /// themselves: callers look at a service before they change it, and hold its lock for both.
    CServiceLocks& clGetLocks() { return m_clLocks; }

    /// The key of a service's lock: the registry form (CServiceName) of the name that a lookup for this name
    /// looks for.
    static std::wstring csLockName(const std::wstring& csName);

    /// All services whose names begin with the prefix, and those of the further names that exist. Unlike an
    /// enumeration, it also finds services that are masked, or neither enabled nor running. Of a service that
    /// systemd does not show only the name is known. Nothing, with errno, on failure.
    std::optional<std::vector<std::unique_ptr<CService>>>
    tRegistered(const wchar_t* pszPrefix, std::initializer_list<const wchar_t*> tFurther);

    /// Takes back an installation when systemd refuses its unit ("bad unit file setting" and the like):
    /// deletes the unit file and its links. What the file held before the installation is not known here.
    /// False when systemd does not refuse the unit; the service then stays. Keeps errno.
    bool bTakeBackRefused(const CService& clService);

private:
    friend class CSystemdListing;

    static bool _bSystemdWorks();
    /// Adds the services that systemd has not loaded. False, with errno, when they cannot be listed.
    bool _bAddUnloaded(const wchar_t* pszPrefix, std::initializer_list<const wchar_t*> tFurther,
                       std::vector<std::unique_ptr<CService>>* ptServices);
    /// Family of a machine on which systemd does not work.
    static EDistri __eFindDistri();
    /// The enumeration of a cursor; makes one for cursor 0. Null when that fails or none has the number.
    std::shared_ptr<CServiceEnumeration> _pclEnumeration(unsigned long* pnCursor, const wchar_t* pszPrefix,
                                                         const wchar_t* pszFurther);

    std::unique_ptr<CService> __pclGetServiceSystemd(const CServiceName& clName);
    /// The record of one unit, made from what "show" printed about it; null when no such unit exists.
    std::unique_ptr<CService> _pclMakeShown(const CServiceName& clName, std::string_view csOutput);
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
    std::mutex m_clMutex; ///< guards the two members below, never held while a tool runs
    std::map<unsigned long, std::shared_ptr<CServiceEnumeration>> m_tEnumerations;
    unsigned long m_nLastCursor = 0;
};

/// The caller's side of a listing of services: steps through an enumeration. The destructor ends it, also
/// when it is left early or by an exception. One thread.
class CServiceListing
{
public:
    /// Manager and texts must outlive the object. pszFurther: see CServiceManager::pclEnumServiceAnd.
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
    /// Whether the last null of pclNext means that the listing failed.
    bool bFailed() const { return m_nCursor == CServiceManager::s_nFailedListing; }
    /// The errno of the failure; 0 without one.
    int nError() const { return m_nError; }

private:
    CServiceManager* m_pclManager;
    const wchar_t* m_pszPrefix;
    const wchar_t* m_pszFurther;
    unsigned long m_nCursor = 0;
    int m_nError = 0;
};
