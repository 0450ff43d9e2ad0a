#pragma once

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <sys/types.h>
#include <vector>

/// How deep the stacks of a manager's threads have been, by what the system keeps of them in memory: a page
/// of a stack becomes resident when it is first used and stays so while the thread lives.
class CStackDepths
{
public:
    explicit CStackDepths(pid_t nManager) : m_csProcess("/proc/" + std::to_string(nManager)) {}

    /// Looks at every thread that waits in the kernel right now.
    void Look()
    {
        const std::map<unsigned long, unsigned long> tResident = __tResidentKb();
        std::vector<pid_t> tThreads;
        std::error_code clIgnored;
        for (const auto& clTask : std::filesystem::directory_iterator(m_csProcess + "/task", clIgnored)) {
            tThreads.push_back(std::stoi(clTask.path().filename()));
        }
        std::sort(tThreads.begin(), tThreads.end());
        for (std::size_t n = 1; n < tThreads.size(); ++n) {
            const auto pStack = tResident.upper_bound(__nStackPointer(tThreads[n])); // by its end
            // The manager starts its own threads in this order; all later ones are conversations.
            static constexpr const char* s_tKinds[] = {
                "",          "accept (IPv4)", "accept (IPv6)", "restart monitor",
                "ping echo", "pipe reader",   "conversation"};
            if (pStack != tResident.end() && pStack->second <= 64) {
                unsigned long& nDeepest = m_tDepthKb[s_tKinds[std::min<std::size_t>(n, 6)]];
                nDeepest = std::max(nDeepest, pStack->second);
            }
        }
    }
    /// What all stacks hold in memory, in KiB, those included that the C library keeps for later threads (of
    /// 40 MiB in addresses at most).
    long nResidentKb() const
    {
        unsigned long nSum = 0;
        for (const auto& [nEnd, nKb] : __tResidentKb()) {
            nSum += nKb != s_nNoStack ? nKb : 0;
        }
        return static_cast<long>(nSum);
    }
    /// Deepest so far in KiB, in whole pages, by kind of thread.
    const std::map<std::string, unsigned long>& tDepthKb() const { return m_tDepthKb; }

private:
    static constexpr unsigned long s_nNoStack = ~0UL;

    /// End of each mapping as large as a thread's stack -> KiB of it in memory.
    std::map<unsigned long, unsigned long> __tResidentKb() const
    {
        std::map<unsigned long, unsigned long> t;
        std::ifstream clMaps(m_csProcess + "/smaps");
        unsigned long nEnd = 0;
        bool bStack = false;
        for (std::string csLine; std::getline(clMaps, csLine);) {
            std::istringstream cl(csLine);
            std::string csFirst;
            std::string csRights;
            cl >> csFirst >> csRights;
            if (const std::size_t nDash = csFirst.find('-'); nDash != std::string::npos) {
                nEnd = std::stoul(csFirst.substr(nDash + 1), nullptr, 16);
                bStack = csRights == "rw-p" && nEnd - std::stoul(csFirst, nullptr, 16) == 65536;
            } else if (csFirst == "Rss:" && bStack) {
                t[nEnd] = std::stoul(csRights);
            } else if (csFirst == "Rss:") {
                t[nEnd] = s_nNoStack;
            }
        }
        return t;
    }
    unsigned long __nStackPointer(pid_t nThread) const
    {
        std::ifstream clCall(m_csProcess + "/task/" + std::to_string(nThread) + "/syscall");
        std::vector<std::string> tFields;
        for (std::string cs; clCall >> cs;) {
            tFields.push_back(cs);
        }
        return tFields.size() < 3 ? 0 : std::stoul(tFields[tFields.size() - 2], nullptr, 16); // last but one
    }

    std::string m_csProcess;
    std::map<std::string, unsigned long> m_tDepthKb;
};
