#include "velmoctl/FanOut.h"

#include "velmoctl/AskFor.h"

#include <algorithm>
#include <system_error>

namespace {
constexpr Milliseconds s_clLook(100); ///< longest time between two calls of the caller's function
} // namespace

CFanOut::CFanOut(STQuestions stQuestions)
    : m_stQuestions(std::move(stQuestions)), m_tProgress(m_stQuestions.tHosts.size()),
      m_tDone(m_stQuestions.tHosts.size())
{
    for (std::size_t n = 0; n < m_stQuestions.tHosts.size(); ++n) {
        const STHost& st = m_stQuestions.tHosts[n];
        m_tAnswers.push_back({});
        m_tAnswers.back().stHost = st;
        m_tProgress[n].pnAtManager = &m_tAtManager[{st.csAddress, st.wPort}];
    }
}

std::vector<STHostAnswer> CFanOut::tAsk(const Look& fnLook)
{
    CInterrupts::Catch(); // before any thread starts; the line of progress must be cleared on Ctrl-C
    {
        // Joined at the end of this block, after which the answers are the caller's alone.
        const std::vector<std::jthread> tWorkers = _tStartWorkers();
        _LookUntilDone(fnLook);
    }

    if (m_bInterrupted) {
        throw CFailure(EExit::INTERRUPTED, "interrupted");
    }

    return std::move(m_tAnswers);
}

/// Starts as many workers as there can be conversations at once. Throws CFailure (UNREACHABLE) when not even
/// one thread can be started.
std::vector<std::jthread> CFanOut::_tStartWorkers()
{
    std::vector<std::jthread> tWorkers;
    const std::size_t nMost = m_tAnswers.size() * s_nMostToOneHost;
    for (std::size_t n = 0; n < std::min<std::size_t>(m_stQuestions.nJobs, nMost); ++n) {
        try {
            tWorkers.emplace_back([this] { _Work(); });
        } catch (const std::system_error&) { // no more threads: fewer do the same work
            if (tWorkers.empty()) {
                throw CFailure(EExit::UNREACHABLE, "no thread can be started to ask with");
            }
            break;
        }
    }
    return tWorkers;
}

/// Calls the caller's function, after the last host is done once more, until all hosts are done or a worker
/// was interrupted.
void CFanOut::_LookUntilDone(const Look& fnLook)
{
    std::unique_lock clLock(m_clMutex);
    for (bool bAll = false; !bAll;) {
        if (m_nDone < m_tAnswers.size()) {
            m_clChanged.wait_for(clLock, s_clLook);
        }
        if (m_bInterrupted) {
            return;
        }

        // Without the lock: the caller may block in a write to a slow reader, and the workers must be able to
        // go on. Of the answers it may read only what tDone, a copy, says is done.
        const std::vector<bool> tDone = m_tDone;
        bAll = m_nDone == m_tAnswers.size();
        clLock.unlock();
        fnLook(m_tAnswers, tDone);
        clLock.lock();
    }
}

/// What a worker does: one conversation after the other until all hosts are done.
void CFanOut::_Work()
{
    while (const std::optional<std::size_t> nHost = _nNextHost()) {
        _Serve(*nHost);
        _Leave(*nHost);
    }
}

/// Picks the host to talk to next and counts the conversation there. Waits while there is none; returns none
/// when all hosts are done, or the user has interrupted.
std::optional<std::size_t> CFanOut::_nNextHost()
{
    std::unique_lock clLock(m_clMutex);
    while (!m_bInterrupted && m_nDone < m_tAnswers.size()) {
        if (const std::optional<std::size_t> nHost = _nOpenHost()) {
            ++m_tProgress[*nHost].nConversations;
            ++*m_tProgress[*nHost].pnAtManager;
            return nHost;
        }
        m_clChanged.wait(clLock); // a list that another worker gets may bring more to ask
    }
    return std::nullopt;
}

/// Prefers hosts that nobody has asked yet to a further conversation with one that answers.
std::optional<std::size_t> CFanOut::_nOpenHost() const
{
    // The count as well as bStarted: a worker that has just picked a host sets bStarted only after it has let
    // go of the lock.
    for (std::size_t n = 0; n < m_tProgress.size(); ++n) {
        const STProgress& st = m_tProgress[n];
        if (!st.bStarted && st.nConversations == 0 && *st.pnAtManager < s_nMostToOneHost) {
            return n;
        }
    }

    for (std::size_t n = 0; n < m_tProgress.size(); ++n) {
        const STProgress& st = m_tProgress[n];
        if (m_stQuestions.fnQuestion && st.bListed && !st.clGivenUp &&
            st.nNext < m_tAnswers[n].tServers.size() && *st.pnAtManager < s_nMostToOneHost) {
            return n;
        }
    }

    return std::nullopt;
}

/// Holds one conversation with a host, from connect to the last server that is left to ask about.
void CFanOut::_Serve(std::size_t nHost)
{
    try {
        _Start(nHost);

        // Without the lock: the host never changes, and clEnd is set once, by the first conversation; another
        // one begins only after that has the list.
        CConversation clManager(m_tAnswers[nHost].stHost, m_stQuestions.clTimeout, *m_tProgress[nHost].clEnd);
        _AskList(nHost, &clManager);
        _AskServers(nHost, &clManager);
    } catch (const CFailure& clFailure) {
        _GiveUp(nHost, clFailure);
    }
}

/// Starts the clock of a host with its first conversation: hosts that wait for a worker lose no time.
void CFanOut::_Start(std::size_t nHost)
{
    const std::lock_guard clGuard(m_clMutex);
    STProgress& st = m_tProgress[nHost];
    if (!st.bStarted) {
        st.bStarted = true;
        st.clEnd = m_stQuestions.bWholeHostInTime ? CDeadline(m_stQuestions.clTimeout) : CDeadline::Never();
        m_tAnswers[nHost].clAsked = std::chrono::system_clock::now();
    }
}

