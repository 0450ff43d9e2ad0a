#include "velmoctl/Terminal.h"

#include "support/Conversion.h"
#include "velmoctl/Failure.h"
#include "velmoctl/Waiting.h"

#include <algorithm>
#include <cstdlib>
#include <cwchar>
#include <iostream>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {
constexpr const char* s_pszClearLine = "\r\033[K";
bool s_bColours = false;

struct STCharacters
{
    wchar_t cFirst;
    wchar_t cLast;
};
/// C0; DEL and C1; marks, embeddings, overrides and isolates of the direction of writing; line and paragraph
/// separators.
constexpr STCharacters s_tHarmful[] = {{0, 0x1F},        {0x7F, 0x9F},     {0x061C, 0x061C},
                                       {0x200E, 0x200F}, {0x2028, 0x202E}, {0x2066, 0x2069}};

/// Escape sequences, by EColour.
constexpr const char* s_tColours[] = {"", "\033[1m", "\033[32m", "\033[31m", "\033[33m"};
} // namespace

bool bHarmful(wchar_t c)
{
    return std::ranges::any_of(s_tHarmful,
                               [c](const STCharacters& st) { return c >= st.cFirst && c <= st.cLast; });
}

std::string csShown(std::string_view csText)
{
    std::wstring csWideText = csFromUTF8(csText);
    std::ranges::replace_if(csWideText, bHarmful, L'\xFFFD');
    return csToUTF8(csWideText);
}

std::size_t nColumns(std::string_view csText)
{
    std::size_t nSum = 0;
    for (const wchar_t c : csFromUTF8(csText)) {
        const int nWidth = ::wcwidth(c); // -1: a control character, or one that the locale does not know
        nSum += nWidth >= 0 ? static_cast<std::size_t>(nWidth) : 1;
    }
    return nSum;
}

std::string csCut(std::string_view csText, std::size_t nMost)
{
    // Character by character: a combining one at the end takes no column of its own.
    std::wstring csWideText = csFromUTF8(csText);
    while (nColumns(csToUTF8(csWideText)) > nMost) {
        csWideText.pop_back();
    }
    return csToUTF8(csWideText);
}

STSize stTerminalSize()
{
    winsize st{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &st) != 0 || st.ws_col == 0 || st.ws_row == 0) {
        return {80, 24};
    }
    return {st.ws_col, st.ws_row};
}

bool bTerminal(int nFd)
{
    const char* const pszKind = std::getenv("TERM");
    return ::isatty(nFd) == 1 && pszKind != nullptr && *pszKind != '\0' &&
           std::string_view(pszKind) != "dumb";
}

void SetColours(bool bAllowed)
{
    const char* const pszForbidden = std::getenv("NO_COLOR");
    s_bColours = bAllowed && (pszForbidden == nullptr || *pszForbidden == '\0') && bTerminal(STDOUT_FILENO);
}

std::string csColoured(const std::string& csText, EColour eColour)
{
    if (!s_bColours || eColour == EColour::PLAIN) {
        return csText;
    }
    return s_tColours[static_cast<std::size_t>(eColour)] + csText + "\033[0m";
}

CProgress::CProgress(const std::string& csText) : m_bTerminal(::bTerminal(STDERR_FILENO))
{
    Show(csText);
}

CProgress::~CProgress()
{
    Show("");
}

void CProgress::Show(const std::string& csText)
{
    if (m_bTerminal && csText != m_csShown) {
        std::cerr << s_pszClearLine << csText << std::flush;
        m_csShown = csText;
    }
}

CRawTerminal::CRawTerminal()
{
    if (::tcgetattr(STDIN_FILENO, &m_stBefore) != 0) {
        return;
    }

    // Without IXON Ctrl-S is a key like any other; it would freeze the page. Enter comes as CR.
    termios stRaw = m_stBefore;
    stRaw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    stRaw.c_iflag &= ~static_cast<tcflag_t>(ICRNL | IXON);
    m_bRaw = ::tcsetattr(STDIN_FILENO, TCSADRAIN, &stRaw) == 0;
}

CRawTerminal::~CRawTerminal()
{
    if (m_bRaw) {
        ::tcsetattr(STDIN_FILENO, TCSADRAIN, &m_stBefore);
    }
}

bool bConfirm(const std::string& csQuestion)
{
    if (::isatty(STDIN_FILENO) != 1) {
        throw CFailure(EExit::USAGE, "nobody can be asked without a terminal: add --yes");
    }

    ::tcflush(STDIN_FILENO, TCIFLUSH); // what was typed before cannot be the answer
    std::cerr << csQuestion << " [y/N] " << std::flush;
    std::string csAnswer;
    if (!bReadLine(&csAnswer, 1024)) {
        std::cerr << "\n";
        return false;
    }
    return csAnswer == "y" || csAnswer == "Y" || csAnswer == "yes";
}

bool bReadLine(std::string* pcsLine, std::size_t nMax)
{
    pcsLine->clear();
    for (bool bAny = false;; bAny = true) {
        bWaitFor(STDIN_FILENO, POLLIN, CDeadline::Never()); // read alone would not notice a caught signal

        // Byte by byte: what follows the line belongs to the next reader.
        char c = 0;
        if (::read(STDIN_FILENO, &c, 1) != 1) {
            return bAny; // a last line without a newline counts
        }
        if (c == '\n') {
            return true;
        }
        if (pcsLine->size() < nMax) {
            *pcsLine += c;
        }
    }
}
