#include "velmoctl/Options.h"

#include "support/Conversion.h"
#include "velmoctl/Failure.h"

#include <algorithm>
#include <charconv>
#include <CLI/CLI.hpp>
#include <cstdint>
#include <iterator>
#include <sstream>

namespace {
/// An option: what the command-line library needs, and which commands have it.
struct STOption
{
    const char* pszNames;    ///< "-H,--host"
    const char* pszValue;    ///< the kind of its value, for help and completion; null: it has none
    const char* pszCommands; ///< those that have it, with a space before and after each; null: all
    CLI::Option* (*pfnAdd)(CLI::App* pcl, const char* pszNames, STOptions* pst);
    const char* pszHelp;
};

constexpr double s_dLongest = 86400;      // seconds: a day
constexpr unsigned int s_nMostJobs = 512; // each takes a descriptor, of which a process usually has 1,024
constexpr unsigned int s_nMostRounds = 1'000'000'000; // the library's range needs an end
constexpr std::uint16_t s_wMostPort = 65535;

/// A flag. Without the override the library would accept "--json=false".
template <auto pMember>
CLI::Option* pclFlag(CLI::App* pcl, const char* pszNames, STOptions* pst)
{
    return pcl->add_flag(pszNames, pst->*pMember)->disable_flag_override();
}

/// One value; of several the last counts.
template <auto pMember>
CLI::Option* pclValue(CLI::App* pcl, const char* pszNames, STOptions* pst)
{
    return pcl->add_option(pszNames, pst->*pMember)->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
}

/// Without the description that the library would add to the help.
template <class T>
CLI::Validator clBetween(T clFirst, T clLast)
{
    return CLI::Range(clFirst, clLast).description("");
}

template <auto pMember>
CLI::Option* pclSeconds(CLI::App* pcl, const char* pszNames, STOptions* pst)
{
    // The library's range check lets "nan" pass, since no comparison with it is true.
    const auto fnNumber = [](const std::string& cs) {
        return cs.find_first_of("nN") == std::string::npos ? "" : "\"" + cs + "\" is not a number of seconds";
    };
    return pclValue<pMember>(pcl, pszNames, pst)->check(clBetween(0.001, s_dLongest))->check(fnNumber);
}

/// Values add up wherever they stand in the line: in front of the command one option of the library takes
/// them, after the command another, and each would empty a vector that was bound to it. Each use of the
/// option takes one word; the library would otherwise take the command's words, too.
template <auto pMember>
CLI::Option* pclList(CLI::App* pcl, const char* pszNames, STOptions* pst)
{
    const CLI::callback_t fnAppend = [pst](const CLI::results_t& tWords) {
        (pst->*pMember).insert((pst->*pMember).end(), tWords.begin(), tWords.end());
        return true;
    };
    return pcl->add_option(pszNames, fnAppend)
        ->expected(1, CLI::detail::expected_max_vector_size)
        ->allow_extra_args(false);
}

template <auto pMember>
CLI::Option* pclPort(CLI::App* pcl, const char* pszNames, STOptions* pst)
{
    return pclValue<pMember>(pcl, pszNames, pst)->check(clBetween(std::uint16_t{1}, s_wMostPort));
}

CLI::Option* pclJobs(CLI::App* pcl, const char* pszNames, STOptions* pst)
{
    return pclValue<&STOptions::nJobs>(pcl, pszNames, pst)->check(clBetween(1U, s_nMostJobs));
}

CLI::Option* pclCount(CLI::App* pcl, const char* pszNames, STOptions* pst)
{
    return pclValue<&STOptions::nCount>(pcl, pszNames, pst)->check(clBetween(1U, s_nMostRounds));
}

constexpr const char* s_pszRemote =
    " info list status start stop restart uninstall cluster discover watch check metrics shell ";
constexpr const char* s_pszMany = " info list status start watch check metrics shell ";

constexpr STOption s_tOptions[] = {
    {"-H,--host", "HOST", s_pszRemote, pclList<&STOptions::tHosts>,
     "machines whose managers are asked: db1,db2 or db[01-40] (default: this one)"},
    {"--hosts", "FILE", s_pszMany, pclValue<&STOptions::csHostsFile>,
     "machines from a file, such as an Ansible inventory in INI form"},
    {"--group", "GROUP", s_pszMany, pclList<&STOptions::tGroups>, "only those of a group of the file"},
    {"-j,--jobs", "NUMBER", s_pszMany, pclJobs, "conversations at once (default: 16, at most 4 to one host)"},
    {"-p,--port", "PORT", s_pszRemote, pclPort<&STOptions::wPort>,
     "the managers' port (default: 4999, where every manager listens)"},
    {"-t,--timeout", "SECONDS", nullptr, pclSeconds<&STOptions::dTimeout>,
     "how long one machine may take (default: see each command)"},
    {"--json", nullptr, nullptr, pclFlag<&STOptions::bJson>, "output for programs"},
    {"--no-color", nullptr, nullptr, pclFlag<&STOptions::bNoColor>, "no colours on a terminal"},
    {"-l,--long", nullptr, " list watch ", pclFlag<&STOptions::bLong>,
     "more columns: on this machine process, since when, folder and the last line logged"},
    {"--state", "STATE", " list watch ", pclList<&STOptions::tStates>,
     "only servers in these states (running,stopped,failed...)"},
    {"--sort", "COLUMN", " list watch ", pclList<&STOptions::tSort>,
     "order of the rows; a - in front of a column reverses it"},
    {"--columns", "COLUMN", " list watch ", pclList<&STOptions::tColumns>,
     "which columns: host,name,port,state,pid,since,folder,log"},
    {"--no-header", nullptr, " list watch status ", pclFlag<&STOptions::bNoHeader>,
     "no line with the columns' names"},
    {"--names", nullptr, " list ", pclFlag<&STOptions::bNames>,
     "only the names, one a line; states are not asked"},
    {"--fail-if-not-running", nullptr, " list ", pclFlag<&STOptions::bFailIfNotRunning>,
     "exit status 1 when a listed server does not run"},
    {"--wait", nullptr, " start ", pclFlag<&STOptions::bWait>, "wait until the server runs"},
    {"--delete-files", nullptr, " uninstall ", pclFlag<&STOptions::bDeleteFiles>,
     "delete the server's folder, databases included"},
    {"--dry-run", nullptr, " uninstall ", pclFlag<&STOptions::bDryRun>, "only say what would be done"},
    {"--yes", nullptr, " uninstall ", pclFlag<&STOptions::bYes>, "do not ask first"},
    {"--interval", "SECONDS", " watch ", pclSeconds<&STOptions::dInterval>,
     "time between two looks (default: 2)"},
    {"--count", "NUMBER", " watch ", pclCount, "end after this many looks"},
    {"-w,--warning", "RANGE", " check ", pclValue<&STOptions::csWarning>,
     "warn when the number of servers that do not run is outside of the range (default: 0)"},
    {"-c,--critical", "RANGE", " check ", pclValue<&STOptions::csCritical>,
     "critical when the number of servers that do not run is outside of the range (default: 0)"},
    {"--ignore", "PATTERN", " check metrics ", pclList<&STOptions::tIgnore>, "leave these servers out"},
    {"-o,--output", "FILE", " metrics ", pclValue<&STOptions::csOutput>,
     "replace this file at once instead of writing to the terminal"},
    {"--prometheus", nullptr, " discover ", pclFlag<&STOptions::bPrometheus>,
     "targets for Prometheus' file-based service discovery"},
    {"--ansible", nullptr, " discover ", pclFlag<&STOptions::bAnsible>, "an inventory for Ansible"},
    {"--exporter-port", "PORT", " discover ", pclPort<&STOptions::wExporterPort>,
     "--prometheus: the port of the targets (default: 9100, where node_exporter listens)"},
    {"--version", nullptr, nullptr, pclFlag<&STOptions::bVersion>, "the version of this program"},
};
constexpr const char* s_pszHelp = "--help"; // not in the table: the library adds it itself

bool bKnownTo(const STOption& stOption, std::string_view csCommand)
{
    return stOption.pszCommands == nullptr ||
           (!csCommand.empty() &&
            std::string_view(stOption.pszCommands).find(" " + std::string(csCommand) + " ") !=
                std::string_view::npos);
}

std::string_view csFullName(const STOption& stOption)
{
    const std::string_view csNames = stOption.pszNames;
    return csNames.substr(csNames.find("--"));
}
} // namespace

