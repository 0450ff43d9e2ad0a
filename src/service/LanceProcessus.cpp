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
#include <unistd.h>

namespace {
constexpr int s_nMaxArguments = 50; ///< the program included
/// Room for a child's output: what fits does not hold the child up while its reader pauses.
constexpr std::size_t s_nOutputRoom = std::size_t{1} << 20;
constexpr std::size_t s_nBlock = 1024; ///< bytes of one read
constexpr long s_nGoOnMs = 50;         ///< a child that waited for room in its pipe writes again within

/// Appends without doubling a large text: while it moves, both copies are in memory.
void AppendWithin(std::string* pcsText, std::string_view csMore, std::size_t nMax)
{
    const std::size_t nSize = pcsText->size() + csMore.size();
    if (nSize > pcsText->capacity() && nSize > nMax / 8) {
        pcsText->reserve(nMax + s_nBlock);
    }
    pcsText->append(csMore);
}

void Nap(int nMs)
{
    ::poll(nullptr, 0, nMs); // ends early when a child ends
}

/// Whether the calling thread may still launch tools and wait for them; errno tells that it may not. Its tool
/// is then left to itself.
bool bMayGoOn()
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
    sTerm(); // the old one restores the signal actions that the new one takes over
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
    std::string csProgram = csToUTF8(pszProgram);
    if (!bMayGoOn()) {
        return bFail(pclError, L"stop", pszProgram);
    }
    if (::access(csProgram.c_str(), X_OK) != 0) {
        return bFail(pclError, L"access", pszProgram);
    }
    std::string csArguments = csToUTF8(pszArguments);
    std::array<char*, s_nMaxArguments + 1> tArguments{};
    tArguments[0] = csProgram.data();
    nSplitArguments(csArguments.data(), &tArguments[1], s_nMaxArguments - 1);

    STPipe stInput;
    STPipe stOutput;
    if (!bOpenPipe(&stInput) || !bOpenPipe(&stOutput)) {
        return bFail(pclError, L"pipe", pszProgram);
    }
    // Refused: the usual room does as well.
    (void)::fcntl(stOutput.clWrite.nFd(), F_SETPIPE_SZ, static_cast<int>(s_nOutputRoom));
    const std::vector<char*> tEnvironment = tToolEnvironment(csProgram);
    const STChildStart stStart{csProgram.c_str(),    tArguments.data(),      tEnvironment.data(),
                               stInput.clRead.nFd(), stOutput.clWrite.nFd(), stOutput.clWrite.nFd()};
    m_pstChild = CProcessManager::m_gpclManager->pstFork(stStart);
    if (m_pstChild == nullptr) {
        return bFail(pclError, L"fork", pszProgram);
    }
    m_clInput = std::move(stInput.clWrite);
    m_clOutput = std::move(stOutput.clRead);
    return true;
}

bool CLanceProcessus::__bReadable(long nMs) const
{
    CSelectSet clSet;
    clSet.Add(m_clOutput.nFd());
    timeval stTimeout{nMs / 1000, nMs % 1000 * 1000};
    return clSet.nSelect(&stTimeout) > 0;
}

bool CLanceProcessus::__bReadSome(CXYString<char>* pcsOutput, std::size_t* pnTotal)
{
    std::array<char, s_nBlock> tBuffer;
    const ssize_t nRead = ::read(m_clOutput.nFd(), tBuffer.data(), tBuffer.size());
    if (nRead <= 0) {
        if (nRead < 0 && errno != EINTR && pcsOutput != nullptr) {
            __GiveOutputUp(errno);
        }
        return nRead < 0 && errno == EINTR;
    }
    *pnTotal += static_cast<std::size_t>(nRead);
    if (pcsOutput != nullptr) {
        AppendWithin(pcsOutput, {tBuffer.data(), static_cast<std::size_t>(nRead)}, m_nMaxOutput);
    }
    return true;
}

void CLanceProcessus::__GiveOutputUp(int nError)
{
    m_nOutputError = nError;
    Kill();
}

bool CLanceProcessus::__bOutputWaits(bool bWanted)
{
    CSelectSet clSet;
    clSet.Add(m_clOutput.nFd());
    const int nReady = nRetry([&] {
        timeval stAtOnce{};
        return clSet.nSelect(&stAtOnce);
    });
    if (nReady < 0 && bWanted) {
        __GiveOutputUp(errno);
    }
    return nReady > 0;
}

/// A tool whose work was cancelled must not do it later.
bool CLanceProcessus::__bMayGoOn()
{
    const bool bOn = bMayGoOn();
    if (CStopping::bCancelled()) {
        Kill();
        errno = ECANCELED;
    }
    return bOn;
}

