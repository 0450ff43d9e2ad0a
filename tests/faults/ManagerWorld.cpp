#include "ManagerWorld.h"

#include "support/Descripteur.h"
#include "tools/Command.h"
#include "tools/PingClient.h"
#include "tools/PipeClient.h"
#include "tools/Wait.h"
#include "tools/WireClient.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sys/wait.h>

namespace fs = std::filesystem;

namespace {
constexpr unsigned short s_wPort = 4999;
constexpr char s_szOwnSettings[] = "/run/velmo/DXConf.ini";
constexpr char s_szServerSettings[] = "/run/velmo/a/DXConf.ini";
constexpr char s_szOwnText[] = "[MANAGER]\nRestartOnFailed=1\nCheckPeriod=1\n";
constexpr char s_szServerText[] = "; kept\n[INIT]\nName=old\nAccessPort=4900\n[OTHER]\nKey=value\n";
constexpr char s_szRegisteredText[] = "; kept\n[INIT]\nName = A\nAccessPort=4900\n[OTHER]\nKey=value\n";

constexpr char s_szSystemctl[] = R"(
case "$*" in
*list-units*) echo "  DXCS-A.service loaded active running DXCS-A" ;;
*ActiveState*DXCS-A) echo ActiveState=active ;;
*Description*DXCS-A)
    echo Type=forking
    echo "ExecStart={ path=/run/velmo/a/dxsrv ; argv[]=/run/velmo/a/dxsrv --SERVICE DXCS-A ; ignore_errors=no }"
    echo Description=DXCS-A ;;
*Description*) echo Description=none ;;
esac
exit 0)";

int nEntries(const std::string& csFolder)
{
    std::error_code clIgnored;
    return static_cast<int>(
        std::distance(fs::directory_iterator(csFolder, clIgnored), fs::directory_iterator()));
}

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
    };
    CWireClient clTool;
    if (!clTool.bConnect("127.0.0.1", s_wPort) && !clTool.bConnect("::1", s_wPort)) {
        return "no connection\n";
    }
    std::string csAll;
    if (const std::string cs = clTool.csLine(clLimit); !cs.starts_with("HELLO")) {
        return csWrong("greeting", cs);
    }
    for (const auto& [csSent, pszReply] : tSteps) {
        const std::string cs = clTool.csAsk(csSent, clLimit);
        if (!cs.starts_with(pszReply) || (csSent == "INFO" && !cs.ends_with("\tA\t4900\r\n"))) {
            csAll += csWrong(csSent, cs);
        }
        if (cs.find('<') != std::string::npos) {
            return csAll; // closed or late: what follows would be out of step
        }
    }
    if (!clTool.bSend("QUIT\r\n") || !clTool.bClosed(clLimit)) {
        csAll += "QUIT does not close\n";
    }
    return csAll;
}

std::string csOfPing(int nMs)
{
    CPingClient tTools[2]; // one family is enough
    (void)tTools[0].Ask("127.0.0.1", s_wPort, "ARE YOU A DEXARO MANAGER UTF-8?\r\n");
    (void)tTools[1].Ask("::1", s_wPort, "ARE YOU A DEXARO MANAGER UTF-8?\r\n");
    constexpr int nPart = 50;
    std::string csSeen;
    for (; nMs > 0; nMs -= nPart) {
        for (const CPingClient& clTool : tTools) {
            csSeen = clTool.csAnswer(nPart);
            if (csSeen.find(" YES\t") != std::string::npos && csSeen.ends_with("\tA\t4900")) {
                return "";
            }
        }
    }
    return csWrong("ping", csSeen);
}

std::string csOfRegistration(int nMs)
{
    const CReplyPipe clReply(::getpid());
    if (!bWritePipe(CManagerWorld::Pipe, csRequest(::getpid(), 1, "B", CManagerWorld::Server, 4901))) {
        return "the pipe takes no request\n";
    }
    const std::string cs = clReply.csReply(nMs);
    return cs.empty() ? "" : csWrong("registration", cs);
}
} // namespace

STFigures stFiguresOf(pid_t nProcess)
{
    const std::string csProcess = "/proc/" + std::to_string(nProcess);
    STFigures st;
    st.nDescriptors = nEntries(csProcess + "/fd");
    st.nThreads = nEntries(csProcess + "/task");
    std::error_code clIgnored;
    for (const auto& clTask : fs::directory_iterator(csProcess + "/task", clIgnored)) {
        std::ifstream clChildren(clTask.path() / "children");
        for (std::string cs; clChildren >> cs;) {
            ++st.nChildren;
        }
    }
    std::ifstream clStatus(csProcess + "/status");
    for (std::string cs; clStatus >> cs;) {
        if (cs == "VmRSS:") {
            clStatus >> st.nResidentKb;
        }
    }
    return st;
}

