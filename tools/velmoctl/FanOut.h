#pragma once

#include "velmoctl/Conversation.h"
#include "velmoctl/Replies.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

/// Asks many managers at once, each about its servers. The caller waits in tAsk, while worker threads hold
/// the conversations.

/// A server with its answers, or with the reason why there is none.
struct STServerAnswer
{
    STServer stServer;
    std::string csState; ///< one lower-case word, see csReadState; empty: not asked, or clFailure says why
    std::string csPid;   ///< this and the next three on this machine only, see STFacts
    std::string csSince;
    std::string csFolder;
    std::string csLog;
    std::optional<CFailure> clFailure;
};

/// What came from one machine.
struct STHostAnswer
{
    STHost stHost;
    std::chrono::system_clock::time_point clAsked; ///< when its first conversation began
    Milliseconds clTook{0};                        ///< from then to the end of the last one
    std::optional<STInfo> stInfo;                  ///< none: the caller named the servers, or clFailure
    std::vector<STServerAnswer> tServers;          ///< in the manager's order
    bool bFactsMissing = false;        ///< this machine's service manager gave no answer about a server
    std::optional<CFailure> clFailure; ///< why there is no list of servers, or no conversation at all
};

/// What is asked. The functions are called by the worker threads, fnWanted and fnQuestion by several at once;
/// fnQuestion and fnFinish may throw CFailure.
struct STQuestions
{
    std::vector<STHost> tHosts;
    unsigned int nJobs = 16;         ///< conversations at once, in all
    Milliseconds clTimeout{0};       ///< for one answer
    bool bWholeHostInTime = true;    ///< the timeout limits also all answers of a host together
    std::vector<std::string> tNames; ///< servers to ask about without the list; empty: those of the list
    std::function<bool(const STServer&)> fnWanted; ///< which servers of the list; none: all
    std::function<void(CConversation*, STServerAnswer*)>
        fnQuestion;                              ///< for each server; none: only the list is asked for
    std::function<void(STHostAnswer*)> fnFinish; ///< adds what this machine knows itself
};

/// Asks hosts in the order given, with several conversations at once. A host that hangs blocks only its own
/// conversation, until the timeout. One object serves one call of tAsk.
class CFanOut
{
public:
    /// Most conversations with one manager at a time, whatever names it goes by.
    static constexpr unsigned int s_nMostToOneHost = 4;

    explicit CFanOut(STQuestions stQuestions);

    /// Called from time to time in the thread of the caller, with the answers and, for each, whether it is
    /// done. A done answer does not change any more; of the others only the host may be read.
    using Look = std::function<void(const std::vector<STHostAnswer>&, const std::vector<bool>&)>;
    /// Returns once all hosts are done. Throws CFailure (INTERRUPTED).
    std::vector<STHostAnswer> tAsk(const Look& fnLook);

private:
    /// How far a host is.
    struct STProgress
    {
        bool bStarted = false;
        bool bListed = false;  ///< its servers are known
        std::size_t nNext = 0; ///< index of the first server not asked about yet
        unsigned int nConversations = 0;
        unsigned int* pnAtManager = nullptr; ///< conversations of all hosts with this address and port
        std::optional<CFailure> clGivenUp;   ///< why nothing else is asked
        std::optional<CDeadline> clEnd;      ///< set by its first conversation
    };

    std::vector<std::jthread> _tStartWorkers();
    void _LookUntilDone(const Look& fnLook);
    void _Work();
    std::optional<std::size_t> _nNextHost();
    std::optional<std::size_t> _nOpenHost() const;
    void _Serve(std::size_t nHost);
    void _Start(std::size_t nHost);
    void _AskList(std::size_t nHost, CConversation* pclManager);
    std::vector<STServerAnswer> _tToAskAbout(const std::optional<STInfo>& stInfo) const;
    STServerAnswer* _pstNextServer(std::size_t nHost);
    void _AskServers(std::size_t nHost, CConversation* pclManager);
    void _GiveUp(std::size_t nHost, const CFailure& clFailure);
    void _Leave(std::size_t nHost);
    void _Finish(std::size_t nHost);

    const STQuestions m_stQuestions;
    std::mutex m_clMutex; ///< guards all that follows, except a server while one worker asks about it
    std::condition_variable m_clChanged;
    std::vector<STHostAnswer> m_tAnswers; ///< by host, as is the next
    std::vector<STProgress> m_tProgress;
    std::map<std::pair<std::string, std::uint16_t>, unsigned int> m_tAtManager; ///< conversations by manager
    std::vector<bool> m_tDone;
    std::size_t m_nDone = 0;
    bool m_bInterrupted = false;
};
