// Servers that come and go, with the sample server, in a machine with a real systemd and in one without any
// service manager: registration through the pipe, discovery over a network, restart on failure.

#include "MachineTest.h"
#include "tools/PingClient.h"

#include <sched.h>
#include <thread>

namespace {
/// Runs "start", "stop" and so on of a service in the machine's own way.
STCommandResult stService(const std::string& csVerb, const std::string& csService)
{
    return stRun(bSystemd() ? "systemctl " + csVerb + " " + csService
                            : "/etc/init.d/" + csService + " " + csVerb);
}

/// Names and contents of all registered servers.
std::string csRegistry()
{
    return stRun("head -n 100 /lib/systemd/system/DXCS-* /etc/init.d/DXCS-* 2>/dev/null").csOutput;
}

constexpr char s_szQuiet[] = "RestartOnFailed=0\n";

using Servers = CMachineTest;
} // namespace

TEST_F(Servers, AFreshServerRegistersItselfAndRunsAndIsListed)
{
    StartManager(s_szQuiet);
    for (const auto& [pszFolder, csName, nPort] :
         {std::tuple{"generated", std::string("Velmo_20261121 083000"), 4912},
          {"accent", "Donn\xE9", 4913}}) {
        SCOPED_TRACE(pszFolder);
        PutServer(pszFolder, nPort, "Register=1\n", csName); // and once more when it is started
        EXPECT_EQ(csRegisterItself(pszFolder), "");
        EXPECT_EQ(csAsk("STATUS\t" + csName), "STATUS\tRUNNING\r\n");
        EXPECT_THAT(csAsk("INFO"), HasSubstr("\t" + csName + "\t" + std::to_string(nPort)));
        EXPECT_TRUE(bServes(static_cast<unsigned short>(nPort)));
    }
}

TEST_F(Servers, APortOfAnotherIsRefusedAKnownProgramIsAdoptedAFailedStartTold)
{
    StartManager(s_szQuiet);
    PutServer("orders", 4911, "", "orders");
    ASSERT_EQ(csRegisterItself("orders"), "");
    PutServer("port", 4911, "", "port 100%s %1!d!");
    const std::string csBefore = csRegistry();
    const std::string csRefusal =
        "The server \"port 100%s %1!d!\" was not registered: its port 4911 is already used by the "
        "server \"orders\". Set another AccessPort in its DXConf.ini, then register it again.";
    EXPECT_EQ(csRegisterItself("port"), csRefusal);
    EXPECT_EQ(csRegistry(), csBefore);
    if (bSystemd()) {
        EXPECT_TRUE(bWaitUntil(
            [&] { return stRun("journalctl -p crit").csOutput.find(csRefusal) != std::string::npos; }, 5000));
    }

    ASSERT_EQ(stService("stop", "DXCS-orders").nStatus, 0);
    PutServer("orders", 4911, "", "renamed");
    EXPECT_EQ(csRegisterItself("orders"), "");
    EXPECT_EQ(csRegistry(), csBefore);
    EXPECT_EQ(csOutput("sed -n 's/^Name *= *//p' /opt/velmo/orders/DXConf.ini"), "orders");
    EXPECT_EQ(csAsk("STATUS\torders"), "STATUS\tRUNNING\r\n");

    PutServer("fails", 4920, "FailAtStart=1\n", "fails");
    EXPECT_EQ(csRegisterItself("fails"), "Operation canceled");
    EXPECT_EQ(csAsk("STATUS\tfails"), "STATUS\tSTOPPED\r\n");
}

TEST_F(Servers, AKilledServerComesBackUnlessTheSettingForbidsItAndAStoppedOneDoesNot)
{
    StartManager("RestartOnFailed=0\nCheckPeriod=1\n");
    for (const auto& [pszName, nPort] : {std::pair{"dies", 4911}, {"rests", 4912}}) {
        PutServer(pszName, nPort, "", pszName);
        ASSERT_EQ(csRegisterItself(pszName), "");
    }
    ASSERT_EQ(stService("stop", "DXCS-rests").nStatus, 0);
    if (bSystemd()) { // which would bring it back itself
        stRun("sed -i /^Restart/d /lib/systemd/system/DXCS-dies.service; systemctl daemon-reload");
    }
    ASSERT_EQ(::kill(nPidOf("DXCS-dies"), SIGKILL), 0);
    const auto fnServes = [] { return bServes(4911); };
    ASSERT_TRUE(bWaitUntil([&] { return !fnServes(); }, 5000));
    EXPECT_FALSE(bWaitUntil(fnServes, 2500));
    StartManager("CheckPeriod=1\n");
    EXPECT_TRUE(bWaitUntil(fnServes, 10'000));
    EXPECT_EQ(csAsk("STATUS\tdies"), "STATUS\tRUNNING\r\n");
    EXPECT_EQ(csAsk("STATUS\trests"), "STATUS\tSTOPPED\r\n")
        << "the pass that found the other one left it alone";
}

namespace {
/// Asks the manager in both encodings, at each address that leads to it.
void DiscoverFromTheOtherHost()
{
    const CDescripteur clNetwork(::open("/run/netns/tools", O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(::setns(clNetwork.nFd(), CLONE_NEWNET), 0);
    const std::pair<std::string, std::string> tAddresses[] = {// asked, answered from
                                                              {"10.77.0.2", "10.77.0.2"},
                                                              {"10.77.0.255", "10.77.0.1"},
                                                              {"255.255.255.255", "10.77.0.1"},
                                                              {"fd77::1", "fd77::1"},
                                                              {"fd77::2", "fd77::2"}};
    for (const auto& [csAsked, csFrom] : tAddresses) {
        for (const auto& [pszQuestion, pszName] :
             {std::pair{"ARE YOU A DEXARO SERVER SETUP?\r\n", "\tCaf\xE9\t4911"},
              {"ARE YOU A DEXARO MANAGER UTF-8?\r\n", "\tCafé\t4911"}}) {
            SCOPED_TRACE(csAsked);
            CPingClient clTool;
            ASSERT_TRUE(clTool.Ask(csAsked, 4999, pszQuestion));
            const std::string csAnswer = clTool.csAnswer();
            EXPECT_TRUE(csAnswer.starts_with(csFrom + " YES\t")) << csAnswer;
            EXPECT_TRUE(csAnswer.ends_with(pszName)) << csAnswer;
            EXPECT_EQ(clTool.csAnswer(), csFrom + " \r\n");
        }
    }
}
} // namespace

TEST_F(Servers, ToolsOfAnotherHostDiscoverTheManager)
{
    Play("servers-other-host.txt");
    StartManager(s_szQuiet);
    PutServer("found", 4911, "", "Caf\xE9");
    ASSERT_EQ(csRegisterItself("found"), "");
    std::thread(DiscoverFromTheOtherHost).join();

    Play("servers-discovery.txt");
    EXPECT_EQ(m_pclManager->nStop(), 0);
    const STCommandResult stNone =
        stRun("ip netns exec tools " + csBuildFolder() + "/velmoctl discover --timeout 1");
    EXPECT_EQ(stNone.nStatus, 3);
    EXPECT_EQ(stNone.csOutput, "velmoctl: no manager answered\n");
    stRun("ip link del here; ip netns del tools");
}
