#include "service/InitScript.h"

#include "service/CommandLine.h"
#include "support/TextLines.h"

#include <algorithm>
#include <array>

namespace {
constexpr char s_szOrdinary[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-.+@:,=%";

/// How a line of a template is read, which decides how values stand in it.
enum EQuoting : int
{
    QUOTING_COMMENT = 0,    ///< by nobody but us: as they are
    QUOTING_COMMAND = 1,    ///< by the shell
    QUOTING_TWO_SHELLS = 2, ///< `daemon` hands its arguments to a shell of its own
};

bool bBeyondAscii(char c)
{
    return static_cast<unsigned char>(c) >= 0x80;
}

bool bControl(char c)
{
    return static_cast<unsigned char>(c) < ' ' || c == 0x7F;
}

/// Characters that mean nothing to a shell; of those beyond ASCII all but the control characters.
bool bOrdinary(wchar_t c)
{
    return c > 0x9F ||
           (c < 0x80 && std::string_view(s_szOrdinary).find(static_cast<char>(c)) != std::string_view::npos);
}

bool bNeedsBackslash(char c)
{
    return !bBeyondAscii(c) && c != '/' && std::string_view(s_szOrdinary).find(c) == std::string_view::npos;
}

/// Each character that means something to a shell gets a backslash.
std::string csEscape(std::string_view csText)
{
    std::string csResult;
    for (const char c : csText) {
        csResult.append(bNeedsBackslash(c) ? "\\" : "").push_back(c);
    }
    return csResult;
}

/// Escapes all but the blanks between words; a quoted part is kept in its quotes. A quote without a partner
/// is a character like any other.
std::string csEscapeWords(std::string_view csText)
{
    std::string csResult;
    for (std::size_t n = 0; n < csText.size(); ++n) {
        const std::size_t nEnd = csText[n] == '"' ? csText.find('"', n + 1) : std::string_view::npos;
        if (nEnd != std::string_view::npos) {
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

/// Escapes a text that csEscapeWords made once more, so that one shell's reading yields it again.
std::string csEscapeAgain(std::string_view csText)
{
    std::string csResult;
    bool bQuoted = false;
    for (std::size_t n = 0; n < csText.size(); ++n) {
        const std::size_t nLength = csText[n] == '\\' ? 2 : 1;
        bQuoted = bQuoted != (csText[n] == '"');
        csResult += csText[n] == ' ' && !bQuoted ? " " : csEscape(csText.substr(n, nLength));
        n += nLength - 1;
    }
    return csResult;
}

/// Told by how the line begins; templates keep to it.
EQuoting eQuotingOf(std::string_view csLine)
{
    SkipBlanks(&csLine);
    if (csLine.starts_with('#')) {
        return QUOTING_COMMENT;
    }
    return csLine.starts_with("daemon ") ? QUOTING_TWO_SHELLS : QUOTING_COMMAND;
}

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
    // Display names stand in comments only, and nothing in a lock file's name means something to a shell.
    const auto Same = [](const std::string& cs) { return std::array{cs, cs, cs}; };
    return {{{"%%%PROGRAM%%%", {stCommand.csProgram, csProgram, csEscape(csProgram)}},
             {"%%%ARG%%%", {stCommand.csArguments, csArguments, csEscapeAgain(csArguments)}},
             {"%%%DISPLAY_NAME%%%", Same(csDisplayName)},
             {"%%%LOCK_FILE%%%", Same(csLockFile)}}};
}

/// Appends the line with its placeholders filled. Values are not looked through for placeholders in turn.
void AppendFilled(std::string_view csLine, const CPlaceholders& tValues, std::string* pcsResult)
{
    const EQuoting eQuoting = eQuotingOf(csLine);
    while (!csLine.empty()) {
        const auto pFound = std::find_if(tValues.begin(), tValues.end(), [&](const STPlaceholder& st) {
            return csLine.starts_with(st.csName);
        });
        if (pFound != tValues.end()) {
            *pcsResult += pFound->tValues[static_cast<std::size_t>(eQuoting)];
            csLine.remove_prefix(pFound->csName.size());
        } else {
            *pcsResult += csLine.front();
            csLine.remove_prefix(1);
        }
    }
}

/// Made unable to end the comment's line, or the value in the marker line.
std::string csCommentText(std::string csText)
{
    std::replace_if(csText.begin(), csText.end(), bControl, ' ');
    std::replace(csText.begin(), csText.end(), '"', '\'');
    return csText;
}
} // namespace

bool bInertName(const std::wstring& csName)
{
    return !csName.empty() && csName != L"." && csName != L".." && csName.front() != L'-' &&
           std::all_of(csName.begin(), csName.end(), bOrdinary);
}

bool bInertWords(const std::wstring& csText)
{
    return std::all_of(csText.begin(), csText.end(),
                       [](wchar_t c) { return bOrdinary(c) || c == L' ' || c == L'/'; });
}

bool bScriptable(const std::string& csCommandLine)
{
    const std::string csProgram = stSplitCommandLine(csCommandLine).csProgram;
    return !csProgram.empty() && csProgram.find('"') == std::string::npos &&
           std::none_of(csCommandLine.begin(), csCommandLine.end(), bControl);
}

void __PatchScript(CXYString<char>* pcsScript, CXYString<char>* pcsLockFile, const char* pszCommandLine,
                   const char* pszDisplayName)
{
    const CPlaceholders tValues =
        tMakePlaceholders(stSplitCommandLine(pszCommandLine != nullptr ? pszCommandLine : ""),
                          csCommentText(pszDisplayName != nullptr ? pszDisplayName : ""),
                          pcsLockFile != nullptr ? *pcsLockFile : std::string());
    std::string csResult;
    // Line by line, because how a value is quoted depends on the line; line ends are kept as they are.
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
        // A longer line is cut, as by a reader with a buffer of that size and its terminator.
        std::string_view csLine = csTakeLine(&csScript).substr(0, nBuffer - 1);
        csLine = csLine.substr(0, csLine.find('\0'));
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
    // The start is a tool's, which is given the arguments after "--", or one shell's, or two shells'.
    const std::string csWord = csEscape(*csProgram);
    const bool bWhole =
        csBefore.ends_with(" --") || csBefore.ends_with(csWord) || csBefore.ends_with(csEscape(csWord));
    return bWhole ? csProgram : std::nullopt;
}
