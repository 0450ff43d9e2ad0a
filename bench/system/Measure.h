#pragma once

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

/// Figures of one side of a comparison.
class CFigures
{
public:
    void Add(double fValue) { m_tValues.push_back(fValue); }
    void Add(const std::vector<double>& tValues)
    {
        m_tValues.insert(m_tValues.end(), tValues.begin(), tValues.end());
    }
    double fMedian() const { return fPercentile(50); }
    /// 0 when there are no figures.
    double fPercentile(double fPercent) const
    {
        if (m_tValues.empty()) {
            return 0;
        }

        std::vector<double> tSorted = m_tValues;
        std::ranges::sort(tSorted);

        const double fIndex = static_cast<double>(tSorted.size()) * fPercent / 100;
        return tSorted[std::min(static_cast<std::size_t>(fIndex), tSorted.size() - 1)];
    }

private:
    std::vector<double> m_tValues;
};

/// The two sides of a row. They are measured alternately, so that a slow moment of the machine affects both.
struct STComparison
{
    CFigures clFloor;
    CFigures clOurs;
};

/// Microseconds on the steady clock.
inline double fNow()
{
    const auto clNow = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration<double, std::micro>(clNow).count();
}

/// How long the action takes.
inline double fMicroseconds(const std::function<void()>& fnAction)
{
    const double fStart = fNow();
    fnAction();
    return fNow() - fStart;
}

/// Takes one figure of each side a round. The sides begin alternately: what the first leaves in caches would
/// otherwise always help the second.
STComparison stTurnByTurn(int nRounds, const std::function<double()>& fnFloor,
                          const std::function<double()>& fnOurs);

/// Runs the action in so many threads for 1.2 seconds; each passes its number, from 0 on. Returns how often
/// per second all of them together ran it.
double fRateOf(int nThreads, const std::function<void(int)>& fnAction);

/// Writes one row of the table, as Markdown, to the standard output. A ratio below 0 is left out. Without a
/// target (an empty text) bReached does not count.
void Row(const std::string& csWhat, const std::string& csFloor, const std::string& csOurs, double fRatio,
         const std::string& csTarget, bool bReached);
/// A row of times: the ratio of ours to the floor may be at most fTarget. fPercent is the percentile that
/// counts.
void TimeRow(const std::string& csWhat, const STComparison& st, double fTarget, double fPercent = 50);
/// Times side by side, without a target.
void ComparisonRow(const std::string& csWhat, const STComparison& st);
/// A row of rates: the ratio must be at least fTarget.
void RateRow(const std::string& csWhat, const STComparison& st, double fTarget);
std::string csNumber(double fValue, int nDecimals);
