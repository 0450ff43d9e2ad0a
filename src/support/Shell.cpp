#include "support/Shell.h"

#include "support/ChildStart.h"

#include <cerrno>
#include <sys/wait.h>
#include <unistd.h>

namespace {
int nWaitStatus(pid_t nPid)
{
    int nStatus = 0;
    while (::waitpid(nPid, &nStatus, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return nStatus;
}
} // namespace

int nShell(const std::string& csCommand)
{
    std::string csShell = "sh";
    std::string csOption = "-c";
    std::string csText = csCommand;
    char* const ppszArgs[] = {csShell.data(), csOption.data(), csText.data(), nullptr};
    const stChildStart stShell{"/bin/sh", ppszArgs, STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO};
    CChildStarter clStarter;
    pid_t nPid = -1;
    if (clStarter.nStart(stShell, &nPid) < 0) {
        return -1;
    }
    const int nStatus = nWaitStatus(nPid);
    if (clStarter.nExecError() != 0) {
        errno = clStarter.nExecError();
        return -1;
    }
    return nStatus;
}