/// Asks for the list of servers in the first conversation, unless the caller named the servers.
void CFanOut::_AskList(std::size_t nHost, CConversation* pclManager)
{
    if (m_tProgress[nHost].bListed) { // no lock: a second conversation begins only after bListed is set
        return;
    }

    std::optional<STInfo> stInfo;
    if (m_stQuestions.tNames.empty()) {
        stInfo = tAskFor(pclManager, {"INFO"}, "", stReadInfo);
    }
    std::vector<STServerAnswer> tServers = _tToAskAbout(stInfo);

    const std::lock_guard clGuard(m_clMutex);
    m_tAnswers[nHost].stInfo = std::move(stInfo);
    m_tAnswers[nHost].tServers = std::move(tServers);
    m_tProgress[nHost].bListed = true;
    m_clChanged.notify_all();
}

/// The servers that the caller named, or else those that it wants of the list; without answers yet.
std::vector<STServerAnswer> CFanOut::_tToAskAbout(const std::optional<STInfo>& stInfo) const
{
    std::vector<STServerAnswer> tServers;
    for (const std::string& csName : m_stQuestions.tNames) {
        tServers.push_back({});
        tServers.back().stServer.csName = csName;
    }

    if (!stInfo.has_value()) {
        return tServers;
    }

    for (const STServer& st : stInfo->tServers) {
        if (!m_stQuestions.fnWanted || m_stQuestions.fnWanted(st)) {
            tServers.push_back({});
            tServers.back().stServer = st;
        }
    }
    return tServers;
}

/// Takes the next server of a host for this thread alone; null when nothing is left to ask there.
STServerAnswer* CFanOut::_pstNextServer(std::size_t nHost)
{
    const std::lock_guard clGuard(m_clMutex);
    STProgress& st = m_tProgress[nHost];
    std::vector<STServerAnswer>& tServers = m_tAnswers[nHost].tServers;
    return st.clGivenUp || m_bInterrupted || st.nNext >= tServers.size() ? nullptr : &tServers[st.nNext++];
}

/// Asks about one server after the other; other conversations with the host take servers meanwhile.
void CFanOut::_AskServers(std::size_t nHost, CConversation* pclManager)
{
    if (!m_stQuestions.fnQuestion) {
        return;
    }

    while (STServerAnswer* const pst = _pstNextServer(nHost)) {
        try {
            m_stQuestions.fnQuestion(pclManager, pst);
        } catch (const CFailure& clFailure) {
            // A refusal, and a name that cannot be sent, leave the conversation in order for the next server.
            const bool bUnsent = clFailure.eExit() == EExit::USAGE;
            const bool bFromList = m_stQuestions.tNames.empty(); // then the name is the manager's fault
            pst->clFailure = bUnsent && bFromList ? CFailure(EExit::NONSENSE, clFailure.what()) : clFailure;
            if (clFailure.eExit() != EExit::REFUSED && !bUnsent) {
                _GiveUp(nHost, clFailure);
                return;
            }
        }
    }
}

/// Notes that nothing else is asked of a manager, which was silent or broke off once: each question more
/// would cost the timeout. Until the list is there the failure is the host's; later _Finish gives it to the
/// servers that were not asked about. An interrupt ends the work of all.
void CFanOut::_GiveUp(std::size_t nHost, const CFailure& clFailure)
{
    const std::lock_guard clGuard(m_clMutex);
    m_bInterrupted = m_bInterrupted || clFailure.eExit() == EExit::INTERRUPTED;
    if (!m_tProgress[nHost].clGivenUp) {
        m_tProgress[nHost].clGivenUp = clFailure;
    }
    if (!m_tProgress[nHost].bListed) {
        m_tAnswers[nHost].clFailure = clFailure;
    }
    m_clChanged.notify_all();
}

/// Ends a conversation; the last one with a host finishes the host.
void CFanOut::_Leave(std::size_t nHost)
{
    {
        const std::lock_guard clGuard(m_clMutex);
        STProgress& st = m_tProgress[nHost];
        --*st.pnAtManager;
        m_clChanged.notify_all(); // another host with the same manager may have waited for this
        if (--st.nConversations > 0) {
            return;
        }
    }

    // The lock is free again: the caller's last question may take its time.
    _Finish(nHost);
}

/// Completes the answers of a host. They need no lock: no other worker has the host any more, and none gets
/// it again, since all its servers have been asked about or the host was given up.
void CFanOut::_Finish(std::size_t nHost)
{
    // The wall clock, since clAsked is a time of day: clTook is wrong when the clock is set meanwhile.
    STHostAnswer& stAnswer = m_tAnswers[nHost];
    stAnswer.clTook =
        std::chrono::duration_cast<Milliseconds>(std::chrono::system_clock::now() - stAnswer.clAsked);

    if (const std::optional<CFailure>& clCause = m_tProgress[nHost].clGivenUp) {
        for (std::size_t n = m_tProgress[nHost].nNext; n < stAnswer.tServers.size(); ++n) {
            stAnswer.tServers[n].clFailure.emplace(clCause->eExit(),
                                                   std::string("not asked: ") + clCause->what());
        }
    }

    try {
        if (m_stQuestions.fnFinish && !stAnswer.clFailure.has_value()) {
            m_stQuestions.fnFinish(&stAnswer);
        }
    } catch (const CFailure& clFailure) { // the user has interrupted: the host counts as done all the same
        _GiveUp(nHost, clFailure);
    }

    const std::lock_guard clGuard(m_clMutex);
    m_tDone[nHost] = true;
    ++m_nDone;
    m_clChanged.notify_all();
}
