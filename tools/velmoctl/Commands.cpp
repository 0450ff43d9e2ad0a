#include "velmoctl/Commands.h"

#include "support/Conversion.h"
#include "support/Version.h"
#include "velmoctl/Terminal.h"

#include <algorithm>
#include <iostream>
#include <iterator>

namespace {
struct STCommand
{
    const char* pszName;
    const char* pszArguments;
    std::size_t nArguments;
    Milliseconds clTimeout;
    EExit (*pfn)(const STCall&);
    const char* pszHelp;
};

using namespace std::chrono_literals;
/// Starting and stopping waits for the system's tools, which give a service a minute and a half.
constexpr Milliseconds s_clQuestion = 10s, s_clChange = 120s, s_clMoment = 2s;

constexpr STCommand s_tCommands[] = {
    {"info", "", 0, s_clQuestion, eInfo, "version, machine and servers of the manager"},
    {"list", "", 0, s_clQuestion, eList, "name, port and state of each server"},
    {"status", "NAME", 1, s_clQuestion, eStatus, "state of one server"},
    {"start", "NAME", 1, s_clChange, eStart, "start a server"},
    {"uninstall", "NAME", 1, s_clChange, eUninstall, "stop a server and remove its service"},
    {"cluster", "NAME", 1, s_clQuestion, eCluster, "which cluster a server belongs to"},
    {"discover", "", 0, s_clMoment, eDiscover, "find the managers of the local network"},
    {"register", "NAME PROGRAM PORT", 3, s_clChange, eRegister,
     "have a server of this machine registered and started (root only)"},
    {"watch", "", 0, s_clQuestion, eWatch, "the list again and again; q ends it"},
    {"lint", "FILE", 1, s_clQuestion, eLint, "look for faults in a DXConf.ini"},
    {"shell", "", 0, s_clQuestion, eShell, "commands at a prompt"},
};

std::string csHelp()
{
    constexpr std::size_t nColumn = 26;
    std::string csHelp = "usage: velmoctl [OPTION...] COMMAND [ARGUMENT...]\n\n"
                         "Talks to a VelmoManager, the manager of a machine's database servers.\n\n";
    for (const STCommand& stCommand : s_tCommands) {
        std::string csLeft = std::string(stCommand.pszName) + " " + stCommand.pszArguments;
        csLeft.resize(std::max(csLeft.size(), nColumn), ' ');
        csHelp += "  " + csLeft + " " + stCommand.pszHelp + "\n";
    }
    return csHelp + "\n" + csOptionsHelp() +
           "\nExit status: 0 done, 1 refused or not as it should be, 2 wrong usage, 3 nobody answers,\n"
           "4 no manager answers, 5 not wanted after all. More in velmoctl(1).\n";
}

const STCommand& stFind(const std::string& csName)
{
    const auto* const pstFound = std::find_if(std::begin(s_tCommands), std::end(s_tCommands),
                                              [&](const STCommand& st) { return csName == st.pszName; });
    if (pstFound == std::end(s_tCommands)) {
        throw CFailure(EExit::USAGE, "unknown command \"" + csArgument(csName) + "\"; see velmoctl --help");
    }
    return *pstFound;
}

/// Throws CFailure (USAGE) for an option that the command does not have and for a wrong number of words.
void CheckUse(const STCommand& stCommand, const STCommandLine& stLine)
{
    const std::vector<std::string> tKnown = tOptionsOf(stCommand.pszName);
    for (const std::string& csOption : stLine.tUsed) {
        if (std::find(tKnown.begin(), tKnown.end(), csOption) == tKnown.end()) {
            throw CFailure(EExit::USAGE,
                           "\"" + std::string(stCommand.pszName) + "\" has no option " + csOption);
        }
    }
    if (stLine.tWords.size() != stCommand.nArguments + 1) {
        throw CFailure(EExit::USAGE, std::string("usage: velmoctl ") + stCommand.pszName +
                                         (stCommand.nArguments > 0 ? " " : "") + stCommand.pszArguments);
    }
}
} // namespace

EExit eExecute(const STCommandLine& stLine)
{
    if (stLine.stOptions.bHelp) {
        std::cout << csHelp();
        return EExit::DONE;
    }
    if (stLine.stOptions.bVersion) {
        std::cout << "velmoctl " << csToUTF8(g_szVersion) << "\n";
        return EExit::DONE;
    }
    if (stLine.tWords.empty()) {
        throw CFailure(EExit::USAGE, "which command? See velmoctl --help");
    }
    const STCommand& stCommand = stFind(stLine.tWords.front());
    CheckUse(stCommand, stLine);
    SetColours(!stLine.stOptions.bNoColor);
    return stCommand.pfn({stLine.stOptions,
                          {stLine.tWords.begin() + 1, stLine.tWords.end()},
                          stLine.stOptions.clTimeout.value_or(stCommand.clTimeout)});
}

EExit eExecuteAndTell(const std::vector<std::string>& tArguments, const STOptions& stDefaults)
{
    EExit eResult = EExit::DONE;
    try {
        eResult = eExecute(stParse(tArguments, stDefaults));
    } catch (const CFailure& clFailure) {
        std::cout.flush();
        std::cerr << "velmoctl: " << csShown(clFailure.what()) << "\n";
        eResult = clFailure.eExit();
    }
    if (!std::cout.flush()) {
        std::cerr << "velmoctl: the output could not be written\n";
        return EExit::REFUSED;
    }
    return eResult;
}

std::vector<std::string> tCommandNames()
{
    std::vector<std::string> tNames;
    for (const STCommand& stCommand : s_tCommands) {
        tNames.emplace_back(stCommand.pszName);
    }
    return tNames;
}
