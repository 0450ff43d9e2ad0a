// The state of one server, and the restart pass.

#include "Measure.h"
#include "Rows.h"
#include "Tools.h"

#include <fstream>
#include <memory>
#include <tuple>
#include <unistd.h>

namespace {
const std::string s_csStatus = "STATUS\t" + csServer(0) + "\r\n";

double fStatus(const CTalk& clTalk)
{
    return fMicroseconds([&] {
        if (clTalk.csAsk(s_csStatus) != "STATUS\tRUNNING\r\n") {
            Die("wrong answer to STATUS");
        }
    });
}

void StatusRows()
{
    const CTalk clTalk(g_wOurs);
    const STComparison st = stTurnByTurn(
        300, [] { return fMicroseconds([] { LaunchStatus(csServer(0)); }); },
        [&] { return fStatus(clTalk); });
    TimeRow("STATUS, one conversation, p50", st, 1.25);
    TimeRow("the same, p99", st, 1.5, 99);
}

void StatusOf8Row()
{
    std::vector<std::unique_ptr<CTalk>> tTalks;
    tTalks.reserve(8);
    for (int n = 0; n < 8; ++n) {
        tTalks.push_back(std::make_unique<CTalk>(g_wOurs));
    }
    const STComparison st = stTurnByTurn(
        5, [] { return fRateOf(8, [](int) { LaunchStatus(csServer(0)); }); },
        [&] { return fRateOf(8, [&](int n) { fStatus(*tTalks[static_cast<std::size_t>(n)]); }); });
    RateRow("STATUS per second, 8 conversations", st, 1 / 1.25);
}

/// STATUS while a thousand questions of discovery wait for their answers, which come one after the other.
void FloodRow()
{
    CRunningProgram clManager(tManagerCommand());
    clManager.AwaitPort(g_wOurs);
    const CTalk clTalk(g_wOurs);

    STComparison st;
    for (int n = 0; n < 60; ++n) {
        st.clFloor.Add(fStatus(clTalk));
    }

    const CPing clPing;
    for (int n = 0; n < 1000; ++n) {
        clPing.Ask();
    }

    for (int n = 0; n < 60; ++n) {
        st.clOurs.Add(fStatus(clTalk));
    }

    TimeRow("STATUS during a flood of 1,000 questions (floor: STATUS alone)", st, 2.0);
}

constexpr int s_nPassServers = 10;
constexpr char s_szStamps[] = "/run/bench-starts"; ///< moments in nanoseconds, one a line

/// A unit that notes the moment of each start and fails, so that every pass of the monitor starts it again.
/// "%" is doubled, as a unit file wants it.
void ProvideFailing()
{
    std::ofstream("/lib/systemd/system/DXCS-Failing.service")
        << "[Unit]\nDescription=fails\nStartLimitIntervalSec=0\n[Service]\nType=oneshot\n"
           "ExecStart=/bin/sh -c \"date +%%s%%N >> "
        << s_szStamps << "; exit 1\"\n";
    Launch({"daemon-reload"});
    Launch({"start", "DXCS-Failing"});
}

void Empty(const char* pszFile)
{
    const std::ofstream clFile(pszFile, std::ios::trunc);
}

/// Microseconds of one pass, the median of a few that follow one another without a pause.
double fPass()
{
    std::ofstream("/opt/velmo/manager/DXConf.ini") << "[MANAGER]\nCheckPeriod = 0\n";
    Empty(s_szStamps);

    std::vector<double> tStamps;
    {
        CRunningProgram clManager(tManagerCommand());
        while (tStamps.size() < 5) {
            ::usleep(20000);
            tStamps.clear();
            std::ifstream clStamps(s_szStamps);
            for (double f = 0; clStamps >> f;) {
                tStamps.push_back(f / 1000); // to microseconds
            }
        }
    }
    Empty("/opt/velmo/manager/DXConf.ini");

    CFigures clFigures;
    for (std::size_t n = 1; n < tStamps.size(); ++n) {
        clFigures.Add(tStamps[n] - tStamps[n - 1]);
    }
    return clFigures.fMedian();
}

void PassRow(int nServers)
{
    ProvideFailing();
    TimeRow("restart pass, " + std::to_string(nServers) + " servers and one that it starts",
            stTurnByTurn(
                5,
                [&] {
                    return fMicroseconds([&] {
                        LaunchPass(nServers);
                        LaunchStatus("Failing");
                        Launch({"start", "DXCS-Failing"});
                    });
                },
                fPass),
            1.2);

    std::ignore = ::unlink("/lib/systemd/system/DXCS-Failing.service");
    Launch({"reset-failed", "DXCS-Failing"});
    Launch({"daemon-reload"});
}
} // namespace

void ServiceRows()
{
    ProvideServers(s_nPassServers);
    {
        CRunningProgram clManager(tManagerCommand());
        clManager.AwaitPort(g_wOurs);
        StatusRows();
        StatusOf8Row();
    }

    PassRow(s_nPassServers);
    FloodRow();
}
