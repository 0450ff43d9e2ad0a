#include "ManagerWorld.h"

#include "support/Descripteur.h"
#include "tools/Command.h"
#include "tools/PingClient.h"
#include "tools/PipeClient.h"
#include "tools/Wait.h"
#include "tools/WireClient.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/wait.h>

namespace fs = std::filesystem;

namespace {
/// Opened before the private world's own mounts may hide it.
const CDescripteur s_clPrograms(::open(csBuildFolder().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));

constexpr unsigned short s_wPort = 4999;
constexpr char s_szOwnSettings[] = "/run/velmo/DXConf.ini";
constexpr char s_szServerSettings[] = "/run/velmo/a/DXConf.ini";
constexpr char s_szOwnText[] = "[MANAGER]\nRestartOnFailed=1\nCheckPeriod=1\n";
constexpr char s_szServerText[] = "; kept\n[INIT]\nName=old\nAccessPort=4900\n[OTHER]\nKey=value\n";
constexpr char s_szRegisteredText[] = "; kept\n[INIT]\nName = A\nAccessPort=4900\n[OTHER]\nKey=value\n";

constexpr char s_szSystemctl[] = R"(
unit='Type=forking
ExecStart={ path=/run/velmo/a/dxsrv ; argv[]=/run/velmo/a/dxsrv --SERVICE DXCS-A ; ignore_errors=no }
Description=DXCS-A'
case "$*" in
*list-units*) echo "  DXCS-A.service loaded active running DXCS-A" ;;
*ActiveState*DXCS-A) echo ActiveState=active ;;
*"show DXCS-A dxsql") printf '%s\n' Id=DXCS-A.service "$unit" "" Id=dxsql.service Type= ;;
*Description*DXCS-A) echo "$unit" ;;
*Description*) echo Description=none ;;
esac
exit 0)";

std::string csWrong(const std::string& csWhat, const std::string& csSeen)
{
    return csWhat + ": " + csSeen.substr(0, 200) + "\n";
}

std::string csOfConversation(CWireClient::Duration clLimit)
{
    const std::pair<std::string, const char*> tSteps[] = {
        // the reply's beginning
        {"MODE_UTF8", "OK\r\n"},
        {"INFO", "YES\t"},
        {"STATUS\tA", "STATUS\tRUNNING\r\n"},
        {"STATUS\tnobody", "ERROR\t1No such file or directory\r\n"},
        {"START\tA", "OK\r\n"},
        {"CLUSTERINFO\tA", "YES\t0\t\r\n"},
        {"HELP", "ERROR\t8\r\n"},
        {"QUIT", "<closed>"},
    };
    CWireClient clTool;
    if (!clTool.bConnect("127.0.0.1", s_wPort) && !clTool.bConnect("::1", s_wPort)) {
        return "no connection\n";
    }
    if (const std::string cs = clTool.csLine(clLimit); !cs.starts_with("HELLO")) {
        return csWrong("greeting", cs);
    }
    std::string csAll;
    for (const auto& [csSent, pszReply] : tSteps) {
        const std::string cs = clTool.csAsk(csSent, clLimit);
        if (!cs.starts_with(pszReply) || (csSent == "INFO" && !cs.ends_with("\tA\t4900\r\n"))) {
            csAll += csWrong(csSent, cs);
        }
        if (cs.find('<') != std::string::npos) {
            break; // closed or late: what follows would be out of step
        }
    }
    return csAll;
}

std::string csOfPing(int nMs)
{
    std::string csSeen;
    for (const char* pszAddress : {"127.0.0.1", "::1"}) { // one family is enough
        CPingClient clTool;
        (void)clTool.Ask(pszAddress, s_wPort, "ARE YOU A DEXARO MANAGER UTF-8?\r\n");
        csSeen = clTool.csAnswer(nMs);
        if (csSeen.find(" YES\t") != std::string::npos && csSeen.ends_with("\tA\t4900")) {
            return "";
        }
    }
    return csWrong("ping", csSeen);
}

std::string csOfRegistration(int nMs)
{
    const std::string cs = csRegister("B", CManagerWorld::Server, 4901, 1, nMs);
    return cs.empty() ? "" : csWrong("registration", cs);
}
} // namespace

void ExpectNothingLeft(pid_t nProcess, const STFigures& stBefore, int nMs)
{
    STFigures st;
    EXPECT_TRUE(bWaitUntil(
        [&] {
            st = stFiguresOf(nProcess);
            return st.nDescriptors <= stBefore.nDescriptors && st.nThreads <= stBefore.nThreads &&
                   st.nChildren == 0;
        },
        nMs))
        << st.nDescriptors << " descriptors instead of " << stBefore.nDescriptors << ", " << st.nThreads
        << " threads instead of " << stBefore.nThreads << ", " << st.nChildren << " children";
}

CManagerWorld::CManagerWorld(const std::string& csSystemctl)
    : m_clSystemctl("/bin/systemctl", csSystemctl + s_szSystemctl)
{
    fs::create_directories("/run/velmo/a");
    const fs::path clPrograms = "/proc/self/fd/" + std::to_string(s_clPrograms.nFd());
    for (const char* pszName : {"VelmoManager", "zt240vm64.so", "zt240obj.so", "libvelmofaults.so",
                                "libvelmooldkernel.so", "refuse"}) {
        fs::copy_file(clPrograms / pszName, fs::path("/run/velmo") / pszName,
                      fs::copy_options::overwrite_existing);
    }
    fs::copy_file("/bin/true", Server, fs::copy_options::overwrite_existing);
    Reset();
}

void CManagerWorld::Reset()
{
    (void)bFreshNetwork(); // an earlier run's connections still hold the port
    std::ofstream(s_szOwnSettings) << s_szOwnText;
    std::ofstream(s_szServerSettings) << s_szServerText;
    std::error_code clIgnored;
    fs::remove(Pipe, clIgnored);
    fs::remove("/lib/systemd/system/DXCS-B.service", clIgnored);
}

std::string CManagerWorld::csDamage()
{
    const std::string csServer = stRun(std::string("cat ") + s_szServerSettings).csOutput;
    const std::string csOwn = stRun(std::string("cat ") + s_szOwnSettings).csOutput;
    std::string csAll = csOwn == s_szOwnText ? "" : csWrong("manager's settings", csOwn);
    if (csServer != s_szServerText && csServer != s_szRegisteredText) {
        csAll += csWrong("server's settings", csServer);
    }
    return fs::exists(Pipe) ? csAll + "the pipe is left behind\n" : csAll;
}

bool CManagerRun::bRuns() const
{
    siginfo_t st{};
    return ::waitid(P_PID, static_cast<id_t>(nPid()), &st, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           st.si_pid == 0;
}

bool CManagerRun::bAnswers(int nMs) const
{
    const auto fnGreets = [](const char* pszAddress) {
        return CWireClient(pszAddress, s_wPort).csLine(CWireClient::Duration(500)).starts_with("HELLO");
    };
    // The pipe comes last in the start.
    return bWaitUntil([&] { return fnGreets("127.0.0.1") || fnGreets("::1") || !bRuns(); }, nMs) &&
           bWaitUntil([&] { return fs::exists(CManagerWorld::Pipe) || !bRuns(); }, 2000) && bRuns();
}

std::string csPlay(bool bStrict)
{
    const int nMs = bStrict ? 10'000 : 1000;
    return csOfConversation(CWireClient::Duration(nMs)) + csOfPing(nMs) + csOfRegistration(nMs);
}
