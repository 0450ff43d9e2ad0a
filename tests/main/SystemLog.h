#pragma once

#include "support/Descripteur.h"
#include "tools/Command.h"
#include "tools/PrivateWorld.h"
#include "tools/Wait.h"

#include <array>
#include <cstddef>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

/// Gives the private world a /dev of its own, in which the tests may put a log socket. Once, before any
/// thread.
inline bool bPrivateDevices()
{
    static const bool s_bMade =
        bPrivateWorld() && stRun("cd /tmp; mkdir dev; touch dev/null dev/urandom; for n in null urandom; do "
                                 "mount --bind /dev/$n dev/$n; done; mount --rbind dev /dev")
                                   .nStatus == 0;
    return s_bMade;
}

#define REQUIRE_PRIVATE_DEVICES()                                                                            \
    if (!bPrivateDevices())                                                                                  \
    GTEST_SKIP() << "SKIPPED: needs root and mount/network namespaces"

/// Receives what is sent to a local name: a path (what is there is replaced), or "@" and an abstract name.
class CLocalReceiver
{
public:
    explicit CLocalReceiver(const std::string& csName)
        : m_clSocket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un st{};
        st.sun_family = AF_UNIX;
        csName.copy(st.sun_path, sizeof st.sun_path);
        st.sun_path[0] = csName[0] == '@' ? '\0' : csName[0];
        ::unlink(csName.c_str());
        const auto nLength = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + csName.size());
        EXPECT_EQ(::bind(m_clSocket.nFd(), reinterpret_cast<const sockaddr*>(&st), nLength), 0) << csName;
    }
    /// The next datagram; empty when none comes in time.
    std::string csNext(int nMs = 5000) const
    {
        if (!bReadable(m_clSocket.nFd(), nMs)) {
            return "";
        }
        std::array<char, 8192> tBytes;
        const ssize_t nRead = ::recv(m_clSocket.nFd(), tBytes.data(), tBytes.size(), 0);
        return {tBytes.data(), static_cast<std::size_t>(nRead)};
    }

private:
    CDescripteur m_clSocket;
};

/// The system log's end of /dev/log, in the private world.
class CSystemLog
{
public:
    /// The next entry as "<priority>text", without date and program; empty when none comes in time.
    std::string csNext(int nMs = 5000) const
    {
        std::string csEntry = m_clReceiver.csNext(nMs);
        if (const std::size_t nText = csEntry.find(": "); nText != csEntry.npos) {
            csEntry.erase(csEntry.find('>') + 1, nText + 1 - csEntry.find('>'));
        }
        return csEntry;
    }
    bool bSilent() const { return csNext(50).empty(); }

private:
    CLocalReceiver m_clReceiver{bPrivateDevices() ? "/dev/log" : "@velmo-test-log"}; // never the host's own
};
