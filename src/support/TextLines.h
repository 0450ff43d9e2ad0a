#pragma once

#include <algorithm>
#include <string_view>

/// Steps of the readers of what the system prints and keeps in text files. None copies a character.

/// Takes the first line off the front of the text; its line end is taken and not returned.
inline std::string_view csTakeLine(std::string_view* pcsText)
{
    const std::size_t nEnd = std::min(pcsText->find('\n'), pcsText->size());
    const std::string_view csLine = pcsText->substr(0, nEnd);
    pcsText->remove_prefix(std::min(nEnd + 1, pcsText->size()));
    return csLine;
}

/// Calls Action(line) for every line, the line end not included.
template <class TAction>
void ForEachLine(std::string_view csText, TAction Action)
{
    while (!csText.empty()) {
        Action(csTakeLine(&csText));
    }
}

/// Takes spaces and tabs off the front of the text.
inline void SkipBlanks(std::string_view* pcsText)
{
    pcsText->remove_prefix(std::min(pcsText->find_first_not_of(" \t"), pcsText->size()));
}

constexpr char cLower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// Without regard to the case of ASCII letters.
inline bool bBeginsWith(std::string_view csText, std::string_view csWord)
{
    return std::ranges::equal(csText.substr(0, csWord.size()), csWord, {}, cLower, cLower);
}
