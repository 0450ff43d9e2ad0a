#pragma once

#include <string>
#include <string_view>

/// A server's program and how it stands in command lines: in double quotes when it holds a space. No other
/// place quotes a program or takes one out of a command line. Pure functions on texts.

/// A command line, cut where its program ends: at the second double quote when it begins with one, otherwise
/// at the first space. The arguments keep their spaces.
struct STCommandLine
{
    std::string csProgram;
    std::string csArguments;
};
STCommandLine stSplitCommandLine(std::string_view csCommandLine);

class CProgram
{
public:
    /// From a path, which may come in double quotes.
    static CProgram s_clAt(const std::wstring& csPath);
    /// From a registered command line: what is in double quotes when it begins with one, otherwise all up to
    /// the first " --", without the spaces at its ends.
    static CProgram s_clOf(const std::wstring& csCommandLine);

    const std::wstring& csPath() const { return m_csPath; }
    /// The program in double quotes if it holds a space, a space, and the arguments.
    std::wstring csCommandLine(const std::wstring& csArguments) const;
    /// Whether it is the whole path of a file: absolute, and its last part is a name.
    bool bWholePath() const;

private:
    explicit CProgram(std::wstring csPath) : m_csPath(std::move(csPath)) {}

    std::wstring m_csPath;
};
