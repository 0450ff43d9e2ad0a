#pragma once

#include <optional>
#include <string>
#include <vector>

/// One line of text under edit, and the lines before it. Keys in, text and cursor out; no I/O.
class CEditLine
{
public:
    enum class EKey
    {
        LEFT,
        RIGHT,
        HOME,
        END,
        UP,
        DOWN,
        BACKSPACE,
        DELETE,
        KILL_TO_END,
        KILL_TO_START,
        KILL_WORD,
    };

    explicit CEditLine(const std::vector<std::wstring>& tHistory)
        : m_tHistory(tHistory), m_nLine(tHistory.size())
    {}
    void Insert(wchar_t c);
    void Key(EKey eKey);
    /// Completes the word in front of the cursor, when it is the line's first, as far as the candidates
    /// agree.
    void Complete(const std::vector<std::string>& tCandidates);

    const std::wstring& csText() const { return m_csText; }
    std::size_t nCursor() const { return m_nCursor; }

private:
    void _Show(std::size_t nLine);
    void _Erase(std::size_t nFrom, std::size_t nTo);

    const std::vector<std::wstring>& m_tHistory;
    std::size_t m_nLine;  ///< of the history; its size: the new line
    std::wstring m_csNew; ///< the new line, while one of the history is shown
    std::wstring m_csText;
    std::size_t m_nCursor = 0;
};

/// Lines of standard input with a prompt: edited by key, with history, on a terminal; plain off it.
class CLineEditor
{
public:
    explicit CLineEditor(std::vector<std::string> tCompletions) : m_tCompletions(std::move(tCompletions)) {}

    /// The next line (UTF-8 on a terminal, else the bytes as they come); none at the end of the input. Ctrl-C
    /// gives an empty line. Throws CFailure (INTERRUPTED).
    std::optional<std::string> csRead(const std::string& csPrompt);

private:
    std::optional<std::string> _csEdit(const std::string& csPrompt);

    std::vector<std::string> m_tCompletions;
    std::vector<std::wstring> m_tHistory;
};
