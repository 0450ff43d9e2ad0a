#pragma once

#include <functional>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

/// Runs a function in a child process with mounts of its own; its result is the child's exit status.
inline int nInPrivateMounts(const std::function<int()>& fn)
{
    const pid_t nChild = ::fork();
    if (nChild == 0) {
        const bool bPrivate =
            ::unshare(CLONE_NEWNS) == 0 && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
        ::_exit(bPrivate ? fn() : 200);
    }
    int nStatus = -1;
    ::waitpid(nChild, &nStatus, 0);
    return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
}
