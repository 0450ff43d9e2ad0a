#pragma once

#include "velmoctl/Conversation.h"
#include "velmoctl/Replies.h"

#include <optional>
#include <string>
#include <vector>

/// Sends one command line and reads the reply with one of the readers of Replies.h. csServer is the server
/// that it is about, for messages; empty: none. Throws CFailure: REFUSED with the refusal in words (and with
/// the hint, if there is no such server), NONSENSE for a reply that is neither, and as csAsk.
template <class T>
T tAskFor(CConversation* pclManager, const std::vector<std::string>& tFields, const std::string& csServer,
          std::optional<T> (*pfnRead)(std::string_view), const char* pszUnknownHint = "")
{
    const std::string csReply = pclManager->csAsk(tFields);
    if (const auto stRefusal = stReadRefusal(csReply)) {
        throw CFailure(EExit::REFUSED,
                       csRefusalWords(*stRefusal, {pclManager->stHost().csName, csServer, pszUnknownHint}));
    }
    std::optional<T> tResult = pfnRead(csReply);
    if (!tResult.has_value()) {
        throw pclManager->clNonsense(csReply);
    }
    return std::move(*tResult);
}
