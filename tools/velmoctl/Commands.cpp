#include "velmoctl/Commands.h"

#include "support/Conversion.h"
#include "support/Version.h"
#include "velmoctl/Json.h"
#include "velmoctl/Terminal.h"

#include <algorithm>
#include <CLI/CLI.hpp>
#include <cmath>
#include <iostream>
#include <iterator>

namespace {
struct STCommand
{
    const char* pszName;
    const char* pszArguments;
    std::size_t nFewest; ///< arguments
    std::size_t nMost;
    Milliseconds clTimeout;
    EExit (*pfn)(const STCall&);
    const char* pszHelp;
};

using namespace std::chrono_literals;
/// A start or a stop waits for the service manager, which gives a service a minute and a half.
constexpr Milliseconds s_clQuestion = 10s, s_clChange = 120s, s_clSearch = 5s;
constexpr std::size_t s_nMany = 10'000; // words: as many as anybody types, or a script collects

constexpr STCommand s_tCommands[] = {
    {"info", "", 0, 0, s_clQuestion, eInfo, "version, machine and servers of a manager"},
    {"list", "[NAME...]", 0, s_nMany, s_clQuestion, eList, "name, port and state of each server"},
    {"status", "NAME...", 1, s_nMany, s_clQuestion, eStatus, "state of servers, and an exit status by it"},
    {"check", "[NAME...]", 0, s_nMany, s_clQuestion, eCheck, "the same for Nagios and Icinga"},
    {"metrics", "[NAME...]", 0, s_nMany, s_clQuestion, eMetrics, "the same for Prometheus"},
    {"start", "NAME...", 1, s_nMany, s_clChange, eStart, "start servers"},
    {"stop", "NAME...", 1, s_nMany, s_clChange, eStop, "stop servers of this machine (root only)"},
    {"restart", "NAME...", 1, s_nMany, s_clChange, eRestart, "restart servers of this machine (root only)"},
    {"uninstall", "NAME", 1, 1, s_clChange, eUninstall, "stop a server and remove its service"},
    {"cluster", "NAME", 1, 1, s_clQuestion, eCluster, "which cluster a server belongs to"},
    {"discover", "", 0, 0, s_clSearch, eDiscover, "find the managers of the local network"},
    {"register", "NAME PROGRAM PORT", 3, 3, s_clChange, eRegister,
     "have a server of this machine registered and started (root only)"},
    {"watch", "[NAME...]", 0, s_nMany, s_clQuestion, eWatch, "the list again and again; q ends it"},
    {"lint", "FILE", 1, 1, s_clQuestion, eLint, "look for faults in a DXConf.ini"},
    {"shell", "", 0, 0, s_clQuestion, eShell, "commands at a prompt"},
};
/// Called by the completion scripts of the shells with the words of a line; completes the last one. Its
/// look-ups have a time limit of their own.
constexpr STCommand s_stComplete = {"complete", "[WORD...]", 0, s_nMany, 0s, eComplete, ""};
constexpr const char *s_pszHelp = "help", *s_pszHelpFlags = "-h,--help", *s_pszHelpText = "this text";

/// Writes the usage line as the man page does.
class CHelp : public CLI::Formatter
{
public:
    CHelp() { column_width(32); } // wide enough for the longest option
    std::string make_usage(const CLI::App* pclParser, std::string /*csName*/) const override
    {
        const std::string& csCommand = pclParser->get_name();
        const bool bWhole = pclParser->get_parent() == nullptr;
        return "Usage: velmoctl [OPTION...] " +
               (bWhole ? "COMMAND [ARGUMENT...]" : csCommand + " " + csArgumentKinds(csCommand)) + "\n";
    }
    /// Nothing: the usage line shows the arguments already.
    std::string make_positionals(const CLI::App* /*pclParser*/) const override { return ""; }
};

/// Reads one command line and runs its command.
class CReader
{
public:
    explicit CReader(const STOptions& stDefaults) : m_stDefaults(stDefaults), m_stOptions(stDefaults)
    {
        // A line that names machines replaces those of the defaults, so it begins without any; _TakeDefaults
        // puts them back where the line names none.
        m_stOptions.tHosts.clear();
        m_stOptions.tGroups.clear();
        m_stOptions.csHostsFile.clear();

        m_clParser.set_help_flag(s_pszHelpFlags, s_pszHelpText);
        m_clParser.formatter(std::make_shared<CHelp>());
        m_clParser.footer(
            "\"velmoctl help COMMAND\" lists the options of each. Exit status: 0 done, 1 refused or\n"
            "not as it should be, 2 wrong usage, 3 nobody answers, 4 no manager answers, 5 not\n"
            "wanted after all; \"status\" and \"check\" have their own. More in velmoctl(1).");

        AddOptions("", &m_clParser, &m_stOptions);
        for (const STCommand& st : s_tCommands) {
            _Add(st, "Commands");
        }

        _Add(s_stComplete, "");
        m_clParser.add_subcommand(s_pszHelp, "what a command does and which options it has")
            ->group("Commands")
            ->add_option("COMMAND", m_csHelpAbout);
        m_clParser.require_subcommand(0, 1);
    }

