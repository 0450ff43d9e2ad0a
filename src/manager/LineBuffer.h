#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// The command line that a conversation is reading. It grows block by block until CR LF; the CR may end one
/// block and the LF begin the next. Only the first s_nMaxLine characters are kept: no keyword and no name is
/// that long, and a line that never ends must not use up the machine's memory. One thread.
class CLineBuffer
{
public:
    static constexpr std::size_t s_nMaxLine = 65536;

    /// Takes one more block. True when the line is whole. What follows its CR LF in the block is dropped: a
    /// tool waits for the reply before it sends its next command.
    bool bAppend(std::wstring_view csBlock);
    /// The kept part of the line, without CR LF.
    const std::wstring& csText() const noexcept { return m_csText; }
    /// Forgets the line and returns its memory.
    void Clear();

private:
    /// Appends what s_nMaxLine leaves room for.
    void _Keep(std::wstring_view csText);

    std::wstring m_csText;
    bool m_bCut = false;      ///< characters were dropped: the last one received is not the text's last
    bool m_bEndsInCR = false; ///< the last character received, kept or not, was a CR
};
