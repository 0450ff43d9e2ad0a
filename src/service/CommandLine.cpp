// How a program's path stands in a command line: with quotes and without.

#include "service/CommandLine.h"

#include <algorithm>

namespace {
/// The text between the double quote at the beginning and the next one. Without a next one it is all the
/// rest: the length is then beyond the end.
std::wstring csInQuotes(const std::wstring& csText)
{
    return csText.substr(1, csText.find(L'"', 1) - 1);
}
} // namespace

STCommandLine stSplitCommandLine(std::string_view csCommandLine)
{
    const bool bQuoted = csCommandLine.starts_with('"');
    const std::size_t nSeparator = bQuoted ? csCommandLine.find('"', 1) : csCommandLine.find(' ');
    if (nSeparator == std::string_view::npos) {
        return {std::string(csCommandLine), {}};
    }

    // The opening quote goes; the closing one is the separator. An unquoted program loses a quote at its end,
    // too: clients rely on it.
    std::string_view csProgram = csCommandLine.substr(0, nSeparator);
    csProgram.remove_prefix(bQuoted ? 1 : 0);
    csProgram.remove_suffix(csProgram.ends_with('"') ? 1 : 0);

    return {std::string(csProgram), std::string(csCommandLine.substr(nSeparator + 1))};
}

CProgram CProgram::s_clAt(const std::wstring& csPath)
{
    const bool bQuoted = csPath.starts_with(L'"') && csPath.find(L'"', 1) == csPath.size() - 1;
    return CProgram(bQuoted ? csInQuotes(csPath) : csPath);
}

CProgram CProgram::s_clOf(const std::wstring& csCommandLine)
{
    if (csCommandLine.starts_with(L'"')) {
        return CProgram(csInQuotes(csCommandLine));
    }

    // Not at the first space: a path may hold spaces without being quoted.
    std::wstring csPath = csCommandLine.substr(0, csCommandLine.find(L" --"));
    csPath.erase(csPath.find_last_not_of(L' ') + 1);
    csPath.erase(0, std::min(csPath.find_first_not_of(L' '), csPath.size()));
    return CProgram(csPath);
}

std::wstring CProgram::csCommandLine(const std::wstring& csArguments) const
{
    const std::wstring csQuote = m_csPath.find(L' ') != std::wstring::npos ? L"\"" : L"";
    return csQuote + m_csPath + csQuote + L" " + csArguments;
}

bool CProgram::bWholePath() const
{
    const std::wstring csName = m_csPath.substr(m_csPath.rfind(L'/') + 1);
    return m_csPath.starts_with(L'/') && !csName.empty() && csName != L"." && csName != L"..";
}
