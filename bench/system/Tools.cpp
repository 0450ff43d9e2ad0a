#include "Tools.h"

#include "floor.h"
#include "Measure.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>

void Die(const std::string& csWhy)
{
    std::fprintf(stderr, "bench_system: %s\n", csWhy.c_str());
    std::exit(1);
}

namespace {
sockaddr_in stLoopback(std::uint16_t wPort)
{
    sockaddr_in st{};
    st.sin_family = AF_INET;
    st.sin_port = htons(wPort);
    st.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return st;
}
} // namespace

CDescripteur clConnect(std::uint16_t wPort, bool bBlocking)
{
    CDescripteur cl(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | (bBlocking ? 0 : SOCK_NONBLOCK), 0));

    // Closing resets the connection: one in TIME_WAIT would keep the port from the next program.
    const linger stReset{1, 0};
    std::ignore = ::setsockopt(cl.nFd(), SOL_SOCKET, SO_LINGER, &stReset, sizeof stReset);

    const sockaddr_in stAddress = stLoopback(wPort);
    const int nResult = ::connect(cl.nFd(), reinterpret_cast<const sockaddr*>(&stAddress), sizeof stAddress);

    if (nResult != 0 && bBlocking) {
        cl.Close();
    }
    return cl;
}

CTalk::CTalk(std::uint16_t wPort) : m_clSocket(clConnect(wPort))
{
    if (!m_clSocket.bOpen() || !_csLine().starts_with("HELLO FROM ")) {
        Die("no greeting from port " + std::to_string(wPort));
    }
}

std::string CTalk::_csLine() const
{
    std::string cs;
    std::array<char, 8192> tBuffer;
    while (!cs.ends_with("\r\n")) {
        const ssize_t n = ::recv(m_clSocket.nFd(), tBuffer.data(), tBuffer.size(), 0);
        if (n <= 0) {
            Die("a conversation ended");
        }
        cs.append(tBuffer.data(), static_cast<std::size_t>(n));
    }
    return cs;
}

std::string CTalk::csAsk(const std::string& csLine) const
{
    std::ignore = ::send(m_clSocket.nFd(), csLine.data(), csLine.size(), MSG_NOSIGNAL);
    return _csLine();
}

CPing::CPing() : m_clSocket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    const timeval stLimit{10, 0};
    std::ignore = ::setsockopt(m_clSocket.nFd(), SOL_SOCKET, SO_RCVTIMEO, &stLimit, sizeof stLimit);

    const sockaddr_in stAddress = stLoopback(g_wOurs);
    std::ignore =
        ::connect(m_clSocket.nFd(), reinterpret_cast<const sockaddr*>(&stAddress), sizeof stAddress);
}

void CPing::Ask() const
{
    static constexpr char szQuestion[] = "ARE YOU A DEXARO SERVER SETUP?\r\n"; // with its NUL
    std::ignore = ::send(m_clSocket.nFd(), szQuestion, sizeof szQuestion, 0);
}

bool CPing::bAnswered() const
{
    std::array<char, 16384> tBuffer;
    ssize_t n = 0;
    do {
        n = ::recv(m_clSocket.nFd(), tBuffer.data(), tBuffer.size(), 0);
    } while (n > 2); // the last datagram is CR LF alone
    return n == 2;
}

namespace {
/// Pointers into the words, with a null at the end, as exec takes them.
std::vector<char*> tPointers(std::vector<std::string>* ptWords)
{
    std::vector<char*> tResult;
    for (std::string& cs : *ptWords) {
        tResult.push_back(cs.data());
    }
    tResult.push_back(nullptr);
    return tResult;
}

/// The soft limit that services are started with. This program's own is higher.
constexpr rlim_t s_nUsualDescriptors = 1024;
} // namespace

CRunningProgram::CRunningProgram(const std::vector<std::string>& tCommand, unsigned int nDescriptors)
{
    std::vector<std::string> tWords = tCommand;
    const std::vector<char*> tArguments = tPointers(&tWords);

    m_nPid = ::fork();
    if (m_nPid == 0) {
        ::setpgid(0, 0);
        ::prctl(PR_SET_PDEATHSIG, SIGKILL); // Die() runs no destructors

        rlimit stLimit{};
        ::getrlimit(RLIMIT_NOFILE, &stLimit);
        stLimit.rlim_max = nDescriptors != 0 ? nDescriptors : stLimit.rlim_max;
        stLimit.rlim_cur = std::min<rlim_t>(stLimit.rlim_max, s_nUsualDescriptors);
        ::setrlimit(RLIMIT_NOFILE, &stLimit);

        ::execv(tArguments[0], tArguments.data());
        ::_exit(127);
    }

    ::setpgid(m_nPid, m_nPid); // here as well: the group must exist before anybody kills it
}

