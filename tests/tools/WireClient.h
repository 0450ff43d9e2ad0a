#pragma once

#include "support/Descripteur.h"
#include "tools/Address.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <utility>

/// A tool's side of one conversation over TCP: raw bytes out, raw bytes in, every wait with a limit. Failures
/// show in what is returned; nothing throws. One thread at a time.
class CWireClient
{
public:
    using Duration = std::chrono::milliseconds;
    static constexpr Duration Limit{5000};

    CWireClient() = default;
    /// Connects at once; see bConnect.
    CWireClient(const char* pszAddress, unsigned short wPort) { (void)bConnect(pszAddress, wPort); }

    /// Connects to a numeric address, IPv4 ("127.0.0.1") or IPv6 ("::1"), in place of an earlier connection.
    bool bConnect(const char* pszAddress, unsigned short wPort, Duration clLimit = Limit)
    {
        m_csReceived.clear();
        const sockaddr_in6 st = stAddress(pszAddress, wPort);
        m_clSocket = CDescripteur(::socket(st.sin6_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        int nError = 0;
        if (::connect(m_clSocket.nFd(), reinterpret_cast<const sockaddr*>(&st), sizeof st) != 0) {
            nError = errno;
        }
        if (nError == EINPROGRESS && _bReady(POLLOUT, Clock::now() + clLimit)) {
            socklen_t nLength = sizeof nError;
            ::getsockopt(m_clSocket.nFd(), SOL_SOCKET, SO_ERROR, &nError, &nLength);
        }
        if (nError != 0) {
            m_clSocket.Close();
        }
        return nError == 0;
    }
    bool bConnected() const { return m_clSocket.bOpen(); }

    /// Sends all the bytes, waiting when the other side is slow. False when it is gone or the time is over.
    bool bSend(std::string_view csBytes, Duration clLimit = Limit)
    {
        const auto clEnd = Clock::now() + clLimit;
        while (!csBytes.empty()) {
            const ssize_t nSent = ::send(m_clSocket.nFd(), csBytes.data(), csBytes.size(), MSG_NOSIGNAL);
            if (nSent > 0) {
                csBytes.remove_prefix(static_cast<std::size_t>(nSent));
            } else if (errno != EAGAIN || !_bReady(POLLOUT, clEnd)) {
                return false;
            }
        }
        return true;
    }

    /// The next line with its "\r\n". What comes instead (the end of the connection, or nothing in time) is
    /// returned as far as it came, then told in angle brackets: "<closed>", "<reset>", "<nothing in time>".
    /// Bytes behind the line are kept for the next call.
    std::string csLine(Duration clLimit = Limit)
    {
        const auto clEnd = Clock::now() + clLimit;
        EArrival eArrival = EArrival::Bytes;
        while (m_csReceived.find("\r\n") == std::string::npos && eArrival == EArrival::Bytes) {
            eArrival = _eReceive(clEnd);
        }
        const std::size_t nEnd = m_csReceived.find("\r\n");
        if (nEnd != std::string::npos) {
            std::string csResult = m_csReceived.substr(0, nEnd + 2);
            m_csReceived.erase(0, nEnd + 2);
            return csResult;
        }
        const char* pszWhy = eArrival == EArrival::Closed  ? "<closed>"
                             : eArrival == EArrival::Reset ? "<reset>"
                                                           : "<nothing in time>";
        return std::exchange(m_csReceived, {}) + pszWhy;
    }
    /// Sends a line (its "\r\n" is added) and returns the reply line with its "\r\n".
    std::string csAsk(std::string_view csLineOut, Duration clLimit = Limit)
    {
        return bSend(std::string(csLineOut) + "\r\n", clLimit) ? csLine(clLimit) : "<not sent>";
    }

    /// Nothing arrives, and the connection stays open, for this long: silence has to be waited out.
    bool bSilent(Duration clLimit = Duration{50})
    {
        return m_csReceived.empty() && _eReceive(Clock::now() + clLimit) == EArrival::Nothing;
    }
    /// The other side ends the connection in time, without sending anything more.
    bool bClosed(Duration clLimit = Limit)
    {
        return m_csReceived.empty() && _eReceive(Clock::now() + clLimit) == EArrival::Closed;
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
    using Clock = std::chrono::steady_clock;
    enum class EArrival
    {
        Bytes,
        Nothing,
        Closed,
        Reset,
    };
    EArrival _eReceive(Clock::time_point clEnd)
    {
        if (!bConnected()) {
            return EArrival::Closed;
        }
        if (!_bReady(POLLIN, clEnd)) {
            return EArrival::Nothing;
        }
        std::array<char, 4096> tBuffer;
        const ssize_t nCount = ::recv(m_clSocket.nFd(), tBuffer.data(), tBuffer.size(), 0);
        if (nCount < 0) {
            return EArrival::Reset;
        }
        m_csReceived.append(tBuffer.data(), static_cast<std::size_t>(nCount));
        return nCount == 0 ? EArrival::Closed : EArrival::Bytes;
    }

    bool _bReady(short nEvents, Clock::time_point clEnd) const
    {
        pollfd stPoll{m_clSocket.nFd(), nEvents, 0};
        const auto nLeft = [clEnd] {
            return static_cast<int>(
                std::max(std::chrono::ceil<Duration>(clEnd - Clock::now()), Duration{0}).count());
        };
        return TEMP_FAILURE_RETRY(::poll(&stPoll, 1, nLeft())) > 0;
    }

    CDescripteur m_clSocket;
    std::string m_csReceived; // not yet returned
};