/// A child whose output is at its end is about to end itself: wait a moment for that before the long pause,
/// which an end that came just before it would not cut short.
void CLanceProcessus::__WaitEndAfterOutput() const
{
    for (int nMs = 1; nMs <= 16 && !bProcessusTermine(); nMs *= 2) {
        Nap(nMs);
    }
}

bool CLanceProcessus::bLitSortieA(CXYString<char>* pcsOutput)
{
    if (!__bLaunched()) {
        return false;
    }
    std::size_t nTotal = 0;
    bool bOpen = true;
    // No more than the pipe holds: something that the child has left behind may go on printing for ever.
    while (bOpen && m_nOutputError == 0 && nTotal < s_nOutputRoom && __bOutputWaits(pcsOutput != nullptr)) {
        bOpen = __bReadSome(pcsOutput, &nTotal);
        if (m_nOutput + nTotal > m_nMaxOutput) {
            __GiveOutputUp(EFBIG);
        }
    }
    m_nOutput += nTotal;
    if (!bOpen) {
        __WaitEndAfterOutput();
    }
    // A child that has filled its pipe before is about to go on: a long pause for each pipeful would take
    // half a minute for what a listing may print.
    if (nTotal == 0 && m_nOutput >= s_nOutputRoom && m_nOutputError == 0 && __bReadable(s_nGoOnMs)) {
        return true;
    }
    if (nTotal == 0) {
        CProcessManager::m_gpclManager->Pause(m_pstChild);
    }
    return true;
}

bool CLanceProcessus::bLitSortieEtAttendFinExecution(CXYString<char>* pcsOutput, unsigned int* pnExitCode)
{
    if (!__bLaunched()) {
        return false;
    }
    m_clInput.Close();
    while (!bProcessusTermine()) {
        if (!__bMayGoOn()) {
            return false;
        }
        bLitSortieA(pcsOutput);
    }
    bLitSortieA(pcsOutput); // what was written just before the end
    const bool bEnded = bAttendFinExecution(pnExitCode);
    if (m_nOutputError != 0) {
        errno = m_nOutputError;
        return false;
    }
    return bEnded;
}

bool CLanceProcessus::bAttendFinExecution(unsigned int* pnExitCode, unsigned int nMaxMs)
{
    if (!__bLaunched()) {
        return false;
    }
    m_clInput.Close();
    // Rounds of 1 ms, 2 ms, 3 ms and so on up to 100 ms; output that comes meanwhile, and the child's end,
    // cut one short.
    const auto clEnd = std::chrono::steady_clock::now() + std::chrono::milliseconds(nMaxMs);
    int nCode = 0;
    bool bOpen = true;
    std::size_t nDiscarded = 0;
    for (int nMs = 1; !CProcessManager::m_gpclManager->bGetCode(m_pstChild, &nCode);) {
        if (!__bMayGoOn()) {
            return false;
        }
        if (nMaxMs != 0 && std::chrono::steady_clock::now() >= clEnd) {
            Kill();
            errno = ETIMEDOUT;
            return false;
        }
        if (!bOpen) {
            Nap(nMs);
        } else if (__bReadable(nMs)) {
            bOpen = __bReadSome(nullptr, &nDiscarded);
        }
        nMs = std::min(nMs + 1, 100);
    }
    if (pnExitCode != nullptr) {
        *pnExitCode = static_cast<unsigned int>(nCode);
    }
    return true;
}

bool CLanceProcessus::bEndedBySignal() const
{
    return __bLaunched() && CProcessManager::m_gpclManager->bEndedBySignal(m_pstChild);
}

bool CLanceProcessus::bProcessusTermine() const
{
    int nCode = 0;
    return !__bLaunched() || CProcessManager::m_gpclManager->bGetCode(m_pstChild, &nCode);
}

bool CLanceProcessus::bEcritEntree(const void* pData, unsigned int nLength)
{
    return m_clInput.bOpen() && bWriteAll(m_clInput.nFd(), {static_cast<const char*>(pData), nLength});
}

bool CLanceProcessus::Kill()
{
    if (__bLaunched()) {
        CProcessManager::m_gpclManager->Kill(m_pstChild, SIGKILL);
    }
    return true;
}

bool CLanceProcessus::bLibere()
{
    if (__bLaunched()) {
        CProcessManager::m_gpclManager->FreePid(m_pstChild);
    }
    m_clInput.Close();
    m_clOutput.Close();
    m_pstChild = nullptr;
    m_nOutput = 0;
    m_nOutputError = 0;
    return true;
}
