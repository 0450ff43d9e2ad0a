// The commands that only ask: info, list, status, cluster.

#include "velmoctl/AskFor.h"
#include "velmoctl/Commands.h"
#include "velmoctl/Fleet.h"
#include "velmoctl/Inventory.h"
#include "velmoctl/ServerList.h"

#include <algorithm>
#include <iostream>
#include <tuple>

namespace {
/// Reports what went wrong; returns the exit status that follows from that.
EExit eReportTroubles(const std::vector<STHostAnswer>& tAnswers, const CSelection& clSelection)
{
    TellTroubles(tTroubles(tAnswers, clSelection));
    return eWorstOf(tAnswers, clSelection);
}

/// Takes no answers: for commands that show all of them at the end.
const CTakeAnswers s_fnLater = [](const std::vector<const STHostAnswer*>&) {};

/// The JSON object of a machine; null where it gave no answer.
Json clJsonInfo(const STHostAnswer& st)
{
    const bool bAnswer = st.stInfo.has_value();
    const STInfo stInfo = st.stInfo.value_or(STInfo());
    Json cl = {{"host", csHostWord(st.stHost)}, {"asked", csWhenAsked(st)}};
    cl["version"] = bAnswer ? Json(stInfo.csVersion) : Json();
    cl["system"] = bAnswer ? Json(stInfo.csSystem) : Json();
    cl["kernel"] = bAnswer ? Json(stInfo.csKernel) : Json();
    cl["processors"] = bAnswer ? Json(stInfo.csProcessors) : Json();
    cl["memory"] = bAnswer ? Json(stInfo.csMemory) : Json();
    cl["servers"] = bAnswer ? clJsonServers(stInfo.tServers) : Json();
    cl["error"] = clJsonFailure(st.clFailure);
    return cl;
}

void ShowInfo(const STInfo& st)
{
    std::cout << "version     " << csShown(st.csVersion) << "\nsystem      " << csShown(st.csSystem)
              << "\nkernel      " << csShown(st.csKernel) << "\nprocessors  " << csShown(st.csProcessors)
              << "\nmemory      " << csShown(st.csMemory) << "\nservers     " << st.tServers.size() << "\n";
    for (const STServer& stServer : st.tServers) {
        std::cout << "  " << csShown(stServer.csName + ", port " + stServer.csPort) << "\n";
    }
}

CRow tInfoRow(const STHostAnswer& st)
{
    return {{csHostWord(st.stHost)},
            {st.stInfo->csVersion},
            {st.stInfo->csSystem},
            {st.stInfo->csKernel},
            {st.stInfo->csProcessors},
            {st.stInfo->csMemory},
            {std::to_string(st.stInfo->tServers.size())}};
}

/// A table that grows as answers come in. Its header comes with the first rows, so that their widths count.
class CGrowingTable
{
public:
    CGrowingTable(const std::vector<std::string>& tHeader, bool bHeader)
        : m_clTable(tHeader), m_bHeader(bHeader)
    {}
    void Add(const std::vector<CRow>& tRows)
    {
        m_clTable.Fit(tRows);
        if (m_bHeader) {
            std::cout << m_clTable.csHeader();
            m_bHeader = false;
        }
        std::cout << m_clTable.csRows(tRows) << std::flush;
    }

private:
    CTable m_clTable;
    bool m_bHeader; ///< it is wanted, and not yet written
};

/// Shows a row for each machine, as the answers come in.
EExit eInfoOfMany(const STQuestions& stQuestions)
{
    CGrowingTable clTable({"HOST", "VERSION", "SYSTEM", "KERNEL", "PROCESSORS", "MEMORY", "SERVERS"}, true);
    const auto tAnswers = tAskFleet(stQuestions, true, [&](const std::vector<const STHostAnswer*>& tReady) {
        std::vector<CRow> tRows;
        for (const STHostAnswer* const pst : tReady) {
            if (pst->stInfo.has_value()) {
                tRows.push_back(tInfoRow(*pst));
            }
        }
        clTable.Add(tRows);
    });
    return eReportTroubles(tAnswers, CSelection({}));
}

/// Shows the names of servers only; no states are asked.
EExit eNames(const STCall& stCall)
{
    const auto tAnswers = tAskFleet(stQuestionsAbout(stCall, nullptr), false, s_fnLater);
    Json clNames = Json::array();
    for (const STHostAnswer& st : tAnswers) {
        for (const STServerAnswer& stServer : st.tServers) {
            clNames.push_back(stServer.stServer.csName);
            if (!stCall.stOptions.bJson) {
                std::cout << csShown(stServer.stServer.csName) << "\n";
            }
        }
    }

    if (stCall.stOptions.bJson) {
        std::cout << csJsonLine(clNames);
    }

    return eReportTroubles(tAnswers, CSelection(stCall.tArguments));
}

/// Throws CFailure (USAGE) for options that names alone cannot follow: a choice that is silently not made
/// would pass for one that is.
void CheckNamesAlone(const STOptions& st)
{
    const std::pair<bool, const char*> tOthers[] = {{!st.tStates.empty(), "--state"},
                                                    {!st.tSort.empty(), "--sort"},
                                                    {!st.tColumns.empty(), "--columns"},
                                                    {st.bLong, "--long"},
                                                    {st.bFailIfNotRunning, "--fail-if-not-running"}};
    for (const auto& [bGiven, pszName] : tOthers) {
        if (bGiven) {
            throw CFailure(EExit::USAGE, std::string("--names cannot be combined with ") + pszName);
        }
    }
}

/// Whether one of the listed servers does not run.
bool bAnyDown(const std::vector<STListed>& tRows)
{
    return std::ranges::any_of(tRows, [](const STListed& st) { return st.pstServer->csState != "running"; });
}

/// The exit status for the state of a service, as init scripts and systemctl use it: 0 running, 1 failed, 3
/// not running, 4 unknown. Of EExit only the numbers are used here; eWorse orders these four as status needs
/// it.
EExit eOfState(const STServerAnswer& st)
{
    if (st.clFailure.has_value()) {
        return st.clFailure->eExit() == EExit::USAGE ? EExit::USAGE : EExit::NONSENSE;
    }
    constexpr std::pair<std::string_view, int> tStates[] = {
        {"running", 0}, {"failed", 1}, {"unknown", 4}}; // the others: not now, 3
    const auto* const pst = std::ranges::find(tStates, st.csState, &std::pair<std::string_view, int>::first);
    return static_cast<EExit>(pst == std::end(tStates) ? 3 : pst->second);
}

/// The worst exit status of all servers asked about; 4 also for a machine or a server that is not there.
EExit eOfStates(const std::vector<STHostAnswer>& tAnswers, const CSelection& clSelection)
{
    EExit eWorst = EExit::DONE;
    bool bAny = false;
    for (const STHostAnswer& st : tAnswers) {
        eWorst = st.clFailure.has_value() ? eWorse(eWorst, EExit::NONSENSE) : eWorst;
        for (const STServerAnswer& stServer : st.tServers) {
            eWorst = eWorse(eWorst, eOfState(stServer));
            bAny = true;
        }
    }

    // Refused as the worst of all: a name that matches nothing, or a server that its manager does not know.
    const bool bMissing = !bAny || eWorstOf(tAnswers, clSelection) == EExit::REFUSED;
    return bMissing && eWorst != EExit::USAGE ? EExit::NONSENSE : eWorst;
}

/// The questions of status. Full names are asked about whether the manager lists them or not; for a pattern
/// the list is needed.
STQuestions stStatusQuestions(const STCall& stCall)
{
    STQuestions stQuestions = stStateQuestions(stCall);
    const CSelection clSelection(stCall.tArguments);
    if (clSelection.bExact()) {
        stQuestions.tNames = clSelection.tWords();
    }
    return stQuestions;
}

/// The JSON object of a server; without its answer (null) that of a server of a host that gave none.
Json clJsonStatus(const STHostAnswer& stHost, const std::string& csName, const STServerAnswer* pst)
{
    const std::string csState = pst != nullptr ? pst->csState : std::string();
    return {{"host", csHostWord(stHost.stHost)},
            {"asked", csWhenAsked(stHost)},
            {"name", csName},
            {"state", csState.empty() ? Json() : Json(csState)},
            {"error", clJsonFailure(pst != nullptr ? pst->clFailure : stHost.clFailure)}};
}

/// A line for each server of each host.
void ShowStatusJson(const std::vector<STHostAnswer>& tAnswers, const CSelection& clSelection)
{
    for (const STHostAnswer& st : tAnswers) {
        for (const STServerAnswer& stServer : st.tServers) {
            std::cout << csJsonLine(clJsonStatus(st, stServer.stServer.csName, &stServer));
        }
        if (st.clFailure.has_value()) {
            for (const std::string& csName : clSelection.tWords()) {
                std::cout << csJsonLine(clJsonStatus(st, csName, nullptr));
            }
        }
    }
}

/// Shows one server of one machine as one word, several as a table.
void ShowStatus(const STCall& stCall, const std::vector<STHostAnswer>& tAnswers)
{
    const bool bOne =
        tAnswers.size() == 1 && tAnswers[0].tServers.size() == 1 && stCall.tArguments.size() == 1;
    if (bOne && CSelection(stCall.tArguments).bExact()) {
        const std::string& csState = tAnswers[0].tServers[0].csState;
        std::cout << (csState.empty() ? "" : csColoured(csState, eStateColour(csState)) + "\n");
        return;
    }

    STOptions stOptions = stCall.stOptions;
    stOptions.tColumns = {tAnswers.size() > 1 ? "host,name,state" : "name,state"};
    const CServerList clList(stOptions, tAnswers.size() > 1);
    const std::vector<STListed> tRows = clList.tRows(tPointers(tAnswers));
    if (!tRows.empty()) {
        CGrowingTable(clList.tHeader(), !stOptions.bNoHeader).Add(clList.tCells(tRows));
    }
}
} // namespace

