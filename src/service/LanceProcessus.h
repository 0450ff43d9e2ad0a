#pragma once

#include "service/ProcessManager.h"
#include "support/Descripteur.h"
#include "support/XError.h"
#include "support/XYString.h"

/// Cuts psz in place at blanks; a word that begins with a double quote runs to the next one (quotes not
/// included), nothing else is special. At most nMax entries, the rest is ignored. Returns the count.
int nSplitArguments(char* psz, char** ppszArguments, int nMax) noexcept;

/// Runs one program without a shell and gives its merged output and exit code.
///
/// Once the calling thread may not go on (CStopping::bMayGoOn), launching and waiting fail with ECANCELED.
///
/// One object drives one child at a time: idle -> launched -> idle, reusable after bLibere(), which a second
/// launch implies. One thread uses an object; different objects may run in different threads. An object is
/// launched between sInit() and sTerm() only. bLibere() and the destructor let go of the child, they never
/// kill it; it is still reaped.
class CLanceProcessus
{
public:
    /// Start and end of the process-wide child table (CProcessManager); main thread, once.
    static void sInit();
    static void sTerm();

    CLanceProcessus() = default;
    CLanceProcessus(const CLanceProcessus&) = delete;
    CLanceProcessus& operator=(const CLanceProcessus&) = delete;
    virtual ~CLanceProcessus();

    /// Starts the program (full path, must be executable) with the arguments of pszArguments, at most 49,
    /// split as nSplitArguments does. False on failure, with errno and the error filled; the object is idle
    /// then.
    bool bLanceProcessus(const wchar_t* pszProgram, const wchar_t* pszArguments, CXError* pclError);
    /// Sets how many bytes the two readers below take from one child, 1 MiB unless set; a child that prints
    /// more is killed.
    void LimitOutput(std::size_t nMax) { m_nMaxOutput = nMax; }
    /// Appends what the child has written so far (null: discards it). A pass that finds the child alive and
    /// silent pauses for 2 seconds, a pause that the child's end cuts short; this pacing is intended.
    bool bLitSortieA(CXYString<char>* pcsOutput);
    /// Reads all output until the child ends, then takes its exit code. False when output is missing: the
    /// child printed more than the limit (EFBIG), or what it printed could not be read. It is killed then.
    bool bLitSortieEtAttendFinExecution(CXYString<char>* pcsOutput, unsigned int* pnExitCode);
    /// Waits for the end; output is discarded as it comes, so that the child is never held up. The child's
    /// input is at its end. A grandchild that keeps the output open does not prolong the wait. A child that
    /// takes longer than nMaxMs milliseconds (0: no limit) is killed, which is a failure (ETIMEDOUT).
    bool bAttendFinExecution(unsigned int* pnExitCode, unsigned int nMaxMs = 0);
    /// Whether the child was ended by a signal, whose number is then its exit code. After a wait only.
    bool bEndedBySignal() const;
    /// True when the child has ended, or nothing is launched.
    bool bProcessusTermine() const;
    /// Writes to the child's standard input; waits while its pipe is full. True only when all was written.
    bool bEcritEntree(const void* pData, unsigned int nLength);
    /// SIGKILL, if the child has not ended.
    bool Kill();
    /// Detaches. Always true.
    bool bLibere();

private:
    bool __bLaunched() const { return m_pstChild != nullptr && CProcessManager::m_gpclManager != nullptr; }
    bool __bReadable(long nMs) const;
    /// Notes that output is missing, and ends the child, which nobody would read any more.
    void __GiveOutputUp(int nError);
    /// Whether the next read returns at once; false also when that cannot be found out.
    bool __bOutputWaits(bool bWanted);
    /// One read, whose bytes are added to *pnTotal; false at the end of the output.
    bool __bReadSome(CXYString<char>* pcsOutput, std::size_t* pnTotal);
    bool __bMayGoOn();
    void __WaitEndAfterOutput() const;

    CProcessManager::STChild* m_pstChild = nullptr; ///< null: idle
    CDescripteur m_clInput;                         ///< write end of the child's standard input
    CDescripteur m_clOutput;                        ///< read end of its output
    std::size_t m_nMaxOutput = std::size_t{1} << 20;
    std::size_t m_nOutput = 0; ///< bytes read by bLitSortieA
    int m_nOutputError = 0;    ///< why output is missing
};
