// Registration of servers, called directly and through the pipe, against a scripted systemctl that keeps its
// units.

#include "manager/SetupManager.h"
#include "service/LanceProcessus.h"
#include "support/Conversion.h"
#include "tools/Command.h"
#include "tools/PipeClient.h"
#include "tools/PrivateWorld.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <set>
#include <thread>

namespace {
using ::testing::HasSubstr;

/// A scripted systemctl with a memory: units are the files of the private /lib/systemd/system, their state is
/// the file DIR/UNIT.state ("inactive" without one); "start" makes a unit active unless it is named DXCS-bad.
constexpr char s_szRegistry[] = R"script(for LAST; do :; done
FILE=/lib/systemd/system/$LAST.service
case "$*" in
list-units*) for f in /lib/systemd/system/*.service; do [ -e "$f" ] && echo "  ${f##*/} loaded x y z"; done; exit 0 ;;
*ActiveState*) echo "ActiveState=$(cat "/run/$LAST.state" 2>/dev/null || echo inactive)" ;;
*Description*) [ -e "$FILE" ] || { echo Type=; exit; }
    sed -n 's/^ExecStart=\(.*\)/ExecStart={ path=x ; argv[]=\1 ; }/p; /^Description=/p; /^Type=/p' "$FILE" ;;
"start DXCS-bad") exit 1 ;;
start*) echo active >"/run/$LAST.state" ;;
esac)script";

/// Registers a unit; without a path it has no executable.
void AddUnit(const std::string& csUnit, const std::string& csExecutable)
{
    std::ofstream clFile("/lib/systemd/system/" + csUnit + ".service");
    clFile << "Description=" << csUnit << "\nType=forking\n";
    if (!csExecutable.empty()) {
        clFile << "ExecStart=" << csExecutable << " --SERVICE " << csUnit << "\n";
    }
}

/// Puts a server's files in /tmp/<folder>/; returns its executable.
std::string csAddProgram(const std::string& csFolder, int nPort)
{
    stRun("mkdir -p /tmp/" + csFolder + "; touch /tmp/" + csFolder + "/srv");
    std::ofstream("/tmp/" + csFolder + "/DXConf.ini") << "[INIT]\nAccessPort=" << nPort << "\n";
    return "/tmp/" + csFolder + "/srv";
}

std::set<std::string> tUnits()
{
    std::set<std::string> tAll;
    for (const auto& clEntry : std::filesystem::directory_iterator("/lib/systemd/system")) {
        tAll.insert(clEntry.path().stem().string());
    }
    return tAll;
}

class Registration : public ::testing::Test
{
protected:
    void SetUp() override
    {
        REQUIRE_PRIVATE_WORLD();
        stRun("rm -rf /lib/systemd/system/* /run/*");
        CLanceProcessus::sInit();
        CServiceManager::ms_eDistri = DISTRI_SYSTEMD;
        m_pclTool = std::make_unique<CFakeTool>("/bin/systemctl", s_szRegistry);
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
    static std::string csFile(const std::string& csPath) { return stRun("cat " + csPath).csOutput; }
    static bool bActive(const std::string& csUnit)
    {
        return csFile("/run/" + csUnit + ".state") == "active\n";
    }

    std::unique_ptr<CFakeTool> m_pclTool;
    std::unique_ptr<CSetupManager> m_pclManager;
};
} // namespace

