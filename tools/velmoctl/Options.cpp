#include "velmoctl/Options.h"

#include "support/Conversion.h"
#include "velmoctl/Failure.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>
#include <sstream>

namespace {
struct STOption
{
    const char* pszName;
    const char* pszValue;    ///< what the help calls its value; null: it has none
    const char* pszCommands; ///< those that know it, each between blanks; null: all
    void (*pfnSet)(STOptions*, const std::string&);
    const char* pszHelp;
};

/// A number that is the whole text and within its bounds. Throws CFailure (USAGE).
template <class T>
T nNumber(const std::string& csValue, T nMin, T nMax, const char* pszKind = "number")
{
    T nNumber{};
    const char* const pszEnd = csValue.data() + csValue.size();
    const auto stResult = std::from_chars(csValue.data(), pszEnd, nNumber);
    if (stResult.ec != std::errc{} || stResult.ptr != pszEnd || !(nNumber >= nMin && nNumber <= nMax)) {
        std::ostringstream clWords;
        clWords << '"' << csArgument(csValue) << "\" is not a " << pszKind << " from " << nMin << " to "
                << nMax;
        throw CFailure(EExit::USAGE, clWords.str());
    }
    return nNumber;
}

Milliseconds clSeconds(const std::string& csValue)
{
    return Milliseconds(std::lround(1000 * nNumber(csValue, 0.001, 86400.0)));
}

constexpr const char* s_pszRemote = " info list status start uninstall cluster discover watch shell ";

constexpr STOption s_tOptions[] = {
    {"--host", "HOST", s_pszRemote, [](STOptions* pst, const std::string& cs) { pst->csHost = cs; },
     "the machine whose manager is asked (default: this one)"},
    {"--port", "PORT", s_pszRemote, [](STOptions* pst, const std::string& cs) { pst->wPort = wReadPort(cs); },
     "its port (default: 4999, where every manager listens)"},
    {"--timeout", "SECONDS", nullptr,
     [](STOptions* pst, const std::string& cs) { pst->clTimeout = clSeconds(cs); },
     "how long one answer may take (default: see each command)"},
    {"--json", nullptr, nullptr, [](STOptions* pst, const std::string&) { pst->bJson = true; },
     "output for programs"},
    {"--no-color", nullptr, nullptr, [](STOptions* pst, const std::string&) { pst->bNoColor = true; },
     "no colours on a terminal"},
    {"--names", nullptr, " list ", [](STOptions* pst, const std::string&) { pst->bNames = true; },
     "list: only the names, one a line; states are not asked"},
    {"--delete-files", nullptr, " uninstall ",
     [](STOptions* pst, const std::string&) { pst->bDeleteFiles = true; },
     "uninstall: delete the server's folder, databases included"},
    {"--dry-run", nullptr, " uninstall ", [](STOptions* pst, const std::string&) { pst->bDryRun = true; },
     "uninstall: only tell what would be done"},
    {"--yes", nullptr, " uninstall ", [](STOptions* pst, const std::string&) { pst->bYes = true; },
     "uninstall: do not ask first"},
    {"--interval", "SECONDS", " watch ",
     [](STOptions* pst, const std::string& cs) { pst->clInterval = clSeconds(cs); },
     "watch: time between two looks (default: 2)"},
    {"--count", "NUMBER", " watch ",
     [](STOptions* pst, const std::string& cs) { pst->nCount = nNumber(cs, 1u, 1'000'000'000u); },
     "watch: end after this many looks"},
    {"--help", nullptr, nullptr, [](STOptions* pst, const std::string&) { pst->bHelp = true; }, "this text"},
    {"--version", nullptr, nullptr, [](STOptions* pst, const std::string&) { pst->bVersion = true; },
     "the version of this program"},
};

bool bKnownTo(const STOption& stOption, std::string_view csCommand)
{
    return stOption.pszCommands == nullptr ||
           std::string_view(stOption.pszCommands).find(" " + std::string(csCommand) + " ") !=
               std::string_view::npos;
}

const STOption& stFind(const std::string& csName)
{
    const auto* const pstFound = std::find_if(std::begin(s_tOptions), std::end(s_tOptions),
                                              [&](const STOption& st) { return csName == st.pszName; });
    if (pstFound == std::end(s_tOptions)) {
        throw CFailure(EExit::USAGE, "unknown option \"" + csArgument(csName) + "\"");
    }
    return *pstFound;
}

using WordIterator = std::vector<std::string>::const_iterator;

/// Sets the option at the iterator, which goes on to the option's last word; returns its name.
const char* pszTake(WordIterator* pit, WordIterator itEnd, STOptions* pstOptions)
{
    const std::size_t nEqual = (*pit)->find('=');
    const STOption& stOption = stFind(**pit == "-h" ? "--help" : (*pit)->substr(0, nEqual));
    const bool bInline = nEqual != std::string::npos;
    std::string csValue = bInline ? (*pit)->substr(nEqual + 1) : "";
    if (bInline && stOption.pszValue == nullptr) {
        throw CFailure(EExit::USAGE, std::string(stOption.pszName) + " takes no value");
    }
    if (!bInline && stOption.pszValue != nullptr) {
        if (std::next(*pit) == itEnd) {
            throw CFailure(EExit::USAGE, std::string(stOption.pszName) + " needs a value");
        }
        csValue = *++*pit;
    }
    stOption.pfnSet(pstOptions, csValue);
    return stOption.pszName;
}
} // namespace

STCommandLine stParse(const std::vector<std::string>& tArguments, const STOptions& stDefaults)
{
    STCommandLine stLine{stDefaults, {}, {}};
    bool bOptions = true;
    for (auto it = tArguments.begin(); it != tArguments.end(); ++it) {
        if (!bOptions || it->size() < 2 || it->front() != '-') {
            stLine.tWords.push_back(*it);
        } else if (*it == "--") {
            bOptions = false;
        } else {
            stLine.tUsed.emplace_back(pszTake(&it, tArguments.end(), &stLine.stOptions));
        }
    }
    return stLine;
}

std::vector<std::string> tOptionsOf(std::string_view csCommand)
{
    std::vector<std::string> tNames;
    for (const STOption& stOption : s_tOptions) {
        if (bKnownTo(stOption, csCommand)) {
            tNames.emplace_back(stOption.pszName);
        }
    }
    return tNames;
}

std::string csOptionsHelp()
{
    constexpr std::size_t nColumn = 20;
    std::string csHelp;
    for (const STOption& stOption : s_tOptions) {
        std::string csLeft = stOption.pszName;
        if (stOption.pszValue != nullptr) {
            csLeft += std::string(" ") + stOption.pszValue;
        }
        csLeft.resize(std::max(csLeft.size(), nColumn), ' ');
        csHelp += "  " + csLeft + " " + stOption.pszHelp + "\n";
    }
    return csHelp;
}

std::uint16_t wReadPort(const std::string& csWord)
{
    return nNumber<std::uint16_t>(csWord, 1, 65535, "port");
}

std::string csArgument(const std::string& csBytes)
{
    const std::string csText = csToUTF8(csFromUTF8(csBytes));
    return csText == csBytes ? csText : csToUTF8(csWide(csBytes, CP_1252));
}
