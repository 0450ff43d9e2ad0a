#pragma once

#include "tools/Command.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>

/// The state of a unit in systemd.
struct STUnit
{
    std::string csState;                              ///< its ActiveState
    pid_t nPid = 0;                                   ///< 0: nothing runs
    std::chrono::steady_clock::time_point clActive{}; ///< since when; systemd uses the same clock
};

inline STUnit stUnit(const std::string& csUnit)
{
    std::istringstream clValues( // in the order of their names
        stRun("systemctl show -p ActiveEnterTimestampMonotonic,ActiveState,MainPID " + csUnit +
              " | LC_ALL=C sort | cut -d= -f2")
            .csOutput);
    long long nMicroseconds = 0;
    STUnit st;
    clValues >> nMicroseconds >> st.csState >> st.nPid;
    st.clActive = decltype(st.clActive)(std::chrono::microseconds(nMicroseconds));
    return st;
}

/// The processes whose program has a path with this end ("/dxdemo", "/first/dxdemo").
inline std::set<pid_t> tProcesses(const std::string& csProgram)
{
    std::set<pid_t> tFound;
    for (const auto& clEntry : std::filesystem::directory_iterator("/proc")) {
        std::error_code clGone;
        if (std::filesystem::read_symlink(clEntry.path() / "exe", clGone).string().ends_with(csProgram)) {
            tFound.insert(std::atoi(clEntry.path().filename().c_str()));
        }
    }
    return tFound;
}
