#include "velmoctl/Complete.h"

#include "velmoctl/Commands.h"
#include "velmoctl/Fleet.h"
#include "velmoctl/Terminal.h"

#include <algorithm>
#include <functional>
#include <iostream>
#include <iterator>

namespace {
/// An unfinished command line, as far as completion needs it.
struct STPartial
{
    std::string csCommand;
    STOptions stOptions; ///< which machines
    std::string csKind;  ///< kind of the option's value that the last word is; empty: it is no option's value
    std::string csStart; ///< part of the last word that stays ("--host=", "db1,")
    std::string csWord;  ///< rest of the last word, to be completed
};

/// Keeps an option that decides where names of servers and machines are looked up.
void TakeOption(const std::string& csOption, const std::string& csValue, STOptions* pst)
{
    const std::string csKind = csValueKind(csOption);
    if (csKind == "HOST") {
        pst->tHosts.push_back(csValue);
    } else if (csOption == "--hosts") {
        pst->csHostsFile = csValue;
    } else if (csKind == "GROUP") {
        pst->tGroups.push_back(csValue);
    } else if (csOption == "--port" || csOption == "-p") {
        pst->wPort = wReadPort(csValue);
    }
}

/// Splits the last word into what stays and what is to be completed.
void TakeLast(const std::string& csWord, STPartial* pst)
{
    const std::size_t nEqual = csWord.find('=');
    if (csWord.starts_with("--") && nEqual != std::string::npos) {
        pst->csKind = csValueKind(csWord.substr(0, nEqual));
        pst->csStart = csWord.substr(0, nEqual + 1);
    }

    pst->csWord = csWord.substr(pst->csStart.size());

    // Of a list only the last item is completed.
    if (const std::size_t nComma = pst->csWord.rfind(',');
        !pst->csKind.empty() && nComma != std::string::npos) {
        pst->csStart += pst->csWord.substr(0, nComma + 1);
        pst->csWord.erase(0, nComma + 1);
    }
}

/// Reads a line without complaint: what cannot be understood is passed over.
STPartial stRead(const std::vector<std::string>& tWords, const STOptions& stDefaults)
{
    STPartial st;
    st.stOptions = stDefaults;
    for (std::size_t n = 0; n + 1 < tWords.size(); ++n) {
        const std::string& cs = tWords[n];
        const std::size_t nEqual = cs.find('=');
        const std::string csName = cs.substr(0, nEqual);
        if (!cs.starts_with("-")) {
            st.csCommand = st.csCommand.empty() ? cs : st.csCommand;
        } else if (csValueKind(csName).empty()) { // a flag
            continue;
        } else if (nEqual != std::string::npos) {
            TakeOption(csName, cs.substr(nEqual + 1), &st.stOptions);
        } else if (n + 2 < tWords.size()) {
            TakeOption(csName, tWords[++n], &st.stOptions);
        } else { // its value is the word to be completed
            st.csKind = csValueKind(csName);
        }
    }

    TakeLast(tWords.empty() ? "" : tWords.back(), &st);
    return st;
}

std::vector<std::string> tCommands(const STPartial& /*st*/)
{
    std::vector<std::string> tNames = tCommandNames();
    tNames.emplace_back("help");
    return tNames;
}

/// Servers of the managers that the line names, as far as those answer within two seconds.
std::vector<std::string> tServers(const STPartial& st)
{
    constexpr Milliseconds clMoment(2000);
    CFanOut clFanOut(stQuestionsAbout({st.stOptions, {}, clMoment}, nullptr));
    const std::vector<STHostAnswer> tAnswers = clFanOut.tAsk([](const auto&, const auto&) {});

    std::vector<std::string> tNames;
    for (const STHostAnswer& stHost : tAnswers) {
        for (const STServerAnswer& stServer : stHost.tServers) {
            tNames.push_back(stServer.stServer.csName);
        }
    }
    return tNames;
}

std::vector<std::string> tMachines(const STPartial& st)
{
    std::vector<std::string> tNames;
    const std::vector<STHost> tHosts = clReadHostsFile(st.stOptions).tAll();
    tNames.reserve(tHosts.size());
    for (const STHost& stHost : tHosts) {
        tNames.push_back(stHost.csName);
    }
    return tNames;
}

std::vector<std::string> tGroups(const STPartial& st)
{
    return clReadHostsFile(st.stOptions).tGroupNames();
}

/// Where the candidates for a kind of word come from.
struct STSource
{
    const char* pszKind; ///< how the kind begins: "[NAME" stands for "[NAME...]"
    std::vector<std::string> (*pfn)(const STPartial&);
};
constexpr STSource s_tSources[] = {
    {"COMMAND", tCommands},
    {"NAME", tServers},
    {"[NAME", tServers},
    {"PATTERN", tServers},
    {"HOST", tMachines},
    {"GROUP", tGroups},
    {"STATE",
     [](const STPartial&) { // those that people look for
         return std::vector<std::string>{"running", "stopped", "failed", "starting", "stopping"};
     }},
    {"COLUMN",
     [](const STPartial&) {
         return std::vector<std::string>{"host", "name", "port", "state", "pid", "since", "folder", "log"};
     }},
};

/// All candidates for the word, whatever it begins with.
std::vector<std::string> tCandidates(const STPartial& st)
{
    if (st.csKind.empty() && st.csWord.starts_with("-")) {
        return tOptionsOf(st.csCommand);
    }

    std::string csKind = st.csKind;
    if (csKind.empty()) {
        csKind = st.csCommand.empty() || st.csCommand == "help" ? "COMMAND" : csArgumentKinds(st.csCommand);
    }

    const auto* const pst =
        std::ranges::find_if(s_tSources, [&](const STSource& cl) { return csKind.starts_with(cl.pszKind); });

    // register takes the name of a new server, which no manager knows yet.
    return pst == std::end(s_tSources) || st.csCommand == "register" ? std::vector<std::string>()
                                                                     : pst->pfn(st);
}
} // namespace

std::vector<std::string> tComplete(const std::vector<std::string>& tWords, const STOptions& stDefaults)
{
    std::vector<std::string> tResult;
    try {
        const STPartial st = stRead(tWords, stDefaults);
        for (const std::string& cs : tCandidates(st)) {
            const std::string csWhole = st.csStart + cs;
            if (cs.starts_with(st.csWord) && std::ranges::find(tResult, csWhole) == tResult.end()) {
                tResult.push_back(csWhole);
            }
        }
    } catch (const CFailure& clFailure) {
        if (clFailure.eExit() == EExit::INTERRUPTED) {
            throw;
        }
        // Otherwise no candidates: a completion must not print messages into the line that is being typed.
    }

    return tResult;
}

EExit eComplete(const STCall& stCall)
{
    std::vector<std::string> tWords = stCall.tArguments;
    std::ranges::transform(tWords, tWords.begin(), csArgument);
    for (const std::string& cs : tComplete(tWords, STOptions{})) {
        std::cout << csShown(cs) << "\n";
    }
    return EExit::DONE;
}
