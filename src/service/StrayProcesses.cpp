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
constexpr std::size_t s_nMaxArguments = std::size_t{64} * 1024; ///< bytes of a command line that are read
constexpr int s_nLookMs = 50;
constexpr int s_nTermLooks = 100; ///< 5 seconds, as init scripts have it
constexpr int s_nKillLooks = 20;

/// Where the link at a process's "exe" leads; empty when it has none (a thread of the kernel, or gone).
std::string csExecutableOf(const std::string& csProcess)
{
    std::array<char, PATH_MAX> tPath;
    const ssize_t nLength = ::readlink((csProcess + "/exe").c_str(), tPath.data(), tPath.size());
    return {tPath.data(), nLength > 0 ? static_cast<std::size_t>(nLength) : 0};
}

bool bHasArgument(const std::string& csProcess, std::string_view csArgument)
{
    std::string csArguments;
    if (!CDiskFile::bReadFile(csFromUTF8(csProcess + "/cmdline"), &csArguments, s_nMaxArguments)) {
        return false;
    }
    const std::string csWord =
        std::string(1, '\0') + std::string(csArgument) + '\0'; // never the program itself
    return csArguments.find(csWord) != std::string::npos;
}

std::vector<pid_t> tFind(const std::string& csProgram, const std::string& csService)
{
    std::vector<pid_t> tFound;
    const CDirectory pDirectory(::opendir("/proc"));
    while (const dirent* const pstEntry = pDirectory != nullptr ? ::readdir(pDirectory.get()) : nullptr) {
        const pid_t nPid = std::atoi(pstEntry->d_name);
        const std::string csProcess = std::string("/proc/") + pstEntry->d_name;
        const std::string csExecutable = csExecutableOf(csProcess);
        // The program's file may have been replaced or deleted meanwhile.
        if (nPid > 1 && (csExecutable == csProgram || csExecutable == csProgram + " (deleted)") &&
            bHasArgument(csProcess, csService)) {
            tFound.push_back(nPid);
        }
    }
    return tFound;
}
} // namespace

bool bEndStrayProcesses(const std::wstring& csProgram, const std::wstring& csService)
{
    const std::unique_ptr<char, decltype(&std::free)> pReal(::realpath(csToUTF8(csProgram).c_str(), nullptr),
                                                            &std::free);
    const std::string csReal = pReal != nullptr ? pReal.get() : csToUTF8(csProgram);
    if (csReal.empty()) {
        return true;
    }
    for (int nLook = 0; nLook < s_nTermLooks + s_nKillLooks; ++nLook) {
        const std::vector<pid_t> tFound = tFind(csReal, csToUTF8(csService));
        if (tFound.empty()) {
            return true;
        }
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
