#include "velmoctl/Tool.h"

#include "support/Descripteur.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

namespace {
constexpr std::size_t s_nMaxOutput = 1u << 22;
constexpr Milliseconds s_clLook(50);

/// How a child starts: with its output in a pipe, an empty signal mask, and nothing to read.
class CStart
{
public:
    explicit CStart(int nOutput)
    {
        ::posix_spawn_file_actions_init(&m_stActions);
        ::posix_spawn_file_actions_addopen(&m_stActions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        ::posix_spawn_file_actions_adddup2(&m_stActions, nOutput, STDOUT_FILENO);
        ::posix_spawn_file_actions_adddup2(&m_stActions, nOutput, STDERR_FILENO);
        sigset_t stNone;
        sigemptyset(&stNone);
        ::posix_spawnattr_init(&m_stAttributes);
        ::posix_spawnattr_setsigmask(&m_stAttributes, &stNone);
        ::posix_spawnattr_setflags(&m_stAttributes, POSIX_SPAWN_SETSIGMASK);
    }
    ~CStart()
    {
        ::posix_spawn_file_actions_destroy(&m_stActions);
        ::posix_spawnattr_destroy(&m_stAttributes);
    }
    CStart(const CStart&) = delete;
    CStart& operator=(const CStart&) = delete;

    /// The PID; 0 when the program cannot be started.
    pid_t nRun(const std::vector<std::string>& tArguments)
    {
        std::vector<char*> tWords;
        tWords.reserve(tArguments.size() + 1);
        for (const std::string& cs : tArguments) {
            tWords.push_back(const_cast<char*>(cs.c_str())); // not written to
        }

        tWords.push_back(nullptr);
        std::array<std::string, 3> tNew = {"LC_ALL=C", "SYSTEMD_COLORS=0", "SYSTEMD_PAGER="};
        std::vector<char*> tEnvironment;
        for (std::string& cs : tNew) {
            tEnvironment.push_back(cs.data()); // NOLINT(performance-inefficient-vector-operation): three
        }

        for (char** ppsz = environ; *ppsz != nullptr; ++ppsz) {
            tEnvironment.push_back(*ppsz); // getenv takes the first of two with one name, so the new ones win
        }

        tEnvironment.push_back(nullptr);
        pid_t nPid = 0;
        return ::posix_spawnp(&nPid, tWords[0], &m_stActions, &m_stAttributes, tWords.data(),
                              tEnvironment.data()) == 0
                   ? nPid
                   : 0;
    }

private:
    posix_spawn_file_actions_t m_stActions;
    posix_spawnattr_t m_stAttributes;
};

/// Owns a child: kills it unless it has ended, and collects it.
class CChild
{
public:
    explicit CChild(pid_t nPid) : m_nPid(nPid) {}
    ~CChild()
    {
        if (m_nPid > 0) {
            ::kill(m_nPid, SIGKILL);
            ::waitpid(m_nPid, nullptr, 0);
        }
    }
    CChild(const CChild&) = delete;
    CChild& operator=(const CChild&) = delete;

    bool bStarted() const { return m_nPid > 0; }
    /// Whether it has ended; its status can still be asked for.
    bool bEnded() const
    {
        siginfo_t st{};
        return ::waitid(P_PID, static_cast<id_t>(m_nPid), &st, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               st.si_pid == m_nPid;
    }
    /// Waits for its exit status until the deadline; -1 when there is none, or a signal ended it.
    int nEnd(const CDeadline& clDeadline)
    {
        int nStatus = 0;
        pid_t nEnded = 0;
        while ((nEnded = ::waitpid(m_nPid, &nStatus, WNOHANG)) == 0 && !clDeadline.bOver()) {
            bWaitFor(-1, 0, CDeadline(Milliseconds(5)));
        }
        if (nEnded != m_nPid) {
            return -1;
        }
        m_nPid = 0;
        return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
    }

private:
    pid_t m_nPid;
};
} // namespace

STToolResult stRunTool(const std::vector<std::string>& tArguments, Milliseconds clTime)
{
    std::array<int, 2> tPipe{};
    if (::pipe2(tPipe.data(), O_CLOEXEC) != 0) {
        return {};
    }

    const CDescripteur clRead(tPipe[0]);
    CDescripteur clWrite(tPipe[1]);
    CChild clChild(CStart(clWrite.nFd()).nRun(tArguments));
    clWrite.Close();

    STToolResult stResult;
    const CDeadline clDeadline(clTime);
    std::array<char, 4096> tBytes;
    bool bMore = clChild.bStarted();
    while (bMore && !clDeadline.bOver()) {
        // A server that an init script has started may hold the output open for good, so the script's own
        // exit counts. Looked at first: what it wrote before is there by then.
        const bool bEnded = clChild.bEnded();
        if (!bWaitFor(clRead.nFd(), POLLIN, CDeadline(std::min(s_clLook, clDeadline.clLeft())))) {
            bMore = !bEnded;
            continue;
        }
        const ssize_t nRead = ::read(clRead.nFd(), tBytes.data(), tBytes.size());
        bMore = nRead > 0 && stResult.csOutput.size() <= s_nMaxOutput;
        stResult.csOutput.append(tBytes.data(), static_cast<std::size_t>(std::max<ssize_t>(nRead, 0)));
    }

    if (clChild.bStarted() && !bMore) {
        stResult.nStatus = clChild.nEnd(clDeadline);
    }

    return stResult;
}
