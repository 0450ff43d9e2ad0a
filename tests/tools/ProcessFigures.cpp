#include "tools/ProcessFigures.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

namespace fs = std::filesystem;

namespace {
int nEntries(const std::string& csFolder)
{
    std::error_code clIgnored;
    return static_cast<int>(
        std::distance(fs::directory_iterator(csFolder, clIgnored), fs::directory_iterator()));
}
} // namespace

STFigures stFiguresOf(pid_t nProcess)
{
    const std::string csProcess = "/proc/" + std::to_string(nProcess);
    STFigures st{nEntries(csProcess + "/fd"), nEntries(csProcess + "/task"), 0};
    std::error_code clIgnored;
    for (const auto& clTask : fs::directory_iterator(csProcess + "/task", clIgnored)) {
        std::ifstream clChildren(clTask.path() / "children");
        for (std::string cs; clChildren >> cs;) {
            ++st.nChildren;
        }
    }
    return st;
}

STMemory stMemoryOf(pid_t nManager)
{
    STMemory st;
    bool bStack = false;
    std::ifstream clMaps("/proc/" + std::to_string(nManager) + "/smaps");
    for (std::string csLine; std::getline(clMaps, csLine);) {
        unsigned long nStart = 0;
        unsigned long nEnd = 0;
        long nKb = 0;
        if (std::sscanf(csLine.c_str(), "%lx-%lx", &nStart, &nEnd) == 2) {
            bStack = nEnd - nStart == 65536 && csLine.find(" rw-p ") != csLine.npos;
        } else if (std::sscanf(csLine.c_str(), "Rss: %ld", &nKb) == 1) {
            (bStack ? st.nStacks : st.nElse) += nKb;
            st.nDeepest = std::max(st.nDeepest, bStack ? nKb : 0);
        }
    }

    return st;
}
