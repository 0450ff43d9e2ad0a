#pragma once

#include "support/Descripteur.h"
#include "velmoctl/Failure.h"
#include "velmoctl/Hosts.h"
#include "velmoctl/Waiting.h"

#include <memory>
#include <netdb.h>
#include <string>
#include <vector>

struct STFreeAddresses
{
    void operator()(addrinfo* pst) const noexcept { ::freeaddrinfo(pst); }
};
using CAddresses = std::unique_ptr<addrinfo, STFreeAddresses>;

/// Addresses of a host (csAddress empty: this machine's loopback), at least one, with its port, for a socket
/// type (SOCK_STREAM, SOCK_DGRAM). Waits for the C library's resolver until the deadline. Throws CFailure:
/// UNREACHABLE, INTERRUPTED. Any thread.
CAddresses pstResolve(const STHost& stHost, int nType, const CDeadline& clDeadline);

/// The machine for a sentence: its name, or "this machine".
std::string csWhere(const STHost& stHost);
/// The machine for a column: its name; for this machine its host name.
std::string csHostWord(const STHost& stHost);

/// One conversation with a manager over TCP, in UTF-8: one reply line for each command line. The other side
/// is not trusted: every wait ends at its deadline, and about s_nMaxLine bytes are kept at most. One thread
/// uses an object.
class CConversation
{
public:
    /// Longest reply line; the longest honest one lists some thousands of servers.
    static constexpr std::size_t s_nMaxLine = 1u << 20;

    /// Connects to the manager of a machine, reads its greeting and agrees on UTF-8, all within the time for
    /// one answer. No wait goes beyond the deadline of the whole. Throws CFailure: UNREACHABLE, NONSENSE when
    /// something else than a manager listens there, INTERRUPTED.
    CConversation(const STHost& stHost, Milliseconds clPerAnswer, const CDeadline& clWhole);
    CConversation(const STHost& stHost, Milliseconds clPerAnswer);
    CConversation(const CConversation&) = delete;
    CConversation& operator=(const CConversation&) = delete;

    /// Sends one command line made of fields (UTF-8). Returns the reply line without its CR LF, always
    /// well-formed UTF-8. Throws CFailure: USAGE for a field with a tab or newline, which the protocol cannot
    /// carry (nothing is sent then); after any other the conversation cannot be used any more.
    std::string csAsk(const std::vector<std::string>& tFields);
    /// The failure for a reply that does not fit what was asked.
    CFailure clNonsense(const std::string& csReply) const;
    const STHost& stHost() const { return m_stHost; }

private:
    CDeadline _clAnswerEnd() const;
    void _Connect(const CDeadline& clDeadline);
    void _Send(std::string_view csBytes, const CDeadline& clDeadline);
    std::string _csLine(std::size_t nMax, const CDeadline& clDeadline);
    void _Receive(const CDeadline& clDeadline);
    CFailure _clSilence() const;

    STHost m_stHost;
    Milliseconds m_clPerAnswer;
    CDeadline m_clWhole;
    std::string m_csWho; ///< for messages
    CDescripteur m_clSocket;
    std::string m_csReceived; ///< bytes not yet returned
};
