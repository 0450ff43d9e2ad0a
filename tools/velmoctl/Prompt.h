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

/// Lines of standard input with a prompt. On a terminal libedit edits them, with completion and a history
/// that outlives the program; off a terminal they are read unchanged.
class CPrompt
{
public:
    /// Gives the candidates for the last of some words; may throw.
    using Completions = std::function<std::vector<std::string>(const std::vector<std::string>&)>;

    CPrompt(const char* pszPrompt, Completions fnComplete);
    ~CPrompt();
    CPrompt(const CPrompt&) = delete;
    CPrompt& operator=(const CPrompt&) = delete;

    /// The next line, without its newline (UTF-8 on a terminal, otherwise the bytes unchanged); none at the
    /// end of the input. Ctrl-C gives an empty line. Throws CFailure (INTERRUPTED) on SIGTERM and SIGHUP; off
    /// a terminal on Ctrl-C, too. Call CInterrupts::Catch first.
    std::optional<std::string> csRead();

private:
    class CEditor;
    std::unique_ptr<CEditor> m_pclEditor; ///< none off a terminal
};
