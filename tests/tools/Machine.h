#pragma once

#include <string>
#include <sys/types.h>

/// What the programs that run inside a throwaway machine share. Everything here changes the machine it runs
/// in.

/// Folder of the built programs (this test's own).
std::string csBuildFolder();

/// Puts the manager with its runtime library in /opt/velmo/<folder>/; the settings go into the [MANAGER]
/// section of its DXConf.ini.
void PutManager(const std::string& csFolder, const std::string& csSettings = "");

/// Puts a sample server in /opt/velmo/<folder>/ without registering it. The settings go into the [DEMO]
/// section of its DXConf.ini (a text may open further sections), and a name into [INIT].
void PutServer(const std::string& csFolder, int nPort, const std::string& csSettings = "",
               const std::string& csName = "");

/// Puts a sample server in /opt/velmo/<folder>/ and a unit for it in the form that the manager writes;
/// neither reloads systemd nor starts the server. The display name is the unit's name when none is given.
void AddServer(const std::string& csFolder, const std::string& csUnit, int nPort,
               const std::string& csSettings, const std::string& csDisplayName = "");

/// Ends and removes whatever manager and servers are registered, with /opt/velmo.
void RemoveServices();

/// The manager in the foreground mode, as a child of the test.
class CManagerProcess
{
public:
    /// Starts the given command, or the built manager; "--DEBUG" is added.
    explicit CManagerProcess(const std::string& csCommand = csBuildFolder() + "/VelmoManager");
    /// Kills it if it still runs.
    ~CManagerProcess();
    CManagerProcess(const CManagerProcess&) = delete;
    CManagerProcess& operator=(const CManagerProcess&) = delete;

    pid_t nPid() const { return m_nPid; }
    /// Waits until it greets on 127.0.0.1 and reads its pipe; false after 15 seconds.
    bool bAnswers() const;
    /// SIGTERM, then how it ended (see nEndOf).
    int nStop(int nMs = 10'000);

private:
    pid_t m_nPid;
};