TEST_F(Registration, AServerIsRecognisedAdoptedOrRefused)
{
    using Units = std::vector<std::pair<std::string, std::string>>; // unit, folder of its program
    const Units tA = {{"DXCS-a", "A"}};
    const Units tAB = {{"DXCS-a", "A"}, {"DXCS-b", "B"}};
    const std::string csName =
        "The server \"a\" (/tmp/N/srv) was not registered: its name is already registered "
        "for /tmp/A/srv.";
    const std::string csPort =
        "The server \"n\" was not registered: its port 4901 is already used by the server \"a\".";
    const struct
    {
        const char* pszWhat;
        Units tUnits;
        const char* pszName;
        const char* pszFolder;
        int nPort;
        std::string csReply; ///< part of it
        std::string csStarted;
    } tCases[] = {
        {"own unit", tA, "a", "A", 4901, "", "DXCS-a"},
        {"own unit, another port now", tA, "a", "A", 4999, "", "DXCS-a"},
        {"own unit by another path", tA, "a", "./A/../A", 4901, "", "DXCS-a"},
        {"name of another", tA, "a", "N", 5000, csName, ""},
        {"name with a blank of another", {{"DXCS-a_b", "A"}}, "a b", "N", 5000, "already registered for", ""},
        {"name of a unit without program", {{"DXCS-a", ""}}, "a", "N", 5000, "already registered for .", ""},
        {"names differ by case", tA, "A", "N", 5000, "", "DXCS-A"},
        {"port of another", tA, "n", "N", 4901, csPort, ""},
        {"default port of another", {{"DXCS-a", "unset"}}, "n", "N", 4900, "used by the server \"a\"", ""},
        {"another without program holds no port", {{"DXCS-a", ""}}, "n", "N", 4900, "", "DXCS-n"},
        {"another's port is beyond 16 bits", {{"DXCS-a", "big"}}, "n", "N", 4464, "", "DXCS-n"},
        {"own unit, port of another", tAB, "a", "A", 4902, "its port 4902", ""},
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
        stRun("rm -rf /lib/systemd/system/* /run/*");
        for (const auto& [csUnit, csFolder] : st.tUnits) {
            AddUnit(csUnit, csFolder.empty() ? "" : "/tmp/" + csFolder + "/srv");
        }
        const auto tBefore = tUnits();
        const std::string csReply = csRegister(st.pszName, std::string("/tmp/") + st.pszFolder + "/srv",
                                               static_cast<std::uint16_t>(st.nPort));
        EXPECT_THAT(csReply, HasSubstr(st.csReply));
        EXPECT_EQ(csReply.empty(), st.csReply.empty()) << csReply;
        for (const std::string& csUnit : tUnits()) {
            EXPECT_EQ(bActive(csUnit), csUnit == st.csStarted) << csUnit;
        }
        EXPECT_TRUE(st.csStarted.empty() || tUnits().contains(st.csStarted));
        const bool bRefused = csReply.starts_with("The server");
        EXPECT_TRUE(!bRefused || tUnits() == tBefore) << "a refusal changes nothing";
    }
}

TEST_F(Registration, WhatCannotBeAServiceIsRefusedAndLeavesNothing)
{
    const std::string csProgram = csAddProgram("new", 4901);
    for (const std::string& csName : {std::string(), std::string("a*"), std::string("a\"b"),
                                      std::string("a\nUser=x"), std::string("a;-Hhost"), std::string("\x01"),
                                      std::string(300, 'a'), std::string(129, 'a') + "\r"}) {
        EXPECT_EQ(csRegister(csName, csProgram, 4901), "Invalid argument") << csName;
    }
    for (const char* pszPath : {"", "tmp/srv", "/x\n[Service]\nx="}) {
        EXPECT_EQ(csRegister("a", pszPath, 4901), "Invalid argument") << pszPath;
    }
    EXPECT_EQ(tUnits(), std::set<std::string>{});
}

TEST_F(Registration, EachFormOfARequestGetsItsReply)
{
    const std::string csProgram = csAddProgram("new", 5000);
    AddUnit("DXCS-holder", csAddProgram("holder", 4464));
    const std::string csRefusal = "The server \"refused\" was not registered: its port 4464 is already used "
                                  "by the server \"holder\". Set "
                                  "another AccessPort in its DXConf.ini, then register it again.";
    const struct
    {
        int nForm;
        int nPort;
        std::string csName;
        std::string csReply;
        bool bRegistered;
    } tCases[] = {
        {0, 5000, "ansi", "UNKNOWN", true},
        {0, 70000, "wraps", "UNKNOWN", false}, // that is 4464, the holder's port
        {1, 5000, "wide", "", true},
        {1, 4464, "refused", csRefusal, false},
        {2, 5000, "other", "UNKNOWN", false},
        {-1, 5000, "other", "UNKNOWN", false},
    };
    CPipeServerVelmoManager clPipe;
    clPipe.SetManager(m_pclManager.get());
    ASSERT_TRUE(clPipe.bStart());
    for (const auto& st : tCases) {
        const CReplyPipe clReply(-4711);
        const std::string csSend = csRequest(-4711, st.nForm, st.csName, csProgram, st.nPort);
        ASSERT_TRUE(bWritePipe("/tmp/__pipe_velmomanager__", csSend));
        EXPECT_EQ(clReply.csReply(), st.csReply);
        EXPECT_EQ(tUnits().contains("DXCS-" + st.csName), st.bRegistered) << st.csName;
        std::filesystem::remove("/lib/systemd/system/DXCS-" + st.csName + ".service");
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
        EXPECT_NE(csJournal.find("enable " + csUnit), std::string::npos);
        EXPECT_EQ(csJournal.find("enable " + csUnit), csJournal.rfind("enable " + csUnit))
            << "installed once";
    }
}
