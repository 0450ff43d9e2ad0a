#pragma once

#include "velmoctl/Commands.h"
#include "velmoctl/Conversation.h"
#include "velmoctl/Replies.h"

#include <optional>
#include <string>
#include <vector>

/// Sends one command line and reads the reply with one of the readers of Replies.h. Throws CFailure: REFUSED
/// with the refusal in words about the server of that name (with a hint, if there is no such server),
/// NONSENSE for what is neither.
template <class T>
T tAskFor(CConversation* pclManager, const std::vector<std::string>& tFields, const std::string& csServer,
          std::optional<T> (*pfnRead)(std::string_view), const char* pszUnknownHint = "")
{
    const std::string csReply = pclManager->csAsk(tFields);
    if (const auto stRefusal = stReadRefusal(csReply)) {
        const char* const pszHint = stRefusal->nCode == g_nServerUnknown ? pszUnknownHint : "";
        throw CFailure(EExit::REFUSED, csRefusalWords(*stRefusal, csServer) + pszHint);
    }
    std::optional<T> tResult = pfnRead(csReply);
    if (!tResult.has_value()) {
        throw pclManager->clNonsense(csReply);
    }
    return std::move(*tResult);
}

/// A server with its state, or why there is none.
struct STListed
{
    STServer stServer;
    std::string csState;
    std::string csFailure;
    EExit eExit = EExit::DONE;
};

/// The manager's servers; the states are asked in parallel. Once the manager is silent or broken towards one
/// conversation the remaining states are not asked for. Throws CFailure when there is no list at all.
std::vector<STListed> tAskList(const STCall& stCall);
/// Its table, and its JSON.
std::string csListTable(const std::vector<STListed>& tList);
std::string csListJson(const std::vector<STListed>& tList);
/// The gravest of the servers' failures; tells each on standard error.
EExit eTellFailures(const std::vector<STListed>& tList);

std::string csServersJson(const std::vector<STServer>& tServers);
