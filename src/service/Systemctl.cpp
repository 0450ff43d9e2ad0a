#include "service/Systemctl.h"

#include "service/LanceProcessus.h"
#include "service/SystemctlOutput.h"
#include "support/Stopping.h"

#include <cerrno>
#include <chrono>

namespace {
using CClock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::size_t s_nMaxListing = std::size_t{16} << 20;

/// When a question that failed is asked again, counted from its first failure. systemd needs some tenths of a
/// second to execute itself anew, and longer on a busy machine.
constexpr milliseconds s_tAgain[] = {milliseconds(100), milliseconds(500), milliseconds(1500)};
/// After that time no try begins any more.
constexpr milliseconds s_clLastTry{2000};

/// Tools that the stop of the daemon may end, one after the other, for one caller: systemd goes through the
/// group until it finds no new process in it.
constexpr int s_nMaxEndedByStop = 3;
constexpr int s_nAfterStopMs = 10;

/// Whether a question that failed may be asked again.
bool bMayAskAgain()
{
    return !CStopping::bAsked() && CStopping::bMayGoOn();
}

/// False when there is no more asking.
bool bWaitUntilNextTry(CClock::time_point clTime)
{
    while (bMayAskAgain() && CClock::now() < clTime) { // a child's exit ends a sleep early
        (void)CStopping::bSleep(static_cast<int>((clTime - CClock::now()) / milliseconds(1)) + 1);
    }
    return bMayAskAgain();
}

/// Launches systemctl and waits for it, reading all that it prints (null: discarded). One that the stop of
/// the daemon has ended is launched again for a caller that may go on.
bool bRun(CLanceProcessus* pclTool, const std::wstring& csArguments, std::string* pcsOutput,
          unsigned int* pnExitCode)
{
    for (int n = 0;; ++n) {
        if (!pclTool->bLanceProcessus(g_szSystemctl, csArguments.c_str(), nullptr) ||
            !pclTool->bLitSortieEtAttendFinExecution(pcsOutput, pnExitCode)) {
            return false;
        }
        if (n == s_nMaxEndedByStop || !pclTool->bEndedBySignal() ||
            !CStopping::bToolEndedByStop(*pnExitCode)) {
            return true;
        }
        (void)CStopping::bSleep(s_nAfterStopMs);
        pclTool->bLibere();
        if (pcsOutput != nullptr) {
            pcsOutput->clear();
        }
    }
}

/// An answer that is there counts whatever the exit status; what a tool printed before a signal ended it may
/// be part of one only.
bool bIsAnswer(const STSystemctlQuestion& stQuestion, const CLanceProcessus& clTool, unsigned int nExitCode,
               std::string_view csOutput)
{
    if (clTool.bEndedBySignal()) {
        return false;
    }
    return nExitCode == 0 ||
           (!stQuestion.csProperty.empty() && !csPropertyLine(csOutput, stQuestion.csProperty).empty());
}
} // namespace

STSystemctlQuestion stListUnits()
{
    return {L"list-units --all --type=service --full --no-pager --no-legend", {}, s_nMaxListing};
}

bool bAskPersistently(const std::function<bool()>& fnAsk)
{
    bool bAnswered = fnAsk();
    int nErrno = errno;

    const CClock::time_point clFailed = CClock::now();
    for (const milliseconds clAfter : s_tAgain) {
        if (bAnswered || !bWaitUntilNextTry(clFailed + clAfter) || CClock::now() >= clFailed + s_clLastTry) {
            break;
        }
        bAnswered = fnAsk();
        nErrno = errno;
    }

    errno = nErrno;
    return bAnswered;
}

STSystemctlQuestion stListUnitFiles()
{
    return {L"list-unit-files --type=service --full --no-pager --no-legend", {}, s_nMaxListing};
}

std::optional<std::string> csAskSystemctlOnce(const STSystemctlQuestion& stQuestion)
{
    CLanceProcessus clTool;
    clTool.LimitOutput(stQuestion.nMaxOutput);
    std::string csOutput;
    unsigned int nExitCode = 1;
    if (!bRun(&clTool, stQuestion.csArguments, &csOutput, &nExitCode)) {
        errno = errno == ENOENT ? ECANCELED : errno; // the tool is missing, not what was asked for
        return std::nullopt;
    }
    if (!bIsAnswer(stQuestion, clTool, nExitCode, csOutput)) {
        errno = ECANCELED;
        return std::nullopt;
    }
    return csOutput;
}

std::optional<std::string> csAskSystemctl(const STSystemctlQuestion& stQuestion)
{
    std::optional<std::string> csAnswer;
    (void)bAskPersistently([&] {
        csAnswer = csAskSystemctlOnce(stQuestion);
        return csAnswer.has_value();
    });
    return csAnswer;
}

bool bSystemctlDone(const std::wstring& csArguments)
{
    CLanceProcessus clTool;
    unsigned int nExitCode = 1;
    if (!bRun(&clTool, csArguments, nullptr, &nExitCode)) {
        return false;
    }
    if (nExitCode != 0) {
        errno = ECANCELED;
    }
    return nExitCode == 0;
}
