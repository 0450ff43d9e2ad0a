#include "velmoctl/Fleet.h"

#include "velmoctl/AskFor.h"
#include "velmoctl/Local.h"
#include "velmoctl/Terminal.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <ctime>
#include <fnmatch.h>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <optional>

namespace {
using CClock = std::chrono::steady_clock;
constexpr Milliseconds s_clMoment(1000); ///< after which the progress says what it waits for
constexpr Milliseconds s_clGrace(2000);  ///< how long one host may hold up the lines of the others
constexpr std::size_t s_nMostShown = 5;  ///< names in one line about trouble

/// Adds a host unless it is there. It gets the port of the options unless the hosts file has one for it.
void AddHost(STHost stHost, const STOptions& stOptions, std::vector<STHost>* ptHosts)
{
    if (std::ranges::find(*ptHosts, stHost.csName, &STHost::csName) == ptHosts->end()) {
        stHost.wPort = stHost.wPort != 0 ? stHost.wPort : stOptions.wPort;
        ptHosts->push_back(std::move(stHost));
    }
}

/// The first of some names: "a, b, c and 4 more". nAll may be more than the names given.
std::string csSome(const std::vector<std::string>& tNames, std::size_t nAll)
{
    std::string cs;
    const std::size_t nShown = std::min(tNames.size(), s_nMostShown);
    for (std::size_t n = 0; n < nShown; ++n) {
        cs += (n > 0 ? ", " : "") + tNames[n];
    }
    return nAll > nShown ? cs + " and " + std::to_string(nAll - nShown) + " more" : cs;
}

/// The line of progress, in one line of the terminal: without the last column, where some terminals wrap.
std::string csProgress(const std::vector<STHostAnswer>& tAnswers, const std::vector<bool>& tDone,
                       Milliseconds clPassed)
{
    const auto nDone = static_cast<std::size_t>(std::ranges::count(tDone, true));
    std::vector<std::string> tWaiting; // the first few
    for (std::size_t n = 0; n < tAnswers.size() && tWaiting.size() < s_nMostShown; ++n) {
        if (!tDone[n]) {
            tWaiting.push_back(csWhere(tAnswers[n].stHost));
        }
    }

    std::string cs = tAnswers.size() == 1 ? "asking the manager"
                                          : std::to_string(nDone) + " of " + std::to_string(tAnswers.size()) +
                                                " machines answered";
    if (clPassed >= s_clMoment && !tWaiting.empty()) {
        cs += ", waiting for " + csSome(tWaiting, tAnswers.size() - nDone);
    }

    return csCut(csShown(cs), stTerminalSize().nColumns - 1);
}

/// Passes the answers on, each once: in the order of the hosts, as far as they need not wait for a slow one.
class CInOrder
{
public:
    CInOrder(std::size_t nHosts, bool bAsTheyCome, const CTakeAnswers& fnTake)
        : m_tTaken(nHosts), m_bAsTheyCome(bAsTheyCome), m_fnTake(fnTake)
    {}
    /// A look at the answers so far, as CFanOut::Look.
    void Take(const std::vector<STHostAnswer>& tAnswers, const std::vector<bool>& tDone,
              CProgress* pclProgress)
    {
        const bool bAll = std::ranges::find(tDone, false) == tDone.end();
        const Milliseconds clPassed = std::chrono::duration_cast<Milliseconds>(CClock::now() - m_clStart);

        // Until the grace is over the answers wait for each other, as only so they come in the hosts' order.
        std::vector<const STHostAnswer*> tReady;
        if (bAll || (m_bAsTheyCome && clPassed >= s_clGrace)) {
            tReady = _tNewlyDone(tAnswers, tDone);
        }

        if (!tReady.empty()) {
            pclProgress->Show(""); // the answers take the place of the line of progress
            m_fnTake(tReady);
        }

        if (pclProgress->bTerminal()) {
            pclProgress->Show(bAll ? "" : csProgress(tAnswers, tDone, clPassed));
        }
    }

private:
    std::vector<const STHostAnswer*> _tNewlyDone(const std::vector<STHostAnswer>& tAnswers,
                                                 const std::vector<bool>& tDone)
    {
        std::vector<const STHostAnswer*> tReady;
        for (std::size_t n = 0; n < tAnswers.size(); ++n) {
            if (tDone[n] && !m_tTaken[n]) {
                m_tTaken[n] = true;
                tReady.push_back(&tAnswers[n]);
            }
        }
        return tReady;
    }

