#include "velmoctl/Conversation.h"

#include "support/Conversion.h"
#include "velmoctl/Terminal.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <future>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace {
constexpr std::size_t s_nMaxGreeting = 1024;
constexpr std::string_view s_csGreeting = "HELLO FROM SERVEUR SETUP ";

struct STResolved
{
    CAddresses pstAddresses;
    int nError = 0;
};

/// Asks the C library's resolver, and waits as long as it takes.
STResolved stAsk(const std::string& csHost, const std::string& csPort, int nType, int nFlags)
{
    addrinfo stHints{};
    stHints.ai_socktype = nType;
    stHints.ai_flags = AI_NUMERICSERV | nFlags;

    addrinfo* pst = nullptr;
    STResolved stResult;
    stResult.nError =
        ::getaddrinfo(csHost.empty() ? nullptr : csHost.c_str(), csPort.c_str(), &stHints, &pst);
    stResult.pstAddresses.reset(pst);
    return stResult;
}

/// The resolver has no deadline, so a thread of its own asks it. One that takes too long is left to itself:
/// the future of a packaged_task, unlike that of std::async, does not wait for it.
STResolved stAskInTime(const std::string& csHost, const std::string& csPort, int nType,
                       const CDeadline& clDeadline)
{
    std::packaged_task<STResolved()> clTask([=] { return stAsk(csHost, csPort, nType, 0); });
    std::future<STResolved> clResult = clTask.get_future();
    try {
        std::thread(std::move(clTask)).detach();
    } catch (const std::system_error&) { // no more threads; uncaught in a worker, it would end the program
        return {nullptr, EAI_AGAIN};
    }

    // In steps of 20 ms: a future cannot be waited for together with a caught signal.
    while (clResult.wait_for(Milliseconds(20)) != std::future_status::ready) {
        bWaitFor(-1, 0, CDeadline(Milliseconds::zero())); // throws when a signal was caught
        if (clDeadline.bOver()) {
            return {nullptr, EAI_AGAIN};
        }
    }

    return clResult.get();
}

/// Connects a non-blocking socket. True when connected; otherwise errno has the reason.
bool bConnect(int nSocket, const addrinfo& stAddress, const CDeadline& clDeadline)
{
    if (::connect(nSocket, stAddress.ai_addr, stAddress.ai_addrlen) == 0) {
        return true;
    }
    if (errno != EINPROGRESS) {
        return false;
    }
    if (!bWaitFor(nSocket, POLLOUT, clDeadline)) {
        errno = ETIMEDOUT;
        return false;
    }

    int nError = 0;
    socklen_t nLength = sizeof nError;
    ::getsockopt(nSocket, SOL_SOCKET, SO_ERROR, &nError, &nLength);
    errno = nError;
    return nError == 0;
}

/// How many addresses are in the list from this one on.
int nAddressesFrom(const addrinfo* pst)
{
    int nAddresses = 0;
    for (; pst != nullptr; pst = pst->ai_next) {
        ++nAddresses;
    }
    return nAddresses;
}

/// "10 s", "1.5 s".
std::string csSeconds(Milliseconds clTime)
{
    std::string cs = std::to_string(clTime.count() / 1000) + "." + std::to_string(clTime.count() / 100 % 10);
    return (cs.ends_with(".0") ? cs.substr(0, cs.size() - 2) : cs) + " s";
}
} // namespace

CAddresses pstResolve(const STHost& stHost, int nType, const CDeadline& clDeadline)
{
    const std::string csPort = std::to_string(stHost.wPort);

    // A numeric address needs neither the network nor a thread.
    STResolved stResult = stAsk(stHost.csAddress, csPort, nType, AI_NUMERICHOST);
    if (stResult.nError != 0) {
        stResult = stAskInTime(stHost.csAddress, csPort, nType, clDeadline);
    }

    if (stResult.nError != 0) {
        throw CFailure(EExit::UNREACHABLE, "the host \"" + stHost.csName +
                                               "\" cannot be found: " + ::gai_strerror(stResult.nError));
    }

    return std::move(stResult.pstAddresses);
}

std::string csWhere(const STHost& stHost)
{
    return stHost.csName.empty() ? "this machine" : stHost.csName;
}

std::string csHostWord(const STHost& stHost)
{
    std::array<char, HOST_NAME_MAX + 1> szName{};
    if (!stHost.csName.empty() || ::gethostname(szName.data(), szName.size() - 1) != 0) {
        return stHost.csName;
    }
    return csToUTF8(csFromUTF8(szName.data()));
}

CConversation::CConversation(const STHost& stHost, Milliseconds clPerAnswer, const CDeadline& clWhole)
    : m_stHost(stHost), m_clPerAnswer(clPerAnswer), m_clWhole(clWhole),
      m_csWho(csShown(csWhere(stHost)) + ", port " + std::to_string(stHost.wPort))
{
    const CDeadline clDeadline = _clAnswerEnd(); // one for all the steps
    _Connect(clDeadline);

    if (!_csLine(s_nMaxGreeting, clDeadline).starts_with(s_csGreeting)) {
        throw CFailure(EExit::NONSENSE, "what listens on " + m_csWho + " is not a manager");
    }

    _Send("MODE_UTF8\r\n", clDeadline);
    if (const std::string csReply = _csLine(s_nMaxLine, clDeadline); csReply != "OK") {
        throw clNonsense(csReply);
    }
}

