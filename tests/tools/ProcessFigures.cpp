#include "tools/ProcessFigures.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace fs = std::filesystem;

STFigures stFiguresOf(pid_t nProcess)
{
    const std::string csProcess = "/proc/" + std::to_string(nProcess);
    STFigures st;
    std::error_code clIgnored;
    for (const auto& clTask : fs::directory_iterator(csProcess + "/task", clIgnored)) {
        ++st.nThreads;
        std::ifstream clChildren(clTask.path() / "children");
        st.nChildren += static_cast<int>(std::distance(std::istream_iterator<pid_t>(clChildren), {}));
    }
    const fs::directory_iterator clDescriptors(csProcess + "/fd", clIgnored);
    st.nDescriptors = static_cast<int>(std::distance(clDescriptors, {}));
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
