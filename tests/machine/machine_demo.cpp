// The sample server keeps to what systemd expects of a forking service, also when it is told to fail.

#include "tools/Command.h"
#include "tools/Machine.h"
#include "tools/Wait.h"
#include "tools/WireClient.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {
std::string csProperty(const std::string& csUnit, const std::string& csName)
{
    std::string csValue = stRun("systemctl show --value -p " + csName + " " + csUnit).csOutput;
    csValue.erase(csValue.find_last_not_of('\n') + 1);
    return csValue;
}

bool bBecomes(const std::string& csUnit, const std::string& csResult)
{
    return bWaitUntil([&] { return csProperty(csUnit, "Result") == csResult; }, 5000);
}

int nPut(const std::string& csUnit, int nPort, const std::string& csSettings)
{
    AddServer(csUnit, csUnit, nPort, csSettings);
    stRun("systemctl daemon-reload");
    return stRun("systemctl start " + csUnit).nStatus;
}
} // namespace

TEST(SampleServer, ListensAndHasItsPidFileWhenItsStartReturnsAndLeavesNothingBehind)
{
    for (const char* pszSettings : {"", "StartDelay=500\n"}) {
        SCOPED_TRACE(pszSettings);
        ASSERT_EQ(nPut("DXCS-good", 4910, pszSettings), 0);
        EXPECT_EQ(CWireClient("127.0.0.1", 4910).csLine(), "HELLO FROM DXCS-good\r\n");
        EXPECT_EQ(CWireClient("::1", 4910).csLine(), "HELLO FROM DXCS-good\r\n");
        EXPECT_EQ(stRun("cat /var/run/DXCS-good.pid").csOutput, csProperty("DXCS-good", "MainPID") + "\n");
        EXPECT_EQ(stRun("systemctl stop DXCS-good").nStatus, 0);
        EXPECT_EQ(csProperty("DXCS-good", "Result"), "success");
        EXPECT_FALSE(std::filesystem::exists("/var/run/DXCS-good.pid"));
    }
}

TEST(SampleServer, FailsCrashesAndStaysWhenItIsTold)
{
    EXPECT_EQ(nPut("DXCS-fails", 4911, "FailAtStart=1\n"), 1);
    EXPECT_TRUE(bBecomes("DXCS-fails", "exit-code"));
    EXPECT_EQ(nPut("DXCS-crashes", 4912, "CrashAfter=200\n"), 0);
    EXPECT_TRUE(bBecomes("DXCS-crashes", "signal"));
    EXPECT_EQ(nPut("DXCS-stays", 4913, "IgnoreTerm=1\n"), 0);
    EXPECT_EQ(stRun("kill -TERM $(cat /var/run/DXCS-stays.pid)").nStatus, 0);
    EXPECT_EQ(CWireClient("127.0.0.1", 4913).csLine(), "HELLO FROM DXCS-stays\r\n");
    EXPECT_EQ(csProperty("DXCS-stays", "ActiveState"), "active");
    stRun("systemctl kill -s KILL DXCS-stays");
}

// The other end of the manager's pipe is played by the shell: it takes one request and answers to its number.
TEST(SampleServer, RegistersItselfWithOneRecordAndReportsTheAnswer)
{
    AddServer("DXCS-new", "DXCS-new", 4914, "[INIT]\nName=N\xE9W\n");
    const std::string csRegister = "/opt/velmo/DXCS-new/dxdemo --REGISTER";
    EXPECT_EQ(stRun(csRegister).nStatus, 1) << "nobody listens";
    ASSERT_EQ(::mkfifo("/tmp/__pipe_velmomanager__", 0600), 0);
    for (const char* pszAnswer : {"", "refused"}) {
        SCOPED_TRACE(pszAnswer);
        const STCommandResult st = stRun(
            std::string(
                "exec 3<>/tmp/__pipe_velmomanager__; (head -c 792 <&3 >/tmp/request; printf '%-501s' '") +
            pszAnswer +
            "' | tr ' ' '\\0' >/tmp/__pipe_velmomanager_$(od -An -td4 -N4 /tmp/request | tr -d ' ')) & " +
            csRegister + "; nStatus=$?; wait; exit $nStatus");
        EXPECT_EQ(st.csOutput, std::string(pszAnswer) + "\n");
        EXPECT_EQ(st.nStatus, *pszAnswer == '\0' ? 0 : 1);
        // Number and form; port 4914; the name from its single-byte file in UTF-16; the path.
        EXPECT_EQ(stRun("od -An -tx1 -j4 -N14 /tmp/request").csOutput,
                  " 01 00 00 00 32 13 4e 00 e9 00 57 00 00 00\n");
        EXPECT_EQ(stRun("tail -c +269 /tmp/request | tr -d '\\0'").csOutput, "/opt/velmo/DXCS-new/dxdemo");
        EXPECT_EQ(std::filesystem::file_size("/tmp/request"), 792u);
    }
    std::filesystem::remove("/tmp/__pipe_velmomanager__");
    EXPECT_EQ(stRun("ls /tmp/__pipe*").nStatus, 2) << "reply pipes are removed";
}
