// Runs systemctl, and asks again when systemd itself is away for a moment.

#include "service/Systemctl.h"

#include "service/LanceProcessus.h"
#include "service/SystemctlOutput.h"
#include "support/Stopping.h"

#include <cerrno>
#include <chrono>
#include <tuple>

namespace {
using CClock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// Bytes of a listing; far more than the units of any machine need.
constexpr std::size_t s_nMaxListing = std::size_t{16} << 20;

/// When a question that failed is asked again, counted from its first failure. A systemd that executes itself
/// anew (daemon-reexec) is away for some tenths of a second, longer on a busy machine.
constexpr milliseconds s_tAgain[] = {milliseconds(100), milliseconds(500), milliseconds(1500)};
/// After this time no try begins.
constexpr milliseconds s_clLastTry(2000);

/// How often a tool that the daemon's stop has ended is launched again. systemd signals the processes of the
/// service's group until it finds no new one, so it may end more than one.
constexpr int s_nMaxEndedByStop = 3;
constexpr int s_nAfterStopMs = 10; ///< before such a launch

/// Whether a question that failed may be asked again.
bool bMayAskAgain()
{
    return !CStopping::bAsked() && CStopping::bMayGoOn();
}

/// Waits for the time of the next try; false when the question may not be asked again.
bool bWaitUntilNextTry(CClock::time_point clTime)
{
    while (bMayAskAgain() && CClock::now() < clTime) { // a child's exit ends a sleep early
        std::ignore = CStopping::bSleep(static_cast<int>((clTime - CClock::now()) / milliseconds(1)) + 1);
    }
    return bMayAskAgain();
}

/// Launches systemctl, reads all that it prints (null: discards it) and waits for its exit. A systemctl that
/// the daemon's stop has ended is launched again, for a caller that may go on.
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

        // What it has printed may be cut anywhere, so nothing of it counts.
        std::ignore = CStopping::bSleep(s_nAfterStopMs);
        pclTool->bLibere();
        if (pcsOutput != nullptr) {
            pcsOutput->clear();
        }
    }
}

/// Whether the output answers the question. When it holds the property, the exit status does not count. The
/// output of a systemctl that a signal ended may be only part of an answer.
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
        // A missing systemctl must not look like a missing service.
        errno = errno == ENOENT ? ECANCELED : errno;
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
    std::optional<std::string> csAnswer = csAskSystemctlOnce(stQuestion);
    int nErrno = errno;

    // The wait may outlast its time on a busy machine, so the last limit is checked after it.
    const CClock::time_point clFailed = CClock::now();
    for (const milliseconds clAfter : s_tAgain) {
        if (csAnswer || !bWaitUntilNextTry(clFailed + clAfter) || CClock::now() >= clFailed + s_clLastTry) {
            break;
        }
        csAnswer = csAskSystemctlOnce(stQuestion);
        nErrno = errno;
    }

    errno = nErrno; // the last question's, not the wait's
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