    const CClock::time_point m_clStart = CClock::now();
    std::vector<bool> m_tTaken; ///< by host: its answer has been passed on
    const bool m_bAsTheyCome;
    const CTakeAnswers& m_fnTake; ///< the caller's
};

/// A failure, with the servers of one host that share it.
struct STSharedFailure
{
    std::string csText;
    std::vector<std::string> tNames;
    bool bRefused = false;
};

/// The failures of a host's servers, each text once, in the order of the servers.
std::vector<STSharedFailure> tSharedFailures(const STHostAnswer& stHost)
{
    std::vector<STSharedFailure> tResult;
    std::map<std::string, std::size_t> tPlaces; // by text; a hostile manager may list very many servers
    for (const STServerAnswer& st : stHost.tServers) {
        if (st.clFailure.has_value()) {
            const auto [it, bNew] = tPlaces.emplace(st.clFailure->what(), tResult.size());
            if (bNew) {
                tResult.push_back({it->first, {}, false});
            }

            STSharedFailure& stShared = tResult[it->second];
            stShared.tNames.push_back(st.stServer.csName);
            stShared.bRefused = stShared.bRefused || st.clFailure->eExit() == EExit::REFUSED;
        }
    }
    return tResult;
}

/// Adds one line for all servers of a host that share a failure: a silent manager fails for each of its
/// servers.
void AddServerTroubles(const STHostAnswer& stHost, bool bMany, std::vector<std::string>* ptLines)
{
    for (const STSharedFailure& st : tSharedFailures(stHost)) {
        if (st.bRefused) {
            ptLines->push_back(st.csText); // the text of a refusal names machine and server itself
        } else {
            ptLines->push_back((bMany ? csWhere(stHost.stHost) + ": " : "") +
                               csSome(st.tNames, st.tNames.size()) + ": " + st.csText);
        }
    }
}

/// Names and patterns that stand for no server of any machine; none while some machine could not be asked.
std::vector<std::string> tUnmatched(const std::vector<STHostAnswer>& tAnswers, const CSelection& clSelection)
{
    std::vector<std::string> tWords;
    for (const std::string& csWord : clSelection.tWords()) {
        const CSelection clWord({csWord});
        const bool bSeen = std::ranges::any_of(tAnswers, [&](const STHostAnswer& st) {
            return st.clFailure.has_value() ||
                   std::ranges::any_of(st.tServers, [&](const STServerAnswer& stServer) {
                       return clWord.bHas(stServer.stServer.csName);
                   });
        });
        if (!bSeen) {
            tWords.push_back(csWord);
        }
    }

    return tWords;
}

/// Adds a line for each machine that gave no answer, after a line that counts them.
void AddSilentHosts(const std::vector<STHostAnswer>& tAnswers, std::vector<std::string>* ptLines)
{
    const bool bMany = tAnswers.size() > 1;
    const auto nSilent =
        std::ranges::count_if(tAnswers, [](const STHostAnswer& st) { return st.clFailure.has_value(); });
    if (nSilent > 0 && bMany) {
        ptLines->push_back(std::to_string(nSilent) + " of " + std::to_string(tAnswers.size()) +
                           " machines gave no answer:");
    }

    for (const STHostAnswer& st : tAnswers) {
        if (st.clFailure.has_value()) {
            ptLines->push_back((bMany ? csWhere(st.stHost) + ": " : "") + st.clFailure->what());
        }
    }
}

/// Bytes of a hosts file, many times what the largest fleet needs: a device in its place may never end.
constexpr std::size_t s_nMaxHostsFile = 4 << 20;

/// The file's bytes. A FIFO is read to its end, so that a shell's process substitution works.
std::string csReadHosts(const std::string& csFile)
{
    std::ifstream clFile(csFile);
    std::string csText;
    for (std::array<char, 4096> tBuffer; csText.size() <= s_nMaxHostsFile;) {
        clFile.read(tBuffer.data(), tBuffer.size());
        if (clFile.gcount() == 0) {
            break;
        }
        csText.append(tBuffer.data(), static_cast<std::size_t>(clFile.gcount()));
    }

    if (!clFile.is_open() || clFile.bad() || csText.size() > s_nMaxHostsFile) {
        throw CFailure(EExit::USAGE, "the hosts file " + csArgument(csFile) + " cannot be read" +
                                         (csText.size() > s_nMaxHostsFile ? ": it is too large" : ""));
    }
    return csText;
}

/// Adds the machines that the lists and groups of the options name.
void AddNamedHosts(const STOptions& stOptions, const CHostsFile& clFile, std::vector<STHost>* ptHosts)
{
    for (const std::string& csList : stOptions.tHosts) {
        for (const std::string& csName : tExpandList(csList)) {
            AddHost(clFile.stFind(csArgument(csName)), stOptions, ptHosts);
        }
    }

    for (const std::string& csGroup : tItems(stOptions.tGroups)) {
        for (const STHost& st : clFile.tGroup(csGroup)) {
            AddHost(st, stOptions, ptHosts);
        }
    }
}
} // namespace

