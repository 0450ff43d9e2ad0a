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

/// What the service manager answered about some servers.
struct STLocalAnswer
{
    std::map<std::string, STFacts> tFacts; ///< by name, without servers of which nothing is known
    bool bWhole = true;                    ///< false: about some it could not be asked
};

/// All questions of a call together take no longer than its time, nor than five seconds.

/// Throws only CFailure (INTERRUPTED).
STLocalAnswer stAskFacts(const std::vector<std::string>& tServers, bool bWithLog, Milliseconds clTime);
/// The end of a message: ", its last line: ..." with what the server's service logged last, or nothing.
std::string csLastLogged(const std::string& csServer, Milliseconds clTime);
/// Folder of a server's program; empty when it is not known.
std::string csFolderOf(const std::string& csServer, Milliseconds clTime);

/// Has the service manager carry out "start", "stop" or "restart", in this time with all questions before and
/// after. Throws CFailure (REFUSED).
void ControlService(const std::string& csAction, const std::string& csServer, Milliseconds clTime);
