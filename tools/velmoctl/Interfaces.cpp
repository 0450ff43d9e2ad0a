#include "velmoctl/Interfaces.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <net/if.h>
#include <netdb.h>

namespace {
/// The broadcast address of an IPv4 interface in network order; 0 when it has none. After a plain "ip address
/// add" none is set and the C library reports the interface's own address instead; the last address of the
/// network serves then, which the kernel treats as broadcast all the same.
in_addr_t nBroadcast(const ifaddrs& st)
{
    const auto nAddress = [](const sockaddr* pst) {
        return pst == nullptr ? 0 : reinterpret_cast<const sockaddr_in*>(pst)->sin_addr.s_addr;
    };
    constexpr in_addr_t nSmallestHosts = 3; // with fewer host bits (/31, /32) no address is left to broadcast
    const in_addr_t nOwn = nAddress(st.ifa_addr);
    if (const in_addr_t nSet = nAddress(st.ifa_broadaddr); nSet != 0 && nSet != nOwn) {
        return nSet;
    }
    const in_addr_t nHosts = ~nAddress(st.ifa_netmask); // the bits that number the network's machines
    return ntohl(nHosts) < nSmallestHosts ? 0 : nOwn | nHosts;
}
} // namespace

STAddress::STAddress(const sockaddr* pst, socklen_t nSize) : nLength(nSize)
{
    std::copy_n(reinterpret_cast<const char*>(pst), nSize, reinterpret_cast<char*>(&st));
}

std::string STAddress::csText() const
{
    std::array<char, NI_MAXHOST> szHost{};
    const int nError =
        ::getnameinfo(pst(), nLength, szHost.data(), szHost.size(), nullptr, 0, NI_NUMERICHOST);
    return nError == 0 ? szHost.data() : "";
}

CInterfaces::CInterfaces()
{
    if (::getifaddrs(&m_pst) != 0) {
        m_pst = nullptr;
    }
}

std::vector<STAddress> CInterfaces::tBroadcast(std::uint16_t wPort) const
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

std::set<std::string> CInterfaces::tOwn() const
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
