// Registration of servers, called directly and through the pipe, against a scripted systemctl that keeps its
// units.

#include "manager/SetupManager.h"
#include "Registry.h"
#include "service/LanceProcessus.h"
#include "support/Conversion.h"
#include "tools/PipeClient.h"
#include "tools/PrivateWorld.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <sstream>
#include <thread>

namespace {
using ::testing::HasSubstr;

class Registration : public ::testing::Test
{
protected:
    void SetUp() override
    {
        REQUIRE_PRIVATE_WORLD();
        ClearRegistry();
        CLanceProcessus::sInit();
        CServiceManager::ms_eDistri = DISTRI_SYSTEMD;
        m_pclTool = std::make_unique<CFakeTool>("/bin/systemctl", g_szRegistry);
        m_pclManager = std::make_unique<CSetupManager>();
    }
    void TearDown() override
    {
        m_pclManager.reset();
        m_pclTool.reset();
        CLanceProcessus::sTerm();
        CServiceManager::ms_eDistri = DISTRI_UNKNOWN;
    }
    std::string csRegister(const std::string& csName, const std::string& csPath, std::uint16_t wPort)
    {
        CTString csError;
        m_pclManager->RegisterServer(csFromUTF8(csName), csFromUTF8(csPath), wPort, &csError);
        return csToUTF8(csError);
    }
    static std::string csFile(const std::string& csPath)
    {
        std::ostringstream clText;
        clText << std::ifstream(csPath).rdbuf();
        return clText.str();
    }
    static bool bActive(const std::string& csUnit)
    {
        return csFile("/run/" + csUnit + ".state") == "active\n";
    }

    std::unique_ptr<CFakeTool> m_pclTool;
    std::unique_ptr<CSetupManager> m_pclManager;
};
} // namespace

TEST_F(Registration, ANewServerGetsAUnitIsEnabledAndStarted)
{
    const std::string csProgram = csAddProgram("new", 4901);
    EXPECT_EQ(csRegister("Velmo_20261121 083000", csProgram, 4901), "");
    EXPECT_EQ(
        csFile("/lib/systemd/system/DXCS-Velmo_20261121_083000.service"),
        "[Unit]\nDescription=DXCS-Velmo_20261121 083000\nAfter=network.target\n[Install]\n"
        "WantedBy=multi-user.target\n[Service]\nType=forking\nExecStart=/tmp/new/srv --SERVICE "
        "DXCS-Velmo_20261121_083000\nPIDFile=/var/run/DXCS-Velmo_20261121_083000.pid\nRestart=on-abnormal\n");
    EXPECT_THAT(m_pclTool->csTakeJournal(), HasSubstr("daemon-reload\nenable DXCS-Velmo_20261121_083000\n"));
    EXPECT_TRUE(bActive("DXCS-Velmo_20261121_083000"));
    CTString csList;
    m_pclManager->AddServeurList(&csList);
    EXPECT_EQ(csList, L"\tVelmo_20261121 083000\t4901");

    EXPECT_EQ(csRegister("Velmo_20261121 083000", csProgram, 4901), "") << "the same again";
    EXPECT_EQ(csFile("/tmp/new/DXConf.ini"), "[INIT]\nAccessPort=4901\n") << "taken for another name";
    EXPECT_EQ(tUnits(), std::set<std::string>{"DXCS-Velmo_20261121_083000"});
    EXPECT_THAT(m_pclTool->csTakeJournal(), ::testing::Not(HasSubstr("start"))) << "it runs";
}

