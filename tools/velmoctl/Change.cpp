// The commands that change something: start and uninstall.

#include "velmoctl/Output.h"
#include "velmoctl/Query.h"

#include <iostream>

namespace {
std::optional<bool> bReadDone(std::string_view csLine)
{
    return csLine == "OK" ? std::optional<bool>(true) : std::nullopt;
}

void Tell(const STCall& stCall, const std::string& csName, const char* pszJson, const std::string& csWords)
{
    if (stCall.stOptions.bJson) {
        std::cout << csJsonObject({{"name", csJsonText(csName)}, {"result", csJsonText(pszJson)}}) << "\n";
    } else {
        std::cout << "\"" << csShown(csName) << "\" " << csWords << "\n";
    }
}

/// The manager reports that it has deleted the server's files with this code, and leaves the service.
constexpr unsigned int s_nFilesDeleted = 12;

/// True when the manager has deleted the files and left the stopped service behind.
bool bFilesDeleted(CConversation* pclManager, const std::string& csName, bool bDeleteFiles)
{
    const std::string csReply = pclManager->csAsk({"UNINSTALL", csName, bDeleteFiles ? "1" : "0"});
    const auto stRefusal = stReadRefusal(csReply);
    if (stRefusal.has_value() && stRefusal->nCode == s_nFilesDeleted && bDeleteFiles) {
        return true;
    }
    if (stRefusal.has_value()) {
        throw CFailure(EExit::REFUSED, csRefusalWords(*stRefusal, csName));
    }
    if (!bReadDone(csReply)) {
        throw pclManager->clNonsense(csReply);
    }
    return false;
}

struct STOutcome
{
    EExit eExit;
    const char* pszJson;
    const char* pszWords;
};

/// With files it takes two requests: the first deletes them and leaves the service, the second removes that.
STOutcome stRemove(CConversation* pclManager, const std::string& csName, bool bDeleteFiles)
{
    const CProgress clProgress("uninstalling...");
    if (bFilesDeleted(pclManager, csName, bDeleteFiles)) {
        try {
            (void)bFilesDeleted(pclManager, csName, false);
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
    // The manager removes the service at once only when there was nothing that it could delete whole.
    return {EExit::REFUSED, "files left", "is uninstalled, but its files could not all be deleted"};
}

/// A server whose state cannot be read can be uninstalled all the same.
std::string csStateOrUnknown(CConversation* pclManager, const std::string& csName)
{
    constexpr unsigned int nUnreadable = 4;
    const std::string csReply = pclManager->csAsk({"STATUS", csName});
    const auto stRefusal = stReadRefusal(csReply);
    if (stRefusal.has_value() && stRefusal->nCode != nUnreadable) {
        throw CFailure(EExit::REFUSED, csRefusalWords(*stRefusal, csName));
    }
    const auto csState = stRefusal.has_value() ? "in an unknown state" : csReadState(csReply);
    if (!csState.has_value()) {
        throw pclManager->clNonsense(csReply);
    }
    return *csState;
}

std::string csPlan(const STCall& stCall)
{
    return stCall.stOptions.bDeleteFiles
               ? "stop it, delete the folder of its program with all databases in it, and remove its service"
               : "stop it and remove its service; its files are kept";
}
} // namespace

EExit eStart(const STCall& stCall)
{
    const std::string csName = csArgument(stCall.tArguments[0]);
    {
        const CProgress clProgress("starting...");
        CConversation clManager(stCall.stOptions, stCall.clTimeout);
        (void)tAskFor(&clManager, {"START", csName}, csName, bReadDone);
    }
    Tell(stCall, csName, "started", "is started");
    return EExit::DONE;
}

EExit eUninstall(const STCall& stCall)
{
    const std::string csName = csArgument(stCall.tArguments[0]);
    CConversation clManager(stCall.stOptions, stCall.clTimeout);
    const std::string csState = csStateOrUnknown(&clManager, csName);
    if (stCall.stOptions.bDryRun) {
        Tell(stCall, csName, "dry run", "is " + csState + ". Uninstalling would " + csPlan(stCall));
        return EExit::DONE;
    }
    if (!stCall.stOptions.bYes &&
        !bConfirm("\"" + csShown(csName) + "\" is " + csState + ". Uninstall: " + csPlan(stCall) + "?")) {
        throw CFailure(EExit::DECLINED, "nothing was changed");
    }
    const STOutcome stOutcome = stRemove(&clManager, csName, stCall.stOptions.bDeleteFiles);
    Tell(stCall, csName, stOutcome.pszJson, stOutcome.pszWords);
    return stOutcome.eExit;
}
