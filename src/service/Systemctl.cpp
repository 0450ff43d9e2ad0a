#include "service/Systemctl.h"

#include "service/LanceProcessus.h"
#include "service/SystemctlOutput.h"

#include <cerrno>
#include <chrono>
#include <poll.h>

namespace {
using CClock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::size_t s_nMaxListing = std::size_t{16} << 20;

/// When a question that failed is asked again, counted from its first failure. systemd needs some tenths of a
/// second to execute itself anew, and longer on a busy machine.
constexpr milliseconds s_tAgain[] = {milliseconds(100), milliseconds(500), milliseconds(1500)};
/// After that time no try begins any more.
constexpr milliseconds s_clLastTry{2000};
/// Waits look this often whether the process is to end.
constexpr int s_nLookMs = 20;

/// Whether a question that failed may be asked again.
bool bMayAskAgain()
{
    return true;
}

/// False when there is no more asking.
bool bWaitUntilNextTry(CClock::time_point clTime)
{
    while (bMayAskAgain() && CClock::now() < clTime) {
        ::poll(nullptr, 0, s_nLookMs); // a child's exit ends it early, which does no harm
    }
    return bMayAskAgain();
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

std::optional<std::string> csAskOnce(const STSystemctlQuestion& stQuestion)
{
    CLanceProcessus clTool;
    clTool.LimitOutput(stQuestion.nMaxOutput);
    std::string csOutput;
    unsigned int nExitCode = 1;
    if (!clTool.bLanceProcessus(g_szSystemctl, stQuestion.csArguments.c_str(), nullptr) ||
        !clTool.bLitSortieEtAttendFinExecution(&csOutput, &nExitCode)) {
        errno = errno == ENOENT ? ECANCELED : errno; // the tool is missing, not what was asked for
        return std::nullopt;
    }
    if (!bIsAnswer(stQuestion, clTool, nExitCode, csOutput)) {
        errno = ECANCELED;
        return std::nullopt;
    }
    return csOutput;
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

std::optional<std::string> csAskSystemctl(const STSystemctlQuestion& stQuestion)
{
    std::optional<std::string> csAnswer;
    (void)bAskPersistently([&] {
        csAnswer = csAskOnce(stQuestion);
        return csAnswer.has_value();
    });
    return csAnswer;
}

bool bSystemctlDone(const std::wstring& csArguments)
{
    CLanceProcessus clTool;
    unsigned int nExitCode = 1;
    if (!clTool.bLanceProcessus(g_szSystemctl, csArguments.c_str(), nullptr) ||
        !clTool.bLitSortieEtAttendFinExecution(nullptr, &nExitCode)) {
        return false;
    }
    if (nExitCode != 0) {
        errno = ECANCELED;
    }
    return nExitCode == 0;
}
