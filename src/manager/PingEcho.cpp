#include "manager/PingEcho.h"

#include "manager/SetupManager.h"
#include "support/accesdllres.h"
#include "support/Conversion.h"
#include "support/SystemCall.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <netinet/in.h>
#include <sys/uio.h>
#include <tuple>
#include <utility>

namespace {
using namespace std::string_view_literals;
constexpr std::string_view s_csSystemQuestion = "ARE YOU A DEXARO SERVER SETUP?\r\n\0"sv;
constexpr std::string_view s_csUTF8Question = "ARE YOU A DEXARO MANAGER UTF-8?\r\n\0"sv;
/// Bytes that are received of a datagram. A longer datagram is cut to them, so they must be more than the
/// longest question has (34): otherwise its beginning would be taken for a question.
constexpr std::size_t s_nMaxQuestion = 37;
/// Most askers that wait for one list; further questions are dropped. Also the most datagrams that are read
/// from one socket in a row.
constexpr std::size_t s_nMaxWaiting = 1000;
/// Pause after a network failure, so that a lasting one does not keep a processor busy.
constexpr unsigned int s_dwPauseMs = 50;

/// A message header with room for a datagram, its sender and the address that it was sent to. It points into
/// both arguments. The lengths are those of the whole buffers; Answer sets them to what was received.
msghdr stMessage(STPingQuestion* pstQuestion, iovec* pstText)
{
    msghdr st{};
    st.msg_name = &pstQuestion->stSender;
    st.msg_namelen = sizeof pstQuestion->stSender;
    st.msg_iov = pstText;
    st.msg_iovlen = 1;
    st.msg_control = pstQuestion->tAsked.data();
    st.msg_controllen = pstQuestion->tAsked.size();
    return st;
}

/// Reuses the kernel's packet-info message so that the answer leaves from the address that was asked. The
/// routes choose the interface, except for a link-local address, which means nothing without one. A multicast
/// address cannot be a source, so the kernel then chooses. An IPv4 broadcast address needs nothing: the
/// source is taken from ipi_spec_dst, into which the kernel has put an address of ours.
void SetSourceToAsked(msghdr* pst)
{
    cmsghdr* pstAsked = CMSG_FIRSTHDR(pst);
    if (pstAsked == nullptr) {
        return;
    }
    if (pstAsked->cmsg_level == IPPROTO_IP) {
        reinterpret_cast<in_pktinfo*>(CMSG_DATA(pstAsked))->ipi_ifindex = 0;
        return;
    }

    auto* pstAddress = reinterpret_cast<in6_pktinfo*>(CMSG_DATA(pstAsked));
    if (!IN6_IS_ADDR_LINKLOCAL(&pstAddress->ipi6_addr)) {
        pstAddress->ipi6_ifindex = 0;
    }
    if (IN6_IS_ADDR_MULTICAST(&pstAddress->ipi6_addr)) {
        pst->msg_controllen = 0;
    }
}

/// A failure is ignored: it costs this answer only.
void Send(int nSocket, msghdr stTo, std::string_view csBytes)
{
    iovec stText{const_cast<char*>(csBytes.data()), csBytes.size()}; // sending only reads it
    stTo.msg_iov = &stText;
    std::ignore = ::sendmsg(nSocket, &stTo, MSG_NOSIGNAL);
}

/// The reply of INFO with as many servers as fit into a datagram, without CR LF.
std::string csAnswer(EPingForm eForm, const std::wstring& csServers)
{
    const ECodePage eCodePage = eForm == EPingForm::UTF8 ? CP_UTF8 : CP_SYSTEM;
    const std::string csServerBytes = csNarrow(csServers, eCodePage);
    std::string csResult = csNarrow(L"YES\t" + gpclSetupManager->csGetHostInfo(), eCodePage);
    const std::size_t nRoom = g_nMaxDatagram - std::min(csResult.size(), g_nMaxDatagram); // never below 0
    return csResult.append(csFittingServers(csServerBytes, nRoom));
}

/// Does not change the question, which is not const only because a message header points to plain memory.
void Answer(STPingQuestion* pstQuestion, std::string_view csText)
{
    msghdr stTo = stMessage(pstQuestion, nullptr);
    stTo.msg_namelen = pstQuestion->nSender;
    stTo.msg_controllen = pstQuestion->nAsked;
    if (stTo.msg_controllen == 0) {
        stTo.msg_control = nullptr;
    }

    // CR LF is a datagram of its own: clients rely on it.
    Send(pstQuestion->nSocket, stTo, csText);
    Send(pstQuestion->nSocket, stTo, "\r\n");
}

void AnswerAll(std::map<std::string, STPingQuestion>* ptQuestions)
{
    CTString csServers;
    gpclSetupManager->AddServeurList(&csServers);

    // Each text is made once, however many ask for it.
    const std::string csSystem = csAnswer(EPingForm::SYSTEM, csServers);
    const std::string csUTF8 = csAnswer(EPingForm::UTF8, csServers);

    for (auto& [csAsker, stQuestion] : *ptQuestions) {
        Answer(&stQuestion, stQuestion.eForm == EPingForm::UTF8 ? csUTF8 : csSystem);
    }
}

/// Has the kernel deliver with each datagram the address that it was sent to. Where that fails, the answer
/// leaves from whichever address the routes prefer.
void AskForAddresses(const STSocket& stSocket)
{
    const int nOne = 1;
    if (stSocket.nFamily == AF_INET) {
        std::ignore = ::setsockopt(stSocket.nSocket, IPPROTO_IP, IP_PKTINFO, &nOne, sizeof nOne);
    } else {
        std::ignore = ::setsockopt(stSocket.nSocket, IPPROTO_IPV6, IPV6_RECVPKTINFO, &nOne, sizeof nOne);
    }
}

/// Makes the receive buffer large enough for s_nMaxWaiting questions, which arrive in a burst when many tools
/// ask at once. The kernel doubles the number and counts about 768 bytes for a short datagram. Only root may
/// exceed the usual limit.
void MakeRoom(const STSocket& stSocket)
{
    constexpr int nBytes = 400 * 1024;
    if (::setsockopt(stSocket.nSocket, SOL_SOCKET, SO_RCVBUFFORCE, &nBytes, sizeof nBytes) != 0) {
        std::ignore = ::setsockopt(stSocket.nSocket, SOL_SOCKET, SO_RCVBUF, &nBytes, sizeof nBytes);
    }
}

/// Takes the next datagram that has arrived; false (with errno) when there is none. It never waits: the
/// kernel may wake the thread for a datagram and then drop it for a wrong checksum.
bool bReceive(int nSocket, STPingQuestion* pstQuestion)
{
    std::array<char, s_nMaxQuestion> tText;
    iovec stText{tText.data(), tText.size()};
    msghdr stHeader = stMessage(pstQuestion, &stText);
    const ssize_t nReceived = nRetry([&] { return ::recvmsg(nSocket, &stHeader, MSG_DONTWAIT); });
    if (nReceived < 0) {
        return false;
    }

    pstQuestion->nSocket = nSocket;
    pstQuestion->eForm = eReadPing({tText.data(), static_cast<std::size_t>(nReceived)});
    SetSourceToAsked(&stHeader); // changes tAsked in place, and the length that is kept below
    pstQuestion->nSender = stHeader.msg_namelen;
    pstQuestion->nAsked = stHeader.msg_controllen;
    return true;
}

/// Key of an asker: the bytes of the sender's address, in which the kernel leaves nothing undefined, and the
/// form of the question.
std::string csAsker(const STPingQuestion& stQuestion)
{
    std::string csKey(reinterpret_cast<const char*>(&stQuestion.stSender), stQuestion.nSender);
    return csKey += stQuestion.eForm == EPingForm::UTF8 ? 'U' : 'S';
}
} // namespace

