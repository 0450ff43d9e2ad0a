#pragma once

#include "support/Descripteur.h"

#include <chrono>
#include <string>
#include <string_view>

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
    bool bConnect(const char* pszAddress, unsigned short wPort, Duration clLimit = Limit);
    bool bConnected() const { return m_clSocket.bOpen(); }

    /// Sends all the bytes, waiting when the other side is slow. False when it is gone or the time is over.
    bool bSend(std::string_view csBytes, Duration clLimit = Limit);

    /// The next line with its "\r\n". What comes instead (the end of the connection, or nothing in time) is
    /// returned as far as it came, then told in angle brackets: "<closed>", "<reset>", "<nothing in time>".
    /// Bytes behind the line are kept for the next call.
    std::string csLine(Duration clLimit = Limit);
    /// Sends a line (its "\r\n" is added) and returns the reply line with its "\r\n".
    std::string csAsk(std::string_view csLineOut, Duration clLimit = Limit);

    /// Nothing arrives, and the connection stays open, for this long: silence has to be waited out.
    bool bSilent(Duration clLimit = Duration{50});
    /// The other side ends the connection in time, without sending anything more.
    bool bClosed(Duration clLimit = Limit);

    /// Closes as usual, or so that the other side gets a reset.
    void Close() { m_clSocket.Close(); }
    void Reset();

private:
    enum class EArrival
    {
        Bytes,
        Nothing,
        Closed,
        Reset,
    };
    EArrival _eReceive(std::chrono::steady_clock::time_point clEnd);

    CDescripteur m_clSocket;
    std::string m_csReceived; // not yet returned
};
