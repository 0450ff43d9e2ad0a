// The search for managers: sends a question to every broadcast address and to this machine, and collects
// answers until the time is over.

#include "support/Conversion.h"
#include "velmoctl/Fleet.h"
#include "velmoctl/Interfaces.h"
#include "velmoctl/Inventory.h"
#include "velmoctl/Table.h"

#include <algorithm>
#include <array>
#include <iostream>
#include <set>

namespace {
constexpr std::string_view s_csQuestion = "ARE YOU A DEXARO MANAGER UTF-8?\r\n";
constexpr std::size_t s_nMaxDatagram = 65536; // more than UDP can carry
constexpr std::size_t s_nMaxManagers = 1000; // senders are not trusted: a forged one must not fill the memory

/// Asks by UDP and collects who answers.
class CDiscovery
{
public:
    /// Collects the addresses to ask, and opens the sockets. Throws CFailure: USAGE, UNREACHABLE,
    /// INTERRUPTED.
    explicit CDiscovery(const STCall& stCall) : m_stCall(stCall)
    {
        const CInterfaces clInterfaces;
        m_tOwn = clInterfaces.tOwn();
        m_tTargets = clInterfaces.tBroadcast(stCall.stOptions.wPort);

        // Without --host this machine: its manager may hear no broadcast, as where there is only a loopback.
        const CAddresses pstHost =
            pstResolve(stOnlyHost(stCall.stOptions), SOCK_DGRAM, CDeadline(stCall.clTimeout));
        for (const addrinfo* pst = pstHost.get(); pst != nullptr; pst = pst->ai_next) {
            m_tTargets.emplace_back(pst->ai_addr, pst->ai_addrlen);
        }

        for (std::size_t n = 0; n < m_tSockets.size(); ++n) {
            // A kernel without IPv6 gives -1 here, which poll ignores.
            m_tSockets[n] =
                CDescripteur(::socket(s_tFamilies[n], SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));

            // The kernel refuses broadcasts without this.
            const int nOne = 1;
            ::setsockopt(m_tSockets[n].nFd(), SOL_SOCKET, SO_BROADCAST, &nOne, sizeof nOne);
        }
    }

    /// Asks three times, because datagrams get lost. A manager with many servers needs a while to answer, so
    /// half of the time comes after the last question. An answer to any of the questions counts.
    std::vector<STFound> tCollect()
    {
        const CDeadline clEnd(m_stCall.clTimeout);
        for (const int nTenths : {2, 3, 5}) {
            const CDeadline clTurn(std::min(m_stCall.clTimeout * nTenths / 10, clEnd.clLeft()));
            _Ask();
            while (_bTakeAnswers(clTurn) && m_tFound.size() < s_nMaxManagers) {
            }
        }
        return std::move(m_tFound);
    }

private:
    static constexpr std::array<int, 2> s_tFamilies = {AF_INET, AF_INET6};

    /// Sends the question to every target. Throws CFailure (UNREACHABLE) only when it could be sent to none.
    void _Ask()
    {
        int nSent = 0;
        int nErrno = 0;
        for (const STAddress& st : m_tTargets) {
            const int nSocket = m_tSockets[st.st.ss_family == AF_INET6 ? 1 : 0].nFd();
            const bool bSent =
                ::sendto(nSocket, s_csQuestion.data(), s_csQuestion.size(), 0, st.pst(), st.nLength) >= 0;
            nErrno = bSent ? nErrno : errno;
            nSent += bSent ? 1 : 0;
        }

        if (nSent == 0) {
            errno = nErrno;
            throw clSystemFailure(EExit::UNREACHABLE, "no question could be sent");
        }
    }

    /// Waits for datagrams and takes one from each socket that has any. False at the deadline.
    bool _bTakeAnswers(const CDeadline& clEnd)
    {
        std::array<pollfd, 2> tWait = {pollfd{m_tSockets[0].nFd(), POLLIN, 0},
                                       pollfd{m_tSockets[1].nFd(), POLLIN, 0}};
        if (!bWaitForAny(tWait, clEnd)) {
            return false;
        }
        for (const pollfd& st : tWait) {
            if (st.revents != 0) {
                _Receive(st.fd);
            }
        }
        return !clEnd.bOver(); // datagrams without end must not prolong the search
    }