TEST_F(Registration, AServerIsRecognisedAdoptedOrRefused)
{
    const struct
    {
        const char* pszWhat;
        std::vector<std::pair<const char*, const char*>> tUnits; ///< unit, folder of its program
        const char* pszName;
        const char* pszFolder;
        int nPort;
        const char* pszReply;
        const char* pszStarted;
    } tCases[] = {
        {"own unit", {{"DXCS-a", "A"}}, "a", "A", 4901, "", "DXCS-a"},
        {"own unit, another port now", {{"DXCS-a", "A"}}, "a", "A", 4999, "", "DXCS-a"},
        {"own unit by another path", {{"DXCS-a", "A"}}, "a", "./A/../A", 4901, "", "DXCS-a"},
        {"name of another",
         {{"DXCS-a", "A"}},
         "a",
         "N",
         5000,
         "The server \"a\" (/tmp/N/srv) was not registered: its name is already registered for /tmp/A/srv.",
         ""},
        {"name with a blank of another", {{"DXCS-a_b", "A"}}, "a b", "N", 5000, "already registered for", ""},
        {"name of a unit without program", {{"DXCS-a", ""}}, "a", "N", 5000, "already registered for .", ""},
        {"names differ by case", {{"DXCS-a", "A"}}, "A", "N", 5000, "", "DXCS-A"},
        {"port of another",
         {{"DXCS-a", "A"}},
         "n",
         "N",
         4901,
         "The server \"n\" was not registered: its port 4901 is already used by the server \"a\".",
         ""},
        {"default port of another",
         {{"DXCS-a", "unset"}},
         "n",
         "N",
         4900,
         "already used by the server \"a\"",
         ""},
        {"another without program holds no port", {{"DXCS-a", ""}}, "n", "N", 4900, "", "DXCS-n"},
        {"another's port is beyond 16 bits", {{"DXCS-a", "big"}}, "n", "N", 4464, "", "DXCS-n"},
        {"own unit, then the port of another",
         {{"DXCS-a", "A"}, {"DXCS-b", "B"}},
         "a",
         "A",
         4902,
         "its port 4902",
         ""},
        {"two units of its own: the last", {{"DXCS-a", "A"}, {"DXCS-b", "A"}}, "a", "A", 4901, "", "DXCS-b"},
        {"not a server of ours", {{"other", "A"}}, "n", "A", 4901, "", "DXCS-n"},
        {"a start that is refused", {}, "bad", "N", 5000, "Operation canceled", ""},
    };
    for (const auto& [pszFolder, nPort] :
         {std::pair{"A", 4901}, {"B", 4902}, {"N", 5000}, {"unset", 0}, {"big", 70000}}) {
        csAddProgram(pszFolder, nPort);
    }
    std::ofstream("/tmp/unset/DXConf.ini") << "[OTHER]\n";
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszWhat);
        ClearRegistry();
        for (const auto& [pszUnit, pszProgram] : st.tUnits) {
            AddUnit(pszUnit, *pszProgram != '\0' ? std::string("/tmp/") + pszProgram + "/srv" : "");
        }
        const auto tBefore = tUnits();
        const std::string csReply = csRegister(st.pszName, std::string("/tmp/") + st.pszFolder + "/srv",
                                               static_cast<std::uint16_t>(st.nPort));
        EXPECT_THAT(csReply, HasSubstr(st.pszReply));
        EXPECT_EQ(csReply.empty(), *st.pszReply == '\0') << csReply;
        for (const std::string& csUnit : tUnits()) {
            EXPECT_EQ(bActive(csUnit), csUnit == st.pszStarted) << csUnit;
        }
        EXPECT_TRUE(*st.pszStarted == '\0' || tUnits().contains(st.pszStarted));
        const bool bRefused = csReply.starts_with("The server");
        EXPECT_TRUE(!bRefused || tUnits() == tBefore) << "a refusal changes nothing";
    }
}

TEST_F(Registration, AnAdoptedServerLearnsItsNameFromItsSettings)
{
    const std::string csProgram = csAddProgram("adopted", 4901);
    AddUnit("DXCS-old_name", csProgram);
    EXPECT_EQ(csRegister("fresh", csProgram, 4901), "");
    EXPECT_EQ(tUnits(), std::set<std::string>{"DXCS-old_name"});
    EXPECT_TRUE(bActive("DXCS-old_name"));
    EXPECT_THAT(csFile("/tmp/adopted/DXConf.ini"), HasSubstr("Name = old_name"));
    EXPECT_THAT(csFile("/tmp/adopted/DXConf.ini"), HasSubstr("AccessPort=4901"));
}

