#pragma once

#include "tools/Command.h"
#include "tools/Machine.h"
#include "tools/PipeClient.h"
#include "tools/Wait.h"
#include "tools/WireClient.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>

/// What the tests of servers' names and paths share: a manager that is asked in both ways.

/// The reply to a line, in UTF-8.
inline std::string csUTF8Reply(const std::string& csLine)
{
    CWireClient clTool("127.0.0.1", 4999);
    clTool.csLine();
    clTool.csAsk("MODE_UTF8");
    return clTool.csAsk(csLine, std::chrono::seconds(40));
}

inline bool bListed(const std::string& csName, int nPort)
{
    const std::string csEntry = "\t" + csName + "\t" + std::to_string(nPort);
    const std::string csReply = csUTF8Reply("INFO");
    return csReply.find(csEntry + "\t") != std::string::npos ||
           csReply.find(csEntry + "\r") != std::string::npos;
}

/// The manager's answer to a registration; a name longer than the field of form 1 goes by form 0, which
/// always says "UNKNOWN".
inline std::string csRegister(const std::string& csName, const std::string& csPath, int nPort)
{
    static int s_nReply = 5000;
    const CReplyPipe clReply(++s_nReply);
    const int nForm = csFromUTF8(csName).size() > 128 ? 0 : 1;
    if (!bWritePipe("/tmp/__pipe_velmomanager__", csRequest(s_nReply, nForm, csName, csPath, nPort))) {
        return "<no pipe>";
    }
    return clReply.csReply(40'000);
}

/// The files named "ran" that a "touch ran" in a name or path, run by a shell, would have left: in the folder
/// of a server, of the system's tools or of whoever else starts one. The rest of the root is as large as the
/// host's.
inline std::string csRan()
{
    return stRun("find / -maxdepth 1 -name ran; find /etc /opt /root /run /tmp /var /lib/systemd -name ran")
        .csOutput;
}

/// A program of a server, with settings beside it and a file of data if no other server has them there.
inline void PutProgram(const std::filesystem::path& clProgram, int nPort)
{
    namespace fs = std::filesystem;
    fs::create_directories(clProgram.parent_path());
    fs::copy_file(csBuildFolder() + "/dxdemo", clProgram, fs::copy_options::overwrite_existing);
    if (!fs::exists(clProgram.parent_path() / "DXConf.ini")) {
        std::ofstream(clProgram.parent_path() / "DXConf.ini") << "[INIT]\nAccessPort=" << nPort << "\n";
        std::ofstream(clProgram.parent_path() / "base.dat") << "data";
    }
}

/// The manager in a folder with a space, as a child of the test, once it reads its pipe.
inline std::unique_ptr<CManagerProcess> pclStartManager(const std::string& csSettings)
{
    PutManager("my manager", csSettings);
    auto pclManager = std::make_unique<CManagerProcess>("'/opt/velmo/my manager/VelmoManager'");
    EXPECT_TRUE(pclManager->bAnswers());
    EXPECT_TRUE(bWaitUntil([] { return bWritePipe("/tmp/__pipe_velmomanager__", ""); }, 5000));
    return pclManager;
}

/// The whole life of a server whose path has a space, with a manager that looks every second for failed ones.
inline void LiveAtAPathWithASpace(bool bRestartedWhenKilled)
{
    const auto bServes = [] { return CWireClient("127.0.0.1", 4950).csLine() == "HELLO FROM DXCS-db\r\n"; };
    const std::string csProgram = "/opt/my db/srv/dxdemo";
    PutProgram(csProgram, 4950);
    std::filesystem::create_directories("/opt/my");
    EXPECT_EQ(csRegister("db", csProgram, 4950), "");
    EXPECT_EQ(csRegister("db", "\"" + csProgram + "\"", 4950), "") << "the same in quotes";
    EXPECT_TRUE(bListed("db", 4950));
    EXPECT_EQ(csUTF8Reply("STATUS\tdb"), "STATUS\tRUNNING\r\n");
    EXPECT_TRUE(bServes());
    if (bRestartedWhenKilled) {
        const std::string csKilled = stRun("cat /run/DXCS-db.pid; kill -9 $(cat /run/DXCS-db.pid)").csOutput;
        EXPECT_TRUE(bWaitUntil(
            [&] { return bServes() && stRun("cat /run/DXCS-db.pid").csOutput != csKilled; }, 15'000));
    }
    EXPECT_EQ(stRun("'/opt/velmo/my manager/VelmoManager' --STOP-SERVER '/opt/my db/srv'").nStatus, 0);
    EXPECT_EQ(csUTF8Reply("STATUS\tdb"), "STATUS\tSTOPPED\r\n");
    EXPECT_FALSE(bServes());
    EXPECT_EQ(csUTF8Reply("START\tdb"), "OK\r\n");
    EXPECT_TRUE(bServes());
    EXPECT_EQ(csUTF8Reply("UNINSTALL\tdb\t1"), "ERROR\t12\t\r\n");
    EXPECT_FALSE(std::filesystem::exists("/opt/my db/srv"));
    EXPECT_TRUE(std::filesystem::exists("/opt/my")) << "what the path begins with is somebody else's";
    EXPECT_EQ(csUTF8Reply("UNINSTALL\tdb\t0"), "OK\r\n");
    EXPECT_EQ(stRun("ls /lib/systemd/system /etc/init.d /etc/rc.d 2>/dev/null | grep DXCS-db").csOutput, "");
    std::filesystem::remove_all("/opt/my");
    std::filesystem::remove_all("/opt/my db");
}
