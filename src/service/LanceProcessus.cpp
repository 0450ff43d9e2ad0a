// One child after another for one caller: pipes, the argument vector, and the pace at which the child is
// watched.

#include "service/LanceProcessus.h"

#include "service/ToolEnvironment.h"
#include "support/Conversion.h"
#include "support/SelectSet.h"
#include "support/Stopping.h"
#include "support/SystemCall.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <tuple>
#include <unistd.h>

namespace {
constexpr int s_nMaxArguments = 50; ///< the program included
/// Bytes that the output pipe holds: a child that prints no more never waits for its pausing reader.
constexpr std::size_t s_nOutputRoom = std::size_t{1} << 20;
/// Bytes of one read. They lie on the stack, and a worker thread has only 64 KiB of stack.
constexpr std::size_t s_nBlock = 1024;
/// How long a child that had to wait for room in its pipe may take to write again.
constexpr long s_nGoOnMs = 50;

/// Appends. Once the text is large, reserves what the limit allows: growing by doubling would have both the
/// old and the new copy in memory while the text moves. The caller refuses what exceeds the limit.
void AppendReserving(std::string* pcsText, std::string_view csMore, std::size_t nLimit)
{
    const std::size_t nSize = pcsText->size() + csMore.size();
    if (nSize > pcsText->capacity() && nSize > nLimit / 8) {
        pcsText->reserve(nLimit + s_nBlock);
    }
    pcsText->append(csMore);
}

/// For short pauses only: a child's exit ends one early, by SIGCHLD, but the daemon's stop does not.
void Nap(int nMs)
{
    ::poll(nullptr, 0, nMs);
}

/// CStopping::bMayGoOn, with errno ECANCELED when the calling thread may no longer launch tools or wait for
/// them.
bool bCheckMayGoOn()
{
    if (!CStopping::bMayGoOn()) {
        errno = ECANCELED;
        return false;
    }
    return true;
}
} // namespace

int nSplitArguments(char* psz, char** ppszArguments, int nMax) noexcept
{
    int nCount = 0;
    while (nCount < nMax) {
        while (*psz == ' ') {
            ++psz;
        }
        if (*psz == '\0') {
            break;
        }

        const char cEnd = *psz == '"' ? '"' : ' ';
        if (cEnd == '"') {
            ++psz;
        }

        // The separator after the word becomes its terminator. A quote without a partner runs to the end.
        ppszArguments[nCount++] = psz;
        while (*psz != '\0' && *psz != cEnd) {
            ++psz;
        }
        if (*psz != '\0') {
            *psz++ = '\0';
        }
    }
    return nCount;
}

void CLanceProcessus::sInit()
{
    sTerm(); // the old manager restores the signal actions, which the new one then takes over
    CProcessManager::m_gpclManager = std::make_unique<CProcessManager>();
}

void CLanceProcessus::sTerm()
{
    CProcessManager::m_gpclManager.reset();
}

CLanceProcessus::~CLanceProcessus()
{
    bLibere();
}

bool CLanceProcessus::bLanceProcessus(const wchar_t* pszProgram, const wchar_t* pszArguments,
                                      CXError* pclError)
{
    bLibere();
    if (CProcessManager::m_gpclManager == nullptr) {
        errno = ESHUTDOWN;
        return bFail(pclError, L"launch", pszProgram);
    }
    if (!bCheckMayGoOn()) {
        return bFail(pclError, L"stop", pszProgram);
    }

    // Checked here, because pstFork succeeds without a program, too: the caller would learn of a missing one
    // only by the child's exit status 127.
    if (::access(csToUTF8(pszProgram).c_str(), X_OK) != 0) {
        return bFail(pclError, L"access", pszProgram);
    }
    return _bCreateChild(pszProgram, pszArguments, pclError);
}