EExit eInfo(const STCall& stCall)
{
    const STQuestions stQuestions = stQuestionsAbout(stCall, nullptr);
    if (stQuestions.tHosts.size() > 1 && !stCall.stOptions.bJson) {
        return eInfoOfMany(stQuestions);
    }

    const auto tAnswers = tAskFleet(stQuestions, false, s_fnLater);
    for (const STHostAnswer& st : tAnswers) {
        if (stCall.stOptions.bJson) {
            std::cout << csJsonLine(clJsonInfo(st));
        } else if (st.stInfo.has_value()) {
            ShowInfo(*st.stInfo);
        }
    }

    return eReportTroubles(tAnswers, CSelection({}));
}

EExit eList(const STCall& stCall)
{
    if (stCall.stOptions.bNames) {
        CheckNamesAlone(stCall.stOptions);
        return eNames(stCall);
    }

    const STQuestions stQuestions = stStateQuestions(stCall);
    const CServerList clList(stCall.stOptions, stQuestions.tHosts.size() > 1);
    const bool bJson = stCall.stOptions.bJson;
    CGrowingTable clTable(clList.tHeader(), !stCall.stOptions.bNoHeader);
    const CTakeAnswers fnShow = [&](const std::vector<const STHostAnswer*>& tReady) {
        // Failures alone bring no header.
        if (std::ranges::any_of(tReady, [](const auto* pst) { return !pst->clFailure.has_value(); })) {
            clTable.Add(clList.tCells(clList.tRows(tReady)));
        }
    };

    const auto tAnswers = tAskFleet(stQuestions, clList.bAsTheyCome(), bJson ? s_fnLater : fnShow);
    if (bJson) {
        std::cout << csJsonLine(clList.clJson(tAnswers));
    }

    const EExit eWorst = eReportTroubles(tAnswers, CSelection(stCall.tArguments));
    const bool bDown = stCall.stOptions.bFailIfNotRunning && bAnyDown(clList.tRows(tPointers(tAnswers)));
    return bDown ? eWorse(eWorst, EExit::REFUSED) : eWorst;
}

