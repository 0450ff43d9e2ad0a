#include "tools/PrivateWorld.h"

#include "support/Descripteur.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <net/if.h>
#include <sched.h>
#include <sstream>
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
    for (const char* pszFolder : {"/etc/init.d", "/lib/systemd/system", "/tmp", "/run"}) {
        std::error_code clIgnored;
        std::filesystem::create_directories(pszFolder, clIgnored);
        if (::mount("tmpfs", pszFolder, "tmpfs", 0, "mode=0755") != 0) {
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
    char szFolder[] = "/tmp/faketoolXXXXXX";
    m_csDirectory = ::mkdtemp(szFolder);
    const std::string csScript = m_csDirectory + "/tool";
    std::ofstream(csScript) << "#!/bin/sh\nDIR=" << m_csDirectory << "\nJOURNAL=$DIR/journal\n"
                            << "echo \"$*\" >>\"$JOURNAL\"\n"
                            << csBody << "\n";
    std::filesystem::permissions(csScript, std::filesystem::perms(0755));
    ::mount(csScript.c_str(), m_csProgram.c_str(), nullptr, MS_BIND, nullptr);
}

CFakeTool::~CFakeTool()
{
    ::umount2(m_csProgram.c_str(), MNT_DETACH);
    std::filesystem::remove_all(m_csDirectory);
}

std::string CFakeTool::csTakeJournal()
{
    std::ostringstream clText;
    clText << std::ifstream(m_csDirectory + "/journal").rdbuf();
    std::filesystem::remove(m_csDirectory + "/journal");
    return clText.str();
}

void CFakeTool::Write(const std::string& csName, const std::string& csText)
{
    const std::filesystem::path clPath = m_csDirectory + "/" + csName;
    std::filesystem::create_directories(clPath.parent_path());
    std::ofstream(clPath) << csText;
}

bool CFakeTool::bExists(const std::string& csName) const
{
    return std::filesystem::exists(m_csDirectory + "/" + csName);
}
