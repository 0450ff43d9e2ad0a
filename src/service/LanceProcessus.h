#pragma once

#include "service/ProcessManager.h"
#include "support/Descripteur.h"
#include "support/XError.h"
#include "support/XYString.h"

/// Cuts psz in place at spaces. A word that begins with a double quote runs to the next one, and loses both;
/// nothing else is special. Stores at most nMax words, which are parts of psz, ignores the rest, and returns
/// the count.
int nSplitArguments(char* psz, char** ppszArguments, int nMax) noexcept;

/// Runs one program without a shell and gives its merged output and exit code.
///
/// One object drives one child at a time: idle -> launched -> idle, reusable after bLibere(), which a second
/// launch implies. bLibere() and the destructor let go of the child, which is never killed and still reaped.
/// One thread uses an object; different objects may run in different threads. Launches are possible between
/// sInit() and sTerm() only. Once the calling thread may not go on (CStopping::bMayGoOn), launching and
/// waiting fail with ECANCELED: a stop leaves the child to itself, a cancel kills it.
class CLanceProcessus
{
public:
    /// Create and destroy the process-wide child table (CProcessManager); main thread.
    static void sInit();
    static void sTerm();

    CLanceProcessus() = default;
    CLanceProcessus(const CLanceProcessus&) = delete;
    CLanceProcessus& operator=(const CLanceProcessus&) = delete;
    virtual ~CLanceProcessus();

    /// Starts the program (full path, must be executable) with at most 49 arguments, cut from pszArguments by
    /// nSplitArguments. False on failure, with errno and the error filled; the object is then idle.
    bool bLanceProcessus(const wchar_t* pszProgram, const wchar_t* pszArguments, CXError* pclError);
    /// Sets how many bytes the two readers below take from one child (1 MiB unless set). A child that prints
    /// more is killed.
    void LimitOutput(std::size_t nMax) { m_nMaxOutput = nMax; }
    /// Appends what the child has written so far (null: discards it). When the child is alive and silent, the
    /// call pauses for 2 seconds, or until the child's exit; clients rely on this pace. False only when
    /// nothing is launched.
    bool bLitSortieA(CXYString<char>* pcsOutput);
    /// Reads all output until the child exits, then takes its exit code. False when output is missing: the
    /// child printed more than the limit (EFBIG), or its output could not be read. The child is then killed.
    bool bLitSortieEtAttendFinExecution(CXYString<char>* pcsOutput, unsigned int* pnExitCode);
    /// Waits for the child's exit. Closes its input, and discards its output as it comes, so that the child
    /// never waits for us. A grandchild that keeps the output open does not prolong the wait. A child that
    /// takes longer than nMaxMs milliseconds (0: no limit) is killed, and the call fails with ETIMEDOUT.
    bool bAttendFinExecution(unsigned int* pnExitCode, unsigned int nMaxMs = 0);
    /// Whether a signal ended the child; its number is then the exit code. After a wait only.
    bool bEndedBySignal() const;
    /// True when the child has exited, or nothing is launched.
    bool bProcessusTermine() const;
    /// Writes to the child's standard input; waits while its pipe is full. True only when all was written; a
    /// child that has closed its input is an error (EPIPE).
    bool bEcritEntree(const void* pData, unsigned int nLength);
    /// Sends SIGKILL if the child has not exited. Always true.
    bool Kill();
    /// Lets go of the child; the object is then idle. Always true.
    bool bLibere();

private:
    bool _bLaunched() const { return m_pstChild != nullptr && CProcessManager::m_gpclManager != nullptr; }
    /// Creates the child and keeps our ends of its pipes. False on failure, with errno and the error filled.
    bool _bCreateChild(const wchar_t* pszProgram, const wchar_t* pszArguments, CXError* pclError);
    bool _bReadable(long nMs) const;
    /// Notes that output is missing and why. Kills the child, whose output nobody would read any more.
    void _GiveOutputUp(int nError);
    /// Whether the next read returns at once. False also when select fails; wanted output is then given up.
    bool _bOutputWaits(bool bWanted);
    /// Reads once and adds the count of bytes to *pnTotal; false when there is nothing more to read.
    bool _bReadSome(CXYString<char>* pcsOutput, std::size_t* pnTotal);
    bool _bKeepWaiting();
    void _WaitForExitAfterOutput() const;
    void _PauseForSilentChild();

    CProcessManager::STChild* m_pstChild = nullptr; ///< null: idle
    CDescripteur m_clInput;                         ///< write end of the child's standard input
    CDescripteur m_clOutput;                        ///< read end of its output
    std::size_t m_nMaxOutput = std::size_t{1} << 20;
    std::size_t m_nOutput = 0; ///< bytes that bLitSortieA has read from this child
    int m_nOutputError = 0;    ///< errno: why output is missing; 0: none is
};
