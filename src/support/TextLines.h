#pragma once

#include <algorithm>
#include <string_view>

// Steps for readers of tools' output and of text files. None copies a character.

/// Takes the first line and its newline off the front of the text; returns the line without the newline.
inline std::string_view csTakeLine(std::string_view* pcsText)
{
    const std::size_t nEnd = std::min(pcsText->find('\n'), pcsText->size());
    const std::string_view csLine = pcsText->substr(0, nEnd);
    pcsText->remove_prefix(std::min(nEnd + 1, pcsText->size()));
    return csLine;
}

/// Calls Action(line) for every line, without its newline.
template <class TAction>
void ForEachLine(std::string_view csText, TAction Action)
{
    while (!csText.empty()) {
        Action(csTakeLine(&csText));
    }
}

/// Takes spaces and tabs off the front of the text.
inline void SkipWhitespace(std::string_view* pcsText)
{
    pcsText->remove_prefix(std::min(pcsText->find_first_not_of(" \t"), pcsText->size()));
}

/// Lower case of an ASCII letter, whatever the locale is.
constexpr char cLower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// Whether a text begins with a word; the case of ASCII letters does not count.
inline bool bBeginsWith(std::string_view csText, std::string_view csWord)
{
    return std::ranges::equal(csText.substr(0, csWord.size()), csWord, {}, cLower, cLower);
}
