#pragma once

#include "tools/Address.h"
#include "tools/Command.h"
#include "tools/Machine.h"
#include "tools/PipeClient.h"
#include "tools/Transcript.h"
#include "tools/Wait.h"
#include "tools/WireClient.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>

/// What the programs that run in a throwaway machine have in common: a manager, servers, and the machine's
/// own words about both.

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using CClock = std::chrono::steady_clock; // the one of systemd's monotonic time stamps
using ::testing::HasSubstr;

constexpr char g_szFifo[] = "/tmp/__pipe_velmomanager__";
constexpr char g_szHello[] = "HELLO FROM SERVEUR SETUP 24.0.6.0\r\n";
constexpr char g_szNone[] =
    "ERROR\t1No such file or directory\r\n"; ///< the reply about a server nobody knows

/// Whether a test does the whole work, or the sample that a usual run takes.
inline bool bLong()
{
    return std::getenv("VELMO_LONG") != nullptr;
}

inline bool bSystemd()
{
    return fs::exists("/run/systemd/system");
}

inline long nMsSince(CClock::time_point clStart)
{
    return (CClock::now() - clStart) / 1ms;
}

/// What a command prints, without the last newlines.
inline std::string csOutput(const std::string& csCommand)
{
    std::string cs = stRun(csCommand).csOutput;
    cs.erase(cs.find_last_not_of('\n') + 1);
    return cs;
}

/// A property of a unit, as systemd shows it.
inline std::string csShow(const std::string& csProperty, const std::string& csUnit = "VelmoManager")
{
    return csOutput("systemctl show --value -p " + csProperty + " " + csUnit);
}

/// The process that the PID file of a service names; 0 without one.
inline pid_t nPidOf(const std::string& csService)
{
    pid_t nPid = 0;
    std::ifstream("/run/" + csService + ".pid") >> nPid;
    return nPid;
}

/// Whether a program greets on that port.
inline bool bServes(unsigned short wPort)
{
    return CWireClient("127.0.0.1", wPort).csLine().starts_with("HELLO");
}

/// Holds the manager's port, in both address families.
inline CDescripteur clTakePort(int nType = SOCK_STREAM)
{
    CDescripteur clSocket(::socket(AF_INET6, nType | SOCK_CLOEXEC, 0));
    const sockaddr_in6 st = stAddress("::", 4999);
    const int nYes = nType == SOCK_STREAM ? 1 : 0; // whatever is left of earlier conversations
    ::setsockopt(clSocket.nFd(), SOL_SOCKET, SO_REUSEADDR, &nYes, sizeof nYes);
    EXPECT_EQ(::bind(clSocket.nFd(), reinterpret_cast<const sockaddr*>(&st), sizeof st), 0);
    EXPECT_TRUE(nType != SOCK_STREAM || ::listen(clSocket.nFd(), 1) == 0);
    return clSocket;
}

/// The manager's reply to a line, in a conversation of its own.
inline std::string csAsk(const std::string& csLine)
{
    return csAskManager(csLine, 70s);
}

/// What a sample server says when it registers itself; empty when it went well.
inline std::string csRegisterItself(const std::string& csFolder)
{
    return csOutput("/opt/velmo/" + csFolder + "/dxdemo --REGISTER");
}

/// Plays a transcript of this folder where the servers of a test are, with the client within reach.
inline void Play(const std::string& csTranscript)
{
    PlayTranscript(VELMO_FOLDER "transcripts/" + csTranscript,
                   "cd /opt/velmo 2>/dev/null || cd /; PATH=$PATH:" + csBuildFolder() + "; ");
}

/// A manager in the foreground, in a folder with a space, and the servers of a test.
class CMachineTest : public ::testing::Test
{
protected:
    void TearDown() override
    {
        m_pclManager.reset();
        RemoveServices();
    }
    /// The settings are those of its section MANAGER. A manager that runs already ends first.
    void StartManager(const std::string& csSettings, const std::string& csWrapper = "")
    {
        m_pclManager.reset();
        PutManager("my manager", csSettings);
        m_pclManager = std::make_unique<CManagerProcess>(csWrapper + "'/opt/velmo/my manager/VelmoManager'");
        ASSERT_TRUE(m_pclManager->bAnswers());
    }
    std::unique_ptr<CManagerProcess> m_pclManager;
};
