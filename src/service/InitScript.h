#pragma once

#include "support/XYString.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

/// The contents of init scripts: how templates are filled in, how scripts are read back, and which texts may
/// be part of a shell line. Pure functions.

/// Whether a name means just itself as a word of a shell line, as a file name and as a tool's argument:
/// letters, digits, "_-.+@:,=%" and characters beyond ASCII other than control characters; not "." or ".."
/// and not an option. No service has any other name.
bool bInertName(const std::wstring& csName);
/// The same for a text of several words: the shell does nothing but cut it at spaces.
bool bInertWords(const std::wstring& csText);

/// Whether a command line can stand in a script at all: it has a program, no control character, and no double
/// quote in the program's path, which would end the path in the marker line.
bool bScriptable(const std::string& csCommandLine);

/// Fills the four placeholders of a template in place: the program and the arguments of the command line, the
/// display name, and the lock file's name, which is only read. A null text counts as an empty one. A value in
/// which no character means anything to a shell is inserted byte for byte everywhere.
///
/// In commands, every character of the program and the arguments that means something to the shell gets a
/// backslash, and double quotes group arguments. What passes through the helper `daemon` is escaped once
/// more, for the shell that `daemon` starts. In comments the values are unchanged. A display name belongs in
/// comments only; its control characters become spaces and its double quotes single ones, or it could forge
/// the marker line.
void __PatchScript(CXYString<char>* pcsScript, CXYString<char>* pcsLockFile, const char* pszCommandLine,
                   const char* pszDisplayName);

/// The value of a marker such as `Name="..."` in a script.
struct STMarker
{
    bool bFound = false;                ///< a line holds the marker
    std::optional<std::string> csValue; ///< null also when its closing quote was not read
};
/// Looks in the first nBuffer - 1 bytes of each line, as a reader does whose buffer holds a terminator, too.
/// The first line with the marker decides. csKey ends with the opening quote.
STMarker stReadMarker(std::string_view csScript, std::string_view csKey, std::size_t nBuffer);

/// The two values of the marker line. Clients rely on the limits, which differ: 249 and 149 bytes of the
/// line.
STMarker stDisplayNameInScript(std::string_view csScript);
STMarker stProgramInScript(std::string_view csScript);

/// The marker line's program, if the script starts exactly that path with a registration's arguments and this
/// service name (UTF-8); else nothing. In scripts of older releases the marker line holds a path only up to
/// its first space, while the command has all of it.
std::optional<std::string> csProgramStarted(std::string_view csScript, const std::string& csName);
