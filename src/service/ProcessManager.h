#pragma once

#include "support/ChildStart.h"

#include <atomic>
#include <csignal>
#include <memory>
#include <sys/types.h>

/// Reaps the children of the launcher and keeps their exit codes until their owners take them.
///
/// One instance for the process, m_gpclManager, from sInit to sTerm (main thread; no child is owned then).
/// Any thread may call the operations; those on a child are for its owner.
///
/// SIGCHLD is not queued: two exits may raise only one signal. So the handler looks at every child of the
/// table. And a child may have exited before its pid was noted, when the handler cannot find it. So whoever
/// asks about a child reaps it. Children that are not in the table are never reaped here.
class CProcessManager
{
public:
    /// Null outside sInit to sTerm.
    static std::unique_ptr<CProcessManager> m_gpclManager;

    /// Installs the SIGCHLD handler, which calls the previous one for children that are not ours. Makes the
    /// process ignore SIGPIPE.
    CProcessManager();
    /// Restores the previous actions.
    ~CProcessManager();
    CProcessManager(const CProcessManager&) = delete;
    CProcessManager& operator=(const CProcessManager&) = delete;

    /// The record of one child; its owner knows it by address.
    struct STChild
    {
        pid_t nPid;   ///< 0 until the child is created
        int nCode;    ///< with FLAG_ENDED: the exit status, or the signal's number
        int nFlags;   ///< 0 with pid 0: the record is free
        int nPausing; ///< with FLAG_PAUSE: kernel's id of the thread that pauses
    };

    /// Starts a child, as CChildStarter does. The caller owns it and gives the record back with FreePid. Null
    /// with errno when no child was created.
    STChild* pstFork(const STChildStart& stStart);
    /// True when the child has exited; *pnCode is then its exit status, or the number of the signal that
    /// ended it.
    bool bGetCode(STChild* pstChild, int* pnCode);
    /// Whether a signal ended the child: the code alone does not say.
    bool bEndedBySignal(const STChild* pstChild);
    /// Pauses the calling thread for 2 seconds, or until the child's exit; not at all when the child has
    /// exited. Any other signal ends the pause, too, and so does the daemon's stop.
    void Pause(STChild* pstChild);
    /// Gives the child up: its record is freed now, or when the child exits.
    void FreePid(STChild* pstChild);
    /// Sends a signal to a child that has not been reaped; its pid cannot have been reused.
    void Kill(const STChild* pstChild, int nSignal);
    /// Body of the SIGCHLD handler.
    void SigAction(int nSignal, siginfo_t* pstInfo, void* pContext);
    /// Number of records in use; for checks that none is left over.
    int nCountRecords();

private:
    using STSigAction = struct sigaction;

    enum EFlags : int
    {
        FLAG_ENDED = 1,  ///< the exit code is valid
        FLAG_OWNED = 2,  ///< a CLanceProcessus still wants the record
        FLAG_PAUSE = 4,  ///< a thread pauses until the child's exit
        FLAG_SIGNAL = 8, ///< the exit code is the number of the signal that ended it
    };
    /// Blocks are added and never removed: the handler must not call free, so it releases a record by
    /// clearing it.
    struct STBlock
    {
        STChild tChildren[64]{};
        std::unique_ptr<STBlock> pstNext;
    };

    STChild* _pstReserve();
    // The next four, and _ForEach, are called with the child table held (CChildGuard).
    STChild* _pstFindFree();
    void _Append(std::unique_ptr<STBlock> pstBlock);
    static void _Reap(STChild& stRecord);
    static void _Wake(const STChild& stRecord);
    void _ForwardToPrevious(int nSignal, siginfo_t* pstInfo, void* pContext) const;
    template <class TAction>
    void _ForEach(TAction action);

    std::atomic<bool> m_bLocked{false}; ///< spin lock of the child table
    STBlock m_stFirst;
    STSigAction m_stPrevious{};     ///< for SIGCHLD
    STSigAction m_stPreviousPipe{}; ///< for SIGPIPE
};
