#include "velmoctl/Words.h"

#include "velmoctl/Failure.h"

#include <utility>

namespace {
/// Takes a line character by character.
class CWordReader
{
public:
    void Take(char c)
    {
        const bool bBlank = c == ' ' || c == '\t' || c == '\r';
        const bool bQuote = c == m_cQuote || (m_cQuote == 0 && (c == '"' || c == '\''));
        if (m_cQuote == 0 && bBlank && !m_bEscaped) {
            _End();
        } else if (c == '\\' && m_cQuote != '\'' && !m_bEscaped) {
            m_bEscaped = true;
        } else if (bQuote && !m_bEscaped) {
            m_cQuote = m_cQuote == 0 ? c : 0;
            m_bWord = true; // even if it stays empty
        } else {
            _Append(c);
        }
    }
    std::vector<std::string> tTake()
    {
        if (m_cQuote != 0 || m_bEscaped) {
            throw CFailure(EExit::USAGE, "the line ends inside a quotation");
        }
        _End();
        return std::move(m_tWords);
    }

private:
    void _Append(char c)
    {
        m_csWord += c;
        m_bWord = true;
        m_bEscaped = false;
    }
    void _End()
    {
        if (std::exchange(m_bWord, false)) {
            m_tWords.push_back(std::exchange(m_csWord, ""));
        }
    }

    std::vector<std::string> m_tWords;
    std::string m_csWord;
    bool m_bWord = false; ///< inside a word
    char m_cQuote = 0;    ///< the one that is open
    bool m_bEscaped = false;
};
} // namespace

std::vector<std::string> tWordsOf(std::string_view csLine)
{
    CWordReader clReader;
    for (const char c : csLine) {
        clReader.Take(c);
    }
    return clReader.tTake();
}
