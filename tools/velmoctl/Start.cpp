// The commands start (on any machine), stop and restart (on this machine).

#include "support/Shell.h"
#include "velmoctl/AskFor.h"
#include "velmoctl/Commands.h"
#include "velmoctl/Fleet.h"
#include "velmoctl/Local.h"
#include "velmoctl/Terminal.h"

#include <iostream>
#include <tuple>

namespace {
/// Adds the last line that the service logged: it says more than the "canceled" of the manager.
CFailure clWithLog(const CFailure& clFailure, const STHost& stHost, const std::string& csName,
                   Milliseconds clTime)
{
    const bool bLog = clFailure.eExit() == EExit::REFUSED && bThisMachine(stHost);
    return {clFailure.eExit(), clFailure.what() + (bLog ? csLastLogged(csName, clTime) : "")};
}

/// The failure of a server that was started but does not run: csHow says how it is instead.
CFailure clNotRunning(EExit eExit, const CConversation& clManager, const std::string& csName,
                      const std::string& csHow)
{
    return {eExit, "the server \"" + csName + "\" on " + csWhere(clManager.stHost()) + " " + csHow +
                       "; \"systemctl status " + csShellWord(csUnitName(csName)) + "\" there tells why"};
}

/// Asks for the state until the server runs. Throws CFailure when it has stopped again, or at the deadline.
void AwaitRunning(CConversation* pclManager, STServerAnswer* pst, const CDeadline& clDeadline)
{
    constexpr Milliseconds clPause(200);
    const std::string& csName = pst->stServer.csName;
    for (AskState(pclManager, pst); pst->csState != "running"; AskState(pclManager, pst)) {
        if (pst->csState == "stopped") {
            throw clNotRunning(EExit::REFUSED, *pclManager, csName, "was started and has stopped again");
        }
        if (clDeadline.bOver()) {
            throw clNotRunning(EExit::UNREACHABLE, *pclManager, csName, "is still " + pst->csState);
        }
        bWaitFor(-1, 0, CDeadline(clPause));
    }
}

/// Starts a server, and with bWait waits until it runs; clTime is for both together. An fnQuestion of
/// STQuestions.
void Start(CConversation* pclManager, STServerAnswer* pst, bool bWait, Milliseconds clTime)
{
    const std::string& csName = pst->stServer.csName;
    const CDeadline clDeadline(clTime);
    try {
        std::ignore = tAskFor(pclManager, {"START", csName}, csName, bReadDone);
        if (bWait) {
            AwaitRunning(pclManager, pst, clDeadline);
        }
    } catch (const CFailure& clFailure) {
        throw clWithLog(clFailure, pclManager->stHost(), csName, clTime);
    }
}

/// The JSON object of a server: what was done to it, or why not.
Json clResult(const STHost& stHost, const std::string& csName, const char* pszDone,
              const std::optional<CFailure>& clFailure)
{
    return {{"host", csHostWord(stHost)},
            {"name", csName},
            {"result", clFailure.has_value() ? Json() : Json(pszDone)},
            {"error", clJsonFailure(clFailure)}};
}

/// The line for people about a server that was started.
std::string csStarted(const STCall& stCall, const STHost& stHost, const std::string& csName, bool bMany)
{
    const std::string csOn = bMany || !stHost.csName.empty() ? " on " + csWhere(stHost) : "";
    return csShown("\"" + csName + "\"" + csOn + " is " + (stCall.stOptions.bWait ? "running" : "started"));
}

/// Shows which servers of a machine were started, and in JSON also which were not.
void ShowStarted(const STCall& stCall, const STHostAnswer& st, bool bMany)
{
    for (const STServerAnswer& stServer : st.tServers) {
        const std::string& csName = stServer.stServer.csName;
        if (stCall.stOptions.bJson) {
            std::cout << csJsonLine(clResult(st.stHost, csName, "started", stServer.clFailure));
        } else if (!stServer.clFailure.has_value()) {
            std::cout << csStarted(stCall, st.stHost, csName, bMany) << "\n";
        }
    }

    // A machine that gave no answer has no list of servers: those that were named stand for it.
    if (stCall.stOptions.bJson && st.clFailure.has_value()) {
        for (const std::string& csBytes : stCall.tArguments) {
            std::cout << csJsonLine(clResult(st.stHost, csArgument(csBytes), "", st.clFailure));
        }
    }
    std::cout.flush();
}

/// Has the service manager stop or restart one server; returns the failure, if any. Throws CFailure
/// (INTERRUPTED).
std::optional<CFailure> clControlled(const std::string& csAction, const std::string& csName,
                                     Milliseconds clTime)
{
    try {
        const CProgress clProgress(csAction + " " + csShown(csName) + "...");
        ControlService(csAction, csName, clTime);
    } catch (const CFailure& clFailure) {
        if (clFailure.eExit() == EExit::INTERRUPTED) {
            throw;
        }
        return clFailure;
    }
    return std::nullopt;
}

/// Stops or restarts servers through the service manager of this machine: the protocol has no stop.
EExit eControl(const STCall& stCall, const std::string& csAction, const char* pszDone)
{
    CInterrupts::Catch();
    EExit eWorst = EExit::DONE;
    for (const std::string& csBytes : stCall.tArguments) {
        const std::string csName = csArgument(csBytes);
        const std::optional<CFailure> clFailure = clControlled(csAction, csName, stCall.clTimeout);
        if (clFailure.has_value()) {
            eWorst = eWorse(eWorst, clFailure->eExit());
            TellTroubles({clFailure->what()});
        }

        if (stCall.stOptions.bJson) {
            std::cout << csJsonLine(clResult({}, csName, pszDone, clFailure));
        } else if (!clFailure.has_value()) {
            std::cout << "\"" << csShown(csName) << "\" is " << pszDone << "\n";
        }
    }
    return eWorst;
}

/// The refusal for another machine, with the command to type instead.
CFailure clElsewhere(const STCall& stCall, const STHost& stHost, const std::string& csAction)
{
    // Two shells read what ssh is given, here and there: a name is quoted for both. A host without an address
    // is this machine at another port, perhaps of a tunnel, to which no ssh leads.
    const bool bRemote = !stHost.csAddress.empty();
    std::string csCommand =
        (bRemote ? "ssh root@" + csShellWord(stHost.csAddress) + " " : "") + "systemctl " + csAction;
    for (const std::string& csName : stCall.tArguments) {
        const std::string csWord = csShellWord(csUnitName(csArgument(csName)));
        csCommand.append(" ").append(bRemote ? csShellWord(csWord) : csWord);
    }
    return {EExit::REFUSED, "managers cannot " + csAction + " servers, only the service manager of " +
                                csWhere(stHost) + " can: " + csCommand};
}

/// Throws CFailure (REFUSED) when a machine is not this one.
void CheckHere(const STCall& stCall, const std::string& csAction)
{
    for (const STHost& stHost : tHostsOf(stCall.stOptions)) {
        if (!bThisMachine(stHost)) {
            throw clElsewhere(stCall, stHost, csAction);
        }
    }
}
} // namespace

