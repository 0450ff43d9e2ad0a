#pragma once

#include "support/ChildStart.h"

#include <atomic>
#include <csignal>
#include <memory>
#include <sys/types.h>

/// Reaps the children of the launcher and keeps their exit codes until their owners take them.
///
/// One instance for the process, m_gpclManager, from sInit to sTerm (main thread, no child running). All
/// other operations may be called by any thread. SIGCHLD is not queued: two children that end together may
/// raise one signal, and a child may end before its creator goes on. So the guard is held while a child is
/// created, and each signal looks after every child of ours. Children that are not ours are never reaped
/// here.
class CProcessManager
{
public:
    /// Null outside sInit to sTerm.
    static CProcessManager* m_gpclManager;

    /// Installs the SIGCHLD handler; the previous action is called for children that are not ours.
    CProcessManager();
    /// Restores the previous action.
    ~CProcessManager();
    CProcessManager(const CProcessManager&) = delete;
    CProcessManager& operator=(const CProcessManager&) = delete;

    /// Starts a child (CChildStarter tells how) with an owned record. Returns its pid, or -1 with errno.
    pid_t Fork(const STChildStart& stStart);
    /// True when the child has ended, and then its exit code (the signal's number for a killed one). Also
    /// true, with code -1, for a pid without a record.
    bool bGetCode(pid_t nPid, int* pnCode);
    /// Whether a signal ended the child: its number and an exit status would look alike.
    bool bEndedBySignal(pid_t nPid);
    /// Pauses the calling thread for 2 seconds, once; not at all when the child has ended. Its end cuts the
    /// pause short.
    void Pause(pid_t nPid);
    /// Its owner forgets the child: the record goes now, or when the child ends.
    void FreePid(pid_t nPid);
    /// Sends a signal to a child that has not ended. The pid cannot have been reused.
    void Kill(pid_t nPid, int nSignal);
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
    /// pid 0 marks a free record.
    struct STChild
    {
        int nPid;
        int nCode;
        int nFlags;
        int nPausing; ///< thread id, with FLAG_PAUSE
    };
    /// Records live in blocks that are only ever added: the handler releases a record by clearing its pid,
    /// since it must not call free.
    struct STBlock
    {
        STChild tChildren[64]{};
        std::unique_ptr<STBlock> pstNext;
    };

    STChild* __pstFind(pid_t nPid);
    void __Append(std::unique_ptr<STBlock> pstBlock);
    static void __Reap(STChild& stRecord);
    static void __Wake(const STChild& stRecord);
    void __ForwardToPrevious(int nSignal, siginfo_t* pstInfo, void* pContext) const;
    template <class TAction>
    void __ForEach(TAction action);

    std::atomic<int> m_nLock{0}; ///< spin lock: 0 free, else the thread id of its holder
    STBlock m_stFirst;
    struct sigaction m_stPrevious
    {};
    struct sigaction m_stPreviousPipe
    {};
};
