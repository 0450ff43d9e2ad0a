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
    std::istringstream clLines(
        stRun("systemctl show -p ActiveState,MainPID,ActiveEnterTimestampMonotonic " + csUnit).csOutput);
    STUnit st;
    for (std::string csKey, csValue; std::getline(clLines, csKey, '=') && std::getline(clLines, csValue);) {
        if (csKey == "ActiveState") {
            st.csState = csValue;
        } else if (csKey == "MainPID") {
            st.nPid = std::atoi(csValue.c_str());
        } else {
            st.clActive = decltype(st.clActive)(std::chrono::microseconds(std::atoll(csValue.c_str())));
        }
    }

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
