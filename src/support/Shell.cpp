#include "support/Shell.h"

#include "support/ChildStart.h"
#include "support/Descripteur.h"
#include "support/Stopping.h"
#include "support/SystemCall.h"
#include "support/XYString.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>

namespace {
/// Longest pause between two looks at a child, where the kernel has no process descriptors (before 5.3).
constexpr int s_nMaxLookMs = 100;

/// Waits for the child's exit. False with errno when waiting fails, or the calling thread may not go on.
bool bAwait(pid_t nPid, int* pnStatus)
{
    // Readable once the child has exited. The C library has had a wrapper since 2.36 only.
    const CDescripteur clChild(static_cast<int>(::syscall(SYS_pidfd_open, nPid, 0)));

    for (int nMs = 1;; nMs = std::min(nMs * 2, s_nMaxLookMs)) {
        const pid_t nEnded = nRetry([&] { return ::waitpid(nPid, pnStatus, WNOHANG); });
        if (nEnded != 0) {
            return nEnded > 0;
        }

        if (!CStopping::bMayGoOn()) {
            errno = ECANCELED;
            return false;
        }

        // Sleep until the child exits, the stop comes or the time is over; poll skips descriptors of -1. With
        // a process descriptor no look is needed in between, so the time has no limit but that of nPollMs.
        std::array<pollfd, 2> tWakes{{{clChild.nFd(), POLLIN, 0}, {CStopping::nFdToPoll(), POLLIN, 0}}};
        ::poll(tWakes.data(), tWakes.size(), CStopping::nPollMs(clChild.bOpen() ? -1 : nMs));
    }
}

/// Kills a shell that leads a session, with all that its script has started in the shell's process group, and
/// reaps the shell. Keeps errno.
void KillSession(pid_t nShellPid)
{
    const int nErrno = errno;
    ::kill(-nShellPid, SIGKILL);
    std::ignore = nRetry([&] { return ::waitpid(nShellPid, nullptr, 0); });
    errno = nErrno;
}
} // namespace

int nShell(const std::string& csCommand)
{
    if (!CStopping::bMayGoOn()) {
        errno = ECANCELED;
        return -1;
    }

    // exec takes pointers to writable text, hence the copies.
    std::string csShell = "sh";
    std::string csOption = "-c";
    std::string csText = csCommand;
    char* const ppszArgs[] = {csShell.data(), csOption.data(), csText.data(), nullptr};
    const STChildStart stShell{
        "/bin/sh", ppszArgs, environ, STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO, CStopping::bCancellable()};
    CChildStarter clStarter;
    const pid_t nPid = clStarter.nStart(stShell);
    if (nPid < 0) {
        return -1;
    }

    int nStatus = 0;
    if (!bAwait(nPid, &nStatus)) {
        if (CStopping::bCancelled()) {
            KillSession(nPid);
        }
        return -1;
    }

    // A child that could not become the shell exits with status 127. A command may do so as well: only the
    // errno of the exec tells the two apart.
    if (clStarter.nExecError() != 0) {
        errno = clStarter.nExecError();
        return -1;
    }
    return nStatus;
}

std::string csShellWord(const std::string& csText)
{
    constexpr char szHarmless[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-+@:,";
    if (!csText.empty() && csText.find_first_not_of(szHarmless) == std::string::npos) {
        return csText;
    }
    return "'" + csReplaceAll<char>(csText, "'", "'\\''") + "'";
}
