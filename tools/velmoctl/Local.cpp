#include "velmoctl/Local.h"

#include "manager/ReplyCodes.h"
#include "service/InitScript.h"
#include "support/Conversion.h"
#include "support/ManagerNames.h"
#include "support/Shell.h"
#include "velmoctl/Conversation.h"
#include "velmoctl/Interfaces.h"
#include "velmoctl/Replies.h"
#include "velmoctl/Tool.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <optional>

namespace fs = std::filesystem;

namespace {
/// When questions must have been answered: they are a small part of what a command may take.
CDeadline clQuestionsEnd(Milliseconds clTime)
{
    constexpr Milliseconds clMost(5000);
    return CDeadline(std::min(clTime, clMost));
}

/// What a tool answers; nothing when the time is over.
STToolResult stAsk(const std::vector<std::string>& tWords, const CDeadline& clEnd)
{
    return clEnd.bOver() ? STToolResult() : stRunTool(tWords, clEnd.clLeft());
}

/// Whether systemd is this machine's init system: it makes the folder when it starts as such.
bool bSystemd()
{
    static const bool s_bRuns = ::access("/run/systemd/system", F_OK) == 0;
    return s_bRuns;
}

/// Whether a name can be a service's, and then be an argument or part of a path. Names come from the manager
/// and are not trusted.
bool bPlainName(const std::string& csServer)
{
    const CServiceName clService = clServiceOf(csServer);
    return !csServer.empty() && csServer.find('\0') == std::string::npos &&
           (bSystemd() ? !clService.csAsked().empty() : bInertName(clService.csScript()));
}

/// The file name of the unit that a server's service has: "DXCS-Orders.service".
std::string csUnit(const std::string& csServer)
{
    return csToUTF8(clServiceOf(csServer).csUnitFile());
}

/// The value of a property among the lines that systemctl prints of one unit.
std::string csProperty(const std::string& csBlock, const std::string& csName)
{
    const std::size_t nStart = csBlock.starts_with(csName + "=") ? 0 : csBlock.find("\n" + csName + "=");
    if (nStart == std::string::npos) {
        return "";
    }
    const std::size_t nValue = csBlock.find('=', nStart) + 1;
    return csBlock.substr(nValue, std::min(csBlock.find('\n', nValue), csBlock.size()) - nValue);
}

/// The folder of the program in "{ path=/opt/x/dxsrv ; argv[]=...".
std::string csFolderIn(const std::string& csExecStart)
{
    const std::string csKey = "path=";
    const std::size_t nPath = csExecStart.find(csKey);
    const std::size_t nEnd = csExecStart.find(" ; argv[]=");
    return nPath == std::string::npos || nEnd == std::string::npos
               ? ""
               : fs::path(csExecStart.substr(nPath + csKey.size(), nEnd - nPath - csKey.size()))
                     .parent_path()
                     .string();
}

/// "Sat 2026-11-21 10:39:43 UTC" without the day of the week, so that the column can be sorted.
std::string csMoment(const std::string& csTimestamp)
{
    const std::size_t nSpace = csTimestamp.find(' ');
    return nSpace == std::string::npos ? "" : csTimestamp.substr(nSpace + 1);
}

/// The facts in the properties of one unit.
STFacts stRead(const std::string& csBlock)
{
    STFacts st;
    st.bFailed = csProperty(csBlock, "ActiveState") == "failed";
    st.csPid = csProperty(csBlock, "MainPID");
    if (st.csPid == "0") { // it does not run
        st.csPid.clear();
    }
    st.csSince = csMoment(csProperty(csBlock, "StateChangeTimestamp"));
    st.csFolder = csFolderIn(csProperty(csBlock, "ExecStart"));
    return st;
}

/// Splits the output of systemctl: one block of lines for each unit in the order asked, with an empty line
/// between.
std::vector<std::string> tBlocks(const std::string& csOutput)
{
    std::vector<std::string> tResult;
    for (std::size_t nStart = 0; nStart < csOutput.size();) {
        const std::size_t nEnd = std::min(csOutput.find("\n\n", nStart), csOutput.size());
        tResult.push_back(csOutput.substr(nStart, nEnd - nStart));
        nStart = nEnd + 2;
    }
    return tResult;
}

/// The blocks of some units; none when systemctl failed or printed another number of them, for then nobody
/// knows whose they are.
std::vector<std::string> tShow(const std::vector<std::string>& tUnits, const CDeadline& clEnd)
{
    std::vector<std::string> tWords = {
        "systemctl", "show", "--property=LoadState,ActiveState,MainPID,StateChangeTimestamp,ExecStart", "--"};
    tWords.insert(tWords.end(), tUnits.begin(), tUnits.end());
    const STToolResult st = stAsk(tWords, clEnd);
    std::vector<std::string> tResult = tBlocks(st.csOutput);
    return st.nStatus == 0 && tResult.size() == tUnits.size() ? tResult : std::vector<std::string>();
}

/// Whether the unit of a block exists: systemctl shows properties of units that do not, too.
bool bLoaded(const std::string& csBlock)
{
    return !csBlock.empty() && csProperty(csBlock, "LoadState") != "not-found";
}

/// The unit that stands for a server, and its block; both empty when there is none.
struct STShown
{
    std::string csUnit;
    std::string csBlock;
    bool bAsked = true; ///< false: systemd could not be asked
};

STShown stShowOne(const std::string& csServer, const CDeadline& clEnd)
{
    std::vector<std::string> tUnits = {csUnit(csServer)};
    if (csServer == g_szDefaultServerA) { // only the default server's service may lack the prefix
        tUnits.push_back(csServer + ".service");
    }

    for (const std::string& cs : tUnits) {
        const std::vector<std::string> tBlock = tShow({cs}, clEnd);
        if (tBlock.empty()) {
            return {"", "", false};
        }
        if (bLoaded(tBlock[0])) {
            return {cs, tBlock[0]};
        }
    }

    return {};
}

/// The last line that a unit's processes left in the journal. By the field, not with "--unit", which would
/// add what systemd itself says about the unit ("Started ...").
std::string csJournal(const std::string& csOfUnit, const CDeadline& clEnd)
{
    const STToolResult st = stAsk(
        {"journalctl", "--quiet", "--no-pager", "--lines=1", "--output=cat", "_SYSTEMD_UNIT=" + csOfUnit},
        clEnd);
    return st.nStatus == 0 ? st.csOutput.substr(0, st.csOutput.find('\n')) : "";
}

/// Path of a server's init script, where most systems have them or where Slackware has; empty when it has
/// none.
std::string csScript(const std::string& csServer)
{
    const std::string csName = csToUTF8(clServiceOf(csServer).csScript());
    for (const char* const pszPrefix : {"/etc/init.d/", "/etc/rc.d/rc."}) {
        if (std::string csPath = pszPrefix + csName; ::access(csPath.c_str(), X_OK) == 0) {
            return csPath;
        }
    }
    return "";
}

/// The number in a PID file; empty when there is none. With cat, since a tool has a time limit: the file may
/// be a FIFO that nobody writes to.
std::string csPidIn(const std::string& csFile, const CDeadline& clEnd)
{
    const STToolResult st = stAsk({"cat", csFile}, clEnd);
    const int nPid = st.nStatus == 0 ? std::atoi(st.csOutput.c_str()) : 0; // of garbage: 0
    return nPid > 0 ? std::to_string(nPid) : "";
}

/// Asks an init script: its exit status has the state; PID and folder come from the PID file and /proc. None
/// when the script does not end in time.
std::optional<STFacts> stAskScript(const std::string& csPath, const CDeadline& clEnd)
{
    // LSB: dead, but its PID file (1) or lock (2) is left; OpenRC: crashed (32).
    constexpr int s_tFailed[] = {1, 2, 32};
    const int nStatus = stAsk({csPath, "status"}, clEnd).nStatus;
    if (nStatus < 0) {
        return std::nullopt;
    }

    STFacts st;
    st.bFailed = std::ranges::find(s_tFailed, nStatus) != std::end(s_tFailed);
    if (nStatus != 0) {
        return st;
    }

    // Only root reads the program of another user's process; without a PID this path does not exist.
    st.csPid = csPidIn("/var/run/" + fs::path(csPath).filename().string() + ".pid", clEnd);
    std::error_code clError;
    const fs::path clProgram = fs::read_symlink("/proc/" + st.csPid + "/exe", clError);
    st.csFolder = clError ? "" : clProgram.parent_path().string();
    return st;
}

/// Asks the init scripts of servers, one after the other.
STLocalAnswer stAskScripts(const std::vector<std::string>& tServers, const CDeadline& clEnd)
{
    STLocalAnswer stResult;
    for (const std::string& cs : tServers) {
        const std::string csPath = csScript(cs);
        if (csPath.empty()) {
            continue;
        }
        const std::optional<STFacts> st = stAskScript(csPath, clEnd);
        stResult.bWhole = stResult.bWhole && st.has_value();
        stResult.tFacts[cs] = st.value_or(STFacts());
    }
    return stResult;
}

/// Asks systemd about servers.
STLocalAnswer stAskUnits(const std::vector<std::string>& tServers, bool bWithLog, const CDeadline& clEnd)
{
    // One launch for all. Servers without a unit of their name, or without an answer, are asked about singly.
    std::vector<std::string> tUnits;
    std::ranges::transform(tServers, std::back_inserter(tUnits), csUnit);
    std::vector<std::string> tShown = tShow(tUnits, clEnd);
    tShown.resize(tServers.size());

    STLocalAnswer stResult;
    for (std::size_t n = 0; n < tServers.size(); ++n) {
        const STShown st = bLoaded(tShown[n]) ? STShown{tUnits[n], tShown[n]} : stShowOne(tServers[n], clEnd);
        stResult.bWhole = stResult.bWhole && st.bAsked;
        if (!st.csUnit.empty()) {
            STFacts& stFacts = stResult.tFacts[tServers[n]] = stRead(st.csBlock);
            stFacts.csLog = bWithLog ? csJournal(st.csUnit, clEnd) : "";
        }
    }
    return stResult;
}

/// The unit or init script of a server; empty when it has none. Throws CFailure (REFUSED) when systemd cannot
/// be asked.
std::string csServiceOf(const std::string& csServer, Milliseconds clTime)
{
    if (!bSystemd()) {
        return csScript(csServer);
    }
    const STShown st = stShowOne(csServer, clQuestionsEnd(clTime));
    if (!st.bAsked) {
        throw CFailure(EExit::REFUSED,
                       "systemd of this machine could not be asked about the server \"" + csServer + "\"");
    }
    return st.csUnit;
}
} // namespace

