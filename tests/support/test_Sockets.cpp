#include "support/Conversion.h"
#include "support/XIpHelper.h"
#include "tools/PrivateWorld.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <netdb.h>

TEST(Sockets, APortTakenInOneFamilyIsFatalForTCPAndOnlySkippedForUDPAndAHostUnknownIsNeither)
{
    REQUIRE_PRIVATE_WORLD();
    for (const unsigned int nFamily : {SOCKET_IPV4_ONLY, SOCKET_IPV6_ONLY}) {
        SCOPED_TRACE(nFamily);
        ASSERT_TRUE(bFreshNetwork());
        CEnsembleSockets clFirst;
        CEnsembleSockets clSecond;
        CXError clError;
        ASSERT_TRUE(bSocketListenTCP(4999, nFamily, &clFirst, nullptr, nullptr, 5));
        EXPECT_FALSE(bSocketListenTCP(4999, 0, &clSecond, &clError, nullptr, 5));
        EXPECT_TRUE(clSecond.tGetSockets().empty());
        EXPECT_EQ(clError.nGetSystemError(), EADDRINUSE);

        ASSERT_TRUE(bSocketBindUDP(4999, nFamily, &clFirst, nullptr, nullptr));
        EXPECT_TRUE(bSocketBindUDP(4999, 0, &clSecond, &clError, nullptr));
        ASSERT_EQ(clSecond.tGetSockets().size(), 1u);
        EXPECT_EQ(clSecond.tGetSockets()[0].nFamily, nFamily == SOCKET_IPV4_ONLY ? AF_INET6 : AF_INET);
    }

    CEnsembleSockets clNone;
    CXError clError;
    EXPECT_FALSE(bSocketListenTCP(4999, 0, &clNone, &clError, L"no such host name", 5));
    EXPECT_EQ(clError.StringDump(CXError::INFO_MODULE), L"Module VelmoManager") << "not the port is wrong";
    EXPECT_NE(clError.csGetMessage().find(csFromUTF8(::gai_strerror(EAI_NONAME))), std::wstring::npos);
}
