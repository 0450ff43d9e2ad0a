#include "support/ChildStart.h"

#include "support/DescriptorLimit.h"

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

/// What the child finds on its stack.
struct stChildContext
{
    const stChildStart& stStart;
    void (*pfnFirst)(void*);
    void* pContext;
    int nDescriptorLimit; ///< for kernels without close_range
    int* pnExecError;     ///< written by the child
};

/// Blocks every signal for its lifetime: a child that still shares our memory must not run our handlers.
class CAllSignalsBlocked
{
public:
    CAllSignalsBlocked() noexcept
    {
        sigset_t stAll;
        sigfillset(&stAll);
        pthread_sigmask(SIG_SETMASK, &stAll, &m_stMask);
    }
    ~CAllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_stMask, nullptr); }
    CAllSignalsBlocked(const CAllSignalsBlocked&) = delete;
    CAllSignalsBlocked& operator=(const CAllSignalsBlocked&) = delete;

private:
    sigset_t m_stMask;
};

/// The kernel's form of a signal action; all zero is the default one. The child asks the kernel itself: the
/// wrappers may keep books in memory that is still the daemon's (the sanitizers' do).
struct stKernelAction
{
    void* pHandler;
    unsigned long nFlags;
    void* pRestorer;
    unsigned long nMask;
};

/// The child until exec, on a stack of its own in the daemon's memory: only async-signal-safe calls, no
/// allocation, no lock, no return.
__attribute__((no_sanitize("thread", "address", "undefined"))) int nRunChild(void* pContext) noexcept
{
    const auto& stContext = *static_cast<const stChildContext*>(pContext);
    const stChildStart& stStart = stContext.stStart;
    if (stContext.pfnFirst != nullptr) {
        stContext.pfnFirst(stContext.pContext);
    }
    ::dup2(stStart.nError, STDERR_FILENO);
    ::dup2(stStart.nOutput, STDOUT_FILENO);
    ::dup2(stStart.nInput, STDIN_FILENO);
    if (::close_range(STDERR_FILENO + 1, ~0U, 0) != 0) {
        for (int nFd = STDERR_FILENO + 1; nFd < stContext.nDescriptorLimit; ++nFd) {
            ::close(nFd);
        }
    }
    RestoreDescriptorLimit();
    constexpr stKernelAction stDefault{};
    for (int nSignal = 1; nSignal < NSIG; ++nSignal) {
        ::syscall(SYS_rt_sigaction, nSignal, &stDefault, nullptr, sizeof stDefault.nMask);
    }
    ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &stDefault.nMask, nullptr, sizeof stDefault.nMask);
    ::execvp(stStart.pszProgram, stStart.ppszArguments);
    *stContext.pnExecError = errno;
    ::_exit(127);
}
} // namespace

CChildStarter::CChildStarter() : m_pStack(std::make_unique_for_overwrite<std::byte[]>(s_nChildStack)) {}

pid_t CChildStarter::nStart(const stChildStart& stStart, pid_t* pnPid, void (*pfnFirst)(void*),
                            void* pContext) noexcept
{
    m_nExecError = 0;
    stChildContext stContext{stStart, pfnFirst, pContext, ::getdtablesize(), &m_nExecError};
    const CAllSignalsBlocked clBlocked;
    return __clone(nRunChild, m_pStack.get() + s_nChildStack,
                   CLONE_VM | CLONE_VFORK | CLONE_PARENT_SETTID | SIGCHLD, &stContext, pnPid);
}
