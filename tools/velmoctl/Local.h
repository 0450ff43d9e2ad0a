#pragma once

#include "velmoctl/Hosts.h"
#include "velmoctl/Waiting.h"

#include <map>
#include <string>
#include <vector>

/// What this machine's own service manager (systemd or init scripts) knows of the servers and the manager's
/// protocol cannot say.

/// Facts about a server; a text is empty when it is not known.
struct STFacts
{
    bool bFailed = false;
    std::string csPid;
    std::string csSince; ///< when the service came into its state
    std::string csFolder;
    std::string csLog; ///< the last line that the service logged
};

/// Whether a host is this machine, asked at the manager's own port: another port may be a tunnel to
/// elsewhere.
bool bThisMachine(const STHost& stHost);

/// Facts by the names of servers, without those of which nothing is known. Throws only CFailure
/// (INTERRUPTED).
std::map<std::string, STFacts> tAskFacts(const std::vector<std::string>& tServers, bool bWithLog);
/// The end of a message: ", its last line: ..." with what the server's service logged last, or nothing.
std::string csLastLogged(const std::string& csServer);
/// Folder of a server's program; empty when it is not known.
std::string csFolderOf(const std::string& csServer);

/// Has the service manager carry out "start", "stop" or "restart". Throws CFailure (REFUSED).
void ControlService(const std::string& csAction, const std::string& csServer, Milliseconds clTime);
