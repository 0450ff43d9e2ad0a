#pragma once

#include "support/Descripteur.h"
#include "tools/Wait.h"

#include <array>
#include <chrono>
#include <csignal>
#include <poll.h>
#include <pty.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

/// A program on a terminal of its own: what is typed goes in, what it shows comes out.
class CProgramOnTerminal
{
public:
    explicit CProgramOnTerminal(const std::string& csCommand)
    {
        winsize stSize{24, 80, 0, 0};
        int nTerminal = -1;
        m_nPid = ::forkpty(&nTerminal, nullptr, nullptr, &stSize);
        if (m_nPid == 0) {
            ::setenv("TERM", "xterm", 1);
            ::execl("/bin/sh", "sh", "-c", ("exec " + csCommand).c_str(), nullptr);
            ::_exit(127);
        }
        m_clTerminal = CDescripteur(nTerminal);
    }
    ~CProgramOnTerminal()
    {
        if (m_nPid > 0) {
            ::kill(m_nPid, SIGKILL);
            ::waitpid(m_nPid, nullptr, 0);
        }
    }
    CProgramOnTerminal(const CProgramOnTerminal&) = delete;
    CProgramOnTerminal& operator=(const CProgramOnTerminal&) = delete;

    void Type(std::string_view cs) const { (void)!::write(m_clTerminal.nFd(), cs.data(), cs.size()); }
    /// Waits until a text is shown; what was shown up to its end is forgotten.
    bool bShows(const std::string& csText)
    {
        const auto clEnd = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        std::size_t nFound = 0;
        while ((nFound = m_csShown.find(csText)) == std::string::npos) {
            if (std::chrono::steady_clock::now() > clEnd || !_bRead()) {
                return false;
            }
        }
        m_csShown.erase(0, nFound + csText.size());
        return true;
    }
    const std::string& csShown() const { return m_csShown; }
    /// Exit status, after reading all that is left; a program that then still runs is killed.
    int nEnd()
    {
        while (_bRead()) {
        }
        int nStatus = -1;
        if (!bWaitUntil([&] { return ::waitpid(m_nPid, &nStatus, WNOHANG) == m_nPid; }, 1000)) {
            ::kill(m_nPid, SIGKILL);
            ::waitpid(m_nPid, &nStatus, 0);
        }
        m_nPid = -1;
        return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : 128 + WTERMSIG(nStatus);
    }

private:
    bool _bRead()
    {
        pollfd st{m_clTerminal.nFd(), POLLIN, 0};
        std::array<char, 4096> tBytes;
        if (TEMP_FAILURE_RETRY(::poll(&st, 1, 10'000)) != 1) {
            return false;
        }
        const ssize_t nRead = ::read(m_clTerminal.nFd(), tBytes.data(), tBytes.size());
        m_csShown.append(tBytes.data(), static_cast<std::size_t>(std::max<ssize_t>(nRead, 0)));
        return nRead > 0;
    }

    pid_t m_nPid = -1;
    CDescripteur m_clTerminal;
    std::string m_csShown;
};
