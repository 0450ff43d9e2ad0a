#pragma once

#include <cstddef>
#include <memory>
#include <sys/types.h>

/// All that a child needs between its creation and exec. The caller prepares it, since the child shares the
/// daemon's memory until exec and may neither allocate nor lock. The caller keeps what the pointers lead to
/// until nStart returns, and owns the descriptors.
struct STChildStart
{
    const char* pszProgram;
    char* const* ppszArguments;   ///< null-terminated, entry 0 is the program
    char* const* ppszEnvironment; ///< null-terminated
    int nInput;                   ///< becomes descriptor 0; is 0 already, or above 2
    int nOutput;                  ///< becomes descriptor 1; is 1 already, or above 2
    int nError;                   ///< becomes descriptor 2; is 2 already, or above 2
    bool bOwnSession = false;     ///< leads a session: a kill of its group reaches its own children, too
};

/// Creates one child as vfork does: nothing of the daemon is copied, so the cost does not grow with the
/// daemon's memory, and the calling thread sleeps until the child has executed its program or exited. The
/// child gets descriptors 0 to 2 only, no blocked and no ignored signal, and the descriptor limit that the
/// daemon was started with. One object creates one child at a time, in one thread.
class CChildStarter
{
public:
    /// Allocates all that nStart needs.
    CChildStarter();
    CChildStarter(const CChildStarter&) = delete;
    CChildStarter& operator=(const CChildStarter&) = delete;
    ~CChildStarter() = default;

    /// Returns the pid, or -1 with errno. A child whose program cannot be executed exits with status 127.
    /// Neither allocates nor locks.
    pid_t nStart(const STChildStart& stStart) noexcept;
    /// The errno of the child's exec; 0 when its program was executed. Known when nStart returns.
    int nExecError() const noexcept { return m_nExecError; }

private:
    std::unique_ptr<std::byte[]> m_pStack;
    int m_nExecError = 0;
};
