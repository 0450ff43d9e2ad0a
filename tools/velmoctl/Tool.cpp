#include "velmoctl/Tool.h"

#include "support/Descripteur.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

namespace {
constexpr std::size_t s_nMaxOutput = 1u << 22; // bytes; a tool that prints more is not read any further
constexpr Milliseconds s_clLook(50);           // longest time between two looks at a silent child

/// What every tool gets, whatever the user's environment says. Pagers and colours would add to the output.
constexpr std::array<const char*, 3> s_tVariables = {"LC_ALL=C", "SYSTEMD_COLORS=0", "SYSTEMD_PAGER="};

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

        // CInterrupts::Catch blocks signals in this thread. A child would inherit that, and so would a server
        // that an init script starts: nothing could ever stop it.
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
            tWords.push_back(const_cast<char*>(cs.c_str())); // posix_spawn writes to none of the texts
        }
        tWords.push_back(nullptr);

        std::vector<char*> tEnvironment = s_tEnvironment();
        pid_t nPid = 0;
        const int nError = ::posix_spawnp(&nPid, tWords[0], &m_stActions, &m_stAttributes, tWords.data(),
                                          tEnvironment.data());
        return nError == 0 ? nPid : 0;
    }

private:
    /// Ours in front: getenv takes the first of two variables with one name.
    static std::vector<char*> s_tEnvironment()
    {
        std::vector<char*> tEnvironment;
        tEnvironment.reserve(s_tVariables.size());
        for (const char* const psz : s_tVariables) {
            tEnvironment.push_back(const_cast<char*>(psz)); // written to as little as the words
        }
        for (char** ppsz = environ; *ppsz != nullptr; ++ppsz) {
            // With it systemctl would take an option after the verb for a unit.
            if (!std::string_view(*ppsz).starts_with("POSIXLY_CORRECT=")) {
                tEnvironment.push_back(*ppsz);
            }
        }
        tEnvironment.push_back(nullptr);
        return tEnvironment;
    }

    posix_spawn_file_actions_t m_stActions;
    posix_spawnattr_t m_stAttributes;
};

/// Owns a child: unless nEnd has collected it, kills it and waits, so that no zombie is left.
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
    /// Whether it has ended. WNOWAIT leaves its status for nEnd.
    bool bEnded() const
    {
        siginfo_t st{};
        return ::waitid(P_PID, static_cast<id_t>(m_nPid), &st, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               st.si_pid == m_nPid;
    }
    /// Waits for its exit status until the deadline; -1 when there is none, or a signal ended it.
    int nEnd(const CDeadline& clDeadline)
    {
        // Looks every 5 ms: older kernels have no descriptor that a child's exit makes readable.
        int nStatus = 0;
        pid_t nEnded = 0;
        while ((nEnded = ::waitpid(m_nPid, &nStatus, WNOHANG)) == 0 && !clDeadline.bOver()) {
            bWaitFor(-1, 0, CDeadline(Milliseconds(5)));
        }
        if (nEnded != m_nPid) {
            return -1;
        }

        m_nPid = 0; // collected: the number may soon be another process's
        return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
    }

private:
    pid_t m_nPid; ///< 0: none, or collected already
};

/// Reads a child's output until there is no more to expect. False at the deadline.
bool bReadOutput(const CChild& clChild, int nOutput, const CDeadline& clDeadline, std::string* pcsOutput)
{
    std::array<char, 4096> tBytes;
    while (!clDeadline.bOver()) {
        // A server that an init script has started may keep the output open for good, so the script's own
        // exit counts. Look for the exit before the wait: what the script wrote is in the pipe by then.
        const bool bEnded = clChild.bEnded();
        if (!bWaitFor(nOutput, POLLIN, CDeadline(std::min(s_clLook, clDeadline.clLeft())))) {
            if (bEnded) {
                return true;
            }
            continue;
        }

        const ssize_t nRead = ::read(nOutput, tBytes.data(), tBytes.size());
        const bool bMore = nRead > 0 && pcsOutput->size() <= s_nMaxOutput;
        pcsOutput->append(tBytes.data(), static_cast<std::size_t>(std::max<ssize_t>(nRead, 0)));
        if (!bMore) {
            return true;
        }
    }

    return false;
}
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
    clWrite.Close(); // or our own copy would keep the pipe from ever reaching end of file
    if (!clChild.bStarted()) {
        return {};
    }

    STToolResult stResult;
    const CDeadline clDeadline(clTime);
    if (bReadOutput(clChild, clRead.nFd(), clDeadline, &stResult.csOutput)) {
        stResult.nStatus = clChild.nEnd(clDeadline);
    }

    return stResult; // a child that still runs is killed here
}
