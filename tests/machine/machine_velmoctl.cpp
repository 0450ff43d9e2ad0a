// The command-line client and the real manager, over services of a real systemd.

#include "tools/Command.h"
#include "tools/Machine.h"
#include "tools/Wait.h"
#include "tools/WireClient.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <memory>

using ::testing::HasSubstr;

namespace {
class Velmoctl : public ::testing::Test
{
protected:
    void SetUp() override
    {
        AddServer("run", "DXCS-run", 4911, "[ClusterNode]\nCluster=1\nClusterManager=boss\n");
        AddServer("accent",
                  "DXCS-Donn\xC3\xA9"
                  "es",
                  4912, "");
        AddServer("blank", "DXCS-Velmo_20261121_083000", 4913, "", "DXCS-Velmo_20261121 083000");
        stRun("systemctl daemon-reload; systemctl enable DXCS-run DXCS-Donn\xC3\xA9"
              "es DXCS-Velmo_20261121_083000; systemctl start DXCS-run");
        m_pclManager = std::make_unique<CManagerProcess>();
        ASSERT_TRUE(m_pclManager->bAnswers());
        ASSERT_TRUE(bWaitUntil([] { return std::filesystem::exists("/tmp/__pipe_velmomanager__"); }, 5000));
    }
    void TearDown() override
    {
        m_pclManager.reset();
        stRun("systemctl disable -q $(ls /lib/systemd/system | grep ^DXCS-); systemctl stop 'DXCS-*'; rm -rf "
              "/lib/systemd/system/DXCS-* /opt/velmo; systemctl daemon-reload");
    }
    /// A server's files, without a service.
    static void Install(const std::string& csName, int nPort)
    {
        const std::string csHome = "/opt/velmo/" + csName + "/";
        std::filesystem::create_directories(csHome);
        std::filesystem::copy_file(csBuildFolder() + "/dxdemo", csHome + "dxdemo");
        std::ofstream(csHome + "DXConf.ini") << "[INIT]\nAccessPort=" << nPort << "\n";
    }
    std::unique_ptr<CManagerProcess> m_pclManager;
};

STCommandResult stClient(const std::string& csArguments)
{
    return stRun(csBuildFolder() + "/velmoctl " + csArguments);
}

std::string csUnits()
{
    return stRun("ls /lib/systemd/system | grep ^DXCS-").csOutput;
}
} // namespace

TEST_F(Velmoctl, ListsAsksAndStarts)
{
    EXPECT_EQ(stClient("list").csOutput, "NAME                   PORT  STATE\n"
                                         "Donn\xC3\xA9"
                                         "es                4912  stopped\n"
                                         "run                    4911  running\n"
                                         "Velmo_20261121 083000  4913  stopped\n");
    EXPECT_EQ(stClient("start 'Donn\xC3\xA9"
                       "es'")
                  .csOutput,
              "\"Donn\xC3\xA9"
              "es\" is started\n");
    EXPECT_TRUE(CWireClient("127.0.0.1", 4912).csLine().starts_with("HELLO"));
    EXPECT_EQ(stClient("start 'Velmo_20261121 083000'").nStatus, 0);
    EXPECT_EQ(stClient("status 'Velmo_20261121 083000' --json").csOutput,
              "{\"name\": \"Velmo_20261121 083000\", \"state\": \"running\"}\n");
    EXPECT_EQ(stClient("cluster run").csOutput, "\"run\" belongs to the cluster managed by \"boss\"\n");
    EXPECT_EQ(stClient("start nobody").csOutput, "velmoctl: there is no server \"nobody\"\n");
    EXPECT_THAT(stClient("info --json").csOutput, HasSubstr("{\"name\": \"run\", \"port\": 4911}"));
}

TEST_F(Velmoctl, UninstallsWithAndWithoutTheFiles)
{
    EXPECT_EQ(stClient("uninstall 'Velmo_20261121 083000' --yes").csOutput,
              "\"Velmo_20261121 083000\" is uninstalled, its files are kept\n");
    EXPECT_TRUE(std::filesystem::exists("/opt/velmo/blank/dxdemo"));
    EXPECT_EQ(stClient("uninstall run --delete-files --dry-run").nStatus, 0);
    EXPECT_EQ(stClient("status run").csOutput, "running\n");
    EXPECT_EQ(stClient("uninstall run --delete-files --yes").csOutput,
              "\"run\" is uninstalled, its files are deleted\n");
    EXPECT_FALSE(std::filesystem::exists("/opt/velmo/run"));
    EXPECT_FALSE(CWireClient("127.0.0.1", 4911).bConnected());

    stRun("mkdir /opt/velmo/accent/held && mount -t tmpfs held /opt/velmo/accent/held");
    const STCommandResult stHeld = stClient("uninstall 'Donn\xC3\xA9"
                                            "es' --delete-files --yes");
    stRun("umount /opt/velmo/accent/held");
    EXPECT_EQ(stHeld.nStatus, 1);
    EXPECT_EQ(stHeld.csOutput, "\"Donn\xC3\xA9"
                               "es\" is uninstalled, but its files could not all be deleted\n");
    EXPECT_EQ(csUnits(), "");
    EXPECT_EQ(stClient("list").csOutput, "NAME  PORT  STATE\n");
}

