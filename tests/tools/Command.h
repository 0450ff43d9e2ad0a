#pragma once

#include <array>
#include <cstdio>
#include <string>
#include <sys/wait.h>

/// What a shell command left behind.
struct STCommandResult
{
    int nStatus;          ///< exit status; 128 + the signal's number when a signal ended it
    std::string csOutput; ///< standard output and standard error, as they came
};

/// Runs a command line with /bin/sh, standard input empty. Waits until the command has ended and nobody keeps
/// its output open any more. For tests only: the command line is trusted.
inline STCommandResult stRun(const std::string& csCommand)
{
    std::FILE* pstPipe = ::popen(("{ " + csCommand + "\n} </dev/null 2>&1").c_str(), "re");
    STCommandResult stResult;
    std::array<char, 4096> tBuffer;
    while (const std::size_t nCount = std::fread(tBuffer.data(), 1, tBuffer.size(), pstPipe)) {
        stResult.csOutput.append(tBuffer.data(), nCount);
    }
    const int nStatus = ::pclose(pstPipe);
    stResult.nStatus = WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : 128 + WTERMSIG(nStatus);
    return stResult;
}
