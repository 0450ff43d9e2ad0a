#include "Measure.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <thread>

STComparison stTurnByTurn(int nRounds, const std::function<double()>& fnFloor,
                          const std::function<double()>& fnOurs)
{
    STComparison st;
    for (int n = 0; n < nRounds; ++n) {
        if (n % 2 == 0) {
            st.clFloor.Add(fnFloor());
            st.clOurs.Add(fnOurs());
        } else {
            st.clOurs.Add(fnOurs());
            st.clFloor.Add(fnFloor());
        }
    }
    return st;
}

double fRateOf(int nThreads, const std::function<void(int)>& fnAction)
{
    constexpr double fDuration = 1.2e6; // microseconds
    std::atomic<int> nDone{0};
    std::vector<std::thread> tThreads;
    const double fStart = fNow();

    for (int n = 0; n < nThreads; ++n) {
        tThreads.emplace_back([&, n] {
            for (; fNow() - fStart < fDuration; ++nDone) {
                fnAction(n);
            }
        });
    }
    for (std::thread& clThread : tThreads) {
        clThread.join();
    }

    // The threads run a little longer than asked, so the time is taken again.
    return nDone * 1e6 / (fNow() - fStart);
}

std::string csNumber(double fValue, int nDecimals)
{
    std::array<char, 64> tText{};
    std::snprintf(tText.data(), tText.size(), "%.*f", nDecimals, fValue);
    return tText.data();
}

void Row(const std::string& csWhat, const std::string& csFloor, const std::string& csOurs, double fRatio,
         const std::string& csTarget, bool bReached)
{
    const std::string csRatio = fRatio < 0 ? "" : csNumber(fRatio, 2);
    const char* const pszReached = bReached ? "yes" : "**no**";
    std::printf("| %s | %s | %s | %s | %s | %s |\n", csWhat.c_str(), csFloor.c_str(), csOurs.c_str(),
                csRatio.c_str(), csTarget.c_str(), csTarget.empty() ? "" : pszReached);
    std::fflush(stdout); // a row is seen while the next is measured
}

namespace {
std::string csTime(double fMicro)
{
    return fMicro < 1000 ? csNumber(fMicro, 1) + " µs" : csNumber(fMicro / 1000, 2) + " ms";
}
} // namespace

void TimeRow(const std::string& csWhat, const STComparison& st, double fTarget, double fPercent)
{
    const double fFloor = st.clFloor.fPercentile(fPercent);
    const double fOurs = st.clOurs.fPercentile(fPercent);
    Row(csWhat, csTime(fFloor), csTime(fOurs), fOurs / fFloor, "at most " + csNumber(fTarget, 2),
        fOurs <= fTarget * fFloor);
}

void ComparisonRow(const std::string& csWhat, const STComparison& st)
{
    const double fFloor = st.clFloor.fMedian();
    const double fOurs = st.clOurs.fMedian();
    Row(csWhat, csTime(fFloor), csTime(fOurs), fOurs / fFloor, "", true);
}

void RateRow(const std::string& csWhat, const STComparison& st, double fTarget)
{
    const double fFloor = st.clFloor.fMedian();
    const double fOurs = st.clOurs.fMedian();
    Row(csWhat, csNumber(fFloor, 0) + "/s", csNumber(fOurs, 0) + "/s", fOurs / fFloor,
        "at least " + csNumber(fTarget, 2), fOurs >= fTarget * fFloor);
}
