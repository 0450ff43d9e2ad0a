#include "tools/PrivateWorld.h"

#include "support/Descripteur.h"

#include <cstdio>
#include <filesystem>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>

namespace {
bool bLoopbackUp()
{
    const CDescripteur clSocket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq stRequest{};
    std::snprintf(stRequest.ifr_name, sizeof stRequest.ifr_name, "lo");
    stRequest.ifr_flags = IFF_UP | IFF_RUNNING;
    return ::ioctl(clSocket.nFd(), SIOCSIFFLAGS, &stRequest) == 0;
}

bool bMakeWorld()
{
    if (::unshare(CLONE_NEWNS | CLONE_NEWNET) != 0 ||
        ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return false;
    }

    // Among them what the real tools write when a script is registered, which not every system has.
    for (const std::string csFolder :
         {"/etc/init.d", "/lib/systemd/system", "/tmp", "/run", "/etc/rc0.d", "/etc/rc1.d", "/etc/rc2.d",
          "/etc/rc3.d", "/etc/rc4.d", "/etc/rc5.d", "/etc/rc6.d", "/etc/rcS.d"}) {
        std::error_code clIgnored;
        if (!csFolder.starts_with("/etc/rc")) {
            std::filesystem::create_directories(csFolder, clIgnored);
        }
        if (std::filesystem::exists(csFolder) &&
            ::mount("tmpfs", csFolder.c_str(), "tmpfs", 0, "mode=0755") != 0) {
            return false;
        }
    }

    return ::chmod("/tmp", 01777) == 0 && bLoopbackUp();
}
} // namespace

bool bPrivateWorld()
{
    static const bool s_bMade = bMakeWorld();
    return s_bMade;
}

bool bFreshNetwork()
{
    return ::unshare(CLONE_NEWNET) == 0 && bLoopbackUp();
}

CFakeTool::CFakeTool(std::string csProgram, const std::string& csBody) : m_csProgram(std::move(csProgram))
{
    if (!bPrivateWorld()) { // a fixture's member is made before its SetUp has asked
        return;
    }

    const std::string csScript =
        m_clFolder.csWrite("tool",
                           "#!/bin/sh\nDIR=" + m_clFolder.csPath() +
                               "\nJOURNAL=$DIR/journal\necho \"$*\" >>\"$JOURNAL\"\n" + csBody + "\n",
                           0755);
    ::mount(csScript.c_str(), m_csProgram.c_str(), nullptr, MS_BIND, nullptr);
}

CFakeTool::~CFakeTool()
{
    if (bPrivateWorld()) {
        ::umount2(m_csProgram.c_str(), MNT_DETACH);
    }
}

std::string CFakeTool::csTakeJournal()
{
    // The file stays: a call that is noted between a read and a deletion would be lost.
    std::string csCalls = m_clFolder.csRead("journal").substr(m_nTaken);
    m_nTaken += csCalls.size();
    return csCalls;
}
