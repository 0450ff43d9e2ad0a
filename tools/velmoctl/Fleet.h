#pragma once

#include "velmoctl/Commands.h"
#include "velmoctl/FanOut.h"
#include "velmoctl/Json.h"

#include <chrono>
#include <functional>
#include <string>
#include <vector>

/// What the commands that ask several machines share: which machines, the asking with its progress on a
/// terminal, and what is told of those that did not answer.

/// The machines that a command's options name, each once, in the order asked; this machine when they name
/// none. Throws CFailure (USAGE).
std::vector<STHost> tHostsOf(const STOptions& stOptions);
/// The one machine of a command that takes no more than one.
STHost stOnlyHost(const STOptions& stOptions);
/// The hosts file of the options, or else the one that the environment names; empty when there is none.
/// Throws CFailure (USAGE).
CHostsFile clReadHostsFile(const STOptions& stOptions);

/// Which servers are meant: by names and patterns (none: all).
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

/// Questions to the machines of a call about the servers of its arguments, whose lists are looked at.
STQuestions stQuestionsAbout(const STCall& stCall,
                             std::function<void(CConversation*, STServerAnswer*)> fnQuestion);
/// The usual question: the server's state. What this machine's service manager knows better is put in at the
/// end.
STQuestions stStateQuestions(const STCall& stCall);
void AskState(CConversation* pclManager, STServerAnswer* pst);
void AddFacts(STHostAnswer* pstHost, bool bLong);

/// Asks, with a line of progress on a terminal. The function gets the answers in the order of the hosts: all
/// at once, or, when some host takes long and bAsTheyCome is set, those of the others first. Throws CFailure
/// (INTERRUPTED).
using CTakeAnswers = std::function<void(const std::vector<const STHostAnswer*>&)>;
std::vector<STHostAnswer> tAskFleet(const STQuestions& stQuestions, bool bAsTheyCome,
                                    const CTakeAnswers& fnTake);

/// What went wrong, for standard error: the machines that gave no answer, the servers without one, names that
/// stand for nothing. Lines without the program's name; none when all is well.
std::vector<std::string> tTroubles(const std::vector<STHostAnswer>& tAnswers, const CSelection& clSelection);
/// The worst exit status of all these.
EExit eWorstOf(const std::vector<STHostAnswer>& tAnswers, const CSelection& clSelection);
/// Writes the lines to standard error, after what is on its way to standard output.
void TellTroubles(const std::vector<std::string>& tLines);

/// When a host was asked, in UTC: "2026-11-21T10:39:43Z".
std::string csWhenAsked(const STHostAnswer& st);
/// A failure as a value, or null.
Json clJsonFailure(const std::optional<CFailure>& clFailure);
