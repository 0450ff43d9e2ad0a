// Reads systemctl's listings and the properties that "show" prints.

#include "service/SystemctlOutput.h"

#include "support/TextLines.h"

#include <algorithm>
#include <array>

namespace {
constexpr std::string_view s_csPathKey = "{ path=";
constexpr std::string_view s_csArgvKey = "argv[]=";
constexpr std::string_view s_csArgvAfterPath = " ; argv[]=";
constexpr std::string_view s_csSuffix = ".service";
/// The marks that systemctl prints before failed, missing, reloading... units, in UTF-8 and ASCII locales.
constexpr std::array<std::string_view, 5> s_tMarks{"●", "○", "×", "↻", "*"};

bool bSameKey(std::string_view cs1, std::string_view cs2)
{
    return cs1.size() == cs2.size() && bBeginsWith(cs1, cs2);
}

/// The line from the unit's name on.
std::string_view csAfterMarks(std::string_view csLine)
{
    SkipWhitespace(&csLine);
    const std::string_view csFirst = csLine.substr(0, csLine.find(' '));
    if (std::ranges::find(s_tMarks, csFirst) != s_tMarks.end()) {
        csLine.remove_prefix(csFirst.size());
        SkipWhitespace(&csLine);
    }
    return csLine;
}

/// The program's path in "{ path=/p ; argv[]=/p --SERVICE DXCS-A ; ignore_errors=no ; ... }". The path itself
/// may hold " ; argv[]=", so each place where the path may end is tried, until the text after "argv[]="
/// begins with the path before it. Nothing when there is no such place.
std::optional<std::string_view> csPathIn(std::string_view csExecStart)
{
    if (!csExecStart.starts_with(s_csPathKey)) {
        return std::nullopt;
    }

    for (std::size_t nEnd = csExecStart.find(s_csArgvAfterPath); nEnd != std::string_view::npos;
         nEnd = csExecStart.find(s_csArgvAfterPath, nEnd + 1)) {
        const std::string_view csPath = csExecStart.substr(s_csPathKey.size(), nEnd - s_csPathKey.size());
        const std::string_view csWords = csExecStart.substr(nEnd + s_csArgvAfterPath.size());
        if (csWords.starts_with(csPath) && csWords.substr(csPath.size()).starts_with(' ')) {
            return csPath;
        }
    }
    return std::nullopt;
}

/// The command line in the value of "ExecStart"; csPath is what csPathIn has found there. Nothing when there
/// is no command line, or the value was cut before its end.
std::optional<std::string> csCommandLineIn(std::string_view csExecStart,
                                           std::optional<std::string_view> csPath)
{
    std::size_t nStart = 0;
    std::size_t nEndOfProgram = 0;
    if (csPath) {
        nStart = s_csPathKey.size() + csPath->size() + s_csArgvAfterPath.size();
        nEndOfProgram = nStart + csPath->size();
    } else {
        // An "argv[]=" at the very beginning does not count; clients rely on it.
        const std::size_t nArgv = csExecStart.find(s_csArgvKey, 1);
        if (nArgv == std::string_view::npos) {
            return std::nullopt;
        }
        nStart = nArgv + s_csArgvKey.size();
        nEndOfProgram = nStart; // unknown
    }

    // The command line ends at the first ";" after the program, whose path may hold one, too.
    const std::size_t nEnd = csExecStart.find(';', nEndOfProgram);
    if (nEnd == std::string_view::npos) {
        return std::nullopt;
    }
    return std::string(csExecStart.substr(nStart, nEnd - nStart));
}

/// Takes the value of one "ExecStart" into what is shown of the unit.
void ReadExecStart(std::string_view csValue, STUnitShown* pstShown)
{
    pstShown->bOneProgram = !pstShown->csBinaryPath; // unless another "ExecStart" came before

    const std::optional<std::string_view> csPath = csPathIn(csValue);
    if (std::optional<std::string> csCommandLine = csCommandLineIn(csValue, csPath)) {
        pstShown->csBinaryPath = std::move(csCommandLine);
        pstShown->csExecutable = csPath ? std::optional<std::string>(*csPath) : std::nullopt;
    }
}
} // namespace

