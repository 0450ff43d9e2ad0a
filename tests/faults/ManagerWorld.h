#pragma once

#include "tools/PrivateWorld.h"

#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

/// What is used of a process, as the system tells it.
struct STFigures
{
    int nDescriptors = 0;
    int nThreads = 0;
    int nChildren = 0; ///< ended ones that nobody collected included
    long nResidentKb = 0;
};
STFigures stFiguresOf(pid_t nProcess);

/// Where the manager under test runs: private mounts and network, copies of the manager and its runtime
/// library, one server "A" (port 4900) of the DXCS-A unit, and a scripted systemctl that knows it. One a
/// process.
class CManagerWorld
{
public:
    /// Of the programs in this folder (the test's own when empty). csSystemctl is a script's beginning: where
    /// it does not exit, the tool answers for server A as usual.
    explicit CManagerWorld(const std::string& csPrograms = "", const std::string& csSystemctl = "");
    ~CManagerWorld();
    CManagerWorld(const CManagerWorld&) = delete;
    CManagerWorld& operator=(const CManagerWorld&) = delete;

    /// False where there is no private world.
    bool bMade() const { return m_pclSystemctl != nullptr; }
    /// Puts the settings back and clears what an earlier run left.
    static void Reset();
    /// Empty, or what is wrong with the settings: each file is to be as it was or as a registration leaves
    /// it.
    static std::string csDamage();

    static constexpr char Manager[] = "/run/velmo/VelmoManager";
    static constexpr char Server[] = "/run/velmo/a/dxsrv";
    static constexpr char Pipe[] = "/tmp/__pipe_velmomanager__";

private:
    std::unique_ptr<CFakeTool> m_pclSystemctl;
};

/// One manager in the foreground mode.
class CManagerRun
{
public:
    /// "NAME=value" entries are added to its environment; tWrapper is the program that runs it (none: it runs
    /// itself).
    explicit CManagerRun(const std::vector<std::string>& tEnvironment = {},
                         const std::vector<std::string>& tWrapper = {});
    /// Kills it if it still runs.
    ~CManagerRun();
    CManagerRun(const CManagerRun&) = delete;
    CManagerRun& operator=(const CManagerRun&) = delete;

    pid_t nPid() const { return m_nPid; }
    bool bRuns();
    /// Waits until it greets over IPv4 or IPv6; false when it has ended, or after nMs.
    bool bAnswers(int nMs = 10'000);
    /// Figures once they are steady at (or below) those given, or after nMs.
    STFigures stSettled(const STFigures& stWanted, int nMs = 5000) const;
    /// SIGTERM; how it ended: "exit 0", "signal 6", or "<hangs>".
    std::string csStop(int nMs = 10'000);

private:
    pid_t m_nPid = -1;
    std::string m_csEnd; ///< once it has ended
};

/// What was wrong with the replies of one pass: a conversation (MODE_UTF8, INFO, STATUS, START, CLUSTERINFO,
/// an unknown command, QUIT), a question over UDP, a registration of server A under another name through the
/// pipe. Empty when every reply was the right one. bStrict false: waits only a second for each, for a manager
/// that may not answer.
std::string csPlay(bool bStrict);
