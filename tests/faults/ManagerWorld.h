#pragma once

#include "tools/Machine.h"
#include "tools/PrivateWorld.h"
#include "tools/ProcessFigures.h"

#include <string>
#include <sys/types.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool g_bSanitized = true; // memory, stacks and preloading are the sanitizer's
#else
constexpr bool g_bSanitized = false;
#endif

/// Waits until no more is used than before, and no child is left.
void ExpectNothingLeft(pid_t nProcess, const STFigures& stBefore, int nMs = 5000);

/// Where the manager under test runs, in the private world: copies of it and its runtime library, one server
/// "A" (port 4900) of the DXCS-A unit, and a scripted systemctl that knows it. One at a time.
class CManagerWorld
{
public:
    /// The text is the beginning of systemctl's script: where it does not exit, the tool answers for server
    /// A.
    explicit CManagerWorld(const std::string& csSystemctl = "");
    /// Puts the settings back and clears what an earlier run left.
    static void Reset();
    /// Empty, or what is wrong with the settings: each file is to be as it was or as a registration leaves
    /// it.
    static std::string csDamage();

    static constexpr char Manager[] = "/run/velmo/VelmoManager";
    static constexpr char Server[] = "/run/velmo/a/dxsrv";
    static constexpr char Pipe[] = "/tmp/__pipe_velmomanager__";

private:
    CFakeTool m_clSystemctl;
};

/// The world's manager in the foreground mode.
class CManagerRun : public CManagerProcess
{
public:
    /// csWrapper is the beginning of its command line: a program that runs it, with a blank behind.
    explicit CManagerRun(const std::string& csWrapper = "")
        : CManagerProcess(csWrapper + CManagerWorld::Manager)
    {}
    bool bRuns() const;
    /// Waits until it greets over IPv4 or IPv6; false when it has ended, or after nMs.
    bool bAnswers(int nMs = 10'000) const;
};

/// What was wrong with the replies of one pass: a conversation (MODE_UTF8, INFO, STATUS, START, CLUSTERINFO,
/// an unknown command, QUIT), a question over UDP, a registration of server A under another name through the
/// pipe. Empty when every reply was the right one. bStrict false: waits only a second for each, for a manager
/// that may not answer.
std::string csPlay(bool bStrict);
