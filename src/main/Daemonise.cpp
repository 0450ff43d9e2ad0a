// The forking service main: a double fork with a pipe on which the launcher waits, and a locked PID file.
//
// Three processes: the launcher (the one that was started) waits until the service is up; its child starts a
// session, forks and exits; the grandchild, which can never get a terminal again, is the daemon.

#include "main/Daemonise.h"

#include "main/Logger.h"
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
#include <tuple>
#include <unistd.h>

namespace {
using STSigAction = struct sigaction;

/// What the daemon writes to the launcher's pipe.
constexpr char s_cFailed = 0;
constexpr char s_cRunning = 1;
/// Characters of the PID file's path; a longer one is cut, which clients rely on.
constexpr std::size_t s_nMaxPidPath = 260;
/// How long the launcher waits for a failed daemon's exit, and between two looks, in milliseconds.
constexpr int s_nMaxEndMs = 5000;
constexpr int s_nLookMs = 10;

void LogCritical(const wchar_t* pszText)
{
    gpclServiceImp->pclGetLogger()->AddLog(ILogger::PRIORITY_CRITICAL, pszText);
}

std::string csPidPath(const wchar_t* pszServiceName)
{
    return csToUTF8((std::wstring(L"/var/run/") + pszServiceName + L".pid").substr(0, s_nMaxPidPath));
}

/// Tells the launcher, once, how the start went. A pipe that closes without a byte means failure, too.
void __NotifyParentFork(CDescripteur* pclPipe, char cStatus)
{
    if (pclPipe->bOpen()) {
        // Fails when somebody has killed the launcher; the daemon runs all the same.
        std::ignore = nRetry([&] { return ::write(pclPipe->nFd(), &cStatus, 1); });
    }
    pclPipe->Close();
}

/// Waits for a failed daemon's exit, for s_nMaxEndMs at most. While one of its processes is left, an init
/// system may take it for a daemon that is about to write its PID file, and wait for that.
void AwaitEnd()
{
    for (int nMs = 0; nMs < s_nMaxEndMs; nMs += s_nLookMs) {
        pid_t nEnded = 0;
        while ((nEnded = ::waitpid(-1, nullptr, WNOHANG)) > 0) {
        }
        if (nEnded < 0) {
            return; // no child is left
        }
        ::usleep(s_nLookMs * 1000);
    }
}

/// The launcher's part: waits until the daemon is up or gone.
void Launcher(pid_t nChild, const CDescripteur& clPipe)
{
    // Reaps the process between launcher and daemon, which exits at once.
    int nStatus = 0;
    if (nRetry([&] { return ::waitpid(nChild, &nStatus, 0); }) < 0) {
        return;
    }

    // Left unchanged when the pipe closes without a byte: the daemon exited before it could report.
    char cByte = s_cFailed;
    std::ignore = nRetry([&] { return ::read(clPipe.nFd(), &cByte, 1); });
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

/// Gives up every descriptor that was inherited, except the pipe, and the working directory.
void Detach(int nPipe)
{
    // Syslog would go on using the number of its closed descriptor, which may soon be another file's.
    ::closelog();
    CloseAllBut(nPipe);

    // The lowest free numbers are used: this becomes descriptor 0, the copies 1 and 2, for life.
    std::ignore = ::open("/dev/null", O_RDWR); // NOLINT: never closed
    std::ignore = ::dup(0);
    std::ignore = ::dup(0);

    ::umask(022);
    std::ignore = ::chdir("/tmp/"); // lets the file system where it was started be unmounted
}

/// Starts the service under the user's effective ids and returns to root's. False when it does not run.
bool bStartAs(const wchar_t* pszUser, CDescripteur* pclPipe)
{
    const bool bSwitched = __bChangeUser(-1, pszUser, false);
    AllowWantedCoreDump(); // under the new identity, whether or not the switch succeeded
    if (!bSwitched) {
        __NotifyParentFork(pclPipe, s_cFailed); // the one failure with a byte of its own
        return false;
    }

    if (!__bStart()) {
        return false;
    }

    // Back to root, which alone can make the PID file: the switch has left the real ids root's. If the kernel
    // refuses, making the file fails, which is logged.
    if (::setregid(::getgid(), ::getgid()) == 0) {
        std::ignore = ::setreuid(::getuid(), ::getuid());
    }
    return true;
}

/// Opens, locks and writes the PID file. Returns false, after a log entry, when one of these fails.
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

    CXError clError; // filled first: Remove may change errno
    std::ignore = bFail(&clError, bLocked ? L"write" : L"lock", csFromUTF8(clPidFile.csPath()));
    clPidFile.Remove(); // also the file of another daemon that holds the lock: clients rely on it
    LogCause(*gpclServiceImp->pclGetLogger(), clError);
    return false;
}

/// From the written PID file to the end of the main loop. Gives the PID file to the service's user and
/// switches to that user for good: so far bStartAs has switched only for the start.
void RunLocked(CPidFile& clPidFile, const wchar_t* pszUser, CDescripteur* pclPipe, CTermBlocked& clBlocked)
{
    if (pszUser != nullptr) {
        std::ignore = __bChangeUser(clPidFile.nFd(), pszUser, true);
    }
    __NotifyParentFork(pclPipe, s_cRunning);
    __MainLoop(clBlocked);
    clPidFile.Remove();
}

/// The daemon's part, from detaching to its exit. Whatever ends it early has been logged, and closes the
/// pipe, which the launcher takes for a failed start.
void Daemon(const wchar_t* pszServiceName, CDescripteur clPipe)
{
    Detach(clPipe.nFd());
    AllowWantedCoreDump();

    std::array<wchar_t, g_nServicePath> tUser{};
    const wchar_t* pszUser = gpclServiceImp->vbGetServiceUser(tUser.data()) ? tUser.data() : nullptr;
    CPidFile clPidFile(csPidPath(pszServiceName)); // allocates, so before there is something to clean up

    CTermBlocked clBlocked; // until the main loop runs: a stop before that would leave the PID file behind
    const bool bStarted = pszUser != nullptr ? bStartAs(pszUser, &clPipe) : __bStart();
    if (!bStarted) {
        return;
    }
    if (!bTakePidFile(clPidFile)) {
        LogStartFailed();
        gpclServiceImp->Stop(); // the service has been started
        return;
    }

    RunLocked(clPidFile, pszUser, &clPipe, clBlocked);
}

/// Run by the first child: starts a session, forks the daemon and exits. True in the daemon; false, still in
/// the first child, when it cannot be forked.
bool bBecomeDaemon()
{
    ::setsid();

    // The session leader's exit below may send SIGHUP to its foreground group, in which the daemon starts.
    STSigAction stIgnore{};
    stIgnore.sa_handler = SIG_IGN;
    sigemptyset(&stIgnore.sa_mask);
    if (::sigaction(SIGHUP, &stIgnore, nullptr) != 0) {
        return false;
    }

    // Forks once more: opening a terminal gives it to a session leader only, which the daemon then is not.
    const pid_t nDaemon = ::fork();
    if (nDaemon < 0) {
        LogCritical(L"Fork ne marche pas");
        return false;
    }
    if (nDaemon > 0) {
        ::_exit(0); // without exit handlers and buffers: they are the daemon's
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
        return true; // only an empty name counts as a failure; clients rely on it
    }

    // Makes the daemon the launcher's child once its own parent has exited, so that AwaitEnd can wait for it.
    std::ignore = ::prctl(PR_SET_CHILD_SUBREAPER, 1);
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
