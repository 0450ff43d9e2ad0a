// Registration of servers through the pipe, against a scripted systemctl that keeps its units.

#include "../main/SystemLog.h"
#include "manager/SetupManager.h"
#include "tools/Command.h"
#include "tools/PipeClient.h"
#include "tools/SystemdTest.h"

#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>

namespace {
using ::testing::HasSubstr;

constexpr char s_szRegistry[] = ". " VELMO_SCRIPTS "registry.sh";

/// Registers a unit; without a path it has no executable.
void AddUnit(const std::string& csUnit, const std::string& csExecutable)
{
    std::ofstream("/lib/systemd/system/" + csUnit + ".service")
        << "Description=" << csUnit << "\nType=forking\n"
        << (csExecutable.empty() ? "" : "ExecStart=" + csExecutable + " --SERVICE " + csUnit + "\n");
}

/// Puts a server's files in /tmp/<folder>/; returns its executable.
std::string csAddProgram(const std::string& csFolder, int nPort)
{
    stRun("mkdir -p /tmp/" + csFolder + "; touch /tmp/" + csFolder + "/srv");
    std::ofstream("/tmp/" + csFolder + "/DXConf.ini") << "[INIT]\nAccessPort=" << nPort << "\n";
    return "/tmp/" + csFolder + "/srv";
}

constexpr char s_szListUnits[] = "ls /lib/systemd/system";

class Registration : public CSystemdTest
{
protected:
    void SetUp() override
    {
        CSystemdTest::SetUp();
        if (IsSkipped()) {
            return;
        }

        stRun("rm -rf /lib/systemd/system/* /run/*");
        m_clPipe.SetManager(&m_clSetup);
        ASSERT_TRUE(m_clPipe.bStart());
    }
    /// The reply to a request.
    static std::string csRegister(int nForm, const std::string& csName, const std::string& csPath, int nPort)
    {
        const CReplyPipe clReply(-4711);
        const std::string csRecord = csRequest(-4711, nForm, csName, csPath, nPort);
        return bWritePipe("/tmp/__pipe_velmomanager__", csRecord) ? clReply.csReply() : "<no manager>";
    }
    CFakeTool m_clTool{"/bin/systemctl", s_szRegistry};
    CSetupManager m_clSetup;
    CPipeServerVelmoManager m_clPipe;
};
} // namespace

TEST_F(Registration, AServerIsRecognisedOrRefusedOrGetsItsOwnUnit)
{
    using CUnits = std::map<std::string, std::string>; // with their programs
    const CUnits tA = {{"DXCS-a", "/tmp/A/srv"}};
    const CUnits tBoth = {{"DXCS-a", "/tmp/A/srv"}, {"DXCS-b", "/tmp/B/srv"}};
    const CUnits tEmpty = {{"DXCS-a", ""}};
    const struct
    {
        const char* pszWhat;
        CUnits tUnits;
        const char* pszName;
        const char* pszPath;
        int nPort;
        const char* pszReply; ///< part of it
        const char* pszStarted;
    } tCases[] = {
        {"own unit, another port now", tA, "a", "/tmp/A/srv", 4999, "", "DXCS-a"},
        {"own unit by another path", tA, "a", "/tmp/./N/../A/srv", 1, "", "DXCS-a"},
        {"own unit, port of another", tBoth, "a", "/tmp/A/srv", 4902, "its port 4902", ""},
        {"name of another", {{"DXCS-a_b", "/tmp/A/srv"}}, "a b", "/tmp/N/srv", 1, "for /tmp/A/srv.", ""},
        {"name of one without program", tEmpty, "a", "/tmp/N/srv", 1, "registered for .", ""},
        {"names differ by case", tA, "A", "/tmp/N/srv", 1, "", "DXCS-A"},
        {"default port of another", {{"DXCS-a", "/tmp/C/srv"}}, "n", "/tmp/N/srv", 4900, "\"a\"", ""},
        {"one without program holds no port", tEmpty, "n", "/tmp/N/srv", 4900, "", "DXCS-n"},
        {"port beyond 16 bits", {{"DXCS-a", "/tmp/big/srv"}}, "n", "/tmp/N/srv", 4464, "", "DXCS-n"},
        {"no name", {}, "", "/tmp/N/srv", 1, "Invalid argument", ""},
        {"a name that means more", {}, "a;-Hhost", "/tmp/N/srv", 1, "Invalid argument", ""},
        {"a relative path", {}, "a", "tmp/N/srv", 1, "Invalid argument", ""},
        {"a path of two lines", {}, "a", "/x\n[Service]\nx=", 1, "Invalid argument", ""},
    };
    for (const auto& [pszFolder, nPort] : {std::pair{"A", 4901}, {"B", 4902}, {"N", 5000}, {"big", 70000}}) {
        csAddProgram(pszFolder, nPort);
    }
    stRun("mkdir /tmp/C; touch /tmp/C/srv");
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszWhat);
        stRun("rm -rf /lib/systemd/system/* /run/*");
        for (const auto& [csUnit, csProgram] : st.tUnits) {
            AddUnit(csUnit, csProgram);
        }
        const std::string csBefore = stRun(s_szListUnits).csOutput;
        const std::string csReply = csRegister(1, st.pszName, st.pszPath, st.nPort);
        EXPECT_THAT(csReply, HasSubstr(st.pszReply));
        EXPECT_EQ(csReply.empty(), *st.pszStarted != 0) << csReply;
        EXPECT_EQ(stRun("ls /run").csOutput,
                  *st.pszStarted == 0 ? "" : st.pszStarted + std::string(".state\n"));
        EXPECT_TRUE(csReply.empty() || stRun(s_szListUnits).csOutput == csBefore)
            << "a refusal changes nothing";
    }
}

