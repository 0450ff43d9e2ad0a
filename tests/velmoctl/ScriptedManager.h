#pragma once

#include "support/Descripteur.h"
#include "tools/Address.h"
#include "tools/Command.h"
#include "tools/Machine.h"
#include "tools/Transcript.h"

#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

inline const std::string g_csGreeting = "HELLO FROM SERVEUR SETUP 24.0.6.0\r\n";

/// The answer to INFO for servers that are given with a tab before each field.
inline std::string csInfo(const std::string& csServers)
{
    return "YES\t24.0.6.0\tLinux X\t6.1\t2 x Y\t64 Mo" + csServers;
}

/// One connection of a client, seen from the other side.
class CClientSide
{
public:
    explicit CClientSide(int nSocket) : m_clSocket(nSocket)
    {
        const int nOne = 1; // pieces are to arrive as they are sent
        ::setsockopt(nSocket, IPPROTO_TCP, TCP_NODELAY, &nOne, sizeof nOne);
    }
    bool bSend(std::string_view cs) const
    {
        return ::send(m_clSocket.nFd(), cs.data(), cs.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(cs.size());
    }
    /// The next line without its end; empty when the client is gone.
    std::string csLine() const
    {
        std::string cs;
        for (char c = 0; ::recv(m_clSocket.nFd(), &c, 1, 0) == 1 && c != '\n';) {
            cs += c;
        }
        return cs.substr(0, cs.find('\r'));
    }
    /// Sends texts: the first at once, each other one after a line of the client.
    void Recite(const std::vector<std::string>& tTexts) const
    {
        for (const std::string& cs : tTexts) {
            if (&cs != &tTexts.front()) {
                csLine();
            }
            bSend(cs);
        }
    }
    void HangUp() const { ::shutdown(m_clSocket.nFd(), SHUT_WR); }
    /// Answers nothing until the client is gone.
    void StaySilent() const
    {
        while (!csLine().empty()) {
        }
    }

private:
    CDescripteur m_clSocket;
};

/// A server on a free port of the loopback that serves each connection in a thread of its own.
class CScriptedServer
{
public:
    using Serve = std::function<void(const CClientSide&)>;

    /// With another address and port it listens there, in the network of the calling thread.
    explicit CScriptedServer(const Serve& fnServe, const std::string& csAddress = "127.0.0.1",
                             unsigned short wPort = 0)
        : m_clSocket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in6 st = stAddress(csAddress.c_str(), wPort);
        socklen_t nLength = sizeof st;
        std::ignore = ::bind(m_clSocket.nFd(), reinterpret_cast<sockaddr*>(&st), nLength);
        std::ignore = ::listen(m_clSocket.nFd(), 64);
        std::ignore = ::getsockname(m_clSocket.nFd(), reinterpret_cast<sockaddr*>(&st), &nLength);
        m_csPort = std::to_string(ntohs(st.sin6_port));
        m_clAccept = std::jthread([this, fnServe] {
            std::vector<std::jthread> tThreads;
            for (int n = 0; (n = ::accept4(m_clSocket.nFd(), nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
                tThreads.emplace_back([fnServe, n] { fnServe(CClientSide(n)); });
            }
        });
    }
    ~CScriptedServer() { ::shutdown(m_clSocket.nFd(), SHUT_RDWR); }
    CScriptedServer(const CScriptedServer&) = delete;
    CScriptedServer& operator=(const CScriptedServer&) = delete;

    const std::string& csPort() const { return m_csPort; }

private:
    CDescripteur m_clSocket;
    std::string m_csPort;
    std::jthread m_clAccept; // ends before the others
};

/// A server that keeps to the protocol: greets, agrees on UTF-8 and gives the answers of a table, each in two
/// pieces, cut between CR and LF. To a line whose answer is empty it stays silent.
class CScriptedManager
{
public:
    using Answers = std::map<std::string, std::string>;

    explicit CScriptedManager(Answers tAnswers)
        : m_tAnswers(std::move(tAnswers)),
          m_clServer([this](const CClientSide& clClient) { _Serve(clClient); })
    {}
    const std::string& csPort() const { return m_clServer.csPort(); }
    /// What clients have sent beyond the agreement on UTF-8, one line each with a "|".
    std::string csAsked()
    {
        const std::lock_guard clGuard(m_clMutex);
        return m_csAsked;
    }

private:
    void _Serve(const CClientSide& clClient)
    {
        clClient.bSend(g_csGreeting);
        for (std::string cs; !(cs = clClient.csLine()).empty();) {
            const std::string csAnswer = cs == "MODE_UTF8" ? "OK" : _csAnswer(cs);
            if (csAnswer.empty()) {
                return clClient.StaySilent();
            }
            clClient.bSend(csAnswer + "\r");
            ::usleep(1000);
            clClient.bSend("\n");
        }
    }
    std::string _csAnswer(const std::string& csLine)
    {
        const std::lock_guard clGuard(m_clMutex);
        m_csAsked += csLine + "|";
        const auto it = m_tAnswers.find(csLine);
        return it == m_tAnswers.end() ? "ERROR\t8" : it->second;
    }

    std::mutex m_clMutex;
    const Answers m_tAnswers;
    std::string m_csAsked;
    CScriptedServer m_clServer;
};

/// Folder of the sources.
inline std::string csSource()
{
    return VELMO_SOURCE_FOLDER;
}

inline std::string csReadSource(const std::string& csFile)
{
    std::ifstream clFile(csSource() + "/" + csFile);
    return {std::istreambuf_iterator<char>(clFile), {}};
}

inline std::string csClient()
{
    return csBuildFolder() + "/velmoctl";
}

/// Runs the client against a port of the loopback: status and whole output, errors included.
inline STCommandResult stClient(const std::string& csPort, const std::string& csArguments)
{
    return stRun("TERM=xterm " + csClient() + " --port " + csPort + " " + csArguments);
}

/// Plays a transcript of this folder, with the client and options before each step.
inline void Play(const std::string& csOptions, const std::string& csTranscript)
{
    PlayTranscript(csSource() + "/tests/velmoctl/" + csTranscript,
                   "TERM=xterm " + csClient() + " " + csOptions);
}

inline void Play(const CScriptedManager& clManager, const std::string& csTranscript)
{
    Play("--port " + clManager.csPort(), csTranscript);
}
