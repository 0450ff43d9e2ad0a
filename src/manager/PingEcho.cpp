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
#include <utility>

namespace {
using namespace std::string_view_literals;
constexpr std::string_view s_csSystemQuestion = "ARE YOU A DEXARO SERVER SETUP?\r\n\0"sv;
constexpr std::string_view s_csUTF8Question = "ARE YOU A DEXARO MANAGER UTF-8?\r\n\0"sv;
/// Bytes received of a datagram: more than any question, so that a longer one shows as such.
constexpr std::size_t s_nMaxQuestion = 37;
/// Askers that wait for one list.
constexpr std::size_t s_nMaxWaiting = 1000;
/// Pause after a failure of the network, so that a lasting one does not burn a processor.
constexpr unsigned int s_dwPauseMs = 50;

/// Room for a datagram, its sender and the address that it was sent to. Both arguments must outlive it.
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

/// Turns the control message that tells which address was asked into the one that asks the system to answer
/// from it. The interface is left to the routes, except where the address means nothing without it. A
/// multicast address cannot be answered from (for a broadcast one the system has put an address of ours
/// beside it already).
void AnswerFromAsked(msghdr* pst)
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

/// A failure costs the answer, nothing else.
void Send(int nSocket, msghdr stTo, std::string_view csBytes)
{
    iovec stText{const_cast<char*>(csBytes.data()), csBytes.size()}; // sending only reads it
    stTo.msg_iov = &stText;
    (void)::sendmsg(nSocket, &stTo, MSG_NOSIGNAL);
}

/// The reply of INFO with as many servers as a datagram has room for, without the line end.
std::string csAnswer(EPingForm eForm, const std::wstring& csServers)
{
    const ECodePage eCodePage = eForm == EPingForm::UTF8 ? CP_UTF8 : CP_SYSTEM;
    const std::string csBytes = csNarrow(csServers, eCodePage);
    std::string csResult = csNarrow(L"YES\t" + gpclSetupManager->csGetHostInfo(), eCodePage);
    return csResult.append(
        csFittingServers(csBytes, g_nMaxDatagram - std::min(csResult.size(), g_nMaxDatagram)));
}

void Answer(STPingQuestion* pstQuestion, std::string_view csText)
{
    msghdr stTo = stMessage(pstQuestion, nullptr);
    stTo.msg_namelen = pstQuestion->nSender;
    stTo.msg_controllen = pstQuestion->nAsked;
    if (stTo.msg_controllen == 0) {
        stTo.msg_control = nullptr;
    }
    Send(pstQuestion->nSocket, stTo, csText);
    Send(pstQuestion->nSocket, stTo, "\r\n");
}

void AnswerAll(std::map<std::string, STPingQuestion>* ptQuestions)
{
    CTString csServers;
    gpclSetupManager->AddServeurList(&csServers);
    const std::string csSystem = csAnswer(EPingForm::SYSTEM, csServers);
    const std::string csUTF8 = csAnswer(EPingForm::UTF8, csServers);
    for (auto& [csAsker, stQuestion] : *ptQuestions) {
        Answer(&stQuestion, stQuestion.eForm == EPingForm::UTF8 ? csUTF8 : csSystem);
    }
}

/// Has the system tell with each datagram which address it was sent to.
void AskForAddresses(const STSocket& stSocket)
{
    const int nOne = 1;
    // Without it the answer comes from whichever address the routes prefer.
    if (stSocket.nFamily == AF_INET) {
        (void)::setsockopt(stSocket.nSocket, IPPROTO_IP, IP_PKTINFO, &nOne, sizeof nOne);
    } else {
        (void)::setsockopt(stSocket.nSocket, IPPROTO_IPV6, IPV6_RECVPKTINFO, &nOne, sizeof nOne);
    }
}

/// Makes room for as many datagrams as may be answered together, should the thread not come to read them. The
/// kernel
/// doubles the number and counts about 768 bytes for a short datagram. Only root may pass the usual limit.
void MakeRoom(const STSocket& stSocket)
{
    constexpr int nBytes = 400 * 1024;
    if (::setsockopt(stSocket.nSocket, SOL_SOCKET, SO_RCVBUFFORCE, &nBytes, sizeof nBytes) != 0) {
        (void)::setsockopt(stSocket.nSocket, SOL_SOCKET, SO_RCVBUF, &nBytes, sizeof nBytes);
    }
}

/// Takes the next datagram that waits; false when there is none. It never waits: what has woken the thread
/// may be dropped for its checksum.
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
    AnswerFromAsked(&stHeader);
    pstQuestion->nSender = stHeader.msg_namelen;
    pstQuestion->nAsked = stHeader.msg_controllen;
    return true;
}

