#include "tools/Machine.h"

#include "tools/Command.h"
#include "tools/PipeClient.h"
#include "tools/Wait.h"
#include "tools/WireClient.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <tuple>
#include <unistd.h>
#include <utility>
#include <vector>

std::string csBuildFolder()
{
    static const std::string s_csFolder = [] {
        const std::string csTrue = std::filesystem::read_symlink("/proc/self/exe").parent_path().string();
        if (csTrue.find_first_of(" '\"$&();*?<>|\\") == csTrue.npos) {
            return csTrue;
        }
        // The tests put it into shell commands: there it goes by a name that means nothing else. /tmp may be
        // another one for some of them.
        const std::string csLink = "/var/tmp/velmo-build-" + std::to_string(::getpid());
        std::filesystem::remove(csLink);
        std::filesystem::create_directory_symlink(csTrue, csLink);
        std::atexit([] { std::filesystem::remove("/var/tmp/velmo-build-" + std::to_string(::getpid())); });
        return csLink;
    }();
    return s_csFolder;
}

namespace {
/// A unit's file name: systemd wants bytes beyond ASCII as "\xNN".
std::string csFileName(const std::string& csUnit)
{
    std::string csName;
    for (const char c : csUnit) {
        char szEscape[8] = {c};
        if ((c & 0x80) != 0) {
            std::snprintf(szEscape, sizeof szEscape, "\\x%02x", static_cast<unsigned int>(c & 0xFF));
        }
        csName += szEscape;
    }
    return csName;
}

void Put(const std::string& csFolder, const std::vector<std::string>& tPrograms,
         const std::string& csSettings)
{
    const std::string csHome = "/opt/velmo/" + csFolder + "/";
    std::filesystem::create_directories(csHome);
    for (const std::string& csFile : tPrograms) {
        std::filesystem::copy_file(csBuildFolder() + "/" + csFile, csHome + csFile,
                                   std::filesystem::copy_options::overwrite_existing);
    }
    std::ofstream(csHome + "DXConf.ini") << csSettings;
}
} // namespace

void PutManager(const std::string& csFolder, const std::string& csSettings)
{
    Put(csFolder, {"VelmoManager", "zt240obj.so", "zt240vm64.so"}, "[MANAGER]\n" + csSettings);
}

void PutServer(const std::string& csFolder, int nPort, const std::string& csSettings,
               const std::string& csName)
{
    Put(csFolder, {"dxdemo"},
        "[INIT]\n" + (csName.empty() ? "" : "Name=" + csName + "\n") + "AccessPort=" + std::to_string(nPort) +
            "\n[DEMO]\n" + csSettings);
}

void AddServer(const std::string& csFolder, const std::string& csUnit, int nPort,
               const std::string& csSettings, const std::string& csDisplayName)
{
    PutServer(csFolder, nPort, csSettings);
    std::ofstream("/lib/systemd/system/" + csFileName(csUnit) + ".service")
        << "[Unit]\nDescription=" << (csDisplayName.empty() ? csUnit : csDisplayName)
        << "\nAfter=network.target\n[Install]\nWantedBy=multi-user.target\n[Service]\nType=forking\n"
        << "ExecStart=/opt/velmo/" << csFolder << "/dxdemo --SERVICE " << csUnit << "\n"
        << "PIDFile=/var/run/" << csUnit << ".pid\n";
}

void RemoveServices()
{
    stRun("cd /etc/init.d && for n in DXCS-*; do ./$n stop; update-rc.d -f $n remove; rm $n; done; "
          "systemctl kill -s KILL 'DXCS-*'; systemctl stop VelmoManager 'DXCS-*'; "
          "find /lib/systemd /etc/systemd '(' -name 'DXCS-*' -o -name VelmoManager.service ')' -delete; "
          "rm -rf /opt/velmo; systemctl daemon-reload; systemctl reset-failed");
}

CManagerProcess::CManagerProcess(const std::string& csCommand) : m_nPid(::fork())
{
    if (m_nPid == 0) {
        ::execl("/bin/sh", "sh", "-c", ("exec " + csCommand + " --DEBUG").c_str(), nullptr);
        ::_exit(127);
    }
}

CManagerProcess::~CManagerProcess()
{
    std::ignore = m_nPid > 0 ? nEndOf(m_nPid, 0) : 0;
}

bool CManagerProcess::bAnswers() const
{
    // The pipe comes last in the start.
    return bWaitUntil([] { return CWireClient("127.0.0.1", 4999).csLine().starts_with("HELLO"); }, 10'000) &&
           bWaitUntil([] { return bWritePipe("/tmp/__pipe_velmomanager__", ""); }, 5000);
}

int CManagerProcess::nStop(int nMs)
{
    ::kill(m_nPid, SIGTERM);
    return nEndOf(std::exchange(m_nPid, -1), nMs);
}