EExit eStatus(const STCall& stCall)
{
    const CSelection clSelection(stCall.tArguments);
    const auto tAnswers = tAskFleet(stStatusQuestions(stCall), false, s_fnLater);
    if (stCall.stOptions.bJson) {
        ShowStatusJson(tAnswers, clSelection);
    } else {
        ShowStatus(stCall, tAnswers);
    }
    std::ignore = eReportTroubles(tAnswers, clSelection); // the states decide the exit status
    return eOfStates(tAnswers, clSelection);
}

EExit eCluster(const STCall& stCall)
{
    const std::string csName = csArgument(stCall.tArguments[0]);
    const STHost stHost = stOnlyHost(stCall.stOptions);
    CConversation clManager(stHost, stCall.clTimeout);
    const std::string csManager =
        tAskFor(&clManager, {"CLUSTERINFO", csName}, csName, csReadCluster, ", or its folder is missing");
    if (stCall.stOptions.bJson) {
        std::cout << csJsonLine({{"host", csHostWord(stHost)},
                                 {"name", csName},
                                 {"cluster_manager", csManager.empty() ? Json() : Json(csManager)}});
    } else if (csManager.empty()) {
        std::cout << "\"" << csShown(csName) << "\" belongs to no cluster\n";
    } else {
        std::cout << "\"" << csShown(csName) << "\" belongs to the cluster managed by \""
                  << csShown(csManager) << "\"\n";
    }

    return EExit::DONE;
}
