// The search for managers: a question to every broadcast address and to this machine, answers until the time
// is over.

#include "support/Conversion.h"
#include "velmoctl/Conversation.h"
#include "velmoctl/Output.h"
#include "velmoctl/Query.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <ifaddrs.h>
#include <iostream>
#include <net/if.h>
#include <set>
#include <sys/socket.h>

namespace {
constexpr std::string_view s_csQuestion = "ARE YOU A DEXARO MANAGER UTF-8?\r\n";
constexpr std::size_t s_nMaxDatagram = 65536;
constexpr std::size_t s_nMaxManagers = 1000;

/// An address to ask, or one that answered: room for both families.
struct STAddress
{
    sockaddr_storage st{};
    socklen_t nLength = 0;

    STAddress() = default;
    STAddress(const sockaddr* pst, socklen_t nSize) : nLength(nSize)
    {
        std::copy_n(reinterpret_cast<const char*>(pst), nSize, reinterpret_cast<char*>(&st));
    }
    const sockaddr* pst() const { return reinterpret_cast<const sockaddr*>(&st); }
    /// Numeric, without the port.
    std::string csText() const
    {
        std::array<char, NI_MAXHOST> szHost{};
        const int nError =
            ::getnameinfo(pst(), nLength, szHost.data(), szHost.size(), nullptr, 0, NI_NUMERICHOST);
        return nError == 0 ? szHost.data() : "";
    }
};

/// The broadcast address of an IPv4 interface in network order; 0 when it has none. One that nobody has set
/// (as after a plain "ip address add") is the last address of the network, which the kernel treats as
/// broadcast all the same; the C library tells the interface's own address then.
in_addr_t nBroadcast(const ifaddrs& st)
{
    const auto nAddress = [](const sockaddr* pst) {
        return pst == nullptr ? 0 : reinterpret_cast<const sockaddr_in*>(pst)->sin_addr.s_addr;
    };
    constexpr in_addr_t nSmallestHosts = 3; // two addresses or one leave none for broadcasts
    const in_addr_t nOwn = nAddress(st.ifa_addr);
    if (const in_addr_t nSet = nAddress(st.ifa_broadaddr); nSet != 0 && nSet != nOwn) {
        return nSet;
    }
    const in_addr_t nHosts = ~nAddress(st.ifa_netmask);
    return ntohl(nHosts) < nSmallestHosts ? 0 : nOwn | nHosts;
}

/// This machine's interfaces, read once.
class CInterfaces
{
public:
    CInterfaces()
    {
        if (::getifaddrs(&m_pst) != 0) {
            m_pst = nullptr;
        }
    }
    ~CInterfaces() { ::freeifaddrs(m_pst); }
    CInterfaces(const CInterfaces&) = delete;
    CInterfaces& operator=(const CInterfaces&) = delete;