void AddOptions(std::string_view csCommand, CLI::App* pclParser, STOptions* pstOptions)
{
    for (const STOption& st : s_tOptions) {
        if (!csCommand.empty() && !bKnownTo(st, csCommand)) {
            continue;
        }
        CLI::Option* const pcl = st.pfnAdd(pclParser, st.pszNames, pstOptions)->description(st.pszHelp);
        if (st.pszValue != nullptr) {
            pcl->type_name(st.pszValue);
        }

        // Hidden: the option may stand in front of the command, but only the help of its commands shows it.
        if (!bKnownTo(st, csCommand)) {
            pcl->group("");
        }
    }
}

std::vector<std::string> tOptionsOf(std::string_view csCommand)
{
    std::vector<std::string> tNames;
    for (const STOption& st : s_tOptions) {
        if (bKnownTo(st, csCommand)) {
            tNames.emplace_back(csFullName(st));
        }
    }
    tNames.emplace_back(s_pszHelp);
    return tNames;
}

std::string csValueKind(std::string_view csOption)
{
    const auto* const pst = std::ranges::find_if(s_tOptions, [&](const STOption& st) {
        const std::string_view csNames = st.pszNames;
        return csOption == csFullName(st) || csOption == csNames.substr(0, csNames.find(','));
    });
    return pst == std::end(s_tOptions) || pst->pszValue == nullptr ? "" : pst->pszValue;
}

std::uint16_t wReadPort(const std::string& csWord)
{
    std::uint16_t wPort = 0;
    const char* const pszEnd = csWord.data() + csWord.size();
    const auto stResult = std::from_chars(csWord.data(), pszEnd, wPort);
    if (stResult.ec != std::errc{} || stResult.ptr != pszEnd || wPort == 0) {
        throw CFailure(EExit::USAGE, "\"" + csArgument(csWord) + "\" is not a port from 1 to 65535");
    }
    return wPort;
}

std::vector<std::string> tItems(const std::vector<std::string>& tLists)
{
    std::vector<std::string> tResult;
    for (const std::string& csList : tLists) {
        std::istringstream clList(csList);
        for (std::string csItem; std::getline(clList, csItem, ',');) {
            if (!csItem.empty()) {
                tResult.push_back(csArgument(csItem));
            }
        }
    }
    return tResult;
}

std::string csArgument(const std::string& csBytes)
{
    // Only well-formed UTF-8 survives the way there and back.
    const std::string csText = csToUTF8(csFromUTF8(csBytes));
    return csText == csBytes ? csText : csToUTF8(csWide(csBytes, CP_1252));
}
