#pragma once

#include "velmoctl/Hosts.h"
#include "velmoctl/Waiting.h"

#include <map>
#include <string>
#include <vector>

/// What this machine's own service manager (systemd or init scripts) knows of the servers and the manager's
/// protocol cannot say. Any thread. What is asked in one call takes, taken together, no longer than the
/// call's clTime, nor than five seconds.

/// Facts about a server; a text is empty when it is not known.
struct STFacts
{
    bool bFailed = false; ///< it ended without being stopped
    std::string csPid;    ///< of its main process, while it runs
    std::string csSince;  ///< when the service came into its state: "2026-11-21 10:39:43 UTC", systemd only
    std::string csFolder; ///< of its program
    std::string csLog;    ///< the last line that the service logged, systemd only
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

/// The facts about some servers, with csLog when bWithLog. Names that can be no service's are left out.
/// Throws only CFailure (INTERRUPTED).
STLocalAnswer stAskFacts(const std::vector<std::string>& tServers, bool bWithLog, Milliseconds clTime);
/// The end of a message: ", its last line: ..." with what the server's service logged last; empty when that
/// is not known. Throws only CFailure (INTERRUPTED), as does the next.
std::string csLastLogged(const std::string& csServer, Milliseconds clTime);
/// Folder of a server's program; empty when it is not known.
std::string csFolderOf(const std::string& csServer, Milliseconds clTime);

/// Has the service manager carry out "start", "stop" or "restart", and waits until it has; clTime is for that
/// and for all questions before and after. Throws CFailure: REFUSED with the tool's first line, INTERRUPTED.
void ControlService(const std::string& csAction, const std::string& csServer, Milliseconds clTime);
