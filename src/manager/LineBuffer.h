#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// The command line that a conversation is reading. Grows block by block until CR LF, of which the CR may end
/// one block and the LF begin the next. Only the first s_nMaxLine characters are kept: no keyword and no name
/// is that long, and a line without an end must not cost the memory of the machine. One thread.
class CLineBuffer
{
public:
    static constexpr std::size_t s_nMaxLine = 65536;

    /// Takes one more block. True when the line is whole; what follows its CR LF is dropped.
    bool bAppend(std::wstring_view csBlock);
    /// Of the line, without its CR LF, what is kept.
    const std::wstring& csText() const noexcept { return m_csText; }
    /// Forgets the line and returns its memory.
    void Clear();

private:
    void _Keep(std::wstring_view csText);

    std::wstring m_csText;
    bool m_bCut = false;      ///< characters were dropped, so the text does not end where the line does
    bool m_bEndsInCR = false; ///< of what was received, kept or not
};
