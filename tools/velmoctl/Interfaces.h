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
    STAddress(const sockaddr* pst, socklen_t nSize);
    const sockaddr* pst() const { return reinterpret_cast<const sockaddr*>(&st); }
    /// Numeric, without the port.
    std::string csText() const;
};

/// This machine's interfaces, read once.
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
