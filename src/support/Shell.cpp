#include "support/Shell.h"

#include "support/ChildStart.h"
#include "support/SystemCall.h"
#include "support/XYString.h"

#include <cerrno>
#include <sys/wait.h>
#include <unistd.h>

int nShell(const std::string& csCommand)
{
    std::string csShell = "sh";
    std::string csOption = "-c";
    std::string csText = csCommand;
    char* const ppszArgs[] = {csShell.data(), csOption.data(), csText.data(), nullptr};
    const STChildStart stShell{"/bin/sh", ppszArgs, STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO};
    CChildStarter clStarter;
    pid_t nPid = -1;
    if (clStarter.nStart(stShell, &nPid) < 0) {
        return -1;
    }
    int nStatus = 0;
    if (nRetry([&] { return ::waitpid(nPid, &nStatus, 0); }) < 0) {
        return -1;
    }
    // A child that could not become the shell looks like one that ended with 127, which a command may do,
    // too.
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
