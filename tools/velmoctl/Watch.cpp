// The list in the same place of the terminal again and again, until "q".

#include "velmoctl/Output.h"
#include "velmoctl/Query.h"

#include <iostream>
#include <unistd.h>

namespace {
constexpr std::string_view s_csHideCursor = "\033[?25l", s_csShowCursor = "\033[?25h";
constexpr std::string_view s_csHome = "\033[H", s_csClearLine = "\033[K", s_csClearBelow = "\033[J";

/// A terminal that shows one page after the other in the same place.
class CScreen
{
public:
    CScreen() : m_bLive(bTerminal(STDOUT_FILENO))
    {
        if (m_bLive) {
            std::cout << s_csHideCursor << s_csHome << s_csClearBelow;
        }
    }
    ~CScreen()
    {
        if (m_bLive) {
            std::cout << s_csShowCursor << std::flush;
        }
    }
    CScreen(const CScreen&) = delete;
    CScreen& operator=(const CScreen&) = delete;

    bool bLive() const { return m_bLive; }
    /// Lines that the terminal has no room for are left out.
    void Show(const std::string& csPage) const
    {
        if (!m_bLive) {
            std::cout << csPage << std::flush;
            return;
        }
        std::size_t nLines = stTerminalSize().nLines;
        std::cout << s_csHome;
        for (std::size_t nStart = 0; nStart < csPage.size() && --nLines > 0;) {
            const std::size_t nEnd = csPage.find('\n', nStart);
            std::cout << csPage.substr(nStart, nEnd - nStart) << s_csClearLine << "\n";
            nStart = nEnd + 1;
        }
        std::cout << s_csClearBelow << std::flush;
    }

private:
    bool m_bLive;
};

/// One look at the servers; a failure is part of the page on a terminal, and else told on standard error.
EExit eLook(const STCall& stCall, const CScreen& clScreen)
{
    try {
        const std::vector<STListed> tList = tAskList(stCall);
        clScreen.Show(stCall.stOptions.bJson ? csListJson(tList) + "\n" : csListTable(tList));
        return clScreen.bLive() ? EExit::DONE : eTellFailures(tList);
    } catch (const CFailure& clFailure) {
        if (clFailure.eExit() == EExit::INTERRUPTED) {
            throw;
        }
        if (clScreen.bLive()) {
            clScreen.Show(csShown(clFailure.what()) + "\n");
        } else {
            std::cerr << "velmoctl: " << csShown(clFailure.what()) << "\n";
        }
        return clFailure.eExit();
    }
}

/// True when the user wants no more: "q" was pressed during the pause.
bool bPauseEnds(const CScreen& clScreen, Milliseconds clInterval)
{
    const CDeadline clEnd(clInterval);
    while (bWaitFor(clScreen.bLive() ? STDIN_FILENO : -1, POLLIN, clEnd)) {
        char c = 0;
        if (::read(STDIN_FILENO, &c, 1) != 1 || c == 'q' || c == 'Q') {
            return true;
        }
    }
    return false;
}
} // namespace

EExit eWatch(const STCall& stCall)
{
    CInterrupts::Catch(); // the cursor must come back
    const CScreen clScreen;
    const CRawTerminal clKeys(true);
    EExit eResult = EExit::DONE;
    try {
        for (unsigned int nLook = 1; std::cout.good(); ++nLook) {
            eResult = eLook(stCall, clScreen);
            if (nLook == stCall.stOptions.nCount || bPauseEnds(clScreen, stCall.stOptions.clInterval)) {
                break;
            }
        }
    } catch (const CFailure& clFailure) {
        if (CInterrupts::nTake() == 0) {
            throw;
        }
        return EExit::DONE; // the usual way to end it
    }
    return eResult;
}
