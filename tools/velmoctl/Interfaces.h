#pragma once

#include <arpa/inet.h>
#include <cstdint>
#include <ifaddrs.h>
#include <set>
#include <string>
#include <sys/socket.h>
#include <vector>

/// A network address with room for both families.
struct STAddress
{
    sockaddr_storage st{};
    socklen_t nLength = 0;

    STAddress() = default;
    /// Copies an address of nSize bytes, no more than the largest family has.
    STAddress(const sockaddr* pst, socklen_t nSize);
    const sockaddr* pst() const { return reinterpret_cast<const sockaddr*>(&st); }
    /// Numeric, without the port; a link-local IPv6 address with its interface ("fe80::1%eth0"). Empty when
    /// the address is neither IPv4 nor IPv6.
    std::string csText() const;
};

/// This machine's interfaces, read once; none when the kernel does not say.
class CInterfaces
{
public:
    CInterfaces();
    ~CInterfaces() { ::freeifaddrs(m_pst); }
    CInterfaces(const CInterfaces&) = delete;
    CInterfaces& operator=(const CInterfaces&) = delete;

    /// The IPv4 broadcast address of every interface that has one, with the port.
    std::vector<STAddress> tBroadcast(std::uint16_t wPort) const;
    /// This machine's own addresses in numeric form, those of its loopback included.
    std::set<std::string> tOwn() const;

private:
    ifaddrs* m_pst = nullptr;
};
