#pragma once

#include "support/Descripteur.h"

#include <cstdint>
#include <string>
#include <vector>

/// The port of the manager, and that of the floor's server.
inline constexpr std::uint16_t g_wOurs = 4999;
inline constexpr std::uint16_t g_wFloor = 5999;
inline constexpr char g_szNothing[] = "MODE_UTF8\r\n"; ///< a command that touches no service

/// Ends the program: a comparison whose sides do not do their work is worth nothing.
[[noreturn]] void Die(const std::string& csWhy);

/// One connection that has been greeted.
class CTalk
{
public:
    explicit CTalk(std::uint16_t wPort);
    /// Sends a line (with its end) and takes the reply line.
    std::string csAsk(const std::string& csLine) const;
    int nFd() const { return m_clSocket.nFd(); }

private:
    std::string _csLine() const;
    CDescripteur m_clSocket;
};

/// A new connection to the port; an empty descriptor when there is none. The greeting has not been read.
/// Without bBlocking the connection may still be under way, or fail later.
CDescripteur clConnect(std::uint16_t wPort, bool bBlocking = true);

/// A tool that looks for managers, on a socket of its own: every one of them counts as another asker.
class CPing
{
public:
    CPing();
    void Ask() const;
    /// Waits for both datagrams of the answer; false when they do not come in ten seconds.
    bool bAnswered() const;

private:
    CDescripteur m_clSocket;
};

/// A program that runs for the life of the object; SIGKILL ends it.
class CRunningProgram
{
public:
    /// nDescriptors is its hard limit of descriptors, 0 for ours; its soft limit is the one that services
    /// get.
    explicit CRunningProgram(const std::vector<std::string>& tCommand, unsigned int nDescriptors = 0);
    ~CRunningProgram();
    CRunningProgram(const CRunningProgram&) = delete;
    CRunningProgram& operator=(const CRunningProgram&) = delete;
    pid_t nPid() const { return m_nPid; }
    /// Waits until the port answers.
    void AwaitPort(std::uint16_t wPort) const;

private:
    pid_t m_nPid;
};

/// Command line of the installed manager, in the foreground.
std::vector<std::string> tManagerCommand();
/// Path of a program that was built beside this one.
std::string csBuilt(const std::string& csName);

/// What /proc says of a process.
struct STProcess
{
    long nResidentKiB;
    long nSwitches; ///< voluntary and other, of all threads
    long nTicks;    ///< processor time, user and system, in clock ticks
};
STProcess stLook(pid_t nPid); ///< now

/// A bare launch of a program; how much it has printed.
long nLaunchProgram(const std::vector<std::string>& tCommand);
/// A bare launch of the tool with these arguments.
void Launch(const std::vector<std::string>& tArguments);
/// The launches behind one STATUS, one INFO over so many servers, the listing of a registration among so
/// many, and a restart pass over so many. The floors of these rows: the same tools without the manager.
void LaunchStatus(const std::string& csServer);
void LaunchInfo(int nServers);
void LaunchList(int nServers);
void LaunchPass(int nServers);
/// An INFO that launches the tool for each server by itself.
void LaunchInfoOneByOne(int nServers);
/// Name of the server number n; all of them are stopped but server 0.
std::string csServer(int nServer);
/// Puts a server's program and settings into a folder.
void PutServer(const std::string& csHome, const std::string& csName, int nPort);
/// The unit that the manager writes for it.
std::string csUnitText(const std::string& csHome, const std::string& csName);
/// Makes sure that exactly so many servers are there.
void ProvideServers(int nServers);
