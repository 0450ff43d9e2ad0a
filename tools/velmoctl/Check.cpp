// A monitoring plugin by the conventions of Nagios and Icinga: one line with performance data, and an exit
// status of its own.

#include "velmoctl/Fleet.h"
#include "velmoctl/Terminal.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iostream>
#include <limits>
#include <sstream>

namespace {
/// The values are the exit statuses of a plugin.
enum class EHealth : int
{
    OK,
    WARNING,
    CRITICAL,
    UNKNOWN,
};
constexpr const char* s_tHealth[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};

/// A range of the plugin conventions: "10" alerts outside of 0 to 10, "5:" below 5, "~:10" above 10, "10:20"
/// outside, "@10:20" inside.
class CRange
{
public:
    /// Throws CFailure (USAGE).
    explicit CRange(const std::string& csText)
    {
        std::string_view csLast = csText;
        m_bInside = csLast.starts_with("@");
        csLast.remove_prefix(m_bInside ? 1 : 0);

        const std::size_t nColon = csLast.find(':');
        if (nColon != csLast.npos) {
            const std::string_view csFirst = csLast.substr(0, nColon);
            m_dFirst = csFirst == "~" ? -s_dEndless : _dNumber(csFirst, csText);
            csLast.remove_prefix(nColon + 1);
        }

        const bool bNoEnd = nColon != std::string_view::npos && csLast.empty();
        m_dLast = bNoEnd ? s_dEndless : _dNumber(csLast, csText);
        if (m_dFirst > m_dLast) {
            throw _clFault(csText);
        }
    }
    bool bAlerts(std::size_t nValue) const
    {
        const auto dValue = static_cast<double>(nValue);
        return (dValue < m_dFirst || dValue > m_dLast) != m_bInside;
    }

private:
    static constexpr double s_dEndless = std::numeric_limits<double>::infinity();

    /// The failure for a range that cannot be read.
    static CFailure _clFault(const std::string& csText)
    {
        return {EExit::USAGE,
                "\"" + csArgument(csText) + "\" is not a range such as 0, 5:, ~:10, 10:20 or @10:20"};
    }
    /// A whole number: servers are counted. csText is the range, for the message.
    static double _dNumber(std::string_view cs, const std::string& csText)
    {
        int nNumber = 0;
        const auto stResult = std::from_chars(cs.data(), cs.data() + cs.size(), nNumber);
        if (stResult.ec != std::errc{} || stResult.ptr != cs.data() + cs.size()) {
            throw _clFault(csText);
        }
        return nNumber;
    }