CHostsFile clReadHostsFile(const STOptions& stOptions)
{
    const char* const pszDefault = std::getenv("VELMO_HOSTS");
    const std::string csFile =
        stOptions.csHostsFile.empty() && pszDefault != nullptr ? pszDefault : stOptions.csHostsFile;
    if (csFile.empty()) {
        return {};
    }

    return {csReadHosts(csFile), csArgument(csFile)};
}

std::vector<STHost> tHostsOf(const STOptions& stOptions)
{
    const CHostsFile clFile = clReadHostsFile(stOptions);
    const bool bNamed = !stOptions.tHosts.empty() || !stOptions.tGroups.empty();
    const bool bFileGiven = !stOptions.csHostsFile.empty(); // by the user: VELMO_HOSTS alone asks nobody
    if (!bNamed && !bFileGiven) {
        return {STHost{"", "", stOptions.wPort}};
    }

    // The file alone means all its machines. With names or groups it only says what they stand for: a command
    // that changes something must not reach more machines than were named.
    std::vector<STHost> tHosts;
    if (bNamed) {
        AddNamedHosts(stOptions, clFile, &tHosts);
    } else {
        for (const STHost& st : clFile.tAll()) {
            AddHost(st, stOptions, &tHosts);
        }
    }

    if (tHosts.empty()) { // an empty list, an empty group or an empty file
        throw CFailure(EExit::USAGE, "no machine is named");
    }

    return tHosts;
}

STHost stOnlyHost(const STOptions& stOptions)
{
    const std::vector<STHost> tHosts = tHostsOf(stOptions);
    if (tHosts.size() != 1) {
        throw CFailure(EExit::USAGE,
                       "this command takes exactly one machine, not " + std::to_string(tHosts.size()));
    }
    return tHosts[0];
}

CSelection::CSelection(const std::vector<std::string>& tWords)
{
    std::ranges::transform(tWords, std::back_inserter(m_tWords), csArgument);
}

bool CSelection::bExact() const
{
    return std::ranges::all_of(
        m_tWords, [](const std::string& cs) { return cs.find_first_of("*?[") == std::string::npos; });
}

bool CSelection::bHas(const std::string& csServer) const
{
    return std::ranges::any_of(m_tWords, [&](const std::string& cs) {
        return cs == csServer || ::fnmatch(cs.c_str(), csServer.c_str(), 0) == 0; // a name may have brackets
    });
}

STQuestions stQuestionsAbout(const STCall& stCall,
                             std::function<void(CConversation*, STServerAnswer*)> fnQuestion)
{
    STQuestions st;
    st.tHosts = tHostsOf(stCall.stOptions);
    st.nJobs = stCall.stOptions.nJobs;
    st.clTimeout = stCall.clTimeout;
    st.fnQuestion = std::move(fnQuestion);
    if (!stCall.tArguments.empty()) {
        st.fnWanted = [clSelection = CSelection(stCall.tArguments)](const STServer& stServer) {
            return clSelection.bHas(stServer.csName);
        };
    }
    return st;
}

void AskState(CConversation* pclManager, STServerAnswer* pst)
{
    const std::string& csName = pst->stServer.csName;
    pst->csState = tAskFor(pclManager, {"STATUS", csName}, csName, csReadState);
}

