#pragma once

#include "velmoctl/Commands.h"
#include "velmoctl/FanOut.h"
#include "velmoctl/Json.h"

#include <chrono>
#include <functional>
#include <string>
#include <vector>

/// What the commands that ask several machines share: the choice of machines, the asking with progress on a
/// terminal, and the report about those that did not answer.

/// The machines that a command's options name, each once, in the order asked; this machine when they name
/// none. Throws CFailure (USAGE).
std::vector<STHost> tHostsOf(const STOptions& stOptions);
/// The one machine of a command that takes exactly one. Throws CFailure (USAGE) for several, and as tHostsOf.
STHost stOnlyHost(const STOptions& stOptions);
/// The hosts file of the options, or else the one that the environment names; empty when there is none.
/// Throws CFailure (USAGE).
CHostsFile clReadHostsFile(const STOptions& stOptions);

/// A choice of servers by names and patterns ("*", "?", "[...]"). Without a word bAll is true, but bHas is
/// false: whether no word means all servers (a command's arguments) or none (--ignore) is the caller's
/// matter.
class CSelection
{
public:
    /// Words as they were given on the command line.
    explicit CSelection(const std::vector<std::string>& tWords);
    bool bAll() const { return m_tWords.empty(); }
    /// True when no word is a pattern.
    bool bExact() const;
    /// True when one of the words is the name, or a pattern for it.
    bool bHas(const std::string& csServer) const;
    /// The words in UTF-8.
    const std::vector<std::string>& tWords() const { return m_tWords; }

private:
    std::vector<std::string> m_tWords;
};

/// Questions to the machines of a call about those servers of their lists that its arguments choose; see
/// STQuestions for fnQuestion. Throws CFailure (USAGE).
STQuestions stQuestionsAbout(const STCall& stCall,
                             std::function<void(CConversation*, STServerAnswer*)> fnQuestion);
/// The usual question: the state of a server. What the service manager of this machine knows better is added
/// at the end. Throws CFailure (USAGE).
STQuestions stStateQuestions(const STCall& stCall);
/// Asks for one server's state and keeps it; an fnQuestion, which throws as tAskFor.
void AskState(CConversation* pclManager, STServerAnswer* pst);
/// Adds what the service manager of this machine says in this time, when the host is this machine: which
/// stopped servers have failed, and with bLong all facts about all servers. Throws CFailure (INTERRUPTED).
void AddFacts(STHostAnswer* pstHost, bool bLong, Milliseconds clTime);

/// Gets answers of hosts that are done, each once, in the thread of the caller of tAskFleet. The pointers are
/// valid until tAskFleet returns.
using CTakeAnswers = std::function<void(const std::vector<const STHostAnswer*>&)>;
/// Asks, with a line of progress on a terminal, and returns all answers in the order of the hosts. fnTake
/// gets them in that order, too, all at once; with bAsTheyCome nobody waits for a slow host longer than two
/// seconds, and its answers then come last. Throws CFailure (INTERRUPTED).
std::vector<STHostAnswer> tAskFleet(const STQuestions& stQuestions, bool bAsTheyCome,
                                    const CTakeAnswers& fnTake);

/// What went wrong, in lines for standard error: machines and servers without an answer, names that match no
/// server. None when all is well.
std::vector<std::string> tTroubles(const std::vector<STHostAnswer>& tAnswers, const CSelection& clSelection);
/// The worst exit status of the answers' failures; a name that matches no server counts as refused.
EExit eWorstOf(const std::vector<STHostAnswer>& tAnswers, const CSelection& clSelection);
/// Writes the lines to standard error, and flushes standard output first, so that they come after the
/// results.
void TellTroubles(const std::vector<std::string>& tLines);

/// When a host was asked (clAsked), in UTC: "2026-11-21T10:39:43Z".
std::string csWhenAsked(const STHostAnswer& st);
/// A failure as a value, or null.
Json clJsonFailure(const std::optional<CFailure>& clFailure);
