#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Words of a line typed at the prompt: separated by spaces and tabs; quotation marks of either kind keep
/// spaces in a word, a backslash any character outside of single ones. Throws CFailure (USAGE) for a line
/// that ends inside a quotation.
std::vector<std::string> tWordsOf(const std::string& csLine);

/// Lines of standard input with a prompt. On a terminal they are edited by libedit, with a history that
/// outlives the program and with completion; off it they come as they are.
class CPrompt
{
public:
    /// What could stand in the place of the last of some words.
    using Completions = std::function<std::vector<std::string>(const std::vector<std::string>&)>;

    CPrompt(const char* pszPrompt, Completions fnComplete);
    ~CPrompt();
    CPrompt(const CPrompt&) = delete;
    CPrompt& operator=(const CPrompt&) = delete;

    /// The next line (UTF-8 on a terminal, else the bytes as they come); none at the end of the input. Ctrl-C
    /// gives an empty line. Throws CFailure (INTERRUPTED).
    std::optional<std::string> csRead();

private:
    class CEditor;
    std::unique_ptr<CEditor> m_pclEditor; ///< none off a terminal
};