bool CLanceProcessus::_bCreateChild(const wchar_t* pszProgram, const wchar_t* pszArguments, CXError* pclError)
{
    // The words are parts of csArguments; the null after the last one ends the list.
    std::string csProgram = csToUTF8(pszProgram);
    std::string csArguments = csToUTF8(pszArguments);
    std::array<char*, s_nMaxArguments + 1> tArguments{};
    tArguments[0] = csProgram.data();
    nSplitArguments(csArguments.data(), &tArguments[1], s_nMaxArguments - 1);

    STPipe stInput;
    STPipe stOutput;
    if (!bOpenPipe(&stInput) || !bOpenPipe(&stOutput)) {
        return bFail(pclError, L"pipe", pszProgram);
    }
    // The kernel may refuse so much: a smaller pipe works, too, only slower.
    std::ignore = ::fcntl(stOutput.clWrite.nFd(), F_SETPIPE_SZ, static_cast<int>(s_nOutputRoom));

    // The child's standard output and standard error share one pipe.
    const std::vector<char*> tEnvironment = tToolEnvironment(csProgram);
    const STChildStart stStart{csProgram.c_str(),    tArguments.data(),      tEnvironment.data(),
                               stInput.clRead.nFd(), stOutput.clWrite.nFd(), stOutput.clWrite.nFd()};
    m_pstChild = CProcessManager::m_gpclManager->pstFork(stStart);
    if (m_pstChild == nullptr) {
        return bFail(pclError, L"fork", pszProgram);
    }

    // Our copies of the child's two ends close on return: its output would otherwise never reach end of file.
    m_clInput = std::move(stInput.clWrite);
    m_clOutput = std::move(stOutput.clRead);
    return true;
}

/// Waits for output or its end of file; false when the time is over, and when a signal (mostly a child's
/// exit) ended the wait.
bool CLanceProcessus::_bReadable(long nMs) const
{
    CSelectSet clSet;
    clSet.Add(m_clOutput.nFd());
    timeval stTimeout{nMs / 1000, nMs % 1000 * 1000};
    return clSet.nSelect(&stTimeout) > 0;
}

bool CLanceProcessus::_bReadSome(CXYString<char>* pcsOutput, std::size_t* pnTotal)
{
    std::array<char, s_nBlock> tBuffer; // not cleared: read fills what is used
    const ssize_t nRead = ::read(m_clOutput.nFd(), tBuffer.data(), tBuffer.size());
    if (nRead < 0 && errno == EINTR) { // nothing was read, but there may be more
        return true;
    }
    if (nRead < 0 && pcsOutput != nullptr) {
        _GiveOutputUp(errno);
    }
    if (nRead <= 0) {
        return false;
    }

    *pnTotal += static_cast<std::size_t>(nRead);
    if (pcsOutput != nullptr) {
        AppendReserving(pcsOutput, {tBuffer.data(), static_cast<std::size_t>(nRead)}, m_nMaxOutput);
    }
    return true;
}

void CLanceProcessus::_GiveOutputUp(int nError)
{
    m_nOutputError = nError;
    Kill();
}

bool CLanceProcessus::_bOutputWaits(bool bWanted)
{
    CSelectSet clSet;
    clSet.Add(m_clOutput.nFd());
    const int nReady = nRetry([&] {
        timeval stAtOnce{}; // anew for each call: select may change it
        return clSet.nSelect(&stAtOnce);
    });
    if (nReady < 0 && bWanted) {
        _GiveOutputUp(errno);
    }
    return nReady > 0;
}

/// Whether to go on waiting for the tool; if not, errno is ECANCELED. A tool whose work was cancelled is
/// killed: that work must not be done later.
bool CLanceProcessus::_bKeepWaiting()
{
    const bool bGoOn = bCheckMayGoOn();

    // In this order: a cancel that came between the two looks would otherwise end the wait and leave the tool
    // alive.
    if (CStopping::bCancelled()) {
        Kill();
        errno = ECANCELED;
    }
    return bGoOn;
}

/// Called once the child's output has reached end of file. Waits up to 31 ms for the exit, which mostly
/// follows at once, so that the caller seldom needs the long pause.
void CLanceProcessus::_WaitForExitAfterOutput() const
{
    for (int nMs = 1; nMs <= 16 && !bProcessusTermine(); nMs *= 2) {
        Nap(nMs);
    }
}

/// The long pause of a reader that has found nothing to read.
void CLanceProcessus::_PauseForSilentChild()
{
    // A child that has printed more than a pipeful may have waited for room, and writes on as soon as it has
    // some: give it a moment before the long pause. A long pause for each pipeful would add up to half a
    // minute for what a listing may print (16 MiB).
    const bool bMayHaveWaitedForRoom = m_nOutput >= s_nOutputRoom && m_nOutputError == 0;
    if (!bMayHaveWaitedForRoom || !_bReadable(s_nGoOnMs)) {
        CProcessManager::m_gpclManager->Pause(m_pstChild);
    }
}