TEST_F(Registration, ARefusalIsLoggedOnceAlsoWhenTheProgramHasAnotherName)
{
    REQUIRE_PRIVATE_DEVICES();
    const CSystemLog clLog;
    AddUnit("DXCS-a", csAddProgram("A", 4901));
    AddUnit("DXCS-b", csAddProgram("B", 4902));
    EXPECT_THAT(csRegister(1, "n", "/tmp/A/srv", 4902), HasSubstr("port 4902"));
    EXPECT_THAT(clLog.csNext(), HasSubstr("port 4902"));
    EXPECT_TRUE(clLog.bSilent());
}

TEST_F(Registration, NothingIsWrittenWhenTheServicesCannotBeListed)
{
    AddUnit("DXCS-a", csAddProgram("A", 4901));
    AddUnit("DXCS-known", csAddProgram("known", 4902));
    csAddProgram("N", 5000);
    const auto csAll = [] { return stRun("cat /lib/systemd/system/* /tmp/*/DXConf.ini; ls /run").csOutput; };
    const std::string csBefore = csAll();
    // Another program under the name of a; a program whose unit has another name; a new one.
    const std::tuple<const char*, const char*, int> tServers[] = {
        {"a", "/tmp/N/srv", 5000}, {"other", "/tmp/A/srv", 4901}, {"n", "/tmp/N/srv", 5000}};
    for (const char* pszBroken : {"list-units*", "*show*DXCS-known"}) {
        m_clTool.Write("broken", pszBroken);
        for (const auto& [pszName, pszPath, nPort] : tServers) {
            EXPECT_THAT(csRegister(1, pszName, pszPath, nPort), HasSubstr("could not be listed"));
            EXPECT_EQ(csAll(), csBefore) << pszName;
        }
    }
    m_clTool.Write("broken", "nothing");
    EXPECT_THAT(csRegister(1, "a", "/tmp/N/srv", 5000), HasSubstr("already registered"));
    EXPECT_EQ(csRegister(1, "n", "/tmp/N/srv", 5000), "");
}

TEST_F(Registration, TheOldFormIsUnderstoodButOnlyTheNewOneIsToldTheOutcome)
{
    const std::string csProgram = csAddProgram("new", 5000);
    AddUnit("DXCS-holder", csAddProgram("holder", 4464));
    const std::tuple<int, int, const char*> tCases[] = {
        // form, port, units afterwards
        {0, 70000, "DXCS-holder.service\n"}, // that is 4464, the holder's port
        {0, 5000, "DXCS-ansi.service\nDXCS-holder.service\n"},
        {2, 5000, "DXCS-holder.service\n"},
    };
    for (const auto& [nForm, nPort, pszUnits] : tCases) {
        EXPECT_EQ(csRegister(nForm, "ansi", csProgram, nPort), "UNKNOWN");
        EXPECT_EQ(stRun(s_szListUnits).csOutput, pszUnits);
        stRun("rm -f /lib/systemd/system/DXCS-ansi.service");
    }
}
