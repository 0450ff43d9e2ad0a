// The steps of a service's life: identity, start, termination.

#include "main/ServiceSteps.h"

#include "main/Logger.h"
#include "support/accesdllres.h"
#include "support/Conversion.h"
#include "support/ManagerNames.h"
#include "support/Shell.h"
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
#include <tuple>
#include <unistd.h>

namespace {
/// The thread that runs the main loop; 0 before, and once the termination handler has fired.
std::atomic<pthread_t> hMainThread{0};
static_assert(std::atomic<pthread_t>::is_always_lock_free);

/// Acts once, and on the main thread only. The worker threads block SIGTERM. A thread of the language runtime
/// may not block it; a signal that the kernel delivers there has no effect, as it always has been.
void TermHandler(int)
{
    const pthread_t hMain = hMainThread.load();
    if (hMain == 0 || pthread_equal(hMain, pthread_self()) == 0) {
        return;
    }

    const int nErrno = errno; // the interrupted code may be about to read it
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

/// Best effort: where the user cannot work, the service itself finds out.
void GiveDirectory(const std::string& csUser, const std::string& csDirectory)
{
    const std::string csWord = csShellWord(csDirectory);
    std::ignore = nShell("chown -R " + csShellWord(csUser) + ": " + csWord + " >/dev/null");
    std::ignore =
        nShell("find " + csWord + " -type d -not -perm -u=rwx -exec chmod u+rwx {} \\; 2>/dev/null");
}

/// An account's numbers; false when it is unknown.
bool bFindUser(const std::string& csUser, uid_t* pnUser, gid_t* pnGroup)
{
    const passwd* pstUser = ::getpwnam(csUser.c_str()); // not thread-safe; this is its only call
    if (pstUser == nullptr) {
        return false;
    }
    *pnUser = pstUser->pw_uid;
    *pnGroup = pstUser->pw_gid;
    return true;
}

/// Switches the group first: without root's user id it could not be changed any more.
bool bSwitch(uid_t nUser, gid_t nGroup, bool bPermanent)
{
    if (bPermanent) {
        return ::setregid(nGroup, nGroup) == 0 && ::setreuid(nUser, nUser) == 0;
    }
    return ::setegid(nGroup) == 0 && ::seteuid(nUser) == 0;
}

/// Logs by calling Log. When that runs out of memory, syslog itself reports pszText, for which it allocates
/// nothing.
template <class TLog>
void LogAnyway(const char* pszText, TLog Log) noexcept
{
    try {
        Log();
    } catch (const std::bad_alloc&) {
        ::syslog(LOG_CRIT, "%s", pszText);
    }
}
} // namespace

CTermBlocked::CTermBlocked()
{
    MaskTerm(SIG_BLOCK);
}

CTermBlocked::~CTermBlocked()
{
    if (m_bBlocked) {
        Ignore();
    }
}

void CTermBlocked::Deliver()
{
    m_bBlocked = false;
    // Not the mask from before: whoever started the daemon may have blocked the signal.
    MaskTerm(SIG_UNBLOCK);
}

void CTermBlocked::Ignore()
{
    ::signal(SIGTERM, SIG_IGN); // drops a signal that came meanwhile
    Deliver();
}

/// Doubles the insert's "%" because the finished text becomes syslog's format.
void LogMessage(unsigned int nMessage, const std::wstring& csInsert)
{
    CTString csText;
    DLLRES_bFormatMessage(&g_stMyModule, nMessage, &csText, csEscapePercent(csInsert).c_str());
    gpclServiceImp->pclGetLogger()->AddLog(ILogger::PRIORITY_CRITICAL, L"%1!s!", csText.c_str());
}

void LogStartFailed() noexcept
{
    LogAnyway("the service could not be started", [] { LogMessage(MSG_START_FAILED, g_szManagerService); });
}

void AllowCoreDump()
{
    constexpr rlimit stUnlimited{RLIM_INFINITY, RLIM_INFINITY};
    if (::setrlimit(RLIMIT_CORE, &stUnlimited) != 0) {
        LogMessage(MSG_NO_CORE_DUMPS, L"");
    }
}

void AllowWantedCoreDump()
{
    if (gpclServiceImp->vbWithCoreDump()) {
        AllowCoreDump();
    }
}

bool bStartService()
{
    try {
        return gpclServiceImp->bStart();
    } catch (const std::bad_alloc&) { // the one cause that the service does not log itself
        LogAnyway("out of memory", [] { LogText(*gpclServiceImp->pclGetLogger(), L"out of memory"); });
        return false;
    }
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

    // First the file and the directory, while this is still root. A refusal is not judged here: only the
    // switch below decides.
    if (nFd != -1) {
        std::ignore = ::fchown(nFd, nUser, nGroup);
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

void SetTermHandler()
{
    hMainThread = pthread_self();
    ::signal(SIGTERM, TermHandler);
}

void __MainLoop(CTermBlocked& clBlocked)
{
    SetTermHandler();
    clBlocked.Deliver();
    gpclServiceImp->MainLoop();
}
