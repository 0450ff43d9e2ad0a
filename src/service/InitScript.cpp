// Fills in init-script templates and reads scripts back. What is inserted may have been chosen by an enemy.

#include "service/InitScript.h"

#include "service/CommandLine.h"
#include "support/TextLines.h"

#include <algorithm>
#include <array>

namespace {
/// ASCII characters that mean nothing to a shell. The slash is left out: a name must not hold it.
constexpr std::string_view s_csOrdinary =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-.+@:,=%";

/// Who reads a line of a script, which decides how values are written in it.
enum EQuoting : int
{
    QUOTING_COMMENT = 0,    ///< only we do, for the marker: unchanged
    QUOTING_COMMAND = 1,    ///< the shell
    QUOTING_TWO_SHELLS = 2, ///< the shell, then `daemon`'s own shell
};

bool bBeyondAscii(char c)
{
    return static_cast<unsigned char>(c) >= 0x80;
}

/// Control characters of ASCII. The bytes of those beyond (0x80 to 0x9F) are parts of UTF-8 sequences, too.
bool bAsciiControl(char c)
{
    return static_cast<unsigned char>(c) < ' ' || c == 0x7F;
}

/// Whether a character means nothing to a shell. Beyond ASCII all but the control characters, 0x80 to 0x9F.
bool bOrdinary(wchar_t c)
{
    return c > 0x9F || (c < 0x80 && s_csOrdinary.find(static_cast<char>(c)) != std::string_view::npos);
}

bool bNeedsBackslash(char c)
{
    return !bBeyondAscii(c) && c != '/' && s_csOrdinary.find(c) == std::string_view::npos;
}

/// The text with a backslash before each character that means something to a shell.
std::string csEscape(std::string_view csText)
{
    std::string csResult;
    for (const char c : csText) {
        csResult.append(bNeedsBackslash(c) ? "\\" : "").push_back(c);
    }
    return csResult;
}

/// The text as the inside of a part in double quotes, where only these three still mean something to the
/// shell.
std::string csEscapeInQuotes(std::string_view csText)
{
    std::string csResult;
    for (const char c : csText) {
        const bool bSpecial = c == '$' || c == '`' || c == '\\';
        csResult.append(bSpecial ? "\\" : "").push_back(c);
    }
    return csResult;
}

/// Escapes arguments. The spaces between them stay; a part in double quotes stays in its quotes. A quote
/// without a partner is a character like any other.
std::string csEscapeWords(std::string_view csText)
{
    std::string csResult;
    while (!csText.empty()) {
        const std::size_t nPartner = csText.front() == '"' ? csText.find('"', 1) : std::string_view::npos;
        if (nPartner != std::string_view::npos) {
            csResult += '"' + csEscapeInQuotes(csText.substr(1, nPartner - 1)) + '"';
            csText.remove_prefix(nPartner + 1);
        } else {
            csResult += csText.front() == ' ' ? " " : csEscape(csText.substr(0, 1));
            csText.remove_prefix(1);
        }
    }
    return csResult;
}

/// Escapes the result of csEscapeWords once more, for `daemon`: the first shell turns this text back into
/// that result, which `daemon` hands to a second one.
std::string csEscapeAgain(std::string_view csText)
{
    std::string csResult;
    bool bInQuotes = false;
    while (!csText.empty()) {
        if (csText.front() == '"') {
            bInQuotes = !bInQuotes;
        }

        // A space between words goes on separating them; one in quotes is part of its word for the second
        // shell. A backslash and the character after it are one unit, so that an escaped quote opens nothing.
        const std::size_t nUnit = csText.front() == '\\' ? 2 : 1;
        const bool bSeparates = csText.front() == ' ' && !bInQuotes;
        csResult += bSeparates ? " " : csEscape(csText.substr(0, nUnit));
        csText.remove_prefix(std::min(nUnit, csText.size()));
    }
    return csResult;
}

/// Judges by how the line begins; the templates are written so that this is enough.
EQuoting eQuotingOf(std::string_view csLine)
{
    SkipWhitespace(&csLine);
    if (csLine.starts_with('#')) {
        return QUOTING_COMMENT;
    }
    return csLine.starts_with("daemon ") ? QUOTING_TWO_SHELLS : QUOTING_COMMAND;
}

/// One placeholder, and its value in the form that each kind of line needs.
struct STPlaceholder
{
    std::string_view csName;
    std::array<std::string, 3> tValues; ///< by EQuoting
};

using CPlaceholders = std::array<STPlaceholder, 4>;

CPlaceholders tMakePlaceholders(const STCommandLine& stCommand, const std::string& csDisplayName,
                                const std::string& csLockFile)
{
    const std::string csProgram = csEscape(stCommand.csProgram);
    const std::string csArguments = csEscapeWords(stCommand.csArguments);

    // A display name is used in comments only, and no character of a lock file's name is special to a shell.
    const auto Same = [](const std::string& cs) { return std::array{cs, cs, cs}; };
    return {{{"%%%PROGRAM%%%", {stCommand.csProgram, csProgram, csEscape(csProgram)}},
             {"%%%ARG%%%", {stCommand.csArguments, csArguments, csEscapeAgain(csArguments)}},
             {"%%%DISPLAY_NAME%%%", Same(csDisplayName)},
             {"%%%LOCK_FILE%%%", Same(csLockFile)}}};
}

/// Appends the line with its placeholders filled. The walk goes on after an inserted value: a name that looks
/// like a placeholder stays what it is and cannot pull in another value.
void AppendFilled(std::string_view csLine, const CPlaceholders& tValues, std::string* pcsResult)
{
    const EQuoting eQuoting = eQuotingOf(csLine); // of the template's line, before any value is in it

    while (!csLine.empty()) {
        const auto pFound = std::ranges::find_if(
            tValues, [csLine](std::string_view csName) { return csLine.starts_with(csName); },
            &STPlaceholder::csName);
        if (pFound != tValues.end()) {
            *pcsResult += pFound->tValues[static_cast<std::size_t>(eQuoting)];
            csLine.remove_prefix(pFound->csName.size());
        } else {
            *pcsResult += csLine.front();
            csLine.remove_prefix(1);
        }
    }
}

/// The text made harmless for a comment: it can end neither the line nor its value in the marker line.
std::string csCommentText(std::string csText)
{
    std::ranges::replace_if(csText, bAsciiControl, ' ');
    std::ranges::replace(csText, '"', '\'');
    return csText;
}
} // namespace