    void _Receive(int nSocket)
    {
        std::vector<char> tBytes(s_nMaxDatagram);
        STAddress stFrom;
        stFrom.nLength = sizeof stFrom.st;
        const ssize_t nReceived = ::recvfrom(nSocket, tBytes.data(), tBytes.size(), 0,
                                             reinterpret_cast<sockaddr*>(&stFrom.st), &stFrom.nLength);
        if (nReceived <= 0) { // the kernel reports the failure of an earlier datagram here
            return;
        }

        // Decoded and encoded again, so that ill-formed UTF-8 gets no further. A manager sends the CR LF of
        // an answer as a datagram of its own, which is none to stReadInfo.
        const std::string_view csBytes(tBytes.data(), static_cast<std::size_t>(nReceived));
        if (const auto stInfo = stReadInfo(csToUTF8(csFromUTF8(csBytes)))) {
            _Add(stFrom.csText(), *stInfo);
        }
    }

    /// This machine answers from several addresses: keeps the one that is most useful to others, in whatever
    /// order they answer.
    void _Add(const std::string& csAddress, const STInfo& stInfo)
    {
        const bool bHere = m_tOwn.contains(csAddress) || csAddress.starts_with("127.");
        const auto it = std::ranges::find_if(
            m_tFound, [&](const STFound& st) { return st.csAddress == csAddress || (bHere && st.bHere); });
        if (it == m_tFound.end()) {
            m_tFound.push_back({csAddress, bHere, stInfo});
        } else if (_nRank(csAddress) > _nRank(it->csAddress)) {
            it->csAddress = csAddress;
        }
    }
    /// How useful an address is: IPv4 before IPv6, and either before a loopback address.
    static int _nRank(const std::string& csAddress)
    {
        const bool bIPv4 = csAddress.find(':') == std::string::npos;
        const bool bLoopback = csAddress.starts_with("127.") || csAddress == "::1";
        return (bLoopback ? 0 : 2) + (bIPv4 ? 1 : 0);
    }

    const STCall& m_stCall;       ///< the caller's
    std::set<std::string> m_tOwn; ///< this machine's addresses
    std::vector<STAddress> m_tTargets;
    std::array<CDescripteur, 2> m_tSockets; ///< by s_tFamilies
    std::vector<STFound> m_tFound;
};

/// The managers found, for people.
std::string csFoundTable(const std::vector<STFound>& tFound)
{
    std::vector<CRow> tRows;
    for (const STFound& st : tFound) {
        std::string csServers;
        for (const STServer& stServer : st.stInfo.tServers) {
            csServers += (csServers.empty() ? "" : ", ") + stServer.csName + ":" + stServer.csPort;
        }
        tRows.push_back({{st.csAddress + (st.bHere ? " (this machine)" : ""), EColour::GREEN},
                         {st.stInfo.csVersion},
                         {st.stInfo.csSystem},
                         {csServers}});
    }

    return csTable({"ADDRESS", "VERSION", "SYSTEM", "SERVERS"}, tRows);
}
} // namespace

EExit eDiscover(const STCall& stCall)
{
    const STOptions& st = stCall.stOptions;
    std::vector<STFound> tFound;
    {
        CInterrupts::Catch(); // before the line of progress, which must be cleared on Ctrl-C
        const CProgress clProgress("asking the network...");
        tFound = CDiscovery(stCall).tCollect();
    }

    if (st.bPrometheus || st.bAnsible || st.bJson) {
        std::cout << csJsonLine(st.bPrometheus ? clPrometheusTargets(tFound, st.wExporterPort)
                                : st.bAnsible  ? clAnsibleInventory(tFound)
                                               : clJsonFound(tFound));
    } else if (!tFound.empty()) {
        std::cout << csFoundTable(tFound);
    }

    if (tFound.empty()) {
        TellTroubles({"no manager answered"});
        return EExit::UNREACHABLE;
    }

    return EExit::DONE;
}
