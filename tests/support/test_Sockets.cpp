#include "support/Descripteur.h"
#include "support/XIpHelper.h"
#include "tools/Address.h"

#include <cerrno>
#include <cstdint>
#include <gtest/gtest.h>
#include <tuple>

namespace {
/// A port that was free a moment ago.
std::uint16_t wFreePort()
{
    const CDescripteur clFd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in6 st = stAddress("127.0.0.1", 0);
    socklen_t nLength = sizeof st;
    std::ignore = ::bind(clFd.nFd(), reinterpret_cast<sockaddr*>(&st), sizeof st);
    ::getsockname(clFd.nFd(), reinterpret_cast<sockaddr*>(&st), &nLength);
    return ntohs(st.sin6_port);
}

bool bHasIPv6()
{
    const CDescripteur clFd(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in6 st = stAddress("::", 0);
    return ::bind(clFd.nFd(), reinterpret_cast<const sockaddr*>(&st), sizeof st) == 0;
}
} // namespace

TEST(Sockets, APortTakenInOneFamilyIsFatalForTCPAndOnlySkippedForUDP)
{
    for (const unsigned int nFamily : {SOCKET_IPV4_ONLY, SOCKET_IPV6_ONLY}) {
        if (nFamily == SOCKET_IPV6_ONLY && !bHasIPv6()) {
            continue;
        }
        SCOPED_TRACE(nFamily);
        const std::uint16_t wPort = wFreePort();
        CEnsembleSockets clFirst;
        CEnsembleSockets clSecond;
        CXError clError;
        ASSERT_TRUE(bSocketListenTCP(wPort, nFamily, &clFirst, nullptr, nullptr, 5));
        EXPECT_FALSE(bSocketListenTCP(wPort, 0, &clSecond, &clError, nullptr, 5));
        EXPECT_TRUE(clSecond.tGetSockets().empty());
        EXPECT_EQ(clError.nGetSystemError(), EADDRINUSE);

        ASSERT_TRUE(bSocketBindUDP(wPort, nFamily, &clFirst, nullptr, nullptr));
        EXPECT_EQ(bSocketBindUDP(wPort, 0, &clSecond, &clError, nullptr), bHasIPv6());
        for (const STSocket& st : clSecond.tGetSockets()) {
            EXPECT_NE(st.nFamily, nFamily == SOCKET_IPV4_ONLY ? AF_INET : AF_INET6);
        }
    }
}
