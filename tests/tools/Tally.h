#pragma once

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <gmock/gmock.h>
#include <iomanip>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

/// Counts, times and failures over all threads of a long test.
class CTally
{
public:
    void Count(const std::string& csWhat)
    {
        const std::lock_guard clGuard(m_clGuard);
        ++m_tCounts[csWhat];
    }
    void Took(const std::string& csWhat, double dSeconds)
    {
        const std::lock_guard clGuard(m_clGuard);
        m_tSeconds[csWhat].push_back(dSeconds);
    }
    /// Prints and keeps the first 50, with their time.
    void Wrong(const std::string& csWhat, const std::string& csExpected, const std::string& csSeen)
    {
        const std::lock_guard clGuard(m_clGuard);
        if (++m_tCounts["wrong"] > 50) {
            return;
        }

        std::ostringstream cl;
        const std::time_t nNow = std::time(nullptr);
        cl << std::put_time(std::localtime(&nNow), "%T ") << csWhat << ": expected " << csExpected << ", got "
           << csSeen.substr(0, 300) << "\n";
        std::printf("WRONG %s", cl.str().c_str());
        std::fflush(stdout);
        m_csWrong += cl.str();
    }
    /// The reply is to be one of these; or to begin like one that ends with a star.
    void Judge(const std::string& csWhat, const std::vector<std::string>& tMay, const std::string& csReply)
    {
        const auto bIs = [&](const std::string& cs) {
            return cs.ends_with('*') ? csReply.starts_with(cs.substr(0, cs.size() - 1)) : csReply == cs;
        };
        if (std::ranges::none_of(tMay, bIs)) {
            Wrong(csWhat, testing::PrintToString(tMay), testing::PrintToString(csReply));
        }
    }
    const std::string& csWrong() const { return m_csWrong; }
    long nCount(const std::string& csWhat) { return m_tCounts[csWhat]; }
    /// Prints the figures.
    void Print()
    {
        for (auto& [csWhat, tSeconds] : m_tSeconds) {
            std::ranges::sort(tSeconds);
            std::printf("FIGURE %zu %s: median %.2f s, longest %.2f s\n", tSeconds.size(), csWhat.c_str(),
                        tSeconds[tSeconds.size() / 2], tSeconds.back());
        }
        for (const auto& [csWhat, nCount] : m_tCounts) {
            std::printf("FIGURE %s: %ld\n", csWhat.c_str(), nCount);
        }
    }

private:
    std::mutex m_clGuard;
    std::map<std::string, long> m_tCounts;
    std::map<std::string, std::vector<double>> m_tSeconds;
    std::string m_csWrong; ///< lines
};
