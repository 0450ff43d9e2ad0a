#pragma once

#include "support/Descripteur.h"
#include "velmoctl/Failure.h"
#include "velmoctl/Options.h"
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

/// Addresses of the host that the options name, or of this machine, for a socket type (SOCK_STREAM,
/// SOCK_DGRAM). The system's resolver is not waited for beyond the deadline. Throws CFailure (UNREACHABLE).
CAddresses pstResolve(const STOptions& stOptions, int nType, const CDeadline& clDeadline);

/// One conversation with a manager over TCP, in UTF-8: one reply line for each command line. Whatever the
/// other side sends or does not send, every wait ends at its deadline and no more than s_nMaxLine bytes are
/// kept.
class CConversation
{
public:
    /// Longest reply line; the longest honest one lists some thousands of servers.
    static constexpr std::size_t s_nMaxLine = 1u << 20;

    /// Connects to the manager that the options name, reads its greeting and agrees on UTF-8, all before the
    /// time is over. Throws CFailure.
    CConversation(const STOptions& stOptions, Milliseconds clTimeout);
    CConversation(const CConversation&) = delete;
    CConversation& operator=(const CConversation&) = delete;

    /// Sends one command line made of fields (UTF-8) and returns the reply line without its end, always
    /// well-formed UTF-8. Throws CFailure, after which the conversation is of no use; Usage for a field that
    /// cannot be sent: the protocol has no way to write a tab or a line end.
    std::string csAsk(const std::vector<std::string>& tFields);
    /// Error for a reply that is not one to what was asked.
    CFailure clNonsense(const std::string& csReply) const;

private:
    void _Connect(const STOptions& stOptions, const CDeadline& clDeadline);
    void _Send(std::string_view csBytes, const CDeadline& clDeadline);
    std::string _csLine(std::size_t nMax, const CDeadline& clDeadline);
    void _Receive(const CDeadline& clDeadline);
    CFailure _clSilence() const;

    Milliseconds m_clTimeout;
    std::string m_csWho; ///< for messages
    CDescripteur m_clSocket;
    std::string m_csReceived; ///< not yet returned
};