EPingForm eReadPing(std::string_view csDatagram)
{
    // UTF-8 first, for a prefix of both questions.
    if (s_csUTF8Question.starts_with(csDatagram)) {
        return EPingForm::UTF8;
    }
    return s_csSystemQuestion.starts_with(csDatagram) ? EPingForm::SYSTEM : EPingForm::NONE;
}

std::string_view csFittingServers(std::string_view csServers, std::size_t nMax)
{
    if (csServers.size() <= nMax) {
        return csServers;
    }

    // Server by server: tab, name, tab, port. nEnd is where the next server begins. The loop ends: at the end
    // of the list nEnd is the list's size, which is more than nMax.
    std::size_t nWhole = 0;
    for (std::size_t nEnd = 0; nEnd <= nMax;) {
        nWhole = nEnd;
        const std::size_t nPort = std::min(csServers.find('\t', nEnd + 1), csServers.size());
        nEnd = std::min(csServers.find('\t', nPort + 1), csServers.size());
    }
    return csServers.substr(0, nWhole);
}

CPingEcho::~CPingEcho()
{
    Stop();
}

bool CPingEcho::bInit(std::uint16_t wPort, CXError* pclError)
{
    if (!bSocketBindUDP(wPort, SOCKET_REUSEADDR, this, pclError, nullptr)) {
        return false;
    }

    // Without the option a question whose sender is a broadcast address could not be answered.
    const int nOne = 1;
    std::ignore = bSetsockopt(SOL_SOCKET, SO_BROADCAST, &nOne, sizeof nOne);
    for (const STSocket& stSocket : tGetSockets()) {
        AskForAddresses(stSocket);
        MakeRoom(stSocket);
    }
    return true;
}