    /// The IPv4 broadcast address of every interface that has one, with the port.
    std::vector<STAddress> tBroadcast(std::uint16_t wPort) const
    {
        std::vector<STAddress> tAddresses;
        for (const ifaddrs* pst = m_pst; pst != nullptr; pst = pst->ifa_next) {
            if (pst->ifa_addr != nullptr && pst->ifa_addr->sa_family == AF_INET &&
                (pst->ifa_flags & IFF_UP) != 0 && (pst->ifa_flags & IFF_BROADCAST) != 0 &&
                nBroadcast(*pst) != 0) {
                sockaddr_in st{};
                st.sin_family = AF_INET;
                st.sin_port = htons(wPort);
                st.sin_addr.s_addr = nBroadcast(*pst);
                tAddresses.emplace_back(reinterpret_cast<const sockaddr*>(&st), sizeof st);
            }
        }
        return tAddresses;
    }
    /// This machine's own addresses in numeric form, those of its loopback included.
    std::set<std::string> tOwn() const
    {
        std::set<std::string> tAddresses;
        for (const ifaddrs* pst = m_pst; pst != nullptr; pst = pst->ifa_next) {
            if (pst->ifa_addr != nullptr && pst->ifa_addr->sa_family == AF_INET) {
                tAddresses.insert(STAddress(pst->ifa_addr, sizeof(sockaddr_in)).csText());
            } else if (pst->ifa_addr != nullptr && pst->ifa_addr->sa_family == AF_INET6) {
                tAddresses.insert(STAddress(pst->ifa_addr, sizeof(sockaddr_in6)).csText());
            }
        }
        return tAddresses;
    }

private:
    ifaddrs* m_pst = nullptr;
};

struct STFound
{
    std::string csAddress;
    bool bHere; ///< on this machine, which answers from any of its addresses
    STInfo stInfo;
};

/// Asks by UDP and collects who answers.
class CDiscovery
{
public:
    explicit CDiscovery(const STCall& stCall) : m_stCall(stCall)
    {
        const CInterfaces clInterfaces;
        m_tOwn = clInterfaces.tOwn();
        m_tTargets = clInterfaces.tBroadcast(stCall.stOptions.wPort);
        const CAddresses pstHost = pstResolve(stCall.stOptions, SOCK_DGRAM, CDeadline(stCall.clTimeout));
        for (const addrinfo* pst = pstHost.get(); pst != nullptr; pst = pst->ai_next) {
            m_tTargets.emplace_back(pst->ai_addr, pst->ai_addrlen);
        }
        for (std::size_t n = 0; n < m_tSockets.size(); ++n) {
            m_tSockets[n] =
                CDescripteur(::socket(s_tFamilies[n], SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
            const int nOne = 1;
            ::setsockopt(m_tSockets[n].nFd(), SOL_SOCKET, SO_BROADCAST, &nOne, sizeof nOne);
        }
    }

    /// Asks at the start and once more in the middle of the time: datagrams get lost.
    std::vector<STFound> tCollect()
    {
        for (int nTurn = 0; nTurn < 2; ++nTurn) {
            const CDeadline clEnd(m_stCall.clTimeout / 2);
            _Ask();
            while (_bWait(clEnd) && m_tFound.size() < s_nMaxManagers) {
            }
        }
        return std::move(m_tFound);
    }

private:
    static constexpr std::array<int, 2> s_tFamilies = {AF_INET, AF_INET6};

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

    bool _bWait(const CDeadline& clEnd)
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
        return !clEnd.bOver(); // a flood of datagrams does not prolong it
    }

    void _Receive(int nSocket)
    {
        std::vector<char> tBytes(s_nMaxDatagram);
        STAddress stFrom;
        stFrom.nLength = sizeof stFrom.st;
        const ssize_t nReceived = ::recvfrom(nSocket, tBytes.data(), tBytes.size(), 0,
                                             reinterpret_cast<sockaddr*>(&stFrom.st), &stFrom.nLength);
        if (nReceived <= 0) { // an earlier datagram's failure, told late
            return;
        }
        const std::string_view csBytes(tBytes.data(), static_cast<std::size_t>(nReceived));
        if (const auto stInfo = stReadInfo(csToUTF8(csFromUTF8(csBytes)))) {
            _Add(stFrom.csText(), *stInfo);
        }
    }

    void _Add(const std::string& csAddress, const STInfo& stInfo)
    {
        const bool bHere = m_tOwn.contains(csAddress) || csAddress.starts_with("127.");
        const bool bKnown = std::any_of(m_tFound.begin(), m_tFound.end(), [&](const STFound& st) {
            return st.csAddress == csAddress || (bHere && st.bHere);
        });
        if (!bKnown) {
            m_tFound.push_back({csAddress, bHere, stInfo});
        }
    }

    const STCall& m_stCall;
    std::set<std::string> m_tOwn;
    std::vector<STAddress> m_tTargets;
    std::array<CDescripteur, 2> m_tSockets; ///< by s_tFamilies
    std::vector<STFound> m_tFound;
};

std::string csFoundTable(const std::vector<STFound>& tFound)
{
    std::vector<std::vector<STCell>> tRows;
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

std::string csFoundJson(const std::vector<STFound>& tFound)
{
    std::vector<std::string> tObjects;
    tObjects.reserve(tFound.size());
    for (const STFound& st : tFound) {
        tObjects.push_back(csJsonObject({{"address", csJsonText(st.csAddress)},
                                         {"this_machine", csJsonFlag(st.bHere)},
                                         {"version", csJsonText(st.stInfo.csVersion)},
                                         {"system", csJsonText(st.stInfo.csSystem)},
                                         {"servers", csServersJson(st.stInfo.tServers)}}));
    }
    return csJsonArray(tObjects) + "\n";
}
} // namespace

EExit eDiscover(const STCall& stCall)
{
    std::vector<STFound> tFound;
    {
        const CProgress clProgress("asking the network...");
        tFound = CDiscovery(stCall).tCollect();
    }
    if (stCall.stOptions.bJson) {
        std::cout << csFoundJson(tFound);
    } else if (!tFound.empty()) {
        std::cout << csFoundTable(tFound);
    }
    if (tFound.empty()) {
        throw CFailure(EExit::UNREACHABLE, "no manager answered");
    }
    return EExit::DONE;
}
