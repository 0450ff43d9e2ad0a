// The process entry: sets the process up, runs the one mode that the command line asks for, tears down.

#include "main/AutoInstall.h"
#include "main/GestionServiceLigneCmd.h"
#include "main/ServiceUnix.h"
#include "manager/Dialog.h"
#include "manager/SetupManager.h"
#include "service/LanceProcessus.h"
#include "support/ManagerNames.h"
#include "support/Stopping.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <malloc.h>
#include <memory>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace {
constexpr int s_nFailure = -1; ///< exit status 255
/// How long conversations may take to leave once the time for their answers is over, in milliseconds.
constexpr int s_nLeavingMs = 150;
/// A block of at least so many bytes (a long line, a tool's long output) is a mapping of its own.
constexpr int s_nOwnMapping = 64 * 1024;

std::unique_ptr<CSetupManager> s_pclSetupManager;

/// Fills the descriptors 0 to 2 that are closed, so that no pipe or socket gets one of these numbers:
/// children get them as their own, and the C library prints to them.
void OpenStandardDescriptors()
{
    int nFd = 0;
    while ((nFd = ::open("/dev/null", O_RDWR)) >= 0 && nFd <= STDERR_FILENO) { // NOLINT: kept for life
    }
    ::close(nFd); // the first one that was not needed
}

/// Undoes what whoever started the process may have set. A blocked SIGCHLD, which every thread would inherit,
/// would make each pause for a silent tool last its 2 seconds and leave children unreaped. A strict umask
/// would hide unit files from the system's tools.
void ForgetStarter()
{
    sigset_t stNone;
    ::sigemptyset(&stNone);
    ::pthread_sigmask(SIG_SETMASK, &stNone, nullptr);
    ::umask(022);
}

/// Makes the heap return memory used for a burst to the kernel.
void KeepHeapSmall()
{
    // One heap: each of several would keep its own share of the burst.
    ::mallopt(M_ARENA_MAX, 1);
    // Set, hence fixed: by itself this size grows with the largest block ever freed.
    ::mallopt(M_MMAP_THRESHOLD, s_nOwnMapping);
}

/// Sets the process up, and makes the setup manager and the child table. The arguments are not used.
void Init(int*, char***)
{
    // Before anything allocates, starts a thread or opens a descriptor.
    KeepHeapSmall();
    ForgetStarter();
    OpenStandardDescriptors();

    s_pclSetupManager = std::make_unique<CSetupManager>();
    gpclSetupManager = s_pclSetupManager.get();
    gpclServiceImp = gpclSetupManager;
    CLanceProcessus::sInit();
}

/// Undoes Init. The setup manager goes first: its endpoints launch tools until they have ended.
void Term()
{
    s_pclSetupManager.reset();
    gpclServiceImp = nullptr;
    gpclSetupManager = nullptr;
    CLanceProcessus::sTerm();
}

/// Ends the endpoints, then the conversations. The endpoints come first: a failed start may have left some of
/// them running, and no conversation may begin that nobody waits for. A launcher has neither, and leaves at
/// once.
void EndServing(int nStatus)
{
    gpclSetupManager->__TermMainLoop();

    // A conversation that is still inside a system tool uses what Term destroys: skip Term, just exit.
    if (!CDialog::s_bEndAll(CStopping::nAnswersLeftMs() + s_nLeavingMs)) {
        ::_exit(nStatus);
    }
}

/// Whether the command line asks for the daemon in the foreground.
bool bDebugMode(int nCount, char** ppszArguments)
{
    return !bModeService(nCount, ppszArguments, L"--SERVICE") &&
           bSetOnCmdLine(nCount, ppszArguments, L"--DEBUG");
}

/// Runs the first of these modes that the command line names; without any the manager installs itself.
/// Returns the exit status.
int nDispatch(int nCount, char** ppszArguments)
{
    CServiceManager* pclManager = gpclSetupManager->pclGetServiceManager();
    CTString csValue;

    if (bModeService(nCount, ppszArguments, L"--SERVICE")) {
        // Under systemd's protocol the option may be missing; there the name is not used.
        bGetCmdLineValue(nCount, ppszArguments, L"--SERVICE", &csValue);
        const int nStatus = bServiceMain(csValue.c_str()) ? 0 : s_nFailure;
        EndServing(nStatus);
        return nStatus;
    }

    if (bDebugMode(nCount, ppszArguments)) {
        RunDebugMode();
        EndServing(0);
        return 0;
    }

    if (bSetOnCmdLine(nCount, ppszArguments, L"--UNINSTALL")) {
        return bUnInstall(pclManager) ? 0 : s_nFailure;
    }

    if (bSetOnCmdLine(nCount, ppszArguments, L"--STOPALL")) {
        StopAllCmd();
        return 0;
    }

    if (bSetOnCmdLine(nCount, ppszArguments, L"--STOP-SERVER")) {
        bGetCmdLineValue(nCount, ppszArguments, L"--STOP-SERVER", &csValue);
        StopOneServer(csValue.c_str());
        return 0;
    }

    return bAutoInstall(bSetOnCmdLine(nCount, ppszArguments, L"--INSTALLER"), pclManager) ? 0 : s_nFailure;
}

int nRun(int nCount, char** ppszArguments)
{
    Init(&nCount, &ppszArguments);
    if (bDebugMode(nCount, ppszArguments)) {
        CopyLogToStandardError(true); // the runtime may be missing
    }
    const int nStatus = gpclSetupManager->bInitVM() ? nDispatch(nCount, ppszArguments) : s_nFailure;
    Term();
    return nStatus;
}
} // namespace

int main(int argc, char** argv)
{
    try {
        return nRun(argc, argv);
    } catch (const std::bad_alloc&) {
        // Without Term: threads may still be using what it destroys.
        std::fprintf(stderr, "%s: out of memory\n", g_szManagerServiceA);
        ::_exit(s_nFailure);
    }
}
