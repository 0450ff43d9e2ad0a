#pragma once

#include <stdexcept>
#include <string>

/// Exit statuses, as velmoctl(1) documents them.
enum class EExit : int
{
    DONE = 0,
    REFUSED = 1,     ///< the manager refused, or what was looked for or checked is not as it should be
    USAGE = 2,       ///< the command line is wrong
    UNREACHABLE = 3, ///< nobody there, or no answer in time
    NONSENSE = 4,    ///< who answers does not speak the manager's protocol, or broke off
    DECLINED = 5,    ///< the user did not want it after all
    INTERRUPTED = 130,
};

/// The worse of two, in the order 130, 5, 2, 4, 3, 1, 0.
EExit eWorse(EExit e1, EExit e2);
/// The status as one word, for programs.
const char* pszKind(EExit eExit);

/// Ends a command: the words for standard error (UTF-8, no newline) and the exit status.
class CFailure : public std::runtime_error
{
public:
    CFailure(EExit eExit, const std::string& csWords) : std::runtime_error(csWords), m_eExit(eExit) {}
    EExit eExit() const noexcept { return m_eExit; }

private:
    EExit m_eExit;
};

/// The same for a system call that has just failed: adds the system's text for errno, read at once.
CFailure clSystemFailure(EExit eExit, const std::string& csWords);
