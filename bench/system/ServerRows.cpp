// Conversations that launch nothing, next to the minimal line server.

#include "Measure.h"
#include "Rows.h"
#include "Tools.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <poll.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <tuple>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {
double fRoundTrip(const CTalk& clTalk)
{
    return fMicroseconds([&] {
        if (clTalk.csAsk(g_szNothing) != "OK\r\n") {
            Die("wrong answer");
        }
    });
}

/// Keeps this program and others on one processor for its lifetime. With several, it is luck where the kernel
/// puts the two ends of a conversation, and a round trip may take four times as long.
class COnOneProcessor
{
public:
    explicit COnOneProcessor(std::vector<pid_t> tOthers) : m_tProcesses(std::move(tOthers))
    {
        m_tProcesses.push_back(::getpid());
        ::sched_getaffinity(0, sizeof m_stBefore, &m_stBefore);
        cpu_set_t stFirst;
        CPU_ZERO(&stFirst);
        CPU_SET(0, &stFirst);
        _Set(stFirst);
    }
    ~COnOneProcessor() { _Set(m_stBefore); }
    COnOneProcessor(const COnOneProcessor&) = delete;
    COnOneProcessor& operator=(const COnOneProcessor&) = delete;

private:
    /// For every thread of each process.
    void _Set(const cpu_set_t& st) const
    {
        for (const pid_t nProcess : m_tProcesses) {
            const std::string csTasks = "/proc/" + std::to_string(nProcess) + "/task";
            for (const auto& clTask : std::filesystem::directory_iterator(csTasks)) {
                ::sched_setaffinity(std::stoi(clTask.path().filename()), sizeof st, &st);
            }
        }
    }

    std::vector<pid_t> m_tProcesses;
    cpu_set_t m_stBefore{};
};

/// The median of a few hundred round trips.
double fRoundTrips(const CTalk& clTalk)
{
    CFigures cl;
    for (int n = 0; n < 400; ++n) {
        cl.Add(fRoundTrip(clTalk));
    }
    return cl.fMedian();
}

/// So many connections, each of which asks again as soon as it has its answer.
class CLoad
{
public:
    CLoad(std::uint16_t wPort, int nConnections) : m_clPoll(::epoll_create1(EPOLL_CLOEXEC))
    {
        for (int n = 0; n < nConnections; ++n) {
            m_tTalks.push_back(std::make_unique<CTalk>(wPort));
            epoll_event stEvent{};
            stEvent.events = EPOLLIN;
            stEvent.data.fd = m_tTalks.back()->nFd();
            ::epoll_ctl(m_clPoll.nFd(), EPOLL_CTL_ADD, stEvent.data.fd, &stEvent);
        }
    }
    /// Requests per second.
    double fRate() const
    {
        constexpr double fDuration = 0.1e6;
        for (const auto& pclTalk : m_tTalks) {
            _Ask(pclTalk->nFd());
        }

        // Once the time is over, nothing more is asked, but every last answer is awaited: it must not be left
        // for the next round.
        const double fStart = fNow();
        int nAnswers = 0;
        for (std::size_t nOpen = m_tTalks.size(); nOpen > 0;) {
            std::array<epoll_event, 64> tEvents;
            const int nReady = ::epoll_wait(m_clPoll.nFd(), tEvents.data(), tEvents.size(), -1);
            const bool bOver = fNow() - fStart > fDuration;
            for (int n = 0; n < nReady; ++n) {
                std::array<char, 64> tBuffer;
                const int nFd = tEvents[static_cast<std::size_t>(n)].data.fd;
                nAnswers += ::recv(nFd, tBuffer.data(), tBuffer.size(), 0) == 4 ? 1 : 0; // "OK\r\n"
                if (bOver) {
                    --nOpen;
                } else {
                    _Ask(nFd);
                }
            }
        }

        return nAnswers * 1e6 / (fNow() - fStart);
    }

private:
    static void _Ask(int nFd)
    {
        std::ignore = ::send(nFd, g_szNothing, sizeof g_szNothing - 1, MSG_NOSIGNAL);
    }
    CDescripteur m_clPoll;
    std::vector<std::unique_ptr<CTalk>> m_tTalks;
};

void LoadRow(int nConnections)
{
    RateRow("requests that touch no service, " + std::to_string(nConnections) +
                (nConnections == 1 ? " connection" : " connections"),
            stTurnByTurn(
                7, [&] { return CLoad(g_wFloor, nConnections).fRate(); },
                [&] { return CLoad(g_wOurs, nConnections).fRate(); }),
            0.8);
}

/// Connect, greeting and close, one after the other.
double fConnectsPerSecond(std::uint16_t wPort)
{
    constexpr int nConnects = 400;
    return nConnects * 1e6 / fMicroseconds([&] {
               for (int n = 0; n < nConnects; ++n) {
                   const CTalk clTalk(wPort);
               }
           });
}

/// Time until so many connections, opened at once, have all been greeted.
double fBurst(std::uint16_t wPort, int nConnects)
{
    std::vector<CDescripteur> tSockets;
    std::vector<pollfd> tWaiting;
    return fMicroseconds([&] {
        for (int n = 0; n < nConnects; ++n) {
            tSockets.push_back(clConnect(wPort, false));
            tWaiting.push_back({tSockets.back().nFd(), POLLIN, 0});
        }

        for (int nGreeted = 0; nGreeted < nConnects;) {
            if (::poll(tWaiting.data(), tWaiting.size(), 10000) <= 0) {
                Die("a connection of many at once was not greeted");
            }
            for (pollfd& st : tWaiting) {
                if (st.fd >= 0 && st.revents != 0) {
                    st.fd = -1; // poll skips it from now on
                    ++nGreeted;
                }
            }
        }
    });
}

void BurstRow(int nConnects, double fTarget)
{
    TimeRow(std::to_string(nConnects) + " connects at once, until all are greeted",
            stTurnByTurn(
                11, [&] { return fBurst(g_wFloor, nConnects); }, [&] { return fBurst(g_wOurs, nConnects); }),
            fTarget);
}
} // namespace

void ServerRows()
{
    CRunningProgram clFloor({csBuilt("bench_floor"), std::to_string(g_wFloor)});
    CRunningProgram clManager(tManagerCommand());
    clFloor.AwaitPort(g_wFloor);
    clManager.AwaitPort(g_wOurs);

    {
        const CTalk clFloorTalk(g_wFloor);
        const CTalk clOursTalk(g_wOurs);
        const COnOneProcessor clTogether({clFloor.nPid(), clManager.nPid()});
        TimeRow("round trip of a command that touches no service, p50",
                stTurnByTurn(
                    15, [&] { return fRoundTrips(clFloorTalk); }, [&] { return fRoundTrips(clOursTalk); }),
                1.25);
    }

    LoadRow(1);
    LoadRow(16);
    LoadRow(64);

    RateRow("connect, greeting, close",
            stTurnByTurn(
                9, [] { return fConnectsPerSecond(g_wFloor); }, [] { return fConnectsPerSecond(g_wOurs); }),
            0.8);

    BurstRow(120, 2.0);
    BurstRow(200, 2.0);
}