bool bThisMachine(const STHost& stHost)
{
    if (stHost.wPort != g_wManagerPort) {
        return false;
    }
    const std::string& cs = stHost.csAddress;
    return cs.empty() || cs == "localhost" || cs.starts_with("127.") || cs == csHostWord({}) ||
           CInterfaces().tOwn().contains(cs);
}

STLocalAnswer stAskFacts(const std::vector<std::string>& tServers, bool bWithLog, Milliseconds clTime)
{
    const CDeadline clEnd = clQuestionsEnd(clTime);
    std::vector<std::string> tNames;
    std::ranges::copy_if(tServers, std::back_inserter(tNames), bPlainName);
    if (tNames.empty()) { // or systemctl, given no unit, would show the properties of systemd itself
        return {};
    }
    return bSystemd() ? stAskUnits(tNames, bWithLog, clEnd) : stAskScripts(tNames, clEnd);
}

std::string csLastLogged(const std::string& csServer, Milliseconds clTime)
{
    const std::string csLine =
        bSystemd() && bPlainName(csServer) ? csJournal(csUnit(csServer), clQuestionsEnd(clTime)) : "";
    return csLine.empty() ? "" : ", its last line: " + csLine;
}

std::string csFolderOf(const std::string& csServer, Milliseconds clTime)
{
    const auto tFacts = stAskFacts({csServer}, false, clTime).tFacts;
    return tFacts.empty() ? "" : tFacts.begin()->second.csFolder;
}

void ControlService(const std::string& csAction, const std::string& csServer, Milliseconds clTime)
{
    if (::geteuid() != 0) {
        throw CFailure(EExit::REFUSED, "only root can " + csAction + " a server: sudo velmoctl " + csAction +
                                           " " + csShellWord(csServer));
    }

    const CDeadline clEnd(clTime);
    const std::string csService = bPlainName(csServer) ? csServiceOf(csServer, clTime) : "";
    if (csService.empty()) {
        throw CFailure(EExit::REFUSED, csRefusalWords({ERREUR_SERVICE_INCONNU, ""}, {"", csServer}));
    }

    const STToolResult st =
        stRunTool(bSystemd() ? std::vector<std::string>{"systemctl", csAction, "--", csService}
                             : std::vector<std::string>{csService, csAction},
                  clEnd.clLeft());
    if (st.nStatus != 0) {
        throw CFailure(EExit::REFUSED,
                       "\"" + csAction + "\" of the server \"" + csServer +
                           "\" on this machine failed: " + st.csOutput.substr(0, st.csOutput.find('\n')) +
                           "; \"systemctl status " + csShellWord(csUnitName(csServer)) + "\" tells why" +
                           csLastLogged(csServer, clEnd.clLeft()));
    }
}