    EExit eRun(const std::vector<std::string>& tArguments)
    {
        _Parse(tArguments);
        if (m_stOptions.bVersion) {
            std::cout << "velmoctl " << csToUTF8(g_szVersion) << "\n";
            return EExit::DONE;
        }
        if (m_bHelp || m_clParser.got_subcommand(s_pszHelp)) {
            std::cout << _csHelp();
            return EExit::DONE;
        }
        if (m_pstCommand == nullptr) {
            throw CFailure(EExit::USAGE, "which command? See velmoctl --help");
        }

        _CheckOptions();
        _CheckWords();
        _TakeDefaults();
        SetColours(!m_stOptions.bNoColor);

        const Milliseconds clOwn(std::lround(m_stOptions.dTimeout * 1000));
        return m_pstCommand->pfn(
            {m_stOptions, m_tWords, clOwn > Milliseconds::zero() ? clOwn : m_pstCommand->clTimeout});
    }

    bool bJson() const { return m_stOptions.bJson; }
    /// Whether the command is a monitoring plugin, which reports its failures in a form of its own.
    bool bPlugin() const { return m_clParser.got_subcommand("check"); }

private:
    void _Add(const STCommand& st, const char* pszGroup)
    {
        CLI::App* const pcl = m_clParser.add_subcommand(st.pszName, st.pszHelp)->group(pszGroup);
        pcl->set_help_flag(s_pszHelpFlags, s_pszHelpText);
        pcl->formatter(std::make_shared<CHelp>());
        AddOptions(st.pszName, pcl, &m_stOptions);
        pcl->add_option("WORD", m_tWords);
        pcl->callback([this, &st] { m_pstCommand = &st; });
    }

    /// Throws CFailure (USAGE). The library wants the words in reverse. It gets only those before "--": what
    /// follows is never an option.
    void _Parse(const std::vector<std::string>& tArguments)
    {
        const auto itEnd = std::ranges::find(tArguments, "--");
        std::vector<std::string> tReversed;
        for (auto it = itEnd; it != tArguments.begin(); --it) {
            tReversed.push_back(_csGuarded(*std::prev(it)));
        }

        try {
            m_clParser.parse(tReversed);
        } catch (const CLI::CallForHelp&) {
            m_bHelp = true;
        } catch (const CLI::ParseError& clError) {
            throw CFailure(EExit::USAGE, _csFault(clError));
        }

        _Unguard();
        if (itEnd != tArguments.end()) {
            m_tWords.insert(m_tWords.end(), std::next(itEnd), tArguments.end());
        }
    }

    /// Hides a word in brackets, such as the pattern "[ab]", from the library, which would read it as a list
    /// of words: a control character stands in front of it while the library reads the line.
    static std::string _csGuarded(const std::string& csWord)
    {
        const bool bList = csWord.size() > 1 && csWord.front() == '[' && csWord.back() == ']';
        return bList ? s_cGuard + csWord : csWord;
    }
    static std::string _csUnguarded(const std::string& csWord)
    {
        return csWord.size() > 1 && csWord[0] == s_cGuard && csWord[1] == '[' ? csWord.substr(1) : csWord;
    }
    /// Takes the guards away again, wherever the library may have put a guarded word.
    void _Unguard()
    {
        STOptions& st = m_stOptions;
        for (auto* const pt :
             {&m_tWords, &st.tHosts, &st.tGroups, &st.tStates, &st.tColumns, &st.tSort, &st.tIgnore}) {
            std::ranges::transform(*pt, pt->begin(), _csUnguarded);
        }
        for (auto* const pcs :
             {&st.csHostsFile, &st.csWarning, &st.csCritical, &st.csOutput, &m_csHelpAbout}) {
            *pcs = _csUnguarded(*pcs);
        }
    }

    /// The words for a line that the library refused. It would call an unknown command an extra argument.
    std::string _csFault(const CLI::ParseError& clError) const
    {
        const std::vector<std::string> tLeft = m_clParser.remaining();
        if (m_clParser.get_subcommands().empty() && !tLeft.empty() && !tLeft[0].starts_with("-")) {
            return "unknown command \"" + csArgument(tLeft[0]) + "\"; see velmoctl --help";
        }
        return csArgument(clError.what()) + "; see velmoctl --help";
    }

