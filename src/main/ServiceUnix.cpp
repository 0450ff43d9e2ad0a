#include "main/ServiceUnix.h"

#include "main/ServiceSteps.h"
#include "support/accesdllres.h"
#include "support/Conversion.h"
#include "support/ManagerNames.h"
#include "support/Shell.h"
#include "support/SystemCall.h"
#include "support/WinApi.h"
#include "support/XYString.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <new>
#include <pthread.h>
#include <pwd.h>
#include <sys/resource.h>
#include <syslog.h>
#include <unistd.h>

CServiceImp* gpclServiceImp = nullptr;

namespace {
/// The thread that runs the main loop; 0 before, and once the termination handler has fired.
std::atomic<pthread_t> hMainThread{0};
static_assert(std::atomic<pthread_t>::is_always_lock_free);

/// Acts on the main thread only, and once: a signal that lands on a worker thread is ignored, intended.
void TermHandler(int)
{
    const pthread_t hMain = hMainThread.load();
    if (hMain == 0 || pthread_equal(hMain, pthread_self()) == 0) {
        return;
    }
    const int nErrno = errno;
    hMainThread = 0;
    gpclServiceImp->Stop();
    errno = nErrno;
}

void MaskTerm(int nHow)
{
    sigset_t stTerm;
    sigemptyset(&stTerm);
    sigaddset(&stTerm, SIGTERM);
    pthread_sigmask(nHow, &stTerm, nullptr);
}

void GiveDirectory(const std::string& csUser, const std::string& csDirectory)
{
    const std::string csWord = csShellWord(csDirectory);
    (void)nShell("chown -R " + csShellWord(csUser) + ": " + csWord + " >/dev/null");
    (void)nShell("find " + csWord + " -type d -not -perm -u=rwx -exec chmod u+rwx {} \\; 2>/dev/null");
}

/// An account's numbers; false when it is unknown.
bool bFindUser(const std::string& csUser, uid_t* pnUser, gid_t* pnGroup)
{
    const passwd* pstUser = ::getpwnam(csUser.c_str()); // called by nobody else
    if (pstUser == nullptr) {
        return false;
    }
    *pnUser = pstUser->pw_uid;
    *pnGroup = pstUser->pw_gid;
    return true;
}

/// First the group: without root's user id it could not be changed any more.
bool bSwitch(uid_t nUser, gid_t nGroup, bool bPermanent)
{
    if (bPermanent) {
        return ::setregid(nGroup, nGroup) == 0 && ::setreuid(nUser, nUser) == 0;
    }
    return ::setegid(nGroup) == 0 && ::seteuid(nUser) == 0;
}

/// Logs; when there is no memory even for that, the C library reports the text given, for which it needs
/// none.
template <class TLog>
void LogAnyway(const char* pszText, TLog Log) noexcept
{
    try {
        Log();
    } catch (const std::bad_alloc&) {
        ::syslog(LOG_CRIT, "%s", pszText);
    }
}

/// The service logs why it cannot start, unless there is no memory: that it throws.
bool bStartService()
{
    try {
        return gpclServiceImp->bStart();
    } catch (const std::bad_alloc&) {
        LogAnyway("out of memory", [] { LogText(*gpclServiceImp->pclGetLogger(), L"out of memory"); });
        return false;
    }
}
} // namespace

bool CServiceImp::vbGetServiceUser(wchar_t*)
{
    return false;
}

bool CServiceImp::vbGetOwnDirectory(wchar_t*)
{
    return false;
}

void LogMessage(unsigned int nMessage, const std::wstring& csInsert)
{
    CTString csText;
    DLLRES_bFormatMessage(&g_stMyModule, nMessage, &csText, csEscapePercent(csInsert).c_str());
    gpclServiceImp->pclGetLogger()->AddLog(ILogger::PRIORITY_CRITICAL, L"%1!s!", csText.c_str());
}

CTermHeld::CTermHeld()
{
    MaskTerm(SIG_BLOCK);
}

CTermHeld::~CTermHeld()
{
    if (m_bHeld) {
        Ignore();
    }
}

void CTermHeld::Deliver()
{
    m_bHeld = false;
    MaskTerm(SIG_UNBLOCK); // also where the daemon was started with the signal blocked
}

void CTermHeld::Ignore()
{
    ::signal(SIGTERM, SIG_IGN);
    Deliver();
}

void SetTermHandler()
{
    hMainThread = pthread_self();
    ::signal(SIGTERM, TermHandler);
}

void AllowCoreDump()
{
    constexpr rlimit stUnlimited{RLIM_INFINITY, RLIM_INFINITY};
    if (::setrlimit(RLIMIT_CORE, &stUnlimited) != 0) {
        LogMessage(MSG_NO_CORE_DUMPS, L"");
    }
}

void __CoreDump()
{
    if (gpclServiceImp->vbWithCoreDump()) {
        AllowCoreDump();
    }
}

void LogStartFailed() noexcept
{
    LogAnyway("the service could not be started", [] { LogMessage(MSG_START_FAILED, g_szManagerService); });
}

bool __bStart()
{
    if (bStartService()) {
        return true;
    }
    LogStartFailed();
    return false;
}

bool __bChangeUser(int nFd, const wchar_t* pszUser, bool bPermanent)
{
    const std::string csUser = csToUTF8(pszUser);
    uid_t nUser = 0;
    gid_t nGroup = 0;
    if (!bFindUser(csUser, &nUser, &nGroup)) {
        LogMessage(MSG_UNKNOWN_USER, pszUser);
        return false;
    }
    if (nFd != -1) {
        Ignored(::fchown(nFd, nUser, nGroup)); // the switch itself decides
    }
    std::array<wchar_t, g_nServicePath> tDirectory{};
    if ((::geteuid() == 0 || ::getuid() == 0) && gpclServiceImp->vbGetOwnDirectory(tDirectory.data())) {
        GiveDirectory(csUser, csToUTF8(tDirectory.data()));
    }
    if (!bSwitch(nUser, nGroup, bPermanent)) {
        LogMessage(MSG_USER_REFUSED, pszUser);
        return false;
    }
    return true;
}

void __MainLoop(CTermHeld& clHeld)
{
    SetTermHandler();
    clHeld.Deliver();
    gpclServiceImp->MainLoop();
}

void RunDebugMode()
{
    CTermHeld clHeld;
    ::openlog(nullptr, LOG_PERROR, LOG_USER); // whoever sits there sees why it does not start
    const bool bStarted = bStartService();
    ::closelog();
    ::openlog(nullptr, 0, LOG_USER);
    if (bStarted) {
        __MainLoop(clHeld);
    }
}

bool bServiceMain(const wchar_t* pszServiceName)
{
    return bIsSystemdNotify() ? __bServiceMainSystemdNotify() : __bServiceMainForking(pszServiceName);
}