TEST_F(Velmoctl, RegistersAServerAndTellsWhyItCannot)
{
    Install("fresh", 4920);
    EXPECT_EQ(stRun("cd /opt/velmo/fresh && " + csBuildFolder() +
                    "/velmoctl register 'Fr\xC3\xA9"
                    "d 1' ./dxdemo 4920")
                  .csOutput,
              "\"Fr\xC3\xA9"
              "d 1\" is registered and runs\n");
    EXPECT_TRUE(CWireClient("127.0.0.1", 4920).csLine().starts_with("HELLO"));
    EXPECT_THAT(stClient("list").csOutput, HasSubstr("Fr\xC3\xA9"
                                                     "d 1                 4920  running\n"));
    Install("second", 4921);
    const std::string csBefore = csUnits();
    const STCommandResult stTaken = stClient("register run /opt/velmo/second/dxdemo 4921");
    EXPECT_EQ(stTaken.nStatus, 1);
    EXPECT_THAT(stTaken.csOutput, HasSubstr("velmoctl: the manager answers: The server \"run\""));
    const struct
    {
        const char* pszArguments;
        int nStatus;
        const char* pszWords;
    } tCases[] = {
        {"register x /opt/velmo/second/none 4921", 2, "is no program that can be run"},
        {"register x /opt/velmo/second 4921", 2, "is no program that can be run"},
        {"register '' /opt/velmo/second/dxdemo 4921", 2, "the name must have 1 to 128 characters"},
        {"register \"$(printf %0129d 0)\" /opt/velmo/second/dxdemo 4921", 2, "the name must have 1 to 128"},
        {"register x /opt/velmo/second/dxdemo 65536", 2, "is not a port"},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszArguments);
        const STCommandResult stResult = stClient(st.pszArguments);
        EXPECT_EQ(stResult.nStatus, st.nStatus);
        EXPECT_THAT(stResult.csOutput, HasSubstr(st.pszWords));
    }
    const STCommandResult stNobody = stRun("setpriv --reuid=65534 --clear-groups " + csBuildFolder() +
                                           "/velmoctl register x /opt/velmo/second/dxdemo 4921");
    EXPECT_EQ(stNobody.nStatus, 1);
    EXPECT_THAT(stNobody.csOutput, HasSubstr("only root can register"));
    EXPECT_EQ(csUnits(), csBefore);
    EXPECT_EQ(m_pclManager->nStop(), 0);
    EXPECT_EQ(stClient("register x /opt/velmo/second/dxdemo 4921").csOutput,
              "velmoctl: no manager runs on this machine\n");
}

TEST_F(Velmoctl, ARegistrationThatIsNotAnsweredLeavesNoPipeBehind)
{
    Install("fresh", 4920);
    ASSERT_EQ(::kill(m_pclManager->nPid(), SIGSTOP), 0);
    EXPECT_EQ(stClient("register x /opt/velmo/fresh/dxdemo 4920 --timeout 0.2").nStatus, 3);
    EXPECT_EQ(stRun("timeout -s INT 0.2 " + csBuildFolder() +
                    "/velmoctl register x /opt/velmo/fresh/dxdemo 4920; [ $? = 124 ]")
                  .nStatus,
              0);
    EXPECT_EQ(stRun("ls /tmp | grep __pipe_velmomanager_").csOutput, "__pipe_velmomanager__\n");
    EXPECT_EQ(stClient("status run --timeout 0.3").nStatus, 3) << "it is as silent over TCP";
    ASSERT_EQ(::kill(m_pclManager->nPid(), SIGCONT), 0);
    EXPECT_TRUE(bWaitUntil([] { return stClient("status x").csOutput == "running\n"; }, 20'000))
        << "it was at it";
}

TEST_F(Velmoctl, DiscoversManagersOfOtherMachinesOnceEach)
{
    ASSERT_EQ(
        stRun("ip netns add tools && ip link add here type veth peer name there netns tools && ip link set "
              "here up && ip addr add 10.77.0.1/24 brd + dev here && ip addr add 10.77.0.2/24 dev here"
              " && ip addr add fd77::1/64 dev here nodad && ip -n tools link set lo up"
              " && ip -n tools link set there up && ip -n tools addr add 10.77.0.9/24 brd + dev there"
              " && ip -n tools addr add fd77::9/64 dev there nodad")
            .csOutput,
        "");
    const std::string csElsewhere = "ip netns exec tools " + csBuildFolder() + "/velmoctl discover ";
    const std::string csServers = "Donn\xC3\xA9"
                                  "es:4912, run:4911, Velmo_20261121 083000:4913\n";
    const STCommandResult stFound = stRun(csElsewhere + "--timeout 1");
    EXPECT_EQ(stFound.nStatus, 0);
    EXPECT_TRUE(stFound.csOutput.starts_with("ADDRESS    VERSION")) << stFound.csOutput;
    EXPECT_THAT(stFound.csOutput, HasSubstr("\n10.77.0.1  24.0.6.0"));
    EXPECT_TRUE(stFound.csOutput.ends_with(csServers)) << stFound.csOutput;
    EXPECT_EQ(std::count(stFound.csOutput.begin(), stFound.csOutput.end(), '\n'), 2);

    EXPECT_THAT(stRun(csElsewhere + "--timeout 1 --host fd77::1 --json").csOutput,
                HasSubstr("\"address\": \"fd77::1\", \"this_machine\": false"));
    const STCommandResult stHere = stClient("discover --timeout 1");
    EXPECT_THAT(stHere.csOutput, HasSubstr(" (this machine)  24.0.6.0"));
    EXPECT_EQ(std::count(stHere.csOutput.begin(), stHere.csOutput.end(), '\n'), 2);

    EXPECT_EQ(m_pclManager->nStop(), 0);
    const STCommandResult stNone = stRun(csElsewhere + "--timeout 0.4");
    EXPECT_EQ(stNone.nStatus, 3);
    EXPECT_EQ(stNone.csOutput, "velmoctl: no manager answered\n");
    stRun("ip link del here; ip netns del tools");
}
