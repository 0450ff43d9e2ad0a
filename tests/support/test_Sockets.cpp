#include "support/Descripteur.h"
#include "support/XIpHelper.h"
#include "tools/Address.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <set>
#include <sys/resource.h>

namespace {
CDescripteur clSocket(int nType)
{
    return CDescripteur(::socket(AF_INET, nType | SOCK_CLOEXEC, 0));
}

bool bConnect(const CDescripteur& clFd, std::uint16_t wPort)
{
    const sockaddr_in6 st = stAddress("127.0.0.1", wPort);
    return ::connect(clFd.nFd(), reinterpret_cast<const sockaddr*>(&st), sizeof st) == 0;
}

/// A port that was free a moment ago.
std::uint16_t wFreePort()
{
    const CDescripteur clFd = clSocket(SOCK_STREAM);
    sockaddr_in6 st = stAddress("127.0.0.1", 0);
    socklen_t nLength = sizeof st;
    ::bind(clFd.nFd(), reinterpret_cast<sockaddr*>(&st), sizeof st);
    ::getsockname(clFd.nFd(), reinterpret_cast<sockaddr*>(&st), &nLength);
    return ntohs(st.sin6_port);
}

int nOption(int nSocket, int nLevel, int nName)
{
    int nValue = -1;
    socklen_t nLength = sizeof nValue;
    ::getsockopt(nSocket, nLevel, nName, &nValue, &nLength);
    return nValue;
}

bool bHasIPv6()
{
    const CDescripteur clFd(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in6 st = stAddress("::", 0);
    return ::bind(clFd.nFd(), reinterpret_cast<const sockaddr*>(&st), sizeof st) == 0;
}
} // namespace

TEST(Sockets, OneListenerPerFamilyAndIPv6KeepsToItself)
{
    if (!bHasIPv6()) {
        GTEST_SKIP() << "no IPv6 here";
    }
    const std::tuple<unsigned int, std::multiset<int>, int> tCases[] = {
        {0, {AF_INET, AF_INET6}, 0},
        {SOCKET_IPV4_ONLY, {AF_INET}, 0},
        {SOCKET_IPV6_ONLY | SOCKET_REUSEADDR, {AF_INET6}, 1},
        {SOCKET_IPV4_ONLY | SOCKET_IPV6_ONLY, {AF_INET}, 0},
    };
    for (const auto& [nFlags, tWanted, nReuse] : tCases) {
        SCOPED_TRACE(nFlags);
        CEnsembleSockets clSet;
        CXError clError;
        const std::uint16_t wPort = wFreePort();
        ASSERT_TRUE(bSocketListenTCP(wPort, nFlags, &clSet, &clError, nullptr, 1000));
        std::multiset<int> tFamilies;
        for (const STSocket& stSocket : clSet.tGetSockets()) {
            tFamilies.insert(stSocket.nFamily);
            EXPECT_EQ(nOption(stSocket.nSocket, SOL_SOCKET, SO_ACCEPTCONN), 1);
            EXPECT_EQ(nOption(stSocket.nSocket, SOL_SOCKET, SO_REUSEADDR), nReuse);
            EXPECT_EQ(::fcntl(stSocket.nSocket, F_GETFD), FD_CLOEXEC);
        }
        EXPECT_EQ(tFamilies, tWanted);
        EXPECT_EQ(bConnect(clSocket(SOCK_STREAM), wPort), tWanted.contains(AF_INET));
        EXPECT_FALSE(clError.bIsSet());
    }
}

TEST(Sockets, ATakenTCPPortIsFatalForTheWholeSetAndSaysWhy)
{
    CXError clError;
    CEnsembleSockets clSecond;
    for (const unsigned int nFamily : {SOCKET_IPV4_ONLY, SOCKET_IPV6_ONLY}) {
        if (nFamily == SOCKET_IPV6_ONLY && !bHasIPv6()) {
            continue;
        }
        SCOPED_TRACE(nFamily);
        const std::uint16_t wPort = wFreePort();
        CEnsembleSockets clFirst;
        clError.Clear();
        ASSERT_TRUE(bSocketListenTCP(wPort, nFamily, &clFirst, nullptr, nullptr, 5));
        EXPECT_FALSE(bSocketListenTCP(wPort, 0, &clSecond, &clError, nullptr, 5));
        EXPECT_TRUE(clSecond.tGetSockets().empty());
        EXPECT_EQ(clError.nGetUserError(), 25627u);
        EXPECT_EQ(clError.nGetSystemError(), EADDRINUSE);
        EXPECT_EQ(clError.nGetLevel(), 2);
        EXPECT_NE(clError.csGetMessage().find(std::to_wstring(wPort)), std::wstring::npos);
        EXPECT_EQ(clError.StringDump(CXError::INFO_DEBUG), L"Detail: bind");
        EXPECT_FALSE(bSocketListenTCP(wPort, 0, &clSecond, nullptr, nullptr, 5));
    }
    clError.Clear();
    EXPECT_FALSE(bSocketListenTCP(4999, 0, &clSecond, &clError, L"no such host name", 5));
    EXPECT_EQ(clError.StringDump(CXError::INFO_DEBUG), L"Detail: getaddrinfo");
}

TEST(Sockets, ATakenUDPAddressIsOnlySkipped)
{
    const std::uint16_t wPort = wFreePort();
    CEnsembleSockets clFirst;
    CEnsembleSockets clSecond;
    CXError clError;
    ASSERT_TRUE(bSocketBindUDP(wPort, SOCKET_IPV4_ONLY | SOCKET_BROADCAST, &clFirst, nullptr, L"127.0.0.1"));
    EXPECT_EQ(nOption(clFirst.tGetSockets()[0].nSocket, SOL_SOCKET, SO_BROADCAST), 1);
    EXPECT_EQ(bSocketBindUDP(wPort, 0, &clSecond, &clError, nullptr), bHasIPv6());
    for (const STSocket& st : clSecond.tGetSockets()) {
        EXPECT_EQ(st.nFamily, AF_INET6);
    }
    EXPECT_EQ(clError.nGetSystemError(), EADDRINUSE);
}

TEST(Sockets, WaitingGivesTheReadableSocketWhateverItsNumber)
{
    CEnsembleSockets clSet;
    EXPECT_EQ(clSet.WaitReadable(nullptr), -1); // empty: at once
    EXPECT_TRUE(clSet.bSetsockopt(SOL_SOCKET, -1, nullptr, 0));
    const std::uint16_t wPort = wFreePort();
    ASSERT_TRUE(bSocketBindUDP(wPort, SOCKET_IPV4_ONLY, &clSet, nullptr, L"127.0.0.1"));
    rlimit stLimit{};
    ::getrlimit(RLIMIT_NOFILE, &stLimit);
    stLimit.rlim_cur = std::max<rlim_t>(stLimit.rlim_cur, 2048);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &stLimit), 0);
    for (const int nHigh : {1023, 1024, 1500}) {
        CEnsembleSockets clHigh;
        clHigh.Add(AF_INET, clSocket(SOCK_DGRAM)); // bound to nothing: never readable
        clHigh.Add(AF_INET, CDescripteur(::fcntl(clSet.tGetSockets()[0].nSocket, F_DUPFD_CLOEXEC, nHigh)));
        const int nSocket = clHigh.tGetSockets()[1].nSocket;
        ASSERT_GE(nSocket, nHigh);
        timeval stShort{0, 10000};
        EXPECT_EQ(clHigh.WaitReadable(&stShort), -1);
        const CDescripteur clSender = clSocket(SOCK_DGRAM);
        ASSERT_TRUE(bConnect(clSender, wPort) && ::send(clSender.nFd(), "x", 1, 0) == 1);
        timeval stLong{5, 0};
        EXPECT_EQ(clHigh.WaitReadable(&stLong), nSocket);
        char c = 0;
        EXPECT_EQ(::recv(nSocket, &c, 1, 0), 1);
    }
    const int nOn = 1;
    EXPECT_TRUE(clSet.bSetsockopt(SOL_SOCKET, SO_REUSEADDR, &nOn, sizeof nOn));
    EXPECT_FALSE(clSet.bSetsockopt(SOL_SOCKET, -1, &nOn, sizeof nOn));
    const int nSocket = clSet.tGetSockets()[0].nSocket;
    clSet.Close();
    EXPECT_EQ(::fcntl(nSocket, F_GETFD), -1);
}