EExit eStart(const STCall& stCall)
{
    const bool bWait = stCall.stOptions.bWait;
    STQuestions stQuestions =
        stQuestionsAbout(stCall, [bWait, clTime = stCall.clTimeout](CConversation* pcl, STServerAnswer* pst) {
            Start(pcl, pst, bWait, clTime);
        });
    stQuestions.bWholeHostInTime = false; // each server has the time that its service manager gives it
    const CSelection clSelection(stCall.tArguments);
    if (clSelection.bExact()) {
        stQuestions.tNames = clSelection.tWords();
    }

    const bool bMany = stQuestions.tHosts.size() > 1;
    const auto tAnswers = tAskFleet(stQuestions, true, [&](const std::vector<const STHostAnswer*>& tReady) {
        for (const STHostAnswer* const pst : tReady) {
            ShowStarted(stCall, *pst, bMany);
        }
    });

    TellTroubles(tTroubles(tAnswers, clSelection));
    return eWorstOf(tAnswers, clSelection);
}

EExit eStop(const STCall& stCall)
{
    CheckHere(stCall, "stop");
    return eControl(stCall, "stop", "stopped");
}

EExit eRestart(const STCall& stCall)
{
    CheckHere(stCall, "restart");
    return eControl(stCall, "restart", "restarted");
}