bool CPingEcho::bStart()
{
    m_clAnswers.Begin();
    return m_clThread.xbStart(_PingThreadRoutine, this, &g_stMyModule, USER_ERROR_THREAD, /*bWaitStart=*/1,
                              /*bSuspended=*/0);
}

void CPingEcho::Stop()
{
    m_clThread.Stop(0); // asks
    // Wakes the wait, although the kernel reports an error for a socket without a connection.
    Shutdown(SHUT_RDWR);
    m_clThread.Stop(1); // waits
    m_clAnswers.Stop();

    // Last: a thread that still answered could otherwise meet another file under a socket's number.
    Close();
}

void CPingEcho::_PingThreadRoutine(CZTThread* pclThread)
{
    pclThread->Started();
    static_cast<CPingEcho*>(pclThread->pGetParameter())->_Run();
    pclThread->Stopped();
}

void CPingEcho::_Run()
{
    while (!m_clThread.bMustStop()) {
        try {
            if (WaitReadable(nullptr) >= 0) {
                _Receive();
                continue;
            }
            if (errno == EINTR) { // a signal (a child's exit) is no reason to pause
                continue;
            }
        } catch (...) { // out of memory: costs this question only; others may go through after the pause
        }

        m_clThread.SleepOrStop(s_dwPauseMs);
    }
}

/// Reads the questions that have arrived. Takes a limited number from each socket in turn, so that a flood
/// over one address family does not keep the other waiting.
void CPingEcho::_Receive()
{
    bool bReceived = false;
    bool bFailed = false;
    for (const STSocket& stSocket : tGetSockets()) {
        STPingQuestion stQuestion;
        for (std::size_t n = 0;
             n < s_nMaxWaiting && !m_clThread.bMustStop() && bReceive(stSocket.nSocket, &stQuestion); ++n) {
            bReceived = true;
            if (stQuestion.eForm != EPingForm::NONE) {
                _Note(stQuestion);
            }
        }
        // errno is that of the last bReceive. Where the limit or the stop has ended the loop, errno means
        // nothing, and does no harm either: after the limit bReceived is true, a stop ends the pause at once.
        bFailed = bFailed || errno != EAGAIN;
    }

    // A socket that is ready and yet fails would wake the thread again at once.
    if (!bReceived && bFailed) {
        m_clThread.SleepOrStop(s_dwPauseMs);
    }
}

/// Puts the question among those that wait, unless its asker waits already. The first one to wait has the
/// answering begun; whoever comes while a list is being made gets the next one.
void CPingEcho::_Note(const STPingQuestion& stQuestion)
{
    {
        const std::lock_guard<std::mutex> clGuard(m_clLock);
        if (m_tWaiting.size() >= s_nMaxWaiting) {
            return;
        }
        const bool bNew = m_tWaiting.emplace(csAsker(stQuestion), stQuestion).second;
        if (!bNew || std::exchange(m_bAnswering, true)) {
            return;
        }
    }

    // Without a worker this thread answers: nobody else would, as m_bAnswering is set.
    bool bGiven = false;
    try {
        bGiven = m_clAnswers.bRun([this] { _AnswerWaiting(); });
    } catch (...) { // out of memory
    }
    if (!bGiven) {
        _AnswerWaiting();
    }
}

/// Makes one list for all who wait, then one for those who have come meanwhile, until nobody waits.
void CPingEcho::_AnswerWaiting()
{
    for (;;) {
        std::map<std::string, STPingQuestion> tQuestions;
        {
            const std::lock_guard<std::mutex> clGuard(m_clLock);
            tQuestions.swap(m_tWaiting);

            // Not during the stop: its shutdown can look like an empty datagram, which counts as a question.
            m_bAnswering = !tQuestions.empty() && !m_clThread.bMustStop();
            if (!m_bAnswering) {
                return;
            }
        }

        try {
            AnswerAll(&tQuestions);
        } catch (...) { // out of memory, the stop, or a list that cannot be made: costs these answers only
        }
    }
}