CRunningProgram::~CRunningProgram()
{
    ::kill(-m_nPid, SIGKILL); // the whole group: a daemon's children, too
    ::waitpid(m_nPid, nullptr, 0);

    // The children hold the port until they are gone.
    while (::kill(-m_nPid, 0) == 0) {
        ::usleep(100);
    }
}

void CRunningProgram::AwaitPort(std::uint16_t wPort) const
{
    const double fEnd = fNow() + 10e6;
    while (!clConnect(wPort).bOpen()) {
        if (fNow() > fEnd || ::waitpid(m_nPid, nullptr, WNOHANG) != 0) {
            Die("nobody listens on port " + std::to_string(wPort));
        }
        ::usleep(100);
    }

    // Waits for the greeting, too: a program whose start fails on its second socket has listened on the
    // first, but greets nobody.
    const CTalk clTalk(wPort);
}

std::string csBuilt(const std::string& csName)
{
    return std::filesystem::read_symlink("/proc/self/exe").parent_path() / csName;
}

std::vector<std::string> tManagerCommand()
{
    return {"/opt/velmo/manager/VelmoManager", "--DEBUG"};
}

namespace {
/// Sums a field over the status files of all threads. The field is a number after its name at a line's
/// beginning.
long nSum(pid_t nPid, const std::string& csField)
{
    long nTotal = 0;
    for (const auto& clTask :
         std::filesystem::directory_iterator("/proc/" + std::to_string(nPid) + "/task")) {
        std::ifstream clStatus(clTask.path() / "status");
        for (std::string csLine; std::getline(clStatus, csLine);) {
            if (csLine.starts_with(csField)) {
                nTotal += std::atol(csLine.c_str() + csField.size() + 1);
            }
        }
    }
    return nTotal;
}
} // namespace

STProcess stLook(pid_t nPid)
{
    const std::string csFolder = "/proc/" + std::to_string(nPid) + "/";
    STProcess st{};

    std::ifstream clMemory(csFolder + "statm");
    long nVirtual = 0;
    clMemory >> nVirtual >> st.nResidentKiB;
    st.nResidentKiB *= ::sysconf(_SC_PAGESIZE) / 1024;

    st.nSwitches = nSum(nPid, "voluntary_ctxt_switches") + nSum(nPid, "nonvoluntary_ctxt_switches");

    // The two times are fields 14 and 15. The name before them has no space.
    std::ifstream clStat(csFolder + "stat");
    std::string csWord;
    for (int n = 1; n <= 13; ++n) {
        clStat >> csWord;
    }
    long nUser = 0;
    long nSystem = 0;
    clStat >> nUser >> nSystem;
    st.nTicks = nUser + nSystem;

    return st;
}

long nLaunchProgram(const std::vector<std::string>& tCommand)
{
    std::vector<std::string> tWords = tCommand;
    const long nPrinted = floor_launch(tPointers(&tWords).data());
    if (nPrinted < 0) {
        Die("a bare launch failed");
    }
    return nPrinted;
}

void Launch(const std::vector<std::string>& tArguments)
{
    std::vector<std::string> tWords{"/bin/systemctl"};
    tWords.insert(tWords.end(), tArguments.begin(), tArguments.end());
    std::ignore = nLaunchProgram(tWords); // what systemctl prints is not read
}