bool CLanceProcessus::bLitSortieA(CXYString<char>* pcsOutput)
{
    if (!_bLaunched()) {
        return false;
    }

    // At most one pipeful a call: a process that the child has left running may go on printing for ever.
    std::size_t nTotal = 0;
    bool bOpen = true;
    while (bOpen && m_nOutputError == 0 && nTotal < s_nOutputRoom && _bOutputWaits(pcsOutput != nullptr)) {
        bOpen = _bReadSome(pcsOutput, &nTotal);
        if (m_nOutput + nTotal > m_nMaxOutput) {
            _GiveOutputUp(EFBIG);
        }
    }
    m_nOutput += nTotal;

    if (!bOpen) {
        _WaitForExitAfterOutput();
    }

    if (nTotal == 0) {
        _PauseForSilentChild();
    }
    return true;
}

bool CLanceProcessus::bLitSortieEtAttendFinExecution(CXYString<char>* pcsOutput, unsigned int* pnExitCode)
{
    if (!_bLaunched()) {
        return false;
    }

    // Nobody writes to the child any more; one that reads must see the end of its input.
    m_clInput.Close();

    while (!bProcessusTermine()) {
        if (!_bKeepWaiting()) {
            return false;
        }
        bLitSortieA(pcsOutput);
    }
    bLitSortieA(pcsOutput); // what the child wrote just before its exit

    // The child has exited: this only takes its exit code.
    const bool bHasCode = bAttendFinExecution(pnExitCode);
    if (m_nOutputError != 0) {
        errno = m_nOutputError;
        return false;
    }
    return bHasCode;
}

bool CLanceProcessus::bAttendFinExecution(unsigned int* pnExitCode, unsigned int nMaxMs)
{
    if (!_bLaunched()) {
        return false;
    }

    // Nobody writes to the child any more; one that reads must see the end of its input.
    m_clInput.Close();

    // Look after 1 ms, 2 ms, 3 ms and so on up to 100 ms; output and the child's exit end a wait early.
    // Output must be drained meanwhile, or a child that prints more than the pipe holds would never exit.
    const auto clEnd = std::chrono::steady_clock::now() + std::chrono::milliseconds(nMaxMs);
    int nCode = 0;
    bool bOpen = true;          // until the output reaches end of file
    std::size_t nDiscarded = 0; // of no use here: _bReadSome counts
    for (int nMs = 1; !CProcessManager::m_gpclManager->bGetCode(m_pstChild, &nCode);
         nMs = std::min(nMs + 1, 100)) {
        if (!_bKeepWaiting()) {
            return false;
        }
        if (nMaxMs != 0 && std::chrono::steady_clock::now() >= clEnd) {
            Kill();
            errno = ETIMEDOUT;
            return false;
        }

        if (!bOpen) { // at end of file the pipe is always readable, so select would return at once
            Nap(nMs);
        } else if (_bReadable(nMs)) {
            bOpen = _bReadSome(nullptr, &nDiscarded);
        }
    }

    if (pnExitCode != nullptr) {
        *pnExitCode = static_cast<unsigned int>(nCode);
    }
    return true;
}

bool CLanceProcessus::bEndedBySignal() const
{
    return _bLaunched() && CProcessManager::m_gpclManager->bEndedBySignal(m_pstChild);
}

bool CLanceProcessus::bProcessusTermine() const
{
    int nCode = 0;
    return !_bLaunched() || CProcessManager::m_gpclManager->bGetCode(m_pstChild, &nCode);
}

bool CLanceProcessus::bEcritEntree(const void* pData, unsigned int nLength)
{
    return m_clInput.bOpen() && bWriteAll(m_clInput.nFd(), {static_cast<const char*>(pData), nLength});
}

bool CLanceProcessus::Kill()
{
    if (_bLaunched()) {
        CProcessManager::m_gpclManager->Kill(m_pstChild, SIGKILL);
    }
    return true;
}

bool CLanceProcessus::bLibere()
{
    if (_bLaunched()) {
        CProcessManager::m_gpclManager->FreePid(m_pstChild);
    }
    m_clInput.Close();
    m_clOutput.Close();
    m_pstChild = nullptr;
    m_nOutput = 0;
    m_nOutputError = 0;
    return true;
}
