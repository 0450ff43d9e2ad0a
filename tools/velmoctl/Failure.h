#pragma once

#include <stdexcept>
#include <string>

/// Exit statuses, as velmoctl(1) documents them.
enum class EExit : int
{
    DONE = 0,
    REFUSED = 1,     ///< the manager refused, or a server or file is not as it should be
    USAGE = 2,       ///< the command line is wrong
    UNREACHABLE = 3, ///< nobody there, or no answer in time
    NONSENSE = 4,    ///< the other side does not speak the manager's protocol, or broke off
    DECLINED = 5,    ///< the user said no
    INTERRUPTED = 130,
};

/// The worse of two, in the order 130, 5, 2, 4, 3, 1, 0 (the worst first).
EExit eWorse(EExit e1, EExit e2);
/// The status as one word for programs; the words are part of the stable JSON.
const char* pszKind(EExit eExit);

/// Ends a command: the words for standard error (UTF-8, no newline; not yet made harmless for a terminal) and
/// the exit status.
class CFailure : public std::runtime_error
{
public:
    CFailure(EExit eExit, const std::string& csWords) : std::runtime_error(csWords), m_eExit(eExit) {}
    EExit eExit() const noexcept { return m_eExit; }

private:
    EExit m_eExit;
};

/// The failure of a system call: adds the C library's text for errno, which it reads first.
CFailure clSystemFailure(EExit eExit, const std::string& csWords);
