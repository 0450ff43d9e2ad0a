#pragma once

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <gmock/gmock.h>
#include <map>
#include <mutex>
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
    /// Prints and keeps the first five of a kind (the text up to a hyphen), and 50 in all, with their time.
    void Wrong(const std::string& csWhat, const std::string& csExpected, const std::string& csSeen)
    {
        const std::lock_guard clGuard(m_clGuard);
        ++m_tCounts["wrong"];
        if (++m_tCounts["wrong: " + csWhat.substr(0, csWhat.find('-'))] > 5 ||
            std::ranges::count(m_csWrong, '\n') >= 50) {
            return;
        }

        std::array<char, 16> tTime{};
        const std::time_t nNow = std::time(nullptr);
        std::strftime(tTime.data(), tTime.size(), "%T ", std::localtime(&nNow));
        const std::string cs =
            tTime.data() + csWhat + ": expected " + csExpected + ", got " + csSeen.substr(0, 300) + "\n";
        std::printf("WRONG %s", cs.c_str());
        std::fflush(stdout);
        m_csWrong += cs;
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
