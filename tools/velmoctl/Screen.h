#pragma once

#include "velmoctl/Terminal.h"
#include "velmoctl/Waiting.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Shows one page after the other in the same place of a terminal; keys scroll a page that is longer than the
/// terminal. Off a terminal the pages are printed one after the other.
class CScreen
{
public:
    /// With false, pages are printed one after the other on a terminal, too.
    explicit CScreen(bool bLive);
    ~CScreen();
    CScreen(const CScreen&) = delete;
    CScreen& operator=(const CScreen&) = delete;

    bool bLive() const { return m_bLive; }
    /// Shows the next page: a header of one line, or none, and lines, each with its newline and made
    /// harmless. The header stays in place while the lines scroll.
    void Show(const std::string& csHeader, const std::string& csLines);
    /// Waits for clTime and obeys keys meanwhile. Returns true when the user pressed "q", or can press
    /// nothing any more (end of input). Throws CFailure (INTERRUPTED).
    bool bPauseEnds(Milliseconds clTime);

private:
    void _Draw();
    std::size_t _nRoom() const;
    bool _bKeys(std::string_view csKeys);

    bool m_bLive;
    std::optional<CRawTerminal> m_clKeys; ///< only while live
    std::string m_csHeader;
    std::vector<std::string> m_tLines;
    std::size_t m_nFirst = 0; ///< index of the line at the top; stays from page to page
};
