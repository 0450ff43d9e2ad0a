#pragma once

#include "support/Descripteur.h"
#include "tools/PrivateWorld.h"

#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <string>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

/// Gives the private world a /dev of its own, in which the tests may put a log socket. Once, before any
/// thread.
inline bool bPrivateDevices()
{
    static const bool s_bMade = [] {
        if (!bPrivateWorld()) {
            return false;
        }
        std::filesystem::create_directory("/tmp/dev");
        for (const char* pszDevice : {"null", "urandom"}) {
            const std::string csPlace = std::string("/tmp/dev/") + pszDevice;
            std::ofstream{csPlace};
            ::mount((std::string("/dev/") + pszDevice).c_str(), csPlace.c_str(), nullptr, MS_BIND, nullptr);
        }
        return ::mount("/tmp/dev", "/dev", nullptr, MS_BIND | MS_REC, nullptr) == 0;
    }();
    return s_bMade;
}

#define REQUIRE_PRIVATE_DEVICES()                                                                            \
    if (!bPrivateDevices())                                                                                  \
    GTEST_SKIP() << "SKIPPED: needs root and mount/network namespaces"

/// The system log's end of /dev/log, in the private world.
class CSystemLog
{
public:
    CSystemLog() : m_clSocket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        const sockaddr_un st{AF_UNIX, "/dev/log"};
        ::unlink(st.sun_path);
        ::bind(m_clSocket.nFd(), reinterpret_cast<const sockaddr*>(&st), sizeof st);
    }
    /// The next entry as "<priority>text", without date and program; empty when none comes in time.
    std::string csNext(int nMs = 5000) const
    {
        pollfd stWait{m_clSocket.nFd(), POLLIN, 0};
        std::array<char, 8192> tBytes;
        if (TEMP_FAILURE_RETRY(::poll(&stWait, 1, nMs)) != 1) {
            return "";
        }
        const ssize_t nRead = ::recv(m_clSocket.nFd(), tBytes.data(), tBytes.size(), 0);
        const std::string csEntry(tBytes.data(), static_cast<std::size_t>(nRead));
        const std::string csProgram = std::string(" ") + program_invocation_short_name + ": ";
        return csEntry.substr(0, csEntry.find('>') + 1) +
               csEntry.substr(csEntry.find(csProgram) + csProgram.size());
    }
    bool bSilent() const { return csNext(50).empty(); }

private:
    CDescripteur m_clSocket;
};