CManagerWorld::CManagerWorld(const std::string& csPrograms, const std::string& csSystemctl)
{
    const fs::path clOwn =
        csPrograms.empty() ? fs::read_symlink("/proc/self/exe").parent_path() : fs::path(csPrograms);
    // The folder may lie where the private world puts mounts of its own.
    const CDescripteur clFolder(::open(clOwn.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!bPrivateWorld()) {
        return;
    }
    fs::create_directories("/run/velmo/a");
    for (const char* pszName : {"VelmoManager", "zt240vm64.so", "zt240obj.so", "dxdemo", "libvelmofaults.so",
                                "libvelmooldkernel.so", "test_faults"}) {
        const fs::path clFrom = "/proc/self/fd/" + std::to_string(clFolder.nFd()) + "/" + pszName;
        if (fs::exists(clFrom)) {
            fs::copy_file(clFrom, std::string("/run/velmo/") + pszName, fs::copy_options::overwrite_existing);
        }
    }
    fs::copy_file("/bin/true", Server, fs::copy_options::overwrite_existing);
    m_pclSystemctl = std::make_unique<CFakeTool>("/bin/systemctl", csSystemctl + s_szSystemctl);
    Reset();
}

CManagerWorld::~CManagerWorld() = default;

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

CManagerRun::CManagerRun(const std::vector<std::string>& tEnvironment,
                         const std::vector<std::string>& tWrapper)
    : m_nPid(::fork())
{
    if (m_nPid == 0) {
        std::string csCommand = "exec env";
        for (const auto& tWords : {tEnvironment, tWrapper}) {
            for (const std::string& csWord : tWords) {
                csCommand += " '" + csWord + "'";
            }
        }
        csCommand += std::string(" ") + CManagerWorld::Manager + " --DEBUG";
        ::execl("/bin/sh", "sh", "-c", csCommand.c_str(), nullptr);
        ::_exit(126);
    }
}

CManagerRun::~CManagerRun()
{
    if (bRuns()) {
        ::kill(m_nPid, SIGKILL);
        ::waitpid(m_nPid, nullptr, 0);
    }
}

bool CManagerRun::bRuns()
{
    int nStatus = 0;
    if (m_csEnd.empty() && ::waitpid(m_nPid, &nStatus, WNOHANG) == m_nPid) {
        m_csEnd = WIFEXITED(nStatus) ? "exit " + std::to_string(WEXITSTATUS(nStatus))
                                     : "signal " + std::to_string(WTERMSIG(nStatus));
    }
    return m_csEnd.empty();
}

bool CManagerRun::bAnswers(int nMs)
{
    bool bGreeted = false;
    (void)bWaitUntil(
        [&] {
            for (const char* pszAddress : {"127.0.0.1", "::1"}) {
                bGreeted =
                    bGreeted ||
                    CWireClient(pszAddress, s_wPort).csLine(CWireClient::Duration(500)).starts_with("HELLO");
            }
            return bGreeted || !bRuns();
        },
        nMs);
    // The pipe comes last in the start.
    return bGreeted && bWaitUntil([this] { return fs::exists(CManagerWorld::Pipe) || !bRuns(); }, 2000) &&
           bRuns();
}

STFigures CManagerRun::stSettled(const STFigures& stWanted, int nMs) const
{
    STFigures st;
    (void)bWaitUntil(
        [&] {
            st = stFiguresOf(m_nPid);
            return st.nDescriptors <= stWanted.nDescriptors && st.nThreads <= stWanted.nThreads &&
                   st.nChildren <= stWanted.nChildren;
        },
        nMs);
    return st;
}

std::string CManagerRun::csStop(int nMs)
{
    if (bRuns()) {
        ::kill(m_nPid, SIGTERM);
    }
    return bWaitUntil([this] { return !bRuns(); }, nMs) ? m_csEnd : "<hangs>";
}

std::string csPlay(bool bStrict)
{
    const int nMs = bStrict ? 10'000 : 1000;
    return csOfConversation(CWireClient::Duration(nMs)) + csOfPing(nMs) + csOfRegistration(nMs);
}
