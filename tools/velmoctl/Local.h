#pragma once

#include "velmoctl/Hosts.h"
#include "velmoctl/Waiting.h"

#include <map>
#include <string>
#include <vector>

/// What this machine's own service manager says of its servers, which the manager's protocol has no words
/// for.

/// Empty texts for what is not known.
struct STFacts
{
    bool bFailed = false;
    std::string csPid;
    std::string csSince; ///< when the service came into its state
    std::string csFolder;
    std::string csLog; ///< the last line that the service logged
};

/// Whether a host is this machine and is asked at the manager's own port: another port is a tunnel to
/// elsewhere.
bool bThisMachine(const STHost& stHost);

/// Facts by the servers' names; a name of which nothing is known is missing. Never throws anything but
/// CFailure (INTERRUPTED).
std::map<std::string, STFacts> tAskFacts(const std::vector<std::string>& tServers, bool bWithLog);
/// The last line that a server's service logged, for messages: ", last logged: ..." or nothing.
std::string csLastLogged(const std::string& csServer);
/// Folder of a server's program; empty when it is not known.
std::string csFolderOf(const std::string& csServer);

/// Has the service manager carry out "start", "stop" or "restart". Throws CFailure (REFUSED).
void ControlService(const std::string& csAction, const std::string& csServer, Milliseconds clTime);