STQuestions stStateQuestions(const STCall& stCall)
{
    STQuestions st = stQuestionsAbout(stCall, AskState);
    st.fnFinish = [bLong = stCall.stOptions.bLong, clTime = stCall.clTimeout](STHostAnswer* pst) {
        AddFacts(pst, bLong, clTime);
    };
    return st;
}

void AddFacts(STHostAnswer* pstHost, bool bLong, Milliseconds clTime)
{
    if (!bThisMachine(pstHost->stHost)) {
        return;
    }

    // Managers report a failed server as stopped. The short form shows no other fact, so only the stopped
    // servers are looked up for it: each lookup takes time.
    std::vector<std::string> tNames;
    for (const STServerAnswer& st : pstHost->tServers) {
        if (bLong || st.csState == "stopped") {
            tNames.push_back(st.stServer.csName);
        }
    }

    const STLocalAnswer stLocal = stAskFacts(tNames, bLong, clTime);
    pstHost->bFactsMissing = !stLocal.bWhole;
    for (STServerAnswer& st : pstHost->tServers) {
        const auto it = stLocal.tFacts.find(st.stServer.csName);
        if (it == stLocal.tFacts.end()) {
            continue;
        }

        if (it->second.bFailed && st.csState == "stopped") {
            st.csState = "failed";
        }
        st.csPid = it->second.csPid;
        st.csSince = it->second.csSince;
        st.csFolder = it->second.csFolder;
        st.csLog = it->second.csLog;
    }
}

std::vector<STHostAnswer> tAskFleet(const STQuestions& stQuestions, bool bAsTheyCome,
                                    const CTakeAnswers& fnTake)
{
    CProgress clProgress;
    CInOrder clInOrder(stQuestions.tHosts.size(), bAsTheyCome, fnTake);
    return CFanOut(stQuestions)
        .tAsk([&](const std::vector<STHostAnswer>& tAnswers, const std::vector<bool>& tDone) {
            clInOrder.Take(tAnswers, tDone, &clProgress);
        });
}

std::vector<std::string> tTroubles(const std::vector<STHostAnswer>& tAnswers, const CSelection& clSelection)
{
    const bool bMany = tAnswers.size() > 1;
    std::vector<std::string> tLines;
    for (const STHostAnswer& st : tAnswers) {
        AddServerTroubles(st, bMany, &tLines);
        if (st.bFactsMissing) {
            tLines.push_back(
                (bMany ? csWhere(st.stHost) + ": " : "") +
                "warning: the service manager of this machine could not be asked; a server shown as "
                "stopped may have failed");
        }
    }

    AddSilentHosts(tAnswers, &tLines);

    for (const std::string& csWord : tUnmatched(tAnswers, clSelection)) {
        tLines.push_back("no server" +
                         (bMany ? std::string(" of these machines") : " on " + csWhere(tAnswers[0].stHost)) +
                         " is called \"" + csWord + "\"");
    }

    return tLines;
}

EExit eWorstOf(const std::vector<STHostAnswer>& tAnswers, const CSelection& clSelection)
{
    EExit eWorst = tUnmatched(tAnswers, clSelection).empty() ? EExit::DONE : EExit::REFUSED;
    const auto fnAdd = [&eWorst](const std::optional<CFailure>& clFailure) {
        eWorst = clFailure.has_value() ? eWorse(eWorst, clFailure->eExit()) : eWorst;
    };
    for (const STHostAnswer& st : tAnswers) {
        fnAdd(st.clFailure);
        for (const STServerAnswer& stServer : st.tServers) {
            fnAdd(stServer.clFailure);
        }
    }
    return eWorst;
}

void TellTroubles(const std::vector<std::string>& tLines)
{
    std::cout.flush();
    for (const std::string& cs : tLines) {
        std::cerr << "velmoctl: " << csShown(cs) << "\n";
    }
}

std::string csWhenAsked(const STHostAnswer& st)
{
    const std::time_t nSeconds = std::chrono::system_clock::to_time_t(st.clAsked);
    std::tm stTime{};
    ::gmtime_r(&nSeconds, &stTime);
    std::array<char, 32> szTime{};
    std::strftime(szTime.data(), szTime.size(), "%Y-%m-%dT%H:%M:%SZ", &stTime);
    return szTime.data();
}

Json clJsonFailure(const std::optional<CFailure>& clFailure)
{
    return clFailure.has_value() ? clJsonFailure(*clFailure) : Json();
}