    bool m_bInside = false; ///< alerts inside of the range instead of outside
    double m_dFirst = 0;
    double m_dLast = 0;
};

/// The count over all machines.
struct STTally
{
    std::size_t nServers = 0; ///< also those that are missing
    std::size_t nRunning = 0;
    std::size_t nMachines = 0;
    std::vector<std::string> tDown;   ///< servers that do not run: "Orders on db2 stopped"
    std::vector<std::string> tSilent; ///< for each machine without an answer, why
    Milliseconds clSlowest{0};        ///< the longest time that a machine took
};

void AddDown(const STHostAnswer& stHost, const std::string& csServer, const std::string& csState,
             STTally* pst)
{
    const std::string csOn = stHost.stHost.csName.empty() ? "" : " on " + stHost.stHost.csName;
    pst->tDown.push_back(csServer + csOn + " " + csState);
}

bool bAnyOn(const STHostAnswer& stHost, const CSelection& clWord)
{
    return std::ranges::any_of(stHost.tServers,
                               [&](const STServerAnswer& st) { return clWord.bHas(st.stServer.csName); });
}

/// Counts what is missing: for a watcher it does not run. A server that was named in full is expected on each
/// machine that answered, and what a pattern stands for on any.
void AddMissing(const std::vector<STHostAnswer>& tAnswers, const CSelection& clSelection, STTally* pst)
{
    for (const std::string& csWord : clSelection.tWords()) {
        const CSelection clWord({csWord});
        if (!clWord.bExact()) {
            if (std::ranges::none_of(tAnswers, [&](const auto& st) { return bAnyOn(st, clWord); })) {
                ++pst->nServers;
                pst->tDown.push_back(csWord + " missing");
            }
            continue;
        }

        for (const STHostAnswer& st : tAnswers) {
            if (!st.clFailure.has_value() && !bAnyOn(st, clWord)) {
                ++pst->nServers;
                AddDown(st, csWord, "missing", pst);
            }
        }
    }
}

STTally stCount(const std::vector<STHostAnswer>& tAnswers, const CSelection& clSelection)
{
    STTally stResult;
    stResult.nMachines = tAnswers.size();

    for (const STHostAnswer& stHost : tAnswers) {
        stResult.clSlowest = std::max(stResult.clSlowest, stHost.clTook);
        if (stHost.clFailure.has_value()) {
            stResult.tSilent.emplace_back(stHost.clFailure->what());
        }

        // A state that could not be read counts as down, too: nothing shows that the server runs.
        for (const STServerAnswer& st : stHost.tServers) {
            ++stResult.nServers;
            if (st.csState == "running") {
                ++stResult.nRunning;
            } else {
                AddDown(stHost, st.stServer.csName, st.csState.empty() ? "unknown" : st.csState, &stResult);
            }
        }
    }

    AddMissing(tAnswers, clSelection, &stResult);
    return stResult;
}

EHealth eHealth(const STTally& st, const CRange& clWarning, const CRange& clCritical)
{
    // Nobody knows how the servers of a silent machine are: that is no better than servers that are down.
    if (!st.tSilent.empty() || clCritical.bAlerts(st.tDown.size())) {
        return EHealth::CRITICAL;
    }
    return clWarning.bAlerts(st.tDown.size()) ? EHealth::WARNING : EHealth::OK;
}

/// ": a, b and 4 more", or nothing without a text. Without a bar, after which monitoring systems read
/// performance data.
std::string csDetails(const std::vector<std::string>& tTexts)
{
    constexpr std::size_t nMost = 5;
    std::string cs;
    for (std::size_t n = 0; n < std::min(tTexts.size(), nMost); ++n) {
        cs += (n == 0 ? ": " : ", ") + tTexts[n];
    }
    cs += tTexts.size() > nMost ? " and " + std::to_string(tTexts.size() - nMost) + " more" : "";

    std::ranges::replace(cs, '|', '/');
    return csShown(cs);
}

/// The performance data, by the plugin conventions: label=value;warning;critical;least;most
std::string csPerformance(const STTally& st, const STOptions& stOptions)
{
    std::ostringstream cl;
    cl << "not_running=" << st.tDown.size() << ";" << csArgument(stOptions.csWarning) << ";"
       << csArgument(stOptions.csCritical) << ";0;" << st.nServers << " running=" << st.nRunning << ";;;0;"
       << st.nServers << " silent=" << st.tSilent.size() << ";;0;0;" << st.nMachines
       << " time=" << static_cast<double>(st.clSlowest.count()) / 1000 << "s;;;0";
    return cl.str();
}

/// Writes the plugin's one line. The exit status is the health's number, not one of velmoctl's own.
EExit eReport(EHealth eHealthFound, const std::string& csWords)
{
    std::cout << "VELMO " << s_tHealth[static_cast<std::size_t>(eHealthFound)] << " - " << csWords << "\n";
    return static_cast<EExit>(eHealthFound);
}
} // namespace

EExit eCheck(const STCall& stCall)
{
    const CSelection clSelection(stCall.tArguments);
    const CSelection clIgnored(tItems(stCall.stOptions.tIgnore));
    const CRange clWarning(stCall.stOptions.csWarning), clCritical(stCall.stOptions.csCritical);

    // An ignored server is not asked about, so nothing below counts it.
    STQuestions stQuestions = stStateQuestions(stCall);
    stQuestions.fnWanted = [&](const STServer& st) {
        return (clSelection.bAll() || clSelection.bHas(st.csName)) && !clIgnored.bHas(st.csName);
    };

    const auto tAnswers = tAskFleet(stQuestions, false, [](const auto&) {});
    const STTally st = stCount(tAnswers, clSelection);

    const std::string csSilent =
        st.tSilent.empty() ? ""
                           : std::to_string(st.tSilent.size()) + " silent" + csDetails(st.tSilent) + "; ";
    return eReport(eHealth(st, clWarning, clCritical), csSilent + std::to_string(st.nRunning) + " of " +
                                                           std::to_string(st.nServers) + " servers running" +
                                                           csDetails(st.tDown) + " | " +
                                                           csPerformance(st, stCall.stOptions));
}

EExit eTellMonitoring(const CFailure& clFailure)
{
    return eReport(EHealth::UNKNOWN, csShown(clFailure.what()));
}
