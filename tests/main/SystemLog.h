#pragma once

#include "tools/NotifySocket.h"
#include "tools/PrivateWorld.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/mount.h>

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
    /// The next entry as "<priority>text", without date and program; empty when none comes in time.
    std::string csNext(int nMs = 5000) const
    {
        const std::string csEntry = m_clSocket.csNext(nMs);
        const std::string csProgram = std::string(" ") + program_invocation_short_name + ": ";
        return csEntry == "<none>" ? ""
                                   : csEntry.substr(0, csEntry.find('>') + 1) +
                                         csEntry.substr(csEntry.find(csProgram) + csProgram.size());
    }
    bool bSilent() const { return csNext(50).empty(); }

private:
    CNotifySocket m_clSocket{"/dev/log"};
};
