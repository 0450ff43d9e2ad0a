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
/// The one machine of a command that takes exactly one. Throws CFailure (USAGE) for several.
STHost stOnlyHost(const STOptions& stOptions);
/// The hosts file of the options, or else the one that the environment names; empty when there is none.
/// Throws CFailure (USAGE).
CHostsFile clReadHostsFile(const STOptions& stOptions);

/// A choice of servers by names and patterns; none chooses all.
class CSelection
{
public:
    explicit CSelection(const std::vector<std::string>& tWords);
    bool bAll() const { return m_tWords.empty(); }
    /// True when no word is a pattern.
    bool bExact() const;
    bool bHas(const std::string& csServer) const;
    const std::vector<std::string>& tWords() const { return m_tWords; }

private:
    std::vector<std::string> m_tWords;
};

/// Questions to the machines of a call about those servers of their lists that its arguments choose.
STQuestions stQuestionsAbout(const STCall& stCall,
                             std::function<void(CConversation*, STServerAnswer*)> fnQuestion);
/// The usual question: the state of a server. What the service manager of this machine knows better is added
/// at the end.
STQuestions stStateQuestions(const STCall& stCall);
void AskState(CConversation* pclManager, STServerAnswer* pst);
/// Adds what the service manager of this machine says in this time, when the host is this machine.
void AddFacts(STHostAnswer* pstHost, bool bLong, Milliseconds clTime);

/// Asks, with a line of progress on a terminal. fnTake gets the answers in the order of the hosts, all at
/// once; with bAsTheyCome it does not wait for a slow host longer than two seconds, whose answers then come
/// last. Throws CFailure (INTERRUPTED).
using CTakeAnswers = std::function<void(const std::vector<const STHostAnswer*>&)>;
std::vector<STHostAnswer> tAskFleet(const STQuestions& stQuestions, bool bAsTheyCome,
                                    const CTakeAnswers& fnTake);

/// What went wrong, in lines for standard error: machines and servers without an answer, names that match no
/// server. None when all is well.
std::vector<std::string> tTroubles(const std::vector<STHostAnswer>& tAnswers, const CSelection& clSelection);
/// The worst exit status of all these.
EExit eWorstOf(const std::vector<STHostAnswer>& tAnswers, const CSelection& clSelection);
/// Writes the lines to standard error, and flushes standard output first, so that they come after the
/// results.
void TellTroubles(const std::vector<std::string>& tLines);

/// When a host was asked, in UTC: "2026-11-21T10:39:43Z".
std::string csWhenAsked(const STHostAnswer& st);
/// A failure as a value, or null.
Json clJsonFailure(const std::optional<CFailure>& clFailure);
