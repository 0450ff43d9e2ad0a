// Start, idleness, settings.

#include "config/WinApi.h"
#include "floor.h"
#include "Measure.h"
#include "Rows.h"
#include "Tools.h"

#include <array>
#include <cstdint>
#include <fstream>
#include <tuple>
#include <unistd.h>

namespace {
/// From the start of the program to the answer to the first command.
double fFirstAnswer(const std::vector<std::string>& tCommand, std::uint16_t wPort)
{
    const double fStart = fNow();
    CRunningProgram clProgram(tCommand);
    clProgram.AwaitPort(wPort);
    std::ignore = CTalk(wPort).csAsk(g_szNothing);
    return fNow() - fStart;
}

/// The floor also launches one tool before it serves, as the manager does.
void StartRow()
{
    const std::vector<std::string> tFloor{csBuilt("bench_floor"), std::to_string(g_wFloor), "/bin/systemctl",
                                          "--no-pager", "--no-legend"};
    TimeRow("start to first answer",
            stTurnByTurn(
                15, [&] { return fFirstAnswer(tFloor, g_wFloor); },
                [] { return fFirstAnswer(tManagerCommand(), g_wOurs); }),
            1.5);
}

void IdleRows()
{
    constexpr unsigned int nSeconds = 20;
    CRunningProgram clManager(tManagerCommand());
    clManager.AwaitPort(g_wOurs);
    const CTalk clTalk(g_wOurs);
    ::sleep(1); // what belongs to the start is over by then

    const STProcess stBefore = stLook(clManager.nPid());
    ::sleep(nSeconds);
    const STProcess stAfter = stLook(clManager.nPid());
    const long nSwitches = stAfter.nSwitches - stBefore.nSwitches;
    const long nTicks = stAfter.nTicks - stBefore.nTicks;

    Row("idle for 20 s with one conversation: wake-ups", "0", std::to_string(nSwitches), -1, "0",
        nSwitches == 0);
    Row("the same: processor", "0 ticks", std::to_string(nTicks) + " ticks", -1, "0 ticks", nTicks == 0);
    Row("the same: resident", "", csNumber(static_cast<double>(stAfter.nResidentKiB) / 1024, 2) + " MiB", -1,
        "under 5 MiB", stAfter.nResidentKiB < 5L * 1024);
}

void SettingRow()
{
    constexpr int nReads = 50; // together well within one time slice of the kernel's scheduler
    const char szFile[] = "/run/bench-settings.ini";
    {
        std::ofstream clFile(szFile);
        clFile << "[FIRST]\nName = 0\n[INIT]\n";
        for (int n = 0; n < 200; ++n) {
            clFile << "Setting" << n << " = some value\n";
        }
        clFile << "AccessPort = 4900\n";
    }

    const auto fnFloor = [&] {
        return fMicroseconds([&] {
                   for (int n = 0; n < nReads; ++n) {
                       if (floor_find_in_file(szFile, "AccessPort") == 0) {
                           Die("the floor does not find the key");
                       }
                   }
               }) /
               nReads;
    };

    const auto fnOurs = [&] {
        std::array<wchar_t, 100> tValue{};
        return fMicroseconds([&] {
                   for (int n = 0; n < nReads; ++n) {
                       if (GetPrivateProfileString(L"INIT", L"AccessPort", L"", tValue.data(), tValue.size(),
                                                   L"/run/bench-settings.ini") != 4) { // "4900"
                           Die("the key was not read");
                       }
                   }
               }) /
               nReads;
    };

    TimeRow("one INI key, the last of 200 lines", stTurnByTurn(75, fnFloor, fnOurs), 3);
}
} // namespace

void LifeRows()
{
    ProvideServers(1);
    SettingRow();
    StartRow();
    IdleRows();
}