    /// Throws CFailure (USAGE) for an option in front of the command that only other commands have: the
    /// library accepts all options there.
    void _CheckOptions() const
    {
        const std::vector<std::string> tKnown = tOptionsOf(m_pstCommand->pszName);
        for (const CLI::Option* const pcl : m_clParser.get_options()) {
            const std::string csName = "--" + pcl->get_lnames().front();
            if (pcl->count() > 0 && std::ranges::find(tKnown, csName) == tKnown.end()) {
                throw CFailure(EExit::USAGE,
                               "\"" + std::string(m_pstCommand->pszName) + "\" has no option " + csName);
            }
        }
    }

    /// Throws CFailure (USAGE) for too few or too many words.
    void _CheckWords() const
    {
        if (m_tWords.size() < m_pstCommand->nFewest || m_tWords.size() > m_pstCommand->nMost) {
            const std::string csWords = m_pstCommand->pszArguments;
            throw CFailure(EExit::USAGE, std::string("usage: velmoctl ") + m_pstCommand->pszName +
                                             (csWords.empty() ? "" : " ") + csWords);
        }
    }

    /// A line that names no machine asks those of the defaults. A line with only a group means that group in
    /// the defaults' hosts file, so it takes the file but not the defaults' machines and groups.
    void _TakeDefaults()
    {
        if (m_stOptions.tHosts.empty() && m_stOptions.csHostsFile.empty()) {
            m_stOptions.csHostsFile = m_stDefaults.csHostsFile;
            if (m_stOptions.tGroups.empty()) {
                m_stOptions.tHosts = m_stDefaults.tHosts;
                m_stOptions.tGroups = m_stDefaults.tGroups;
            }
        }
    }

    std::string _csHelp()
    {
        if (m_csHelpAbout.empty()) {
            return m_clParser.help();
        }
        if (!_bCommand(m_csHelpAbout)) {
            throw CFailure(EExit::USAGE,
                           "unknown command \"" + csArgument(m_csHelpAbout) + "\"; see velmoctl --help");
        }
        return m_clParser.get_subcommand(m_csHelpAbout)->help();
    }

    static bool _bCommand(const std::string& csName)
    {
        const std::vector<std::string> tNames = tCommandNames();
        return std::ranges::find(tNames, csName) != tNames.end();
    }

    static constexpr char s_cGuard = '\x01'; // nobody types it in front of a bracket

    const STOptions& m_stDefaults; ///< the caller's
    STOptions m_stOptions;
    const STCommand* m_pstCommand = nullptr; ///< set by the library's callback
    std::vector<std::string> m_tWords;       ///< those that are neither command nor option
    std::string m_csHelpAbout;               ///< the command that help is asked about; empty: all
    bool m_bHelp = false;                    ///< "--help" was given
    CLI::App m_clParser{"Talks to VelmoManagers, the managers of machines' database servers.", "velmoctl"};
};

/// Reports a failure in words on standard error, and for programs as a value on standard output: but a
/// wrong command line in words alone.
EExit eTellFailure(const CFailure& clFailure, bool bJson)
{
    if (bJson && clFailure.eExit() != EExit::USAGE) {
        std::cout << csJsonLine({{"error", clJsonFailure(clFailure)}});
    }
    std::cout.flush();
    std::cerr << "velmoctl: " << csShown(clFailure.what()) << "\n";
    return clFailure.eExit();
}
} // namespace

EExit eExecute(const std::vector<std::string>& tArguments, const STOptions& stDefaults)
{
    CReader clReader(stDefaults);
    EExit eResult = EExit::DONE;
    try {
        eResult = clReader.eRun(tArguments);
    } catch (const CFailure& clFailure) {
        eResult = clReader.bPlugin() ? eTellMonitoring(clFailure) : eTellFailure(clFailure, clReader.bJson());
    }

    // A full disk shows only now; a script that reads the output must not take it for whole.
    if (!std::cout.flush()) {
        std::cerr << "velmoctl: the output could not be written\n";
        return EExit::REFUSED;
    }

    return eResult;
}

std::vector<std::string> tCommandNames()
{
    std::vector<std::string> tNames;
    for (const STCommand& st : s_tCommands) {
        tNames.emplace_back(st.pszName);
    }
    return tNames;
}

std::string csArgumentKinds(const std::string& csCommand)
{
    const auto* const pst = std::ranges::find(s_tCommands, csCommand, &STCommand::pszName);
    return pst == std::end(s_tCommands) ? "" : pst->pszArguments;
}
