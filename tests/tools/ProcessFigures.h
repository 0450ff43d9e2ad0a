#pragma once

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/types.h>

/// What a process uses, by the counts of the kernel.
struct STFigures
{
    int nDescriptors = 0;
    int nThreads = 0;
    int nChildren = 0; ///< zombies included
};
inline STFigures stFiguresOf(pid_t nProcess)
{
    const std::string csProcess = "/proc/" + std::to_string(nProcess);
    STFigures st;
    std::error_code clIgnored;
    for (const auto& clTask : std::filesystem::directory_iterator(csProcess + "/task", clIgnored)) {
        ++st.nThreads;
        std::ifstream clChildren(clTask.path() / "children");
        st.nChildren += static_cast<int>(std::distance(std::istream_iterator<pid_t>(clChildren), {}));
    }
    const std::filesystem::directory_iterator clDescriptors(csProcess + "/fd", clIgnored);
    st.nDescriptors = static_cast<int>(std::distance(clDescriptors, {}));
    return st;
}

/// What the manager holds in memory, in KiB. Its threads' stacks are known by their size.
struct STMemory
{
    long nStacks = 0;  ///< with those that the C library keeps for later threads
    long nDeepest = 0; ///< stack: a page of it is resident from its first use until the thread ends
    long nElse = 0;    ///< the programs and the heap
};
inline STMemory stMemoryOf(pid_t nManager)
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
