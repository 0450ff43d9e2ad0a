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

/// Addresses of a host (empty: this machine) for a socket type (SOCK_STREAM, SOCK_DGRAM). The C library's
/// resolver is not waited for beyond the deadline. Throws CFailure (UNREACHABLE).
CAddresses pstResolve(const STHost& stHost, int nType, const CDeadline& clDeadline);

/// The machine in words: "this machine" or its name.
std::string csWhere(const STHost& stHost);
/// The machine as one word, also where it is this one: its name.
std::string csHostWord(const STHost& stHost);

/// One conversation with a manager over TCP, in UTF-8: one reply line for each command line. Whatever the
/// other side sends or does not send, every wait ends at its deadline and no more than s_nMaxLine bytes are
/// kept.
class CConversation
{
public:
    /// Longest reply line; the longest honest one lists some thousands of servers.
    static constexpr std::size_t s_nMaxLine = 1u << 20;

    /// Connects to the manager of a machine, reads its greeting and agrees on UTF-8, all before the time for
    /// one answer is over. No answer is waited for beyond the deadline of the whole. Throws CFailure.
    CConversation(const STHost& stHost, Milliseconds clAnswer, const CDeadline& clWhole);
    CConversation(const STHost& stHost, Milliseconds clAnswer);
    CConversation(const CConversation&) = delete;
    CConversation& operator=(const CConversation&) = delete;

    /// Sends one command line made of fields (UTF-8) and returns the reply line without its end, always
    /// well-formed UTF-8. Throws CFailure, after which the conversation is of no use; USAGE for a field that
    /// cannot be sent: the protocol has no way to write a tab or a newline.
    std::string csAsk(const std::vector<std::string>& tFields);
    /// Error for a reply that is not one to what was asked.
    CFailure clNonsense(const std::string& csReply) const;
    const STHost& stHost() const { return m_stHost; }

private:
    CDeadline _clForAnswer() const;
    void _Connect(const CDeadline& clDeadline);
    void _Send(std::string_view csBytes, const CDeadline& clDeadline);
    std::string _csLine(std::size_t nMax, const CDeadline& clDeadline);
    void _Receive(const CDeadline& clDeadline);
    CFailure _clSilence() const;

    STHost m_stHost;
    Milliseconds m_clAnswer;
    CDeadline m_clWhole;
    std::string m_csWho; ///< for messages
    CDescripteur m_clSocket;
    std::string m_csReceived; ///< not yet returned
};
