// The manager beside 10,000 idle conversations, and out of descriptors.

#include "Measure.h"
#include "Rows.h"
#include "Tools.h"

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>

namespace {
/// Holds so many greeted connections, in a process of its own: they would not fit into this one's
/// descriptor table.
class CHolder
{
public:
    CHolder(std::uint16_t wPort, int nConnections)
    {
        int tPipe[2];
        if (::pipe(tPipe) != 0 || (m_nPid = ::fork()) < 0) {
            Die("no holder of connections");
        }

        if (m_nPid == 0) {
            std::vector<CTalk> tTalks;
            tTalks.reserve(static_cast<std::size_t>(nConnections));
            for (int n = 0; n < nConnections; ++n) {
                tTalks.emplace_back(wPort);
            }
            std::ignore = ::write(tPipe[1], "", 1);
            ::pause(); // until it is killed
        }

        // A child that has died leaves cReady unchanged.
        ::close(tPipe[1]);
        char cReady = 1;
        std::ignore = ::read(tPipe[0], &cReady, 1);
        ::close(tPipe[0]);
        if (cReady != 0) {
            Die("the connections could not be held");
        }
    }
    ~CHolder()
    {
        ::kill(m_nPid, SIGKILL);
        ::waitpid(m_nPid, nullptr, 0);
    }
    CHolder(const CHolder&) = delete;
    CHolder& operator=(const CHolder&) = delete;

private:
    pid_t m_nPid = -1;
};

/// Time from the connect to the greeting; the median of some.
double fGreeting(std::uint16_t wPort)
{
    CFigures cl;
    for (int n = 0; n < 50; ++n) {
        cl.Add(fMicroseconds([&] { const CTalk clTalk(wPort); }));
    }
    return cl.fMedian();
}

double fStatus(const CTalk& clTalk)
{
    const std::string csLine = "STATUS\t" + csServer(0) + "\r\n";
    return fMicroseconds([&] { std::ignore = clTalk.csAsk(csLine); });
}

void AddStatus(const CTalk& clTalk, CFigures* pclFigures)
{
    for (int n = 0; n < 40; ++n) {
        pclFigures->Add(fStatus(clTalk));
    }
}

/// Waits until the threads of the last crowd are gone: their end would disturb the measurement. A manager
/// without conversations has far fewer than 20.
void AwaitFewThreads(pid_t nPid)
{
    const std::filesystem::path clTasks("/proc/" + std::to_string(nPid) + "/task");
    const auto nThreads = [&] {
        return std::distance(std::filesystem::directory_iterator(clTasks),
                             std::filesystem::directory_iterator());
    };
    while (nThreads() > 20) {
        ::usleep(20000);
    }
}

void IdleCrowdRows()
{
    constexpr int nIdle = 10000;
    constexpr double fFloorKiB = 10;
    CRunningProgram clFloor({csBuilt("bench_floor"), std::to_string(g_wFloor)});
    CRunningProgram clManager(tManagerCommand());
    clFloor.AwaitPort(g_wFloor);
    clManager.AwaitPort(g_wOurs);

    const CTalk clTalk(g_wOurs);
    STComparison stStatus;
    CFigures clMemory;
    for (int n = 0; n < 5; ++n) {
        AwaitFewThreads(clManager.nPid());
        AddStatus(clTalk, &stStatus.clFloor);

        const long nBefore = stLook(clManager.nPid()).nResidentKiB;
        const CHolder clHolder(g_wOurs, nIdle);
        if (n == 0) { // later crowds use the memory that the first has left
            clMemory.Add(static_cast<double>(stLook(clManager.nPid()).nResidentKiB - nBefore) / nIdle);
        }

        AddStatus(clTalk, &stStatus.clOurs);
    }

    const double fEach = clMemory.fMedian();
    Row("10,000 idle conversations: memory of the process for each", csNumber(fFloorKiB, 0) + " KiB",
        csNumber(fEach, 2) + " KiB", fEach / fFloorKiB, "at most 1.30", fEach <= 1.3 * fFloorKiB);
    TimeRow("the same: STATUS beside them (floor: without them)", stStatus, 1.5);

    const CHolder clOurHolder(g_wOurs, nIdle);
    const CHolder clFloorHolder(g_wFloor, nIdle);
    TimeRow("the same: time to greet one more",
            stTurnByTurn(
                9, [] { return fGreeting(g_wFloor); }, [] { return fGreeting(g_wOurs); }),
            2.0);
}

bool bReadableNow(int nFd, int nMs)
{
    pollfd st{nFd, POLLIN, 0};
    return ::poll(&st, 1, nMs) > 0;
}

/// More connections than a manager with s_nFewDescriptors can greet.
constexpr unsigned int s_nFewDescriptors = 64;
constexpr std::size_t s_nTooMany = 200;

/// Opens connections until one is not greeted within 0.3 s, which is the last of the result.
std::vector<CDescripteur> tFill()
{
    std::vector<CDescripteur> tSockets;
    do {
        tSockets.push_back(clConnect(g_wOurs));
    } while (tSockets.size() < s_nTooMany && bReadableNow(tSockets.back().nFd(), 300));
    return tSockets;
}

void NoDescriptorRows()
{
    constexpr double fWatched = 5e6; // microseconds
    CRunningProgram clManager(tManagerCommand(), s_nFewDescriptors);
    clManager.AwaitPort(g_wOurs);
    const CTalk clTalk(g_wOurs);
    std::vector<CDescripteur> tSockets = tFill();
    if (tSockets.size() >= s_nTooMany) {
        Die("the manager did not run out of descriptors");
    }

    // A server that accepts again and again, each time in vain, would keep a processor busy.
    const long nBefore = stLook(clManager.nPid()).nTicks;
    ::usleep(static_cast<useconds_t>(fWatched));
    const auto fTicks = static_cast<double>(stLook(clManager.nPid()).nTicks - nBefore);
    const double fSeconds = fTicks / static_cast<double>(::sysconf(_SC_CLK_TCK));
    const double fShare = 100 * fSeconds / (fWatched / 1e6);
    Row("out of descriptors: processor", "0 %", csNumber(fShare, 2) + " %", -1, "under 1 %", fShare < 1);

    const bool bUnharmed = clTalk.csAsk(g_szNothing) == "OK\r\n";
    Row("the same: a conversation in progress", "answers", bUnharmed ? "answers" : "does not answer", -1,
        "answers", bUnharmed);

    const int nWaiting = tSockets.back().nFd();
    const double fAgain = fMicroseconds([&] {
        tSockets.front().Close();
        std::ignore = bReadableNow(nWaiting, 5000);
    });
    Row("the same: accepting again after one has ended", "", csNumber(fAgain / 1000, 1) + " ms", -1,
        "within 200 ms", fAgain <= 200e3);
}
} // namespace

void CrowdRows()
{
    ProvideServers(1);
    IdleCrowdRows();
    NoDescriptorRows();
}