CConversation::CConversation(const STHost& stHost, Milliseconds clPerAnswer)
    : CConversation(stHost, clPerAnswer, CDeadline::Never())
{}

std::string CConversation::csAsk(const std::vector<std::string>& tFields)
{
    std::string csLine;
    for (const std::string& csField : tFields) {
        if (csField.find_first_of(std::string_view("\t\r\n\0", 4)) != csField.npos) {
            throw CFailure(EExit::USAGE, "a name cannot contain tabs, newlines or NUL characters");
        }
        csLine += (csLine.empty() ? "" : "\t") + csField;
    }

    const CDeadline clDeadline = _clAnswerEnd();
    m_csReceived.clear(); // what came before the question is no answer to it
    _Send(csLine + "\r\n", clDeadline);
    return _csLine(s_nMaxLine, clDeadline);
}

CFailure CConversation::clNonsense(const std::string& csReply) const
{
    constexpr std::size_t nShown = 100; // bytes
    const std::string csCut = csReply.substr(0, nCutUTF8(csReply, nShown));
    return {EExit::NONSENSE, "the manager on " + m_csWho + " answered what was not expected: \"" +
                                 csShown(csCut) + (csCut.size() < csReply.size() ? "...\"" : "\"")};
}

/// When the answer to a question that is sent now must be there.
CDeadline CConversation::_clAnswerEnd() const
{
    return CDeadline(std::min(m_clPerAnswer, m_clWhole.clLeft()));
}

/// Each address gets an equal share of the time left, so that one silent address does not use all of it.
void CConversation::_Connect(const CDeadline& clDeadline)
{
    const CAddresses pstAddresses = pstResolve(m_stHost, SOCK_STREAM, clDeadline);
    int nErrno = 0; // of the last address, for the message

    for (const addrinfo* pst = pstAddresses.get(); pst != nullptr; pst = pst->ai_next) {
        CDescripteur clSocket(
            ::socket(pst->ai_family, pst->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, pst->ai_protocol));
        if (clSocket.bOpen() &&
            bConnect(clSocket.nFd(), *pst, CDeadline(clDeadline.clLeft() / nAddressesFrom(pst)))) {
            // One small line at a time: with Nagle's algorithm some would wait for an acknowledgement.
            const int nOne = 1;
            ::setsockopt(clSocket.nFd(), IPPROTO_TCP, TCP_NODELAY, &nOne, sizeof nOne);
            m_clSocket = std::move(clSocket);
            return;
        }
        nErrno = errno;
    }

    throw CFailure(EExit::UNREACHABLE,
                   "no manager can be reached on " + m_csWho + ": " + std::strerror(nErrno));
}

void CConversation::_Send(std::string_view csBytes, const CDeadline& clDeadline)
{
    while (!csBytes.empty()) {
        const ssize_t nSent = ::send(m_clSocket.nFd(), csBytes.data(), csBytes.size(), MSG_NOSIGNAL);
        if (nSent >= 0) {
            csBytes.remove_prefix(static_cast<std::size_t>(nSent));
        } else if (errno != EAGAIN && errno != EINTR) {
            throw clSystemFailure(EExit::NONSENSE, "the manager on " + m_csWho + " broke off");
        } else if (!bWaitFor(m_clSocket.nFd(), POLLOUT, clDeadline)) {
            throw _clSilence();
        }
    }
}

/// The next line, of at most nMax bytes, without its CR LF. Bytes after the line stay for the next call.
std::string CConversation::_csLine(std::size_t nMax, const CDeadline& clDeadline)
{
    std::size_t nSearched = 0;
    for (;;) {
        const std::size_t nEnd = m_csReceived.find("\r\n", nSearched);
        if (nEnd != std::string::npos && nEnd <= nMax) {
            const std::string csLine = m_csReceived.substr(0, nEnd);
            m_csReceived.erase(0, nEnd + 2);
            return csToUTF8(csFromUTF8(csLine)); // ill-formed bytes become U+FFFD
        }
        if (m_csReceived.size() > nMax) {
            throw CFailure(EExit::NONSENSE, "what listens on " + m_csWho + " sends a line without an end");
        }

        // Search new bytes only, but for a CR that ended the last ones.
        nSearched = m_csReceived.empty() ? 0 : m_csReceived.size() - 1;
        _Receive(clDeadline);
    }
}

/// Waits for bytes and keeps them; may return without any.
void CConversation::_Receive(const CDeadline& clDeadline)
{
    if (!bWaitFor(m_clSocket.nFd(), POLLIN, clDeadline)) {
        throw _clSilence();
    }

    std::array<char, 16384> tBytes;
    const ssize_t nReceived = ::recv(m_clSocket.nFd(), tBytes.data(), tBytes.size(), 0);
    if (nReceived > 0) {
        m_csReceived.append(tBytes.data(), static_cast<std::size_t>(nReceived));
    } else if (nReceived == 0 || (errno != EAGAIN && errno != EINTR)) {
        throw CFailure(EExit::NONSENSE, "the manager on " + m_csWho + " broke off " +
                                            (m_csReceived.empty() ? "without a reply" : "in a reply"));
    }
}

CFailure CConversation::_clSilence() const
{
    // Also when the whole conversation's time is over: callers limit both by the user's one timeout.
    return {EExit::UNREACHABLE,
            "the manager on " + m_csWho + " did not answer within " + csSeconds(m_clPerAnswer)};
}
