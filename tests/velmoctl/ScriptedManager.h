#pragma once

#include "support/Descripteur.h"
#include "tools/Address.h"
#include "tools/Command.h"
#include "tools/Machine.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <utility>
#include <vector>

/// One connection of a client, seen from the other side.
class CClientSide
{
public:
    explicit CClientSide(int nSocket) : m_clSocket(nSocket) {}

    bool bSend(std::string_view cs) const
    {
        return ::send(m_clSocket.nFd(), cs.data(), cs.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(cs.size());
    }
    /// The next line without its end; empty when the client is gone.
    std::string csLine()
    {
        std::string cs;
        for (char c = 0; ::recv(m_clSocket.nFd(), &c, 1, 0) == 1 && c != '\n';) {
            cs += c;
        }
        return cs.substr(0, cs.find('\r'));
    }
    /// Returns when the client has hung up.
    void WaitForEnd() const
    {
        pollfd st{m_clSocket.nFd(), POLLRDHUP, 0};
        (void)::poll(&st, 1, 20'000);
    }

private:
    CDescripteur m_clSocket;
};

/// A server on a free port of the loopback that serves each connection, in a thread of its own, as a test
/// wants.
class CScriptedServer
{
public:
    explicit CScriptedServer(std::function<void(CClientSide&)> fnServe)
        : m_fnServe(std::move(fnServe)), m_clSocket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in6 st = stAddress("127.0.0.1", 0);
        socklen_t nLength = sizeof st;
        (void)::bind(m_clSocket.nFd(), reinterpret_cast<sockaddr*>(&st), nLength);
        (void)::listen(m_clSocket.nFd(), 64);
        (void)::getsockname(m_clSocket.nFd(), reinterpret_cast<sockaddr*>(&st), &nLength);
        m_csPort = std::to_string(ntohs(st.sin6_port));
        m_clThread = std::thread([this] { _Accept(); });
    }
    ~CScriptedServer()
    {
        ::shutdown(m_clSocket.nFd(), SHUT_RDWR);
        m_clThread.join();
        for (std::thread& clThread : m_tThreads) {
            clThread.join();
        }
    }
    CScriptedServer(const CScriptedServer&) = delete;
    CScriptedServer& operator=(const CScriptedServer&) = delete;

    const std::string& csPort() const { return m_csPort; }

private:
    void _Accept()
    {
        for (int nSocket = 0; (nSocket = ::accept4(m_clSocket.nFd(), nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
            m_tThreads.emplace_back([this, nSocket] {
                CClientSide clClient(nSocket);
                m_fnServe(clClient);
            });
        }
    }

    std::function<void(CClientSide&)> m_fnServe;
    CDescripteur m_clSocket;
    std::string m_csPort;
    std::vector<std::thread> m_tThreads;
    std::thread m_clThread;
};

/// A server that keeps to the protocol: greets, agrees on UTF-8 and gives the answers of a table.
class CScriptedManager
{
public:
    using Answers = std::map<std::string, std::string>;

    explicit CScriptedManager(Answers tAnswers)
        : m_tAnswers(std::move(tAnswers)), m_clServer([this](CClientSide& clClient) { _Serve(clClient); })
    {}
    const std::string& csPort() const { return m_clServer.csPort(); }
    /// What clients have sent beyond the agreement on UTF-8, one line each with a "|".
    std::string csAsked()
    {
        const std::lock_guard clGuard(m_clMutex);
        return std::exchange(m_csAsked, "");
    }

private:
    void _Serve(CClientSide& clClient)
    {
        clClient.bSend("HELLO FROM SERVEUR SETUP 24.0.6.0\r\n");
        for (std::string cs; !(cs = clClient.csLine()).empty();) {
            clClient.bSend((cs == "MODE_UTF8" ? "OK" : _csAnswer(cs)) + "\r\n");
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
    return std::filesystem::path(__FILE__).parent_path().parent_path().parent_path().string();
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
