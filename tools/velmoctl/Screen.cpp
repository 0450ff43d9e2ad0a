#include "velmoctl/Screen.h"

#include <algorithm>
#include <array>
#include <iostream>
#include <iterator>
#include <sstream>
#include <unistd.h>

namespace {
constexpr std::string_view s_csHideCursor = "\033[?25l", s_csShowCursor = "\033[?25h";
constexpr std::string_view s_csCutLines = "\033[?7l", s_csWrapLines = "\033[?7h"; ///< at the right edge
constexpr std::string_view s_csHome = "\033[H", s_csClearLine = "\033[K", s_csClearBelow = "\033[J";

/// How far a key moves: lines, and pages.
struct STMove
{
    const char* pszKey;
    int nLines;
    int nPages;
};
constexpr int s_nAll = 1000; // pages: to the first or the last line, where _Draw stops
constexpr STMove s_tMoves[] = {
    {"\033[A", -1, 0}, {"\033OA", -1, 0},     {"k", -1, 0},           {"\033[B", 1, 0},
    {"\033OB", 1, 0},  {"j", 1, 0},           {"\033[5~", 0, -1},     {"b", 0, -1},
    {"\033[6~", 0, 1}, {" ", 0, 1},           {"\033[H", 0, -s_nAll}, {"\033OH", 0, -s_nAll},
    {"g", 0, -s_nAll}, {"\033[F", 0, s_nAll}, {"\033OF", 0, s_nAll},  {"G", 0, s_nAll},
};
} // namespace

CScreen::CScreen(bool bLive) : m_bLive(bLive && bTerminal(STDOUT_FILENO))
{
    if (m_bLive) {
        // Raw keys only on a terminal: elsewhere a reader that goes away ends the program by SIGPIPE, and
        // nobody would give the user's terminal its echo back.
        m_clKeys.emplace();
        std::cout << s_csHideCursor << s_csCutLines << s_csHome << s_csClearBelow;
    }
}

CScreen::~CScreen()
{
    if (m_bLive) {
        std::cout << s_csWrapLines << s_csShowCursor << std::flush;
    }
}

void CScreen::Show(const std::string& csHeader, const std::string& csLines)
{
    if (!m_bLive) {
        std::cout << csHeader << csLines << std::flush;
        return;
    }
    m_csHeader = csHeader.substr(0, csHeader.find('\n'));
    m_tLines.clear();
    std::istringstream clLines(csLines);
    for (std::string cs; std::getline(clLines, cs);) {
        m_tLines.push_back(cs);
    }
    _Draw();
}

bool CScreen::bPauseEnds(Milliseconds clTime)
{
    const CDeadline clEnd(clTime);
    while (bWaitFor(m_bLive ? STDIN_FILENO : -1, POLLIN, clEnd)) {
        // The bytes of one key come together, and after them keys that were typed while servers were asked.
        std::array<char, 256> tBytes{};
        const ssize_t nRead = ::read(STDIN_FILENO, tBytes.data(), tBytes.size());
        if (nRead <= 0 || _bKeys({tBytes.data(), static_cast<std::size_t>(nRead)})) {
            return true;
        }
    }
    return false;
}

/// Lines between the header and the last line, which says how many more there are.
std::size_t CScreen::_nRoom() const
{
    const std::size_t nTaken = m_csHeader.empty() ? 1 : 2;
    const std::size_t nLines = stTerminalSize().nLines;
    return nLines > nTaken ? nLines - nTaken : 1;
}

/// Draws the page over the one before: each line is cleared only to the right of its new text, so that
/// nothing flickers.
void CScreen::_Draw()
{
    // Not so far down that lines of the screen stay empty.
    const std::size_t nRoom = _nRoom();
    m_nFirst = std::min(m_nFirst, m_tLines.size() - std::min(m_tLines.size(), nRoom));
    const std::size_t nEnd = std::min(m_nFirst + nRoom, m_tLines.size());

    std::cout << s_csHome;
    if (!m_csHeader.empty()) {
        std::cout << m_csHeader << s_csClearLine << "\n";
    }

    for (std::size_t n = m_nFirst; n < nEnd; ++n) {
        std::cout << m_tLines[n] << s_csClearLine << "\n";
    }

    std::cout << s_csClearBelow;
    if (m_tLines.size() > nRoom) {
        std::cout << m_nFirst << " above, " << m_tLines.size() - nEnd
                  << " more below (arrow keys scroll, q ends)";
    }

    std::cout << std::flush;
}

/// Obeys the keys in some bytes, one after the other. True when one of them ends the program.
bool CScreen::_bKeys(std::string_view csKeys)
{
    while (!csKeys.empty() && csKeys[0] != 'q' && csKeys[0] != 'Q') {
        const auto* const pst =
            std::ranges::find_if(s_tMoves, [&](const STMove& st) { return csKeys.starts_with(st.pszKey); });
        if (pst == std::end(s_tMoves)) {
            // The letters of an unknown escape sequence are no keys.
            csKeys.remove_prefix(csKeys[0] == '\033' ? csKeys.size() : 1);
            continue;
        }

        const auto nRoom = static_cast<long>(_nRoom());
        const auto nFirst = static_cast<long>(m_nFirst) + pst->nLines + pst->nPages * nRoom;
        m_nFirst = static_cast<std::size_t>(std::max(nFirst, 0L));
        _Draw();
        csKeys.remove_prefix(std::string_view(pst->pszKey).size());
    }

    return !csKeys.empty();
}
