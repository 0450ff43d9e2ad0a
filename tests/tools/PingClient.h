#pragma once

#include "support/Descripteur.h"
#include "tools/Address.h"

#include <array>
#include <cerrno>
#include <poll.h>
#include <string>
#include <string_view>

/// A tool that asks over UDP, without being bound to one address.
class CPingClient
{
public:
    /// Sends one datagram to a numeric address (IPv4, also a broadcast one, or IPv6); false when it cannot be
    /// sent.
    bool Ask(const std::string& csAddress, unsigned short wPort, std::string_view csQuestion)
    {
        const sockaddr_in6 st = stAddress(csAddress.c_str(), wPort);
        m_clSocket = CDescripteur(::socket(st.sin6_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        const int nOne = 1;
        ::setsockopt(m_clSocket.nFd(), SOL_SOCKET, SO_BROADCAST, &nOne, sizeof nOne);
        return ::sendto(m_clSocket.nFd(), csQuestion.data(), csQuestion.size(), 0,
                        reinterpret_cast<const sockaddr*>(&st),
                        sizeof st) == static_cast<ssize_t>(csQuestion.size());
    }
    /// The next datagram: the address it came from, a blank, its bytes; or in angle brackets that none came.
    std::string csAnswer(int nMs = 20000) const
    {
        pollfd stWait{m_clSocket.nFd(), POLLIN, 0};
        if (TEMP_FAILURE_RETRY(::poll(&stWait, 1, nMs)) != 1) { // an ending child interrupts
            return "<nothing in time>";
        }
        std::array<char, 65536> tBytes;
        sockaddr_in6 stFrom{}; // the larger of the two
        socklen_t nLength = sizeof stFrom;
        const ssize_t nRead = ::recvfrom(m_clSocket.nFd(), tBytes.data(), tBytes.size(), 0,
                                         reinterpret_cast<sockaddr*>(&stFrom), &nLength);
        std::array<char, INET6_ADDRSTRLEN> szFrom{};
        const void* pAddress = &stFrom.sin6_addr;
        if (stFrom.sin6_family == AF_INET) {
            pAddress = &reinterpret_cast<sockaddr_in*>(&stFrom)->sin_addr;
        }
        ::inet_ntop(stFrom.sin6_family, pAddress, szFrom.data(), szFrom.size());
        return std::string(szFrom.data()) + " " + std::string(tBytes.data(), static_cast<std::size_t>(nRead));
    }

private:
    CDescripteur m_clSocket;
};
