#pragma once

#include "support/Descripteur.h"
#include "tools/Address.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/time.h>
#include <tuple>
#include <utility>

/// A tool's side of one conversation over TCP: raw bytes out, raw bytes in. A limit is how long one wait for
/// the other side may take, and never 0. Failures show in what is returned; nothing throws. One thread at a
/// time.
class CWireClient
{
public:
    using Duration = std::chrono::milliseconds;
    static constexpr Duration Limit{5000};

    CWireClient() = default;
    /// Connects at once; see bConnect.
    CWireClient(const char* pszAddress, unsigned short wPort) { std::ignore = bConnect(pszAddress, wPort); }

    /// Connects to a numeric address, IPv4 ("127.0.0.1") or IPv6 ("::1"), in place of an earlier connection.
    bool bConnect(const char* pszAddress, unsigned short wPort)
    {
        m_csReceived.clear();
        const sockaddr_in6 st = stAddress(pszAddress, wPort);
        m_clSocket = CDescripteur(::socket(st.sin6_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
        _SetLimit(SO_SNDTIMEO, Limit);
        if (TEMP_FAILURE_RETRY(::connect(m_clSocket.nFd(), reinterpret_cast<const sockaddr*>(&st),
                                         sizeof st)) != 0) { // the exit of a child interrupts it
            m_clSocket.Close();
        }
        return bConnected();
    }
    bool bConnected() const { return m_clSocket.bOpen(); }

    /// Sends all the bytes, waiting when the other side is slow. False when it is gone or too slow.
    bool bSend(std::string_view csBytes, Duration clLimit = Limit)
    {
        _SetLimit(SO_SNDTIMEO, clLimit);
        while (!csBytes.empty()) {
            const ssize_t nSent =
                TEMP_FAILURE_RETRY(::send(m_clSocket.nFd(), csBytes.data(), csBytes.size(), MSG_NOSIGNAL));
            if (nSent < 0) {
                return false;
            }
            csBytes.remove_prefix(static_cast<std::size_t>(nSent));
        }
        return true;
    }

    /// The next line with its "\r\n". When the connection ends or nothing comes in time, returns what came,
    /// followed by the reason: "<closed>", "<reset>" or "<nothing in time>". Bytes after the line are kept
    /// for the next call.
    std::string csLine(Duration clLimit = Limit)
    {
        std::string csWhy;
        while (m_csReceived.find("\r\n") == std::string::npos) {
            if (csWhy = _csReceive(clLimit); !csWhy.empty()) {
                return std::exchange(m_csReceived, {}) + csWhy;
            }
        }
        const std::string csRest = m_csReceived.substr(m_csReceived.find("\r\n") + 2);
        m_csReceived.resize(m_csReceived.size() - csRest.size());
        return std::exchange(m_csReceived, csRest);
    }
    /// Sends a line (its "\r\n" is added) and returns the reply line with its "\r\n".
    std::string csAsk(std::string_view csLineOut, Duration clLimit = Limit)
    {
        return bSend(std::string(csLineOut) + "\r\n", clLimit) ? csLine(clLimit) : "<not sent>";
    }

    /// Nothing arrives, and the connection stays open, for this long: silence has to be waited out.
    bool bSilent(Duration clLimit = Duration{50})
    {
        return m_csReceived.empty() && _csReceive(clLimit) == "<nothing in time>";
    }
    /// The other side ends the connection in time, without sending anything more.
    bool bClosed(Duration clLimit = Limit)
    {
        return m_csReceived.empty() && _csReceive(clLimit) == "<closed>";
    }

    /// Closes as usual, or so that the other side gets a reset.
    void Close() { m_clSocket.Close(); }
    void Reset()
    {
        const linger stAtOnce{1, 0};
        ::setsockopt(m_clSocket.nFd(), SOL_SOCKET, SO_LINGER, &stAtOnce, sizeof stAtOnce);
        Close();
    }

private:
    void _SetLimit(int nOption, Duration clLimit) const
    {
        const timeval st{clLimit.count() / 1000, clLimit.count() % 1000 * 1000};
        ::setsockopt(m_clSocket.nFd(), SOL_SOCKET, nOption, &st, sizeof st);
    }
    /// Receives what there is; empty, or in angle brackets why nothing was.
    std::string _csReceive(Duration clLimit)
    {
        _SetLimit(SO_RCVTIMEO, clLimit);
        std::array<char, 4096> tBuffer;
        const ssize_t nCount =
            TEMP_FAILURE_RETRY(::recv(m_clSocket.nFd(), tBuffer.data(), tBuffer.size(), 0));
        if (nCount > 0) {
            m_csReceived.append(tBuffer.data(), static_cast<std::size_t>(nCount));
            return "";
        }
        return nCount == 0 || !bConnected() ? "<closed>" : errno == EAGAIN ? "<nothing in time>" : "<reset>";
    }

    CDescripteur m_clSocket;
    std::string m_csReceived; // not yet returned
};

/// The reply of the manager of this machine to one line, in a conversation of its own. It is reset, so that
/// no connection in TIME_WAIT holds the port of the next manager.
inline std::string csAskManager(std::string_view csLine, CWireClient::Duration clLimit)
{
    CWireClient clTool("127.0.0.1", 4999);
    std::ignore = clTool.csLine();
    std::string csReply = clTool.csAsk(csLine, clLimit);
    clTool.Reset();
    return csReply;
}
