#pragma once

#include "MachineTest.h"

/// What the tests of servers' names and paths share.

/// The reply to a line, in UTF-8.
inline std::string csUTF8Reply(const std::string& csLine)
{
    CWireClient clTool("127.0.0.1", 4999);
    clTool.csLine();
    clTool.csAsk("MODE_UTF8");
    return clTool.csAsk(csLine, 60s);
}

inline bool bListed(const std::string& csName, int nPort)
{
    const std::string csEntry = "\t" + csName + "\t" + std::to_string(nPort);
    const std::string csReply = csUTF8Reply("INFO");
    return csReply.find(csEntry + "\t") != std::string::npos ||
           csReply.find(csEntry + "\r") != std::string::npos;
}

/// The files named "ran" that a "touch ran" in a name or path, run by a shell, would have left: in the folder
/// of a server, of the system's tools or of whoever else starts one. The rest of the root is as large as the
/// host's.
inline std::string csRan()
{
    return csOutput(
        "find / -maxdepth 1 -name ran; find /etc /opt /root /run /tmp /var /lib/systemd -name ran");
}

/// A program of a server, with settings beside it and a file of data if no other server has them there.
inline void PutProgram(const fs::path& clProgram, int nPort)
{
    fs::create_directories(clProgram.parent_path());
    fs::copy_file(csBuildFolder() + "/dxdemo", clProgram, fs::copy_options::overwrite_existing);
    if (!fs::exists(clProgram.parent_path() / "DXConf.ini")) {
        std::ofstream(clProgram.parent_path() / "DXConf.ini") << "[INIT]\nAccessPort=" << nPort << "\n";
        std::ofstream(clProgram.parent_path() / "base.dat") << "data";
    }
}

/// The whole life of a server whose path has a space, with a manager that looks every second for failed ones.
inline void LiveAtAPathWithASpace(bool bRestartedWhenKilled)
{
    const std::string csProgram = "/opt/my db/srv/dxdemo";
    PutProgram(csProgram, 4950);
    fs::create_directories("/opt/my");
    EXPECT_EQ(csRegister("db", csProgram, 4950), "");
    EXPECT_EQ(csRegister("db", "\"" + csProgram + "\"", 4950), "") << "the same in quotes";
    EXPECT_TRUE(bListed("db", 4950));
    EXPECT_EQ(csAsk("STATUS\tdb"), "STATUS\tRUNNING\r\n");
    if (bRestartedWhenKilled) {
        const pid_t nKilled = nPidOf("DXCS-db");
        ::kill(nKilled, SIGKILL);
        EXPECT_TRUE(bWaitUntil([&] { return nPidOf("DXCS-db") != nKilled && bServes(4950); }, 15'000));
    }
    EXPECT_EQ(stRun("'/opt/velmo/my manager/VelmoManager' --STOP-SERVER '/opt/my db/srv'").nStatus, 0);
    EXPECT_EQ(csAsk("STATUS\tdb"), "STATUS\tSTOPPED\r\n");
    EXPECT_FALSE(bWaitUntil([] { return bServes(4950); }, 2000)) << "the monitor leaves what was stopped";
    EXPECT_EQ(csAsk("START\tdb"), "OK\r\n");
    EXPECT_TRUE(bServes(4950));
    EXPECT_EQ(stRun("'/opt/velmo/my manager/VelmoManager' --STOPALL").nStatus, 0);
    EXPECT_FALSE(bServes(4950));
    EXPECT_EQ(csAsk("UNINSTALL\tdb\t1"), "ERROR\t12\t\r\n");
    EXPECT_FALSE(fs::exists("/opt/my db/srv"));
    EXPECT_TRUE(fs::exists("/opt/my")) << "what the path begins with is somebody else's";
    EXPECT_EQ(csAsk("UNINSTALL\tdb\t0"), "OK\r\n");
    EXPECT_EQ(csOutput("ls /lib/systemd/system /etc/init.d /etc/rc.d 2>/dev/null | grep DXCS-db"), "");
    fs::remove_all("/opt/my");
    fs::remove_all("/opt/my db");
}
