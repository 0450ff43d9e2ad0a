// Finds and ends server processes that no PID file names.

#include "service/StrayProcesses.h"

#include "support/Conversion.h"
#include "support/DiskFile.h"
#include "support/Stopping.h"
#include "support/SystemCall.h"

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace {
/// Bytes of all arguments of a process. A server has far fewer; a process with more is left alone.
constexpr std::size_t s_nMaxArguments = std::size_t{64} * 1024;
constexpr int s_nLookMs = 50;     ///< between two looks
constexpr int s_nTermLooks = 100; ///< 5 seconds from SIGTERM to SIGKILL, as in Debian's and Gentoo's scripts
constexpr int s_nKillLooks = 20;  ///< one second more for the processes that are slow to die

/// The executable's path of a process, read from its "exe" link; empty when it has none (a kernel thread, or
/// one that has exited).
std::string csExecutableOf(const std::string& csProcess)
{
    std::array<char, PATH_MAX> tPath;
    const ssize_t nLength = ::readlink((csProcess + "/exe").c_str(), tPath.data(), tPath.size());
    return {tPath.data(), nLength > 0 ? static_cast<std::size_t>(nLength) : 0};
}

/// Whether one of a process's arguments, the program itself left out, is this one.
bool bHasArgument(const std::string& csProcess, std::string_view csArgument)
{
    std::string csArguments;
    if (!CDiskFile::bReadFile(csFromUTF8(csProcess + "/cmdline"), &csArguments, s_nMaxArguments)) {
        return false;
    }

    // Each argument ends with a zero byte, so the first one has none in front and never matches.
    const std::string csWord = std::string(1, '\0') + std::string(csArgument) + '\0';
    return csArguments.find(csWord) != std::string::npos;
}

/// Whether a process (its folder under /proc) runs the program with the service's name as an argument.
bool bIsServerOf(const std::string& csProcess, const std::string& csProgram, const std::string& csService)
{
    // The kernel adds " (deleted)" when the program's file has been replaced or deleted since.
    const std::string csExecutable = csExecutableOf(csProcess);
    return (csExecutable == csProgram || csExecutable == csProgram + " (deleted)") &&
           bHasArgument(csProcess, csService);
}

std::vector<pid_t> tFindServers(const std::string& csProgram, const std::string& csService)
{
    std::vector<pid_t> tFound;

    // Entries of /proc that are no processes have names, which give number 0. Process 1 is the init system.
    const CDirectory pDirectory(::opendir("/proc"));
    while (const dirent* const pstEntry = pDirectory != nullptr ? ::readdir(pDirectory.get()) : nullptr) {
        const pid_t nPid = std::atoi(pstEntry->d_name);
        if (nPid > 1 && bIsServerOf(std::string("/proc/") + pstEntry->d_name, csProgram, csService)) {
            tFound.push_back(nPid);
        }
    }

    return tFound;
}

/// A program's path as /proc shows it, with links resolved; unchanged when the program is gone.
std::string csResolved(const std::string& csProgram)
{
    const std::unique_ptr<char, decltype(&std::free)> pReal(::realpath(csProgram.c_str(), nullptr),
                                                            &std::free);
    return pReal != nullptr ? pReal.get() : csProgram;
}
} // namespace

bool bEndStrayProcesses(const std::wstring& csProgram, const std::wstring& csService)
{
    const std::string csReal = csResolved(csToUTF8(csProgram));
    if (csReal.empty()) {
        return true;
    }

    for (int nLook = 0; nLook < s_nTermLooks + s_nKillLooks; ++nLook) {
        const std::vector<pid_t> tFound = tFindServers(csReal, csToUTF8(csService));
        if (tFound.empty()) {
            return true;
        }

        // SIGTERM at the first look, so that a server can close its files. After s_nTermLooks, SIGKILL at
        // each look: a child may have appeared since the last one.
        if (nLook == 0 || nLook >= s_nTermLooks) {
            for (const pid_t nPid : tFound) {
                ::kill(nPid, nLook == 0 ? SIGTERM : SIGKILL);
            }
        }

        if (!CStopping::bSleep(s_nLookMs)) {
            break;
        }
    }

    errno = EBUSY;
    return false;
}
