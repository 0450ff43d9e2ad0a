#pragma once

#include <string>
#include <string_view>
#include <termios.h>

/// The terminal, and text on its way there. All text is UTF-8, in every locale. The functions on text may
/// be called by any thread; the terminal is the main thread's.

/// Characters that a terminal may obey instead of showing them: control characters, and marks that change the
/// direction of writing.
bool bHarmful(wchar_t c);
/// Makes text of others harmless for a terminal: replaces such characters, and what is not UTF-8, by U+FFFD.
std::string csShown(std::string_view csText);
/// Columns that a text takes on a terminal; a character of unknown width counts as one.
std::size_t nColumns(std::string_view csText);
/// The longest start of a text that takes at most nMost columns.
std::string csCut(std::string_view csText, std::size_t nMost);

/// Size of the terminal on standard output; 80 columns and 24 lines when it does not say.
struct STSize
{
    std::size_t nColumns;
    std::size_t nLines;
};
STSize stTerminalSize();

/// Whether standard input, output or error (0, 1, 2) is a terminal that understands escape sequences.
bool bTerminal(int nFd);

enum class EColour
{
    PLAIN,
    BOLD,
    GREEN,
    RED,
    YELLOW,
};
/// Switches colours on where standard output is a terminal and neither bAllowed (the user's --no-color) nor
/// the environment's NO_COLOR forbids them. Off before the first call.
void SetColours(bool bAllowed);
std::string csColoured(const std::string& csText, EColour eColour);

/// A line on standard error while something takes time, cleared with the object. Shows nothing off a
/// terminal.
class CProgress
{
public:
    explicit CProgress(const std::string& csText = "");
    ~CProgress();
    CProgress(const CProgress&) = delete;
    CProgress& operator=(const CProgress&) = delete;
    /// Replaces the line; an empty text takes it away. The caller has made the text harmless. One that is
    /// wider than the terminal leaves its first part behind.
    void Show(const std::string& csText);
    bool bTerminal() const { return m_bTerminal; }

private:
    bool m_bTerminal;
    std::string m_csShown;
};

/// Gives the keys of standard input as they are pressed, without echo, for the life of the object; Ctrl-C and
/// the like still raise signals. Does nothing when standard input is no terminal. A process that a signal
/// ends leaves the terminal so: call CInterrupts::Catch first.
class CRawTerminal
{
public:
    CRawTerminal();
    ~CRawTerminal();
    CRawTerminal(const CRawTerminal&) = delete;
    CRawTerminal& operator=(const CRawTerminal&) = delete;

private:
    bool m_bRaw = false;
    termios m_stBefore{};
};

/// Asks a question on the terminal; only "y", "Y" and "yes" mean yes. Throws CFailure: USAGE without a
/// terminal to ask on, INTERRUPTED.
bool bConfirm(const std::string& csQuestion);

/// Next line of standard input without its newline, through a terminal's own editing; bytes beyond nMax are
/// dropped. False at the end of the input. Waits without limit. Throws CFailure (INTERRUPTED).
bool bReadLine(std::string* pcsLine, std::size_t nMax);
