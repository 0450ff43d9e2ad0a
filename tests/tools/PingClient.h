#pragma once

#include "support/Descripteur.h"
#include "tools/Address.h"
#include "tools/Wait.h"

#include <array>
#include <netdb.h>
#include <string>
#include <string_view>

/// A tool that asks over UDP from a socket that is not connected, so answers from any address arrive.
class CPingClient
{
public:
    /// Sends one datagram to a numeric address (IPv4, also a broadcast one, or IPv6); false when it cannot be
    /// sent.
    bool Ask(const std::string& csAddress, unsigned short wPort, std::string_view csQuestion)
    {
        const int nFamily = stAddress(csAddress.c_str(), wPort).sin6_family;
        m_clSocket = CDescripteur(::socket(nFamily, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        const int nOne = 1;
        ::setsockopt(m_clSocket.nFd(), SOL_SOCKET, SO_BROADCAST, &nOne, sizeof nOne);
        return AskAgain(csAddress, wPort, csQuestion);
    }
    /// The same from the same socket as before.
    bool AskAgain(const std::string& csAddress, unsigned short wPort, std::string_view csQuestion) const
    {
        const sockaddr_in6 st = stAddress(csAddress.c_str(), wPort);
        return ::sendto(m_clSocket.nFd(), csQuestion.data(), csQuestion.size(), 0,
                        reinterpret_cast<const sockaddr*>(&st),
                        sizeof st) == static_cast<ssize_t>(csQuestion.size());
    }
    /// The next datagram: the address it came from, a space, its bytes; "<nothing in time>" when none comes.
    std::string csAnswer(int nMs = 20000) const
    {
        if (!bReadable(m_clSocket.nFd(), nMs)) {
            return "<nothing in time>";
        }

        std::array<char, 65536> tBytes;
        sockaddr_in6 stFrom{}; // the larger of the two
        socklen_t nLength = sizeof stFrom;
        const ssize_t nRead = ::recvfrom(m_clSocket.nFd(), tBytes.data(), tBytes.size(), 0,
                                         reinterpret_cast<sockaddr*>(&stFrom), &nLength);
        std::array<char, INET6_ADDRSTRLEN> szFrom{};
        ::getnameinfo(reinterpret_cast<sockaddr*>(&stFrom), nLength, szFrom.data(), szFrom.size(), nullptr, 0,
                      NI_NUMERICHOST);
        return std::string(szFrom.data()) + " " + std::string(tBytes.data(), static_cast<std::size_t>(nRead));
    }

private:
    CDescripteur m_clSocket;
};
