#pragma once

#include <string>
#include <string_view>

/// A server's program and its form in command lines: in double quotes when it holds a space. Only this file
/// quotes programs and takes them out of command lines. Pure functions on texts.
///
/// Two readers take a program out of a command line. stSplitCommandLine, for what is installed, cuts an
/// unquoted one at its first space, as systemd does. CProgram::s_clOf, for what is registered already, does
/// not: older releases registered paths with spaces without quotes. An installation refuses a program that
/// s_clOf would read back differently.

/// A command line in two parts. The program ends at the second double quote when the line begins with one,
/// otherwise at the first space; without such an end the whole line is the program, an opening quote
/// included. The arguments keep their spaces, also the one between a closing quote and the first argument.
struct STCommandLine
{
    std::string csProgram;
    std::string csArguments;
};
STCommandLine stSplitCommandLine(std::string_view csCommandLine);

/// The path of a program, without quotes.
class CProgram
{
public:
    /// From a path, in double quotes or without.
    static CProgram s_clAt(const std::wstring& csPath);
    /// From a registered command line: the part in double quotes when it begins with one, otherwise all up to
    /// the first " --", less leading and trailing spaces.
    static CProgram s_clOf(const std::wstring& csCommandLine);

    const std::wstring& csPath() const { return m_csPath; }
    /// The program, in double quotes if it holds a space, then a space and the arguments.
    std::wstring csCommandLine(const std::wstring& csArguments) const;
    /// Whether this is the whole path of a file: absolute, and the last part is a name.
    bool bWholePath() const;

private:
    explicit CProgram(std::wstring csPath) : m_csPath(std::move(csPath)) {}

    std::wstring m_csPath;
};
