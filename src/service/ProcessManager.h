#pragma once

#include "support/ChildStart.h"

#include <atomic>
#include <csignal>
#include <memory>
#include <sys/types.h>

/// Reaps the children of the launcher and keeps their exit codes until their owners take them.
///
/// One instance for the process, m_gpclManager, from sInit to sTerm (main thread; no child is owned then).
/// All other operations may be called by any thread, those on a child by its owner. SIGCHLD is not queued,
/// and the pid of a child is known only after its creation, which may be after its exit. So each signal looks
/// after every known child, and whoever asks about a child reaps it. Children that are not ours are never
/// reaped here.
class CProcessManager
{
public:
    /// Null outside sInit to sTerm.
    static std::unique_ptr<CProcessManager> m_gpclManager;

    /// Installs the SIGCHLD handler; the previous action is called for children that are not ours.
    CProcessManager();
    /// Restores the previous action.
    ~CProcessManager();
    CProcessManager(const CProcessManager&) = delete;
    CProcessManager& operator=(const CProcessManager&) = delete;

    /// The record of one child; its owner knows it by address.
    struct STChild
    {
        pid_t nPid;   ///< 0 until the child is created
        int nCode;    ///< with FLAG_ENDED: the exit status, or the signal's number
        int nFlags;   ///< 0 with pid 0: the record is free
        int nPausing; ///< thread id, with FLAG_PAUSE
    };

    /// Starts a child (CChildStarter tells how). Its owner gives the record back with FreePid. Null with
    /// errno when there is no child.
    STChild* pstFork(const STChildStart& stStart);
    /// True when the child has ended, and then its exit code (the signal's number for a killed one).
    bool bGetCode(STChild* pstChild, int* pnCode);
    /// Whether a signal ended the child: its number and an exit status would look alike.
    bool bEndedBySignal(const STChild* pstChild);
    /// Pauses the calling thread for 2 seconds, once; not at all when the child has ended. Its exit cuts the
    /// pause short.
    void Pause(STChild* pstChild);
    /// Its owner forgets the child: the record goes now, or when the child exits.
    void FreePid(STChild* pstChild);
    /// Sends a signal to a child that has not ended. The pid cannot have been reused.
    void Kill(const STChild* pstChild, int nSignal);
    /// Body of the SIGCHLD handler.
    void SigAction(int nSignal, siginfo_t* pstInfo, void* pContext);
    /// Records in use; for checks that none is left over.
    int nCountRecords();

private:
    enum EFlags : int
    {
        FLAG_ENDED = 1,  ///< the exit code is valid
        FLAG_OWNED = 2,  ///< a CLanceProcessus still wants it
        FLAG_PAUSE = 4,  ///< a thread pauses until the child ends
        FLAG_SIGNAL = 8, ///< the exit code is the number of the signal that ended it
    };
    /// Records live in blocks that are only ever added: the handler releases a record by clearing its pid,
    /// since it must not call free.
    struct STBlock
    {
        STChild tChildren[64]{};
        std::unique_ptr<STBlock> pstNext;
    };

    STChild* __pstReserve();
    STChild* __pstFindFree();
    void __Append(std::unique_ptr<STBlock> pstBlock);
    static void __Reap(STChild& stRecord);
    static void __Wake(const STChild& stRecord);
    void __ForwardToPrevious(int nSignal, siginfo_t* pstInfo, void* pContext) const;
    template <class TAction>
    void __ForEach(TAction action);

    std::atomic<bool> m_bLocked{false}; ///< spin lock
    STBlock m_stFirst;
    struct sigaction m_stPrevious
    {};
    struct sigaction m_stPreviousPipe
    {};
};
