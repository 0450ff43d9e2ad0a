// The process entry: sets the process up, does the one thing that the command line asks for, tears down.

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
constexpr int s_nFailure = -1; ///< the system shows it as 255
/// What conversations need to leave after their last half second is over, at most.
constexpr int s_nLeavingMs = 150;
/// From this size on a block (a long line, a tool's long output) is a mapping of its own, in bytes.
constexpr int s_nOwnMapping = 64 * 1024;

std::unique_ptr<CSetupManager> s_pclSetupManager;

/// Pipes and sockets must not land on 0 to 2, which children get as their own.
void OpenStandardDescriptors()
{
    int nFd = 0;
    while ((nFd = ::open("/dev/null", O_RDWR)) >= 0 && nFd <= STDERR_FILENO) { // NOLINT: kept for life
    }
    ::close(nFd);
}

/// Undoes what whoever started the process may have set: a blocked SIGCHLD, which every thread would inherit,
/// makes each pause for a silent tool last its 2 seconds and leaves its children unreaped, and a strict umask
/// would hide unit files from the system's tools.
void ForgetStarter()
{
    sigset_t stNone;
    ::sigemptyset(&stNone);
    ::pthread_sigmask(SIG_SETMASK, &stNone, nullptr);
    ::umask(022);
}

/// What a burst made the heap need goes back to the system when it is over.
void KeepHeapSmall()
{
    ::mallopt(M_ARENA_MAX, 1);                  // each of several heaps would keep its own share of the burst
    ::mallopt(M_MMAP_THRESHOLD, s_nOwnMapping); // else it grows with the largest block ever freed
}

/// The standard descriptors first, so that nothing that follows gets their numbers.
void Init(int*, char***)
{
    KeepHeapSmall();
    ForgetStarter();
    OpenStandardDescriptors();
    s_pclSetupManager = std::make_unique<CSetupManager>();
    gpclSetupManager = s_pclSetupManager.get();
    gpclServiceImp = gpclSetupManager;
    CLanceProcessus::sInit();
}

/// Undoes Init, the setup manager first: until its endpoints have ended they launch tools.
void Term()
{
    s_pclSetupManager.reset();
    gpclServiceImp = nullptr;
    gpclSetupManager = nullptr;
    CLanceProcessus::sTerm();
}

/// First the endpoints, of which a start that failed half-way may have left some running: no conversation may
/// begin that nobody waits for. One that is still inside a system tool uses what Term destroys: then the
/// process just ends.
void EndServing(int nStatus)
{
    gpclSetupManager->__TermMainLoop();
    if (!CDialog::s_bEndAll(CStopping::nAnswersLeftMs() + s_nLeavingMs)) {
        ::_exit(nStatus);
    }
}

/// The first of the modes that the command line names, in this order; without any the manager installs
/// itself.
int nDispatch(int nCount, char** ppszArguments)
{
    CServiceManager* pclManager = gpclSetupManager->pclGetServiceManager();
    CTString csValue;
    if (bModeService(nCount, ppszArguments, L"--SERVICE")) {
        bGetCmdLineValue(nCount, ppszArguments, L"--SERVICE", &csValue);
        const int nStatus = bServiceMain(csValue.c_str()) ? 0 : s_nFailure;
        EndServing(nStatus);
        return nStatus;
    }
    if (bSetOnCmdLine(nCount, ppszArguments, L"--DEBUG")) {
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
        bGetCmdLineValue(nCount, ppszArguments, L"--STOP-SERVER", &csValue); // present, so it has a value
        StopOneServer(csValue.c_str());
        return 0;
    }
    return bAutoInstall(bSetOnCmdLine(nCount, ppszArguments, L"--INSTALLER"), pclManager) ? 0 : s_nFailure;
}

int nRun(int nCount, char** ppszArguments)
{
    Init(&nCount, &ppszArguments);
    const int nStatus = gpclSetupManager->bInitVM() ? nDispatch(nCount, ppszArguments) : s_nFailure;
    Term();
    return nStatus;
}
} // namespace

int main(int argc, char** argv)
{
    try {
        return nRun(argc, argv);
    } catch (const std::bad_alloc&) { // nothing is torn down: threads may be running
        std::fprintf(stderr, "%s: out of memory\n", g_szManagerServiceA);
        ::_exit(s_nFailure);
    }
}
