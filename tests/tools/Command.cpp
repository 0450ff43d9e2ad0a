#include "tools/Command.h"

#include <array>
#include <cstdio>
#include <sys/wait.h>

STCommandResult stRun(const std::string& csCommand)
{
    std::FILE* pstPipe = ::popen(("{ " + csCommand + "\n} </dev/null 2>&1").c_str(), "re");
    if (pstPipe == nullptr) {
        return {-1, ""};
    }
    STCommandResult stResult{-1, ""};
    std::array<char, 4096> tBuffer;
    while (const std::size_t nCount = std::fread(tBuffer.data(), 1, tBuffer.size(), pstPipe)) {
        stResult.csOutput.append(tBuffer.data(), nCount);
    }
    const int nStatus = ::pclose(pstPipe);
    if (nStatus != -1) {
        stResult.nStatus = WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : 128 + WTERMSIG(nStatus);
    }
    return stResult;
}
