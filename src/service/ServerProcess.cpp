// Judges by /proc whether the process that a PID file names is the server.

#include "service/ServerProcess.h"

#include "support/Conversion.h"
#include "support/DiskFile.h"
#include "support/ManagerNames.h"
#include "support/TextLines.h"

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <string_view>

namespace {
constexpr std::size_t s_nMaxPidFile = 4096; ///< bytes; a PID file holds one line
/// Bytes of all arguments of a process: twice what the kernel allows under its usual stack limit of 8 MiB, so
/// that nearly all are seen, as the scripts' grep sees them.
constexpr std::size_t s_nMaxArguments = std::size_t{4} << 20;

/// The number in the first line, as text; empty when the line holds anything else. Whitespace around the
/// number does not count, as in the scripts' "read".
std::string csNumberIn(std::string_view csText)
{
    std::string_view csWord = csText.substr(0, csText.find('\n'));
    SkipWhitespace(&csWord);
    csWord = csWord.substr(0, csWord.find_last_not_of(" \t") + 1);

    // Digits only: the text becomes part of a path under /proc.
    return csWord.find_first_not_of("0123456789") == std::string_view::npos ? std::string(csWord)
                                                                            : std::string();
}

/// Whether a process (its folder under /proc) runs this program, whose file may have been replaced on disk
/// since.
bool bRuns(const std::string& csProcess, const std::wstring& csProgram)
{
    // The first path is empty when it cannot be read; clError is then the second one's.
    std::error_code clError;
    std::string csRunning = std::filesystem::read_symlink(csProcess + "/exe", clError).string();
    const std::filesystem::path clProgram = std::filesystem::weakly_canonical(csToUTF8(csProgram), clError);
    if (csRunning.empty() || csProgram.empty() || clError) {
        return false;
    }

    // The kernel adds this to the name of a file that is gone.
    constexpr std::string_view csDeleted = " (deleted)";
    if (csRunning.ends_with(csDeleted)) {
        csRunning.resize(csRunning.size() - csDeleted.size());
    }
    return csRunning == clProgram.string();
}

/// Whether a process (its folder under /proc) is the service's server; eReadPidFile's contract says when.
bool bIsServer(const std::string& csProcess, const std::string& csName, const std::wstring& csProgram)
{
    std::string csArguments;
    if (!CDiskFile::bReadFile(csFromUTF8(csProcess + "/cmdline"), &csArguments, s_nMaxArguments)) {
        return false;
    }

    // Each argument ends with a zero byte.
    bool bNamesAServer = false;
    for (std::string_view csRest = csArguments; !csRest.empty();) {
        const std::string_view csArgument = csRest.substr(0, csRest.find('\0'));
        csRest.remove_prefix(std::min(csArgument.size() + 1, csRest.size()));
        if (csArgument == csName) {
            return true;
        }
        bNamesAServer = bNamesAServer || csArgument.starts_with(g_szServerPrefixA);
    }

    // Another server of the same program has its own name among its arguments. A server without any name
    // there has changed its arguments, so only the program is left to go by.
    return !bNamesAServer && bRuns(csProcess, csProgram);
}
} // namespace

EPidFile eReadPidFile(const std::wstring& csName, const std::wstring& csProgram)
{
    const std::wstring csFile = L"/var/run/" + csName + L".pid";
    if (!CDiskFile::bExists(csFile)) {
        return EPidFile::NONE;
    }

    std::string csText;
    if (!CDiskFile::bReadFile(csFile, &csText, s_nMaxPidFile)) {
        return EPidFile::STALE;
    }

    const std::string csNumber = csNumberIn(csText);
    const bool bServer = !csNumber.empty() && bIsServer("/proc/" + csNumber, csToUTF8(csName), csProgram);
    return bServer ? EPidFile::SERVER : EPidFile::STALE;
}
