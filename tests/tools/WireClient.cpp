#include "tools/WireClient.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <utility>

namespace {
using Clock = std::chrono::steady_clock;

bool bReady(int nFd, short nEvents, Clock::time_point clEnd)
{
    pollfd stPoll{nFd, nEvents, 0};
    int nReady = 0;
    do {
        const auto clLeft = std::chrono::ceil<std::chrono::milliseconds>(clEnd - Clock::now());
        nReady = ::poll(&stPoll, 1, static_cast<int>(std::max<long long>(clLeft.count(), 0)));
    } while (nReady < 0 && errno == EINTR);
    return nReady > 0;
}

socklen_t nAddress(const char* pszAddress, unsigned short wPort, sockaddr_storage* pstAddress)
{
    sockaddr_in st4{};
    st4.sin_family = AF_INET;
    st4.sin_port = htons(wPort);
    if (::inet_pton(AF_INET, pszAddress, &st4.sin_addr) == 1) {
        std::memcpy(pstAddress, &st4, sizeof st4);
        return sizeof st4;
    }
    sockaddr_in6 st6{};
    st6.sin6_family = AF_INET6;
    st6.sin6_port = htons(wPort);
    if (::inet_pton(AF_INET6, pszAddress, &st6.sin6_addr) == 1) {
        std::memcpy(pstAddress, &st6, sizeof st6);
        return sizeof st6;
    }
    return 0;
}
} // namespace

bool CWireClient::bConnect(const char* pszAddress, unsigned short wPort, Duration clLimit)
{
    m_csReceived.clear();
    sockaddr_storage stAddress{};
    const socklen_t nSize = nAddress(pszAddress, wPort, &stAddress);
    m_clSocket = CDescripteur(::socket(stAddress.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    int nError = nSize == 0 ? EINVAL : 0;
    if (nError == 0 && ::connect(m_clSocket.nFd(), reinterpret_cast<sockaddr*>(&stAddress), nSize) != 0) {
        nError = errno;
    }
    if (nError == EINPROGRESS && bReady(m_clSocket.nFd(), POLLOUT, Clock::now() + clLimit)) {
        socklen_t nLength = sizeof nError;
        ::getsockopt(m_clSocket.nFd(), SOL_SOCKET, SO_ERROR, &nError, &nLength);
    }
    if (nError != 0) {
        m_clSocket.Close();
    }
    return nError == 0;
}

bool CWireClient::bSend(std::string_view csBytes, Duration clLimit)
{
    const auto clEnd = Clock::now() + clLimit;
    while (!csBytes.empty()) {
        const ssize_t nSent = ::send(m_clSocket.nFd(), csBytes.data(), csBytes.size(), MSG_NOSIGNAL);
        if (nSent > 0) {
            csBytes.remove_prefix(static_cast<std::size_t>(nSent));
        } else if (errno != EAGAIN || !bReady(m_clSocket.nFd(), POLLOUT, clEnd)) {
            return false;
        }
    }
    return true;
}

CWireClient::EArrival CWireClient::_eReceive(Clock::time_point clEnd)
{
    if (!bConnected()) {
        return EArrival::Closed;
    }
    if (!bReady(m_clSocket.nFd(), POLLIN, clEnd)) {
        return EArrival::Nothing;
    }
    std::array<char, 4096> tBuffer;
    const ssize_t nCount = ::recv(m_clSocket.nFd(), tBuffer.data(), tBuffer.size(), 0);
    if (nCount < 0) {
        return EArrival::Reset;
    }
    m_csReceived.append(tBuffer.data(), static_cast<std::size_t>(nCount));
    return nCount == 0 ? EArrival::Closed : EArrival::Bytes;
}

std::string CWireClient::csLine(Duration clLimit)
{
    const auto clEnd = Clock::now() + clLimit;
    EArrival eArrival = EArrival::Bytes;
    while (m_csReceived.find("\r\n") == std::string::npos && eArrival == EArrival::Bytes) {
        eArrival = _eReceive(clEnd);
    }
    const std::size_t nEnd = m_csReceived.find("\r\n");
    if (nEnd != std::string::npos) {
        std::string csResult = m_csReceived.substr(0, nEnd + 2);
        m_csReceived.erase(0, nEnd + 2);
        return csResult;
    }
    const char* pszWhy = eArrival == EArrival::Closed  ? "<closed>"
                         : eArrival == EArrival::Reset ? "<reset>"
                                                       : "<nothing in time>";
    return std::exchange(m_csReceived, {}) + pszWhy;
}

std::string CWireClient::csAsk(std::string_view csLineOut, Duration clLimit)
{
    return bSend(std::string(csLineOut) + "\r\n", clLimit) ? csLine(clLimit) : "<not sent>";
}

bool CWireClient::bSilent(Duration clLimit)
{
    return m_csReceived.empty() && _eReceive(Clock::now() + clLimit) == EArrival::Nothing;
}

bool CWireClient::bClosed(Duration clLimit)
{
    return m_csReceived.empty() && _eReceive(Clock::now() + clLimit) == EArrival::Closed;
}

void CWireClient::Reset()
{
    const linger stAtOnce{1, 0};
    ::setsockopt(m_clSocket.nFd(), SOL_SOCKET, SO_LINGER, &stAtOnce, sizeof stAtOnce);
    Close();
}
