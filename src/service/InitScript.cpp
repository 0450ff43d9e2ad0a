// Fills in init-script templates and reads scripts back. What is inserted may have been chosen by an enemy.

#include "service/InitScript.h"

#include "service/CommandLine.h"
#include "support/TextLines.h"

#include <algorithm>
#include <array>

namespace {
/// ASCII characters that mean nothing to a shell. The slash is left out: a name must not hold it.
constexpr char s_szOrdinary[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-.+@:,=%";

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

bool bControl(char c)
{
    return static_cast<unsigned char>(c) < ' ' || c == 0x7F;
}

/// Whether a character means nothing to a shell. Beyond ASCII all but the control characters, 0x80 to 0x9F.
bool bOrdinary(wchar_t c)
{
    return c > 0x9F ||
           (c < 0x80 && std::string_view(s_szOrdinary).find(static_cast<char>(c)) != std::string_view::npos);
}

bool bNeedsBackslash(char c)
{
    return !bBeyondAscii(c) && c != '/' && std::string_view(s_szOrdinary).find(c) == std::string_view::npos;
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

/// Escapes arguments. The spaces between them stay; a part in double quotes stays in its quotes. A quote
/// without a partner is a character like any other.
std::string csEscapeWords(std::string_view csText)
{
    std::string csResult;
    for (std::size_t n = 0; n < csText.size(); ++n) {
        const std::size_t nEnd = csText[n] == '"' ? csText.find('"', n + 1) : std::string_view::npos;
        if (nEnd != std::string_view::npos) {
            // Between double quotes only these three still mean something to the shell.
            csResult += '"';
            for (const char c : csText.substr(n + 1, nEnd - n - 1)) {
                csResult.append(std::string_view("$`\\").find(c) != std::string_view::npos ? "\\" : "")
                    .push_back(c);
            }
            csResult += '"';
            n = nEnd;
        } else {
            csResult += csText[n] == ' ' ? " " : csEscape(csText.substr(n, 1));
        }
    }
    return csResult;
}

/// Escapes the result of csEscapeWords once more, for `daemon`: the first shell turns this text back into
/// that result, which `daemon` hands to a second one.
std::string csEscapeAgain(std::string_view csText)
{
    std::string csResult;
    bool bQuoted = false;
    for (std::size_t n = 0; n < csText.size(); ++n) {
        // A backslash and the character after it are one unit, so that an escaped quote opens nothing.
        const std::size_t nLength = csText[n] == '\\' ? 2 : 1;

        // Only the spaces between words stay; one in quotes is part of its word for the second shell.
        bQuoted = bQuoted != (csText[n] == '"');
        csResult += csText[n] == ' ' && !bQuoted ? " " : csEscape(csText.substr(n, nLength));
        n += nLength - 1;
    }
    return csResult;
}

/// Judges by how the line begins; the templates are written so that this is enough.
EQuoting eQuotingOf(std::string_view csLine)
{
    SkipBlanks(&csLine);
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

/// Appends the line with its placeholders filled. A value that looks like a placeholder stays what it is: the
/// walk goes on after it, so a name cannot pull in another value.
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
    std::ranges::replace_if(csText, bControl, ' ');
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
           std::ranges::none_of(csCommandLine, bControl);
}

void __PatchScript(CXYString<char>* pcsScript, CXYString<char>* pcsLockFile, const char* pszCommandLine,
                   const char* pszDisplayName)
{
    const CPlaceholders tValues =
        tMakePlaceholders(stSplitCommandLine(pszCommandLine != nullptr ? pszCommandLine : ""),
                          csCommentText(pszDisplayName != nullptr ? pszDisplayName : ""),
                          pcsLockFile != nullptr ? *pcsLockFile : std::string());

    // Line by line, because the line decides how a value is quoted. Newlines are kept byte for byte.
    std::string csResult;
    for (std::string_view csRest = *pcsScript; !csRest.empty();) {
        const std::string_view csAll = csRest;
        const std::string_view csLine = csTakeLine(&csRest);
        AppendFilled(csLine, tValues, &csResult);
        csResult += csAll.substr(csLine.size(), csAll.size() - csLine.size() - csRest.size());
    }
    *pcsScript = std::move(csResult);
}

STMarker stReadMarker(std::string_view csScript, std::string_view csKey, std::size_t nBuffer)
{
    while (!csScript.empty()) {
        // A longer line is cut to what a buffer of this size holds beside a terminator; clients rely on it.
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

    // Before the arguments stands the "--" of start-stop-daemon, whose program is an option's value, or the
    // program itself, escaped for one shell or for `daemon`'s two.
    const std::string csWord = csEscape(*csProgram);
    const bool bWhole =
        csBefore.ends_with(" --") || csBefore.ends_with(csWord) || csBefore.ends_with(csEscape(csWord));
    return bWhole ? csProgram : std::nullopt;
}
