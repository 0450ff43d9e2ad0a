#pragma once

#include "support/XYString.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

/// What stands in init scripts: how their templates are filled in, how they are read back, and which texts
/// may be part of a shell line. Pure functions.

/// Whether a name stands for itself, and nothing else, as a word of a shell line, as a file name and as a
/// tool's argument: letters, digits, "_-.+@:,=%" and characters beyond ASCII, not "." or ".." and not an
/// option. No other name belongs to a service.
bool bInertName(const std::wstring& csName);
/// The same for a text of several words: nothing in it makes the shell do more than cut it at blanks.
bool bInertWords(const std::wstring& csText);

/// Whether a script can hold a server's command line and still be read back: no control characters, a
/// program, and no double quote in its path, as that ends the path in the marker line.
bool bScriptable(const std::string& csCommandLine);

/// Fills the four placeholders of a template; a null text counts as an empty one. Ordinary values are
/// inserted byte for byte. In commands every character of the program and the arguments that means something
/// to the shell gets a backslash, double quotes group arguments, and what goes through the helper `daemon` is
/// escaped for the second shell that it uses. In comments the values stand as they are. A display
/// name belongs in comments only; its control characters become spaces and its double quotes single ones, or
/// it could forge the marker line.
void __PatchScript(CXYString<char>* pcsScript, CXYString<char>* pcsLockFile, const char* pszCommandLine,
                   const char* pszDisplayName);

/// Value of a marker such as `Name="..."` in a script.
struct STMarker
{
    bool bFound = false;                ///< a line holds the marker
    std::optional<std::string> csValue; ///< null also when the value's end was not seen
};
/// Looks in the first nBuffer - 1 bytes of each line, the first line with the marker decides. csKey ends with
/// the opening quote.
STMarker stReadMarker(std::string_view csScript, std::string_view csKey, std::size_t nBuffer);

/// The two values of the marker line. Their readers' buffers differ, in bytes; clients rely on it.
STMarker stDisplayNameInScript(std::string_view csScript);
STMarker stProgramInScript(std::string_view csScript);

/// The marker line's program, when a line of the script starts it with a registration's arguments and the
/// name right after it. Older releases wrote scripts in which a path with a space goes on after it.
std::optional<std::string> csProgramStarted(std::string_view csScript, const std::string& csName);
