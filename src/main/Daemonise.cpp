// The forking service main: a double fork with a pipe on which the launcher waits, and a locked PID file.

#include "main/PidFile.h"
#include "main/ServiceSteps.h"
#include "support/CloseDescriptors.h"
#include "support/Conversion.h"
#include "support/SystemCall.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace {
constexpr char s_cFailed = 0;
constexpr char s_cRunning = 1;
constexpr std::size_t s_nMaxPidPath = 260;
/// Milliseconds that the launcher gives a daemon that has failed for its end.
constexpr int s_nMaxEndMs = 5000;

void LogCritical(const wchar_t* pszText)
{
    gpclServiceImp->pclGetLogger()->AddLog(ILogger::PRIORITY_CRITICAL, pszText);
}

std::string csPidPath(const wchar_t* pszServiceName)
{
    return csToUTF8((std::wstring(L"/var/run/") + pszServiceName + L".pid").substr(0, s_nMaxPidPath));
}

/// Tells the launcher how the start went; it is told once, and knows failure by itself when the pipe just
/// closes.
void __NotifyParentFork(CDescripteur* pclPipe, char cStatus)
{
    if (pclPipe->bOpen()) {
        Ignored(nRetry([&] { return ::write(pclPipe->nFd(), &cStatus, 1); })); // the launcher may be gone
    }
    pclPipe->Close();
}

/// Waits, not for ever, for the end of a daemon that failed. As long as one of its processes is there, an
/// init system may take it for a daemon that is still about to write its PID file, and wait for that.
void AwaitEnd()
{
    for (int n = 0; n < s_nMaxEndMs / 10; ++n) {
        pid_t nEnded = 0;
        while ((nEnded = ::waitpid(-1, nullptr, WNOHANG)) > 0) {
        }
        if (nEnded < 0) {
            return; // no child is left
        }
        ::usleep(10'000);
    }
}

/// The process that was started: waits until the daemon is up, or is gone.
void Launcher(pid_t nChild, const CDescripteur& clPipe)
{
    int nStatus = 0;
    if (nRetry([&] { return ::waitpid(nChild, &nStatus, 0); }) < 0) {
        return;
    }
    char cByte = s_cFailed;
    Ignored(nRetry([&] { return ::read(clPipe.nFd(), &cByte, 1); })); // nothing comes: it failed
    if (cByte != s_cRunning) {
        AwaitEnd();
    }
}

/// Closes every descriptor but one, which is none of the three standard ones.
void CloseAllBut(int nKept)
{
    const auto nKeptNumber = static_cast<unsigned int>(nKept);
    const auto nLimit = static_cast<unsigned int>(::getdtablesize());
    CloseDescriptors(0, nKeptNumber - 1, nLimit);
    CloseDescriptors(nKeptNumber + 1, ~0U, nLimit);
}

/// Cuts every tie to where the daemon was started, except the pipe.
void Detach(int nPipe)
{
    ::closelog(); // its descriptor goes, too
    CloseAllBut(nPipe);
    (void)::open("/dev/null", O_RDWR); // NOLINT: becomes descriptor 0, the copies 1 and 2, for life
    Ignored(::dup(0));
    Ignored(::dup(0));
    ::umask(022);
    Ignored(::chdir("/tmp/")); // any folder does
}

/// Starts the service under the user's effective ids and returns to root's. False when it does not run.
bool bStartAs(const wchar_t* pszUser, CDescripteur* pclPipe)
{
    const bool bSwitched = __bChangeUser(-1, pszUser, false);
    __CoreDump(); // under the new identity, whether or not the switch succeeded
    if (!bSwitched) {
        __NotifyParentFork(pclPipe, s_cFailed);
        return false;
    }
    if (!__bStart()) {
        return false;
    }
    if (::setregid(::getgid(), ::getgid()) == 0) {
        Ignored(::setreuid(::getuid(), ::getuid())); // then the PID file cannot be made, which is told
    }
    return true;
}

/// Opens, locks and writes the PID file; false when one of it fails, which is logged.
bool bTakePidFile(CPidFile& clPidFile)
{
    if (!clPidFile.bOpen()) {
        LogCritical(L"Echec de la création du fichier de lock du demon");
        return false;
    }
    const bool bLocked = clPidFile.bLock();
    if (bLocked && clPidFile.bWrite()) {
        return true;
    }

    CXError clError;
    (void)bFail(&clError, bLocked ? L"write" : L"lock", csFromUTF8(clPidFile.csPath()));
    clPidFile.Remove(); // a locked one, too, although it is the other daemon's; intended
    LogCause(*gpclServiceImp->pclGetLogger(), clError);
    return false;
}

/// From the written PID file to the end of the main loop.
void RunLocked(CPidFile& clPidFile, const wchar_t* pszUser, CDescripteur* pclPipe, CTermHeld& clHeld)
{
    if (pszUser != nullptr) {
        (void)__bChangeUser(clPidFile.nFd(), pszUser, true);
    }
    __NotifyParentFork(pclPipe, s_cRunning);
    __MainLoop(clHeld);
    clPidFile.Remove();
}

/// The daemon's life from the detaching to its end; whatever ends it early has been logged.
void Daemon(const wchar_t* pszServiceName, CDescripteur clPipe)
{
    Detach(clPipe.nFd());
    __CoreDump();
    std::array<wchar_t, g_nServicePath> tUser{};
    const wchar_t* pszUser = gpclServiceImp->vbGetServiceUser(tUser.data()) ? tUser.data() : nullptr;
    CPidFile clPidFile(csPidPath(pszServiceName)); // allocates, so before there is something to clean up
    CTermHeld clHeld;
    if (!(pszUser != nullptr ? bStartAs(pszUser, &clPipe) : __bStart())) {
        return;
    }

    if (!bTakePidFile(clPidFile)) {
        LogStartFailed();
        gpclServiceImp->Stop();
        return;
    }
    RunLocked(clPidFile, pszUser, &clPipe, clHeld);
}

/// Leaves the session and the first child behind. Returns in the daemon only.
bool bBecomeDaemon()
{
    ::setsid();
    struct sigaction stIgnore
    {};
    stIgnore.sa_handler = SIG_IGN;
    sigemptyset(&stIgnore.sa_mask);
    if (::sigaction(SIGHUP, &stIgnore, nullptr) != 0) {
        return false;
    }
    const pid_t nDaemon = ::fork();
    if (nDaemon < 0) {
        LogCritical(L"Fork ne marche pas");
        return false;
    }
    if (nDaemon > 0) {
        ::_exit(0); // what is to be done at exit is the daemon's
    }
    return true;
}
} // namespace

bool __bServiceMainForking(const wchar_t* pszServiceName)
{
    if (pszServiceName == nullptr || *pszServiceName == L'\0') {
        return false;
    }
    STPipe stPipe;
    if (!bOpenPipe(&stPipe)) {
        return true;
    }
    (void)::prctl(PR_SET_CHILD_SUBREAPER, 1); // the daemon is the launcher's child until the launcher ends
    const pid_t nChild = ::fork();
    if (nChild < 0) {
        LogCritical(L"Fork ne marche pas");
    } else if (nChild > 0) {
        stPipe.clWrite.Close();
        Launcher(nChild, stPipe.clRead);
    } else {
        stPipe.clRead.Close();
        if (bBecomeDaemon()) {
            Daemon(pszServiceName, std::move(stPipe.clWrite));
        }
    }
    return true;
}
