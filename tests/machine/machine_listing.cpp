// A long listing on a real systemd: what the manager makes of batches is what single questions give.

#include "tools/Command.h"
#include "tools/Machine.h"
#include "tools/WireClient.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {
constexpr int s_nServers = 120;

/// Every tenth server is of a kind of its own; the others are loaded and not started.
void AddServers()
{
    for (int n = 0; n < s_nServers; ++n) {
        const std::string csNumber = std::to_string(n);
        const std::string csUnit = "DXCS-" + csNumber;
        const std::string csUnitFile = "/lib/systemd/system/" + csUnit + ".service";
        switch (n % 10) {
        case 1: // beyond ASCII, and escaped
            AddServer(csNumber, csUnit + "é€𝄞", 5000 + n, "");
            break;
        case 2: // masked
            std::filesystem::create_symlink("/dev/null", csUnitFile);
            break;
        case 3: // there is a drop-in for it only
            std::filesystem::create_directory(csUnitFile + ".d");
            std::ofstream(csUnitFile + ".d/x.conf") << "[Service]\nRestart=no\n";
            break;
        case 4: // made of an init script
            std::ofstream("/etc/init.d/" + csUnit)
                << "#!/bin/sh\n### BEGIN INIT INFO\n# Provides: " << csUnit
                << "\n# Default-Start: 2 3 4 5\n# Default-Stop: 0\n### END INIT INFO\n# Program=\"/opt/velmo/"
                << csNumber << "/dxdemo --SERVICE\" Name=\"" << csUnit << "\" \n";
            std::filesystem::permissions("/etc/init.d/" + csUnit, std::filesystem::perms(0755));
            break;
        default:
            AddServer(csNumber, csUnit, 5000 + n, "");
        }
    }
    // What nobody refers to is not loaded, and then not listed.

    std::filesystem::create_directory("/lib/systemd/system/multi-user.target.d");
    std::ofstream clWants("/lib/systemd/system/multi-user.target.d/all.conf");
    clWants << "[Unit]\n";
    for (int n = 0; n < s_nServers; ++n) {
        clWants << "Wants=DXCS-" << n << (n % 10 == 1 ? "\\xc3\\xa9\\xe2\\x82\\xac\\xf0\\x9d\\x84\\x9e" : "")
                << ".service\n";
    }
}

/// Puts a systemctl in the way that answers single questions only.
class CNoBatches
{
public:
    CNoBatches()
    {
        std::filesystem::copy_file("/bin/systemctl", "/opt/systemctl");
        std::ofstream("/opt/single") << "#!/bin/sh\ncase \"$1\" in *=Id,*) exit 1 ;; esac\n"
                                        "exec /opt/systemctl \"$@\"\n";
        std::filesystem::permissions("/opt/single", std::filesystem::perms(0755));
        m_bMounted = ::mount("/opt/single", "/bin/systemctl", nullptr, MS_BIND, nullptr) == 0;
    }
    ~CNoBatches() { ::umount2("/bin/systemctl", MNT_DETACH); }
    CNoBatches(const CNoBatches&) = delete;
    CNoBatches& operator=(const CNoBatches&) = delete;
    bool bMounted() const { return m_bMounted; }

private:
    bool m_bMounted = false;
};

std::string csInfo()
{
    CWireClient clTool("127.0.0.1", 4999);
    (void)clTool.csLine();
    (void)clTool.csAsk("MODE_UTF8");
    return clTool.csAsk("INFO", std::chrono::seconds(60));
}
} // namespace

TEST(Listing, AHundredAndTwentyServersOfEveryKindAreListedAsByThemselves)
{
    AddServers();
    ASSERT_EQ(stRun("systemctl daemon-reload && systemctl start DXCS-0 DXCS-10 DXCS-15").nStatus, 0);
    (void)stRun("systemctl kill -s KILL DXCS-10 DXCS-15"); // they are failed from then on
    PutManager("manager", "RestartOnFailed=0\n");
    const CManagerProcess clManager("/opt/velmo/manager/VelmoManager");
    ASSERT_TRUE(clManager.bAnswers());

    const std::string csTogether = csInfo();
    std::string csAlone;
    {
        const CNoBatches clNoBatches;
        ASSERT_TRUE(clNoBatches.bMounted());
        csAlone = csInfo();
    }
    EXPECT_EQ(csTogether, csAlone);
    // Two fields for each server that has a program; without one are the masked and those that do not exist.
    EXPECT_EQ(std::count(csTogether.begin(), csTogether.end(), '\t'), 5 + 2 * (s_nServers * 8 / 10));
    EXPECT_NE(csTogether.find("\t11é€𝄞\t5011"), std::string::npos) << csTogether;

    // Servers that end and units that go while the list is made: whole pairs all the same.
    const pid_t nVanish = ::fork();
    if (nVanish == 0) {
        ::execlp("sh", "sh", "-c",
                 "for n in 0 6 7 8 9; do systemctl stop DXCS-$n; rm /lib/systemd/system/DXCS-$n.service; "
                 "systemctl daemon-reload; done",
                 nullptr);
        ::_exit(127);
    }
    for (int n = 0; n < 10; ++n) {
        const std::string cs = csInfo();
        EXPECT_EQ(std::count(cs.begin(), cs.end(), '\t') % 2, 1) << cs;
        EXPECT_NE(cs.find("\t119\t5119"), std::string::npos) << cs;
    }
    ::waitpid(nVanish, nullptr, 0);
    RemoveServices();
}
