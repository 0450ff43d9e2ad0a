// A long listing on a real systemd: what the manager makes of batches is what single questions give.

#include "MachineTest.h"

#include <algorithm>
#include <sys/mount.h>
#include <thread>

namespace {
constexpr int s_nServers = 120;
constexpr int s_nGone = 5; ///< of them, before the lists are compared

/// Every tenth server is of a kind of its own; the others are loaded and not started.
void AddServers()
{
    // What nobody refers to is not loaded, and then not listed.
    fs::create_directory("/lib/systemd/system/multi-user.target.d");
    std::ofstream clWants("/lib/systemd/system/multi-user.target.d/all.conf");
    clWants << "[Unit]\n";
    for (int n = 0; n < s_nServers; ++n) {
        const std::string csNumber = std::to_string(n);
        const std::string csUnit = "DXCS-" + csNumber;
        const std::string csUnitFile = "/lib/systemd/system/" + csUnit + ".service";
        switch (n % 10) {
        case 1: // beyond ASCII, and escaped
            AddServer(csNumber, csUnit + "é€𝄞", 5000 + n, "");
            break;
        case 2: // masked
            fs::create_symlink("/dev/null", csUnitFile);
            break;
        case 3: // there is a drop-in for it only
            fs::create_directory(csUnitFile + ".d");
            std::ofstream(csUnitFile + ".d/x.conf") << "[Service]\nRestart=no\n";
            break;
        case 4: // made of an init script
            std::ofstream("/etc/init.d/" + csUnit)
                << "#!/bin/sh\n### BEGIN INIT INFO\n# Provides: " << csUnit
                << "\n# Default-Start: 2 3 4 5\n# Default-Stop: 0\n### END INIT INFO\n# Program=\"/opt/velmo/"
                << csNumber << "/dxdemo --SERVICE\" Name=\"" << csUnit << "\" \n";
            fs::permissions("/etc/init.d/" + csUnit, fs::perms(0755));
            break;
        default:
            AddServer(csNumber, csUnit, 5000 + n, "");
        }
        clWants << "Wants=" << csUnit << (n % 10 == 1 ? "\\xc3\\xa9\\xe2\\x82\\xac\\xf0\\x9d\\x84\\x9e" : "")
                << ".service\n";
    }
}

/// Puts a systemctl in the way that answers single questions only; until the machine ends.
void RefuseBatches()
{
    fs::copy_file("/bin/systemctl", "/opt/systemctl");
    std::ofstream("/opt/single") << "#!/bin/sh\ncase \"$1\" in *=Id,*) exit 1 ;; esac\n"
                                    "exec /opt/systemctl \"$@\"\n";
    fs::permissions("/opt/single", fs::perms(0755));
    ASSERT_EQ(::mount("/opt/single", "/bin/systemctl", nullptr, MS_BIND, nullptr), 0);
}

std::string csInfo()
{
    CWireClient clTool("127.0.0.1", 4999);
    (void)clTool.csLine();
    (void)clTool.csAsk("MODE_UTF8");
    return clTool.csAsk("INFO", 60s);
}

using Listing = CMachineTest;
} // namespace

TEST_F(Listing, AHundredAndTwentyServersOfEveryKindAreListedAsByThemselves)
{
    AddServers();
    ASSERT_EQ(stRun("systemctl daemon-reload && systemctl start DXCS-0 DXCS-10 DXCS-15").nStatus, 0);
    stRun("systemctl kill -s KILL DXCS-10 DXCS-15"); // they are failed from then on
    ASSERT_NO_FATAL_FAILURE(StartManager("RestartOnFailed=0\n"));

    // Servers that end and units that go while the list is made: whole pairs all the same.
    std::thread clVanish([] {
        stRun("for n in 0 6 16 26 36; do systemctl stop DXCS-$n; rm /lib/systemd/system/DXCS-$n.service;"
              " systemctl daemon-reload; done");
    });
    for (int n = 0; n < 10; ++n) {
        const std::string cs = csInfo();
        EXPECT_EQ(std::count(cs.begin(), cs.end(), '\t') % 2, 1) << cs;
        EXPECT_THAT(cs, HasSubstr("\t119\t5119"));
    }
    clVanish.join();

    const std::string csTogether = csInfo();
    ASSERT_NO_FATAL_FAILURE(RefuseBatches());
    EXPECT_EQ(csTogether, csInfo());
    // Two fields for each server that has a program; without one are the masked and those that do not exist.
    EXPECT_EQ(std::count(csTogether.begin(), csTogether.end(), '\t'),
              5 + 2 * (s_nServers * 8 / 10 - s_nGone));
    EXPECT_THAT(csTogether, HasSubstr("\t11é€𝄞\t5011"));
}
