#include "support/ChildStart.h"

#include "support/CloseDescriptors.h"
#include "support/CloseRange.h"
#include "support/DescriptorLimit.h"
#include "support/ForOverwrite.h"
#include "support/SignalMask.h"

#include <cerrno>
#include <csignal>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

/// The C library's clone, by the name that the sanitizers do not replace: their replacement expects that
/// every child has a copy of the memory.
extern "C" int __clone(int (*pfn)(void*), void* pStack, int nFlags, void* pArgument, ...) noexcept;

// The child runs in the daemon's memory while the calling thread sleeps, until exec or exit gives the memory
// back. Other threads go on meanwhile: any of them may hold the heap's lock or be closing a descriptor. What
// the child changes in memory stays changed; what it changes of its signals, limits and identity is its own.
//
// Therefore the child makes its system calls without the C library's wrappers wherever these may keep records
// in memory, as the sanitizers' wrappers do; and the sanitizers do not instrument the functions that it runs.

namespace {
/// Bytes of stack of a child between its creation and exec. execvpe needs the most: room for a path, and for
/// a second argument vector when the program is a script without interpreter line.
constexpr std::size_t s_nChildStack = std::size_t{32} * 1024;

constexpr int s_nNotExecuted = 127; ///< exit status, as shells have it

/// What the child gets from the thread that creates it.
struct STChildContext
{
    const STChildStart& stStart;
    bool bCloseRange; ///< whether the kernel has close_range; the child then shares the descriptor table, too
    int* pnExecError; ///< written by the child
};

/// The kernel's form of a signal action; all zero means the default action.
struct STKernelAction
{
    void* pHandler;
    unsigned long nFlags;
    void* pRestorer;
    unsigned long nMask;
};

/// Reports errno to the creating thread and exits. exit_group, not exit: a handler registered with atexit
/// must not run here.
[[noreturn]] __attribute__((no_sanitize("thread", "address", "undefined"))) void
EndUnexecuted(const STChildContext& stContext) noexcept
{
    *stContext.pnExecError = errno;
    for (;;) {
        ::syscall(SYS_exit_group, s_nNotExecuted);
    }
}

/// Makes nTo a copy of nFrom that stays open at exec. Does nothing when both are the same number: nFrom is
/// then one of the daemon's standard descriptors, which stay open anyway.
__attribute__((no_sanitize("thread", "address", "undefined"))) void Duplicate(int nFrom, int nTo) noexcept
{
    if (nFrom != nTo) {
        ::syscall(SYS_dup3, nFrom, nTo, 0);
    }
}

/// Unshares the part of the daemon's descriptor table up to the highest of the child's three. Copying the
/// whole table would cost more with each conversation. On failure the child must exit: what it closed next
/// would be closed for the daemon, too.
__attribute__((no_sanitize("thread", "address", "undefined"))) bool
bLeaveDaemonsDescriptors(const STChildStart& stStart) noexcept
{
    int nLast = STDERR_FILENO;
    for (const int nFd : {stStart.nInput, stStart.nOutput, stStart.nError}) {
        nLast = nFd > nLast ? nFd : nLast;
    }
    return nCloseRange(static_cast<unsigned int>(nLast) + 1, ~0U, s_nCloseRangeUnshare) == 0;
}

/// The child until exec. It runs on its own stack in the daemon's memory: only async-signal-safe calls, no
/// allocation, no lock, no return.
__attribute__((no_sanitize("thread", "address", "undefined"))) int nRunChild(void* pContext) noexcept
{
    const auto& stContext = *static_cast<const STChildContext*>(pContext);
    const STChildStart& stStart = stContext.stStart;
    if (stContext.bCloseRange && !bLeaveDaemonsDescriptors(stStart)) {
        EndUnexecuted(stContext);
    }

    // No copy overwrites a source that is still needed: each source is its target already, or above 2.
    Duplicate(stStart.nError, STDERR_FILENO);
    Duplicate(stStart.nOutput, STDOUT_FILENO);
    Duplicate(stStart.nInput, STDIN_FILENO);

    // Without close_range and /proc only numbers below the limit that the daemon was started with are closed.
    // That is enough: inherited descriptors lie below it, and those that the daemon has opened close at exec.
    CloseDescriptors(STDERR_FILENO + 1, ~0U, static_cast<unsigned int>(nOriginalDescriptorLimit()));
    RestoreDescriptorLimit();

    if (stStart.bOwnSession) {
        ::syscall(SYS_setsid);
    }

    // Actions first: a pending signal must find the default action, not the daemon's handler, when the mask
    // is cleared. The kernel refuses SIGKILL and SIGSTOP, whose actions are the default anyway.
    constexpr STKernelAction stDefault{};
    for (int nSignal = 1; nSignal < NSIG; ++nSignal) {
        ::syscall(SYS_rt_sigaction, nSignal, &stDefault, nullptr, sizeof stDefault.nMask);
    }
    ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &stDefault.nMask, nullptr, sizeof stDefault.nMask);

    ::execvpe(stStart.pszProgram, stStart.ppszArguments, stStart.ppszEnvironment);
    EndUnexecuted(stContext);
}
} // namespace

CChildStarter::CChildStarter() : m_pStack(pMakeForOverwrite<std::byte[]>(s_nChildStack)) {}

pid_t CChildStarter::nStart(const STChildStart& stStart) noexcept
{
    m_nExecError = 0;

    // The probe closes nothing: no descriptor has that number. Where it succeeds, the child shares the
    // descriptor table and unshares what it needs; elsewhere the kernel copies the whole table.
    const bool bCloseRange = nCloseRange(~0U, ~0U, 0) == 0;
    const int nSharedTable = bCloseRange ? CLONE_FILES : 0;
    STChildContext stContext{stStart, bCloseRange, &m_nExecError};

    const CSignalsBlocked
        clBlocked; // the child starts with this mask: in our memory it must not run our handlers
    return __clone(nRunChild, m_pStack.get() + s_nChildStack, CLONE_VM | CLONE_VFORK | nSharedTable | SIGCHLD,
                   &stContext);
}