namespace {
/// The manager's launcher takes 50 words; beside the program, the properties and "show" so many units fit.
constexpr std::size_t s_nBatch = 47;

void LaunchShow(const std::string& csService)
{
    Launch({"--property=Description,ExecStart,Type", "show", csService});
}
void LaunchUnits()
{
    Launch({"list-units", "--all", "--type=service", "--full", "--no-pager", "--no-legend"});
}
void LaunchState(const std::string& csService)
{
    Launch({"--property=ActiveState", "show", csService});
}

/// One launch for as many units as fit. A batch of one uses the command of a single lookup, as the manager
/// does.
void LaunchBatches(const std::vector<std::string>& tServices)
{
    for (auto it = tServices.begin(); it != tServices.end();) {
        const auto nLeft = static_cast<std::size_t>(tServices.end() - it);
        const auto itEnd = it + static_cast<std::ptrdiff_t>(std::min(nLeft, s_nBatch));
        if (itEnd - it == 1) {
            LaunchShow(*it);
        } else {
            std::vector<std::string> tArguments{"--property=Id,Description,ExecStart,Type", "show"};
            tArguments.insert(tArguments.end(), it, itEnd);
            Launch(tArguments);
        }
        it = itEnd;
    }
}

std::vector<std::string> tServices(int nServers)
{
    std::vector<std::string> tNames;
    for (int n = 0; n < nServers; ++n) {
        tNames.push_back("DXCS-" + csServer(n));
    }
    return tNames;
}
} // namespace

void LaunchStatus(const std::string& csName)
{
    LaunchShow("DXCS-" + csName);
    LaunchState("DXCS-" + csName);
}

void LaunchInfo(int nServers)
{
    LaunchUnits();
    std::vector<std::string> tAsked = tServices(nServers);
    tAsked.emplace_back("dxsql");
    LaunchBatches(tAsked);
}

void LaunchInfoOneByOne(int nServers)
{
    LaunchUnits();
    for (const std::string& csService : tServices(nServers)) {
        LaunchShow(csService);
    }
    LaunchShow("dxsql");
}

void LaunchList(int nServers)
{
    LaunchUnits();
    LaunchBatches(tServices(nServers));
}

void LaunchPass(int nServers)
{
    LaunchList(nServers);
    for (const std::string& csService : tServices(nServers)) {
        LaunchState(csService);
    }
}

std::string csServer(int nServer)
{
    return "Server" + std::to_string(nServer);
}

namespace {
constexpr char s_szUnits[] = "/lib/systemd/system/";
constexpr char s_szWants[] = "/etc/systemd/system/multi-user.target.wants/";

std::string csUnitFile(int nServer)
{
    return "DXCS-" + csServer(nServer) + ".service";
}

void ProvideServer(int nServer)
{
    const std::string csName = csServer(nServer);
    const std::string csHome = "/opt/velmo/" + csName;
    if (!std::filesystem::exists(csHome)) {
        PutServer(csHome, csName, 6000 + nServer);
    }
    std::ofstream(s_szUnits + csUnitFile(nServer)) << csUnitText(csHome, csName);
    std::filesystem::create_symlink(s_szUnits + csUnitFile(nServer), s_szWants + csUnitFile(nServer));
}
} // namespace

void PutServer(const std::string& csHome, const std::string& csName, int nPort)
{
    std::filesystem::create_directories(csHome);
    std::filesystem::copy_file(csBuilt("dxdemo"), csHome + "/dxdemo",
                               std::filesystem::copy_options::overwrite_existing);
    std::ofstream(csHome + "/DXConf.ini")
        << "[INIT]\nName = " << csName << "\nAccessPort = " << nPort << "\n";
}

std::string csUnitText(const std::string& csHome, const std::string& csName)
{
    return "[Unit]\nDescription=DXCS-" + csName +
           "\n[Install]\nWantedBy=multi-user.target\n[Service]\nType=forking\nExecStart=" + csHome +
           "/dxdemo --SERVICE DXCS-" + csName + "\nPIDFile=/var/run/DXCS-" + csName + ".pid\n";
}

void ProvideServers(int nServers)
{
    const auto bThere = [](int n) { return std::filesystem::exists(s_szUnits + csUnitFile(n)); };
    std::filesystem::create_directories(s_szWants);

    for (int n = 0; n < nServers; ++n) {
        if (!bThere(n)) {
            ProvideServer(n);
        }
    }
    for (int n = nServers; bThere(n); ++n) { // those of a part with more servers
        std::filesystem::remove(s_szWants + csUnitFile(n));
        std::filesystem::remove(s_szUnits + csUnitFile(n));
    }

    Launch({"daemon-reload"});
    Launch({"start", "DXCS-" + csServer(0)});
}