TEST_F(Registration, WhatCannotBeAServiceIsRefusedAndLeavesNothing)
{
    const std::string csProgram = csAddProgram("new", 4901);
    const std::pair<std::string, std::string> tCases[] = {
        {"", csProgram},
        {"a*", csProgram},
        {"a[b]", csProgram},
        {"a\"b", csProgram},
        {"a\nUser=x", csProgram},
        {"a;-Hhost", csProgram},
        {"\x01", csProgram},
        {"a", ""},
        {std::string(300, 'a'), csProgram},
        {"a", "tmp/srv"},
        {"a", "/x\n[Service]\nx="},
        {std::string(129, 'a') + "\r", csProgram},
    };
    for (const auto& [csName, csPath] : tCases) {
        EXPECT_EQ(csRegister(csName, csPath, 4901), "Invalid argument") << csName << csPath;
        EXPECT_EQ(tUnits(), std::set<std::string>{});
    }
}

TEST_F(Registration, EachFormOfARequestGetsItsReply)
{
    const std::string csProgram = csAddProgram("new", 5000);
    AddUnit("DXCS-holder", csAddProgram("holder", 4464));
    const struct
    {
        int nForm;
        const char* pszName;
        int nPort;
        const char* pszReply;
        bool bRegistered;
    } tCases[] = {
        {0, "ansi", 5000, "UNKNOWN", true},
        {0, "wraps", 70000, "UNKNOWN", false}, // that is 4464, the holder's port
        {1, "wide", 5000, "", true},
        {1, "refused", 4464,
         "The server \"refused\" was not registered: its port 4464 is already used by the server \"holder\". "
         "Set "
         "another AccessPort in its DXConf.ini, then register it again.",
         false},
        {2, "other", 5000, "UNKNOWN", false},
        {-1, "other", 5000, "UNKNOWN", false},
    };
    CPipeServerVelmoManager clPipe;
    clPipe.SetManager(m_pclManager.get());
    ASSERT_TRUE(clPipe.bStart());
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszName);
        const CReplyPipe clReply(-4711);
        const std::string stSend = csRequest(-4711, st.nForm, st.pszName, csProgram, st.nPort);
        ASSERT_TRUE(bWritePipe("/tmp/__pipe_velmomanager__", stSend));
        EXPECT_EQ(clReply.csReply(), st.pszReply);
        const std::string csUnit = std::string("DXCS-") + st.pszName;
        EXPECT_EQ(tUnits().contains(csUnit), st.bRegistered);
        std::filesystem::remove("/lib/systemd/system/" + csUnit + ".service");
    }
}

TEST_F(Registration, ServersThatComeAtOnceGetOneServiceEach)
{
    CRestartOnFailed clMonitor(m_pclManager->pclGetServiceManager(), 0);
    clMonitor.xStart();
    std::atomic<bool> bDone = false;
    std::thread clLister([&] {
        while (!bDone) {
            CTString csList;
            m_pclManager->AddServeurList(&csList);
        }
    });
    std::vector<std::thread> tServers;
    std::set<std::string> tExpected;
    for (int n = 0; n < 12; ++n) { // three servers, each four times
        const std::string csName = "s" + std::to_string(n % 3);
        tExpected.insert("DXCS-" + csName);
        const std::string csProgram = csAddProgram(csName, 4910 + n % 3);
        tServers.emplace_back([=, this] {
            EXPECT_EQ(csRegister(csName, csProgram, static_cast<std::uint16_t>(4910 + n % 3)), "");
        });
    }
    for (std::thread& clServer : tServers) {
        clServer.join();
    }
    bDone = true;
    clLister.join();
    clMonitor.Stop();
    EXPECT_EQ(tUnits(), tExpected);
    const std::string csJournal = m_pclTool->csTakeJournal();
    for (const std::string& csUnit : tExpected) {
        EXPECT_TRUE(bActive(csUnit)) << csUnit;
        EXPECT_EQ(csJournal.find("enable " + csUnit), csJournal.rfind("enable " + csUnit))
            << "installed once";
    }
}
