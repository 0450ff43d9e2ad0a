// Uninstalls one server of one machine.

#include "manager/ReplyCodes.h"
#include "velmoctl/AskFor.h"
#include "velmoctl/Commands.h"
#include "velmoctl/Fleet.h"
#include "velmoctl/Local.h"
#include "velmoctl/Terminal.h"

#include <iostream>
#include <tuple>

namespace {
/// Reports what was done, or would be.
void Tell(const STCall& stCall, const STHost& stHost, const std::string& csName, const char* pszResult,
          const std::string& csWords)
{
    if (stCall.stOptions.bJson) {
        std::cout << csJsonLine(
            {{"host", csHostWord(stHost)}, {"name", csName}, {"result", pszResult}, {"error", Json()}});
    } else {
        std::cout << csShown("\"" + csName + "\" " + csWords) << "\n";
    }
}

/// Asks the manager to uninstall a server. True when it has deleted the files and left the stopped service
/// behind, which it reports as an error; false when it has removed the service. Throws CFailure.
bool bUninstallLeavesService(CConversation* pclManager, const std::string& csName, bool bDeleteFiles)
{
    const std::string csReply = pclManager->csAsk({"UNINSTALL", csName, bDeleteFiles ? "1" : "0"});
    const auto stRefusal = stReadRefusal(csReply);
    if (stRefusal.has_value() && stRefusal->nCode == ERREUR_UNINSTALL_FICHIERS && bDeleteFiles) {
        return true;
    }
    if (stRefusal.has_value()) {
        throw CFailure(EExit::REFUSED, csRefusalWords(*stRefusal, {pclManager->stHost().csName, csName}));
    }
    if (!bReadDone(csReply)) {
        throw pclManager->clNonsense(csReply);
    }

    return false;
}

/// How an uninstallation ended.
struct STOutcome
{
    EExit eExit;
    const char* pszJson;  ///< the result in JSON, which is stable
    const char* pszWords; ///< for people, after the server's name
};

/// Takes two requests when files are to be deleted: the first deletes them but leaves the service, the second
/// removes the service.
STOutcome stRemove(CConversation* pclManager, const std::string& csName, bool bDeleteFiles)
{
    CProgress clProgress("uninstalling...");
    if (bUninstallLeavesService(pclManager, csName, bDeleteFiles)) {
        try {
            std::ignore = bUninstallLeavesService(pclManager, csName, false); // false: no files to delete
        } catch (const CFailure& clFailure) {
            throw CFailure(clFailure.eExit(), "the files of \"" + csName +
                                                  "\" are deleted, its service is still registered: " +
                                                  clFailure.what() + "; try again without --delete-files");
        }
        return {EExit::DONE, "files deleted", "is uninstalled, its files are deleted"};
    }

    if (!bDeleteFiles) {
        return {EExit::DONE, "files kept", "is uninstalled, its files are kept"};
    }

    // The manager removes the service at once only when it could not delete all of the files.
    return {EExit::REFUSED, "files left", "is uninstalled, but its files could not all be deleted"};
}

/// The state for the question. A server whose state cannot be read can be uninstalled all the same.
std::string csStateOrUnknown(CConversation* pclManager, const std::string& csName)
{
    const std::string csReply = pclManager->csAsk({"STATUS", csName});
    const auto stRefusal = stReadRefusal(csReply);
    if (stRefusal.has_value() && stRefusal->nCode != ERREUR_STATUS) {
        throw CFailure(EExit::REFUSED, csRefusalWords(*stRefusal, {pclManager->stHost().csName, csName}));
    }
    const auto csState = stRefusal.has_value() ? "in an unknown state" : csReadState(csReply);
    if (!csState.has_value()) {
        throw pclManager->clNonsense(csReply);
    }
    return *csState;
}

/// The folder that would be deleted, by its path where that is known: on this machine.
std::string csFolderWords(const STHost& stHost, const std::string& csName, Milliseconds clTime)
{
    const std::string csFolder = bThisMachine(stHost) ? csFolderOf(csName, clTime) : "";
    return csFolder.empty() ? "the folder of its program" : csFolder + ", the folder of its program,";
}

/// What uninstalling does, in words for the question.
std::string csPlan(const STCall& stCall, const STHost& stHost, const std::string& csName)
{
    return stCall.stOptions.bDeleteFiles
               ? "stop it, delete " + csFolderWords(stHost, csName, stCall.clTimeout) +
                     " with all databases in it, and remove its service"
               : "stop it and remove its service; its files are kept";
}
} // namespace

EExit eUninstall(const STCall& stCall)
{
    const std::string csName = csArgument(stCall.tArguments[0]);
    const STHost stHost = stOnlyHost(stCall.stOptions);
    CConversation clManager(stHost, stCall.clTimeout);
    const std::string csOn = stHost.csName.empty() ? "" : "on " + stHost.csName + " ";
    const std::string csIs = csOn + "is " + csStateOrUnknown(&clManager, csName);
    const std::string csWould = csPlan(stCall, stHost, csName);

    if (stCall.stOptions.bDryRun) {
        Tell(stCall, stHost, csName, "dry run", csIs + ". Uninstalling would " + csWould);
        return EExit::DONE;
    }
    if (!stCall.stOptions.bYes &&
        !bConfirm(csShown("\"" + csName + "\" " + csIs + ". Uninstall: " + csWould + "?"))) {
        throw CFailure(EExit::DECLINED, "nothing was changed");
    }

    const STOutcome stOutcome = stRemove(&clManager, csName, stCall.stOptions.bDeleteFiles);
    Tell(stCall, stHost, csName, stOutcome.pszJson, csOn + stOutcome.pszWords);
    return stOutcome.eExit;
}