/// Tells an asker with a form from every other.
std::string csAsker(const STPingQuestion& stQuestion)
{
    std::string csKey(reinterpret_cast<const char*>(&stQuestion.stSender), stQuestion.nSender);
    return csKey += stQuestion.eForm == EPingForm::UTF8 ? 'U' : 'S';
}
} // namespace

EPingForm eReadPing(std::string_view csDatagram)
{
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
    std::size_t nWhole = 0;
    for (std::size_t nEnd = 0; nEnd <= nMax;) { // server by server: tab, name, tab, port
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
    const int nOne = 1;
    (void)bSetsockopt(SOL_SOCKET, SO_BROADCAST, &nOne, sizeof nOne);
    for (const STSocket& stSocket : tGetSockets()) {
        AskForAddresses(stSocket);
        MakeRoom(stSocket);
    }
    return true;
}

bool CPingEcho::bStart()
{
    m_clAnswers.Begin();
    return m_clThread.xbStart(_PingThreadRoutine, this, &g_stMyModule, USER_ERROR_THREAD, 1, 0);
}

void CPingEcho::Stop()
{
    m_clThread.Stop(0);
    // Wakes the wait, though the system calls it an error for a socket without connection.
    Shutdown(SHUT_RDWR);
    m_clThread.Stop(1);
    m_clAnswers.Stop();
    Close();
}

void CPingEcho::_PingThreadRoutine(CZTThread* pclThread)
{
    pclThread->Started();
    try {
        static_cast<CPingEcho*>(pclThread->pGetParameter())->_Run();
    } catch (...) { // want of memory where even pausing fails
    }
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
            if (errno == EINTR) { // the end of a child is no reason to pause
                continue;
            }
        } catch (...) { // want of memory, or the end: costs this answer
        }
        m_clThread.SleepOrStop(s_dwPauseMs);
    }
}

/// Reads what waits; who asks while a list is being made for others is answered with the next one. Of each
/// socket so much at a time that a flood over one family does not keep the other waiting.
void CPingEcho::_Receive()
{
    bool bAny = false;
    for (const STSocket& stSocket : tGetSockets()) {
        STPingQuestion stQuestion;
        for (std::size_t n = 0;
             n < s_nMaxWaiting && !m_clThread.bMustStop() && bReceive(stSocket.nSocket, &stQuestion); ++n) {
            bAny = true;
            if (stQuestion.eForm != EPingForm::NONE) {
                _Note(stQuestion);
            }
        }
    }
    if (!bAny && errno != EAGAIN) {
        m_clThread.SleepOrStop(s_dwPauseMs);
    }
}

void CPingEcho::_Note(const STPingQuestion& stQuestion)
{
    {
        const std::lock_guard<std::mutex> clGuard(m_clLock);
        if (m_tWaiting.size() >= s_nMaxWaiting ||
            !m_tWaiting.emplace(csAsker(stQuestion), stQuestion).second ||
            std::exchange(m_bAnswering, true)) {
            return;
        }
    }
    bool bGiven = false;
    try {
        bGiven = m_clAnswers.bRun([this] { _Answer(); });
    } catch (...) { // out of memory
    }
    if (!bGiven) {
        _Answer();
    }
}

/// Until nobody waits: one list for all who do, then one for those who have come meanwhile.
void CPingEcho::_Answer()
{
    for (;;) {
        std::map<std::string, STPingQuestion> tQuestions;
        {
            const std::lock_guard<std::mutex> clGuard(m_clLock);
            tQuestions.swap(m_tWaiting);
            m_bAnswering = !tQuestions.empty() && !m_clThread.bMustStop();
            if (!m_bAnswering) { // a shutdown can look like an empty question
                return;
            }
        }
        try {
            AnswerAll(&tQuestions);
        } catch (...) { // out of memory, the stop, or a list that cannot be made: costs these answers
        }
    }
}