STUnitShown stReadShow(std::string_view csOutput)
{
    STUnitShown stShown;

    ForEachLine(csOutput, [&](std::string_view csLine) {
        const std::size_t nEqual = csLine.find('=');
        if (nEqual == std::string_view::npos) {
            return;
        }

        const std::string_view csKey = csLine.substr(0, nEqual);
        const std::string_view csValue = csLine.substr(nEqual + 1);
        if (bSameKey(csKey, "Type")) {
            // A unit that does not exist is shown, too, but without a type.
            stShown.bExists = stShown.bExists || !csValue.empty();
        } else if (bSameKey(csKey, "Description")) {
            stShown.csDescription = std::string(csValue);
        } else if (bSameKey(csKey, "ExecStart")) {
            ReadExecStart(csValue, &stShown);
        }
    });
    return stShown;
}

std::string_view csPropertyLine(std::string_view csOutput, std::string_view csProperty)
{
    while (!csOutput.empty()) {
        const std::string_view csRest = csOutput;
        const std::string_view csLine = csTakeLine(&csOutput);
        if (csLine.size() > csProperty.size() && csLine[csProperty.size()] == '=' &&
            bBeginsWith(csLine, csProperty)) {
            // Only a whole line: without its newline the line was cut, and perhaps its value, too.
            return csLine.size() < csRest.size() ? csRest.substr(0, csLine.size() + 1) : std::string_view();
        }
    }
    return {};
}

std::string_view csReadProperty(std::string_view csOutput)
{
    const std::size_t nEqual = csOutput.find('=');
    if (nEqual == std::string_view::npos) {
        return {};
    }

    std::string_view csValue = csOutput.substr(nEqual + 1);
    if (!csValue.empty()) {
        csValue.remove_suffix(1); // the newline
    }
    return csValue;
}

std::vector<std::string_view> tReadListing(std::string_view csOutput)
{
    std::vector<std::string_view> tNames;
    ForEachLine(csOutput, [&](std::string_view csLine) {
        // The suffix that ends the first word is the unit's type; the name before it may hold ".service",
        // too. A line of any other form is cut at its first ".service".
        const std::string_view csUnit = csAfterMarks(csLine);
        const std::string_view csWord = csUnit.substr(0, csUnit.find_first_of(" \t"));
        const std::size_t nSuffix =
            csWord.ends_with(s_csSuffix) ? csWord.size() - s_csSuffix.size() : csUnit.find(s_csSuffix);
        if (nSuffix != std::string_view::npos) {
            tNames.push_back(csUnit.substr(0, nSuffix));
        }
    });
    return tNames;
}

std::vector<std::string_view> tReadBlocks(std::string_view csOutput)
{
    std::vector<std::string_view> tBlocks;

    std::size_t nStart = 0; // of the block that the line belongs to
    for (std::size_t nLine = 0; nLine < csOutput.size();) {
        // The last line may have lost its newline; then it ends with the output.
        const std::size_t nEnd = std::min(csOutput.find('\n', nLine), csOutput.size() - 1);
        if (csOutput[nLine] == '\n') {
            tBlocks.push_back(csOutput.substr(nStart, nLine - nStart));
            nStart = nEnd + 1;
        }
        nLine = nEnd + 1;
    }

    if (!csOutput.empty()) {
        tBlocks.push_back(csOutput.substr(nStart));
    }
    return tBlocks;
}

std::string_view csReadId(std::string_view csBlock)
{
    const std::string_view csLine = csPropertyLine(csBlock, "Id");
    if (csLine.empty()) {
        return {};
    }

    // A second "Id" means that a value has forged a line, or that two blocks have run together.
    const auto nAfter = static_cast<std::size_t>(csLine.data() + csLine.size() - csBlock.data());
    const bool bOnlyOne = csPropertyLine(csBlock.substr(nAfter), "Id").empty();
    return bOnlyOne ? csReadProperty(csLine) : std::string_view();
}
