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

/// The C library's clone under the name that the sanitizers do not replace: theirs takes every child for a
/// copy.
extern "C" int __clone(int (*pfn)(void*), void* pStack, int nFlags, void* pArgument, ...) noexcept;

namespace {
/// Stack of a child between its creation and exec; a script without interpreter line makes the C library
/// build a second argument vector on it.
constexpr std::size_t s_nChildStack = std::size_t{32} * 1024;

constexpr int s_nNotExecuted = 127; ///< exit code, as shells have it

/// What the child finds on its stack.
struct STChildContext
{
    const STChildStart& stStart;
    bool bCloseRange; ///< whether the kernel has it; then the descriptor table is the daemon's at first
    int* pnExecError; ///< written by the child
};

// The child asks the kernel itself wherever a wrapper may keep books in memory that is still the daemon's, as
// those of the sanitizers do.

/// The kernel's form of a signal action; all zero is the default one.
struct STKernelAction
{
    void* pHandler;
    unsigned long nFlags;
    void* pRestorer;
    unsigned long nMask;
};

[[noreturn]] __attribute__((no_sanitize("thread", "address", "undefined"))) void
EndUnexecuted(const STChildContext& stContext) noexcept
{
    *stContext.pnExecError = errno;
    for (;;) {
        ::syscall(SYS_exit_group, s_nNotExecuted);
    }
}

/// Makes nTo the descriptor that nFrom is.
__attribute__((no_sanitize("thread", "address", "undefined"))) void Duplicate(int nFrom, int nTo) noexcept
{
    if (nFrom != nTo) {
        ::syscall(SYS_dup3, nFrom, nTo, 0);
    }
}

/// Gives the child a table of descriptors of its own, which holds what it needs and little more: copying all
/// of the daemon's would grow with its conversations. Without one it must not go on, for what it closes
/// would be the daemon's.
__attribute__((no_sanitize("thread", "address", "undefined"))) bool
bLeaveDaemonsDescriptors(const STChildStart& stStart) noexcept
{
    int nLast = STDERR_FILENO;
    for (const int nFd : {stStart.nInput, stStart.nOutput, stStart.nError}) {
        nLast = nFd > nLast ? nFd : nLast;
    }
    return nCloseRange(static_cast<unsigned int>(nLast) + 1, ~0U, s_nCloseRangeUnshare) == 0;
}

/// The child until exec, on a stack of its own in the daemon's memory: only async-signal-safe calls, no
/// allocation, no lock, no return.
__attribute__((no_sanitize("thread", "address", "undefined"))) int nRunChild(void* pContext) noexcept
{
    const auto& stContext = *static_cast<const STChildContext*>(pContext);
    const STChildStart& stStart = stContext.stStart;
    if (stContext.bCloseRange && !bLeaveDaemonsDescriptors(stStart)) {
        EndUnexecuted(stContext);
    }
    Duplicate(stStart.nError, STDERR_FILENO);
    Duplicate(stStart.nOutput, STDOUT_FILENO);
    Duplicate(stStart.nInput, STDIN_FILENO);
    CloseDescriptors(STDERR_FILENO + 1, ~0U, static_cast<unsigned int>(nOriginalDescriptorLimit()));
    RestoreDescriptorLimit();
    if (stStart.bOwnSession) {
        ::syscall(SYS_setsid);
    }
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
    const bool bCloseRange = nCloseRange(~0U, ~0U, 0) == 0; // closes nothing: no descriptor has that number
    const int nSharedTable = bCloseRange ? CLONE_FILES : 0;
    STChildContext stContext{stStart, bCloseRange, &m_nExecError};
    const CSignalsHeld clHeld; // a child that still shares our memory must not run our handlers
    return __clone(nRunChild, m_pStack.get() + s_nChildStack, CLONE_VM | CLONE_VFORK | nSharedTable | SIGCHLD,
                   &stContext);
}