bool bInertName(const std::wstring& csName)
{
    return !csName.empty() && csName != L"." && csName != L".." && csName.front() != L'-' &&
           std::ranges::all_of(csName, bOrdinary);
}

bool bInertWords(const std::wstring& csText)
{
    return std::ranges::all_of(csText, [](wchar_t c) { return bOrdinary(c) || c == L' ' || c == L'/'; });
}

bool bScriptable(const std::string& csCommandLine)
{
    const std::string csProgram = stSplitCommandLine(csCommandLine).csProgram;
    return !csProgram.empty() && csProgram.find('"') == std::string::npos &&
           std::ranges::none_of(csCommandLine, bAsciiControl);
}

void __PatchScript(CXYString<char>* pcsScript, CXYString<char>* pcsLockFile, const char* pszCommandLine,
                   const char* pszDisplayName)
{
    const CPlaceholders tValues =
        tMakePlaceholders(stSplitCommandLine(pszCommandLine != nullptr ? pszCommandLine : ""),
                          csCommentText(pszDisplayName != nullptr ? pszDisplayName : ""),
                          pcsLockFile != nullptr ? *pcsLockFile : std::string());

    // Line by line, because the line decides how a value is quoted. The last one may have no newline.
    std::string csResult;
    for (std::string_view csRest = *pcsScript; !csRest.empty();) {
        const std::size_t nBefore = csRest.size();
        const std::string_view csLine = csTakeLine(&csRest);
        AppendFilled(csLine, tValues, &csResult);
        csResult += csLine.size() < nBefore ? "\n" : "";
    }
    *pcsScript = std::move(csResult);
}

STMarker stReadMarker(std::string_view csScript, std::string_view csKey, std::size_t nBuffer)
{
    while (!csScript.empty()) {
        // A longer line is cut to what a buffer of this size holds beside a terminator, and a NUL in the line
        // ends it; clients rely on it.
        std::string_view csLine = csTakeLine(&csScript).substr(0, nBuffer - 1);
        csLine = csLine.substr(0, csLine.find('\0'));

        // The marker may stand anywhere in a line: both values share one.
        const std::size_t nKey = csLine.find(csKey);
        if (nKey == std::string_view::npos) {
            continue;
        }

        const std::string_view csValue = csLine.substr(nKey + csKey.size());
        const std::size_t nEnd = csValue.find('"');
        if (nEnd == std::string_view::npos) {
            return {true, std::nullopt};
        }
        return {true, std::string(csValue.substr(0, nEnd))};
    }
    return {};
}

STMarker stDisplayNameInScript(std::string_view csScript)
{
    return stReadMarker(csScript, "Name=\"", 250);
}

STMarker stProgramInScript(std::string_view csScript)
{
    return stReadMarker(csScript, "Program=\"", 150);
}

std::optional<std::string> csProgramStarted(std::string_view csScript, const std::string& csName)
{
    std::optional<std::string> csProgram = stProgramInScript(csScript).csValue;
    const std::size_t nArguments = csScript.find(" --SERVICE " + csName + "\n");
    if (!csProgram || nArguments == std::string_view::npos) {
        return std::nullopt;
    }

    std::string_view csBefore = csScript.substr(0, nArguments);
    csBefore = csBefore.substr(0, csBefore.find_last_not_of(' ') + 1);

    // Right before the arguments stands either the program itself, escaped for one shell or for `daemon`'s
    // two; or the "--" of start-stop-daemon, which takes its program from an option. There the program needs
    // no comparison: the rest of a path that was cut at a space counted as an argument, so it would stand
    // after the "--".
    const std::string csEscaped = csEscape(*csProgram);
    const bool bSamePath =
        csBefore.ends_with(" --") || csBefore.ends_with(csEscaped) || csBefore.ends_with(csEscape(csEscaped));
    return bSamePath ? csProgram : std::nullopt;
}
