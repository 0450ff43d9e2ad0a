// Servers that are to run, or not to: start on any machine, stop and restart on this one.

#include "velmoctl/Fleet.h"
#include "velmoctl/Local.h"
#include "velmoctl/Query.h"
#include "velmoctl/Terminal.h"

#include <iostream>

// NOLINTBEGIN(performance-inefficient-string-concatenation): a few texts for people
namespace {
std::optional<bool> bReadDone(std::string_view csLine)
{
    return csLine == "OK" ? std::optional<bool>(true) : std::nullopt;
}

/// The last line that the service logged tells more than "canceled".
CFailure clWithLog(const CFailure& clFailure, const STHost& stHost, const std::string& csName)
{
    const bool bLog = clFailure.eExit() == EExit::REFUSED && bThisMachine(stHost);
    return {clFailure.eExit(), clFailure.what() + (bLog ? csLastLogged(csName) : "")};
}

/// Looks again and again until a server runs, and no longer once it has stopped.
void AwaitRunning(CConversation* pclManager, STServerAnswer* pst, const CDeadline& clDeadline)
{
    constexpr Milliseconds clPause(200);
    for (;;) {
        AskState(pclManager, pst);
        if (pst->csState == "running") {
            return;
        }
        const std::string csWhich =
            "the server \"" + pst->stServer.csName + "\" on " + csWhere(pclManager->stHost()) + " ";
        const std::string csLook =
            "; \"systemctl status " + csShellWord(csUnitName(pst->stServer.csName)) + "\" there tells why";
        if (pst->csState == "stopped") {
            throw CFailure(EExit::REFUSED, csWhich + "was started and has stopped again" + csLook);
        }
        if (clDeadline.bOver()) {
            throw CFailure(EExit::UNREACHABLE, csWhich + "is still " + pst->csState + csLook);
        }
        bWaitFor(-1, 0, CDeadline(clPause));
    }
}

void Start(CConversation* pclManager, STServerAnswer* pst, bool bWait, Milliseconds clTime)
{
    const std::string& csName = pst->stServer.csName;
    const CDeadline clDeadline(clTime);
    try {
        (void)tAskFor(pclManager, {"START", csName}, csName, bReadDone);
        if (bWait) {
            AwaitRunning(pclManager, pst, clDeadline);
        }
    } catch (const CFailure& clFailure) {
        throw clWithLog(clFailure, pclManager->stHost(), csName);
    }
}

Json clResult(const STHost& stHost, const std::string& csName, const char* pszDone,
              const std::optional<CFailure>& clFailure)
{
    return {{"host", csHostWord(stHost)},
            {"name", csName},
            {"result", clFailure.has_value() ? Json() : Json(pszDone)},
            {"error", clJsonFailure(clFailure)}};
}

/// What one machine has done, and in JSON also what it has not.
void ShowStarted(const STCall& stCall, const STHostAnswer& st, bool bMany)
{
    for (const STServerAnswer& stServer : st.tServers) {
        const std::string& csName = stServer.stServer.csName;
        if (stCall.stOptions.bJson) {
            std::cout << csJsonLine(clResult(st.stHost, csName, "started", stServer.clFailure));
        } else if (!stServer.clFailure.has_value()) {
            const std::string csOn = bMany || !st.stHost.csName.empty() ? " on " + csWhere(st.stHost) : "";
            std::cout << csShown("\"" + csName + "\"" + csOn + " is " +
                                 (stCall.stOptions.bWait ? "running" : "started"))
                      << "\n";
        }
    }
    if (stCall.stOptions.bJson && st.clFailure.has_value()) {
        std::cout << csJsonLine(clResult(st.stHost, "", "", st.clFailure));
    }
    std::cout.flush();
}

/// There is no stop in the protocol: it is this machine's service manager that does it.
EExit eControl(const STCall& stCall, const std::string& csAction, const char* pszDone)
{
    CInterrupts::Catch();
    EExit eWorst = EExit::DONE;
    for (const std::string& csBytes : stCall.tArguments) {
        const std::string csName = csArgument(csBytes);
        std::optional<CFailure> clFailure;
        try {
            CProgress clProgress(csAction + " " + csShown(csName) + "...");
            ControlService(csAction, csName, stCall.clTimeout);
        } catch (const CFailure& cl) {
            if (cl.eExit() == EExit::INTERRUPTED) {
                throw;
            }
            clFailure = cl;
            eWorst = eWorse(eWorst, cl.eExit());
            TellTroubles({cl.what()});
        }
        if (stCall.stOptions.bJson) {
            std::cout << csJsonLine(clResult({}, csName, pszDone, clFailure));
        } else if (!clFailure.has_value()) {
            std::cout << "\"" << csShown(csName) << "\" is " << pszDone << "\n";
        }
    }
    return eWorst;
}

/// Throws CFailure (REFUSED) with the command to type instead when the machine is not this one.
void CheckHere(const STCall& stCall, const std::string& csAction)
{
    for (const STHost& stHost : tHostsOf(stCall.stOptions)) {
        if (bThisMachine(stHost)) {
            continue;
        }
        std::string csCommand = "ssh root@" + csShellWord(stHost.csAddress) + " systemctl " + csAction;
        for (const std::string& csName : stCall.tArguments) {
            csCommand.append(" ").append(csShellWord(csUnitName(csArgument(csName))));
        }
        throw CFailure(EExit::REFUSED, "managers cannot " + csAction +
                                           " servers, only the service manager of " + csWhere(stHost) +
                                           " can: " + csCommand);
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
// NOLINTEND(performance-inefficient-string-concatenation)
