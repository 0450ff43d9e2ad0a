#pragma once

#include <cerrno>
#include <csignal>
#include <functional>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

/// Polls a condition until it holds or the milliseconds are over: the only way in which tests wait.
inline bool bWaitUntil(const std::function<bool()>& fnCondition, int nMs)
{
    for (; nMs > 0; nMs -= 5) {
        if (fnCondition()) {
            return true;
        }
        ::usleep(5000);
    }
    return fnCondition();
}

/// Waits until there is something to read.
inline bool bReadable(int nFd, int nMs)
{
    pollfd st{nFd, POLLIN, 0};
    return TEMP_FAILURE_RETRY(::poll(&st, 1, nMs)) == 1; // the exit of a child interrupts it
}

/// The exit status of a child, or 128 + the signal that ended it. One that does not end in time is killed:
/// -1.
inline int nEndOf(pid_t nPid, int nMs = 10'000)
{
    int nStatus = 0;
    if (!bWaitUntil([&] { return ::waitpid(nPid, &nStatus, WNOHANG) == nPid; }, nMs)) {
        ::kill(nPid, SIGKILL);
        ::waitpid(nPid, nullptr, 0);
        return -1;
    }
    return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : 128 + WTERMSIG(nStatus);
}
