#include "manager/PingEcho.h"

#include "manager/SetupManager.h"
#include "support/accesdllres.h"
#include "support/Conversion.h"

#include <array>
#include <cerrno>
#include <netinet/in.h>
#include <sys/uio.h>

namespace {
using namespace std::string_view_literals;
constexpr std::string_view s_csSystemQuestion = "ARE YOU A DEXARO SERVER SETUP?\r\n\0"sv;
constexpr std::string_view s_csUTF8Question = "ARE YOU A DEXARO MANAGER UTF-8?\r\n\0"sv;
/// Bytes received of a datagram: more than any question, so that a longer one shows as such.
constexpr std::size_t s_nMaxQuestion = 37;
/// Pause after a failure of the network, so that a lasting one does not burn a processor.
constexpr unsigned int s_dwPauseMs = 50;

/// One datagram received, with all that is needed to answer it from the address that it was sent to.
struct STDatagram
{
    std::array<char, s_nMaxQuestion> tText;
    sockaddr_storage stSender;
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(in6_pktinfo))> tAsked;
};

/// Room for a datagram, its sender and the address that it was sent to. Both arguments must outlive it.
msghdr stMessage(STDatagram* pstDatagram, iovec* pstText)
{
    msghdr st{};
    st.msg_name = &pstDatagram->stSender;
    st.msg_namelen = sizeof pstDatagram->stSender;
    st.msg_iov = pstText;
    st.msg_iovlen = 1;
    st.msg_control = pstDatagram->tAsked.data();
    st.msg_controllen = pstDatagram->tAsked.size();
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
std::string csAnswer(EPingForm eForm)
{
    const ECodePage eCodePage = eForm == EPingForm::UTF8 ? CP_UTF8 : CP_SYSTEM;
    CTString csServers;
    gpclSetupManager->AddServeurList(&csServers);
    const std::string csBytes = csNarrow(csServers, eCodePage);
    std::string csResult = csNarrow(L"YES\t" + gpclSetupManager->csGetHostInfo(), eCodePage);
    return csResult.append(
        csFittingServers(csBytes, g_nMaxDatagram - std::min(csResult.size(), g_nMaxDatagram)));
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

bool CPingEcho::bInit(std::uint16_t wPort)
{
    CXError clError;
    if (!bSocketBindUDP(wPort, SOCKET_REUSEADDR, this, &clError, nullptr)) {
        errno = clError.nGetSystemError();
        return false;
    }
    const int nOne = 1;
    (void)bSetsockopt(SOL_SOCKET, SO_BROADCAST, &nOne, sizeof nOne);
    for (const STSocket& stSocket : tGetSockets()) {
        AskForAddresses(stSocket);
    }
    return true;
}

bool CPingEcho::bStart()
{
    return m_clThread.xbStart(_PingThreadRoutine, this, &g_stMyModule, USER_ERROR_THREAD, 1, 0);
}

void CPingEcho::Stop()
{
    m_clThread.Stop(0);
    // Wakes the wait, though the system calls it an error for a socket without connection.
    Shutdown(SHUT_RDWR);
    m_clThread.Stop(1);
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
            if (const int nSocket = WaitReadable(nullptr); nSocket >= 0) {
                __Serve(nSocket);
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

void CPingEcho::__Serve(int nSocket)
{
    STDatagram stQuestion;
    iovec stText{stQuestion.tText.data(), stQuestion.tText.size()};
    msghdr stHeader = stMessage(&stQuestion, &stText);
    // A datagram that woke the wait may be dropped for its checksum: waiting here would keep the other socket
    // waiting.
    const ssize_t nReceived = ::recvmsg(nSocket, &stHeader, MSG_DONTWAIT);
    if (nReceived < 0) {
        if (errno != EAGAIN) {
            m_clThread.SleepOrStop(s_dwPauseMs);
        }
        return;
    }
    const EPingForm eForm = eReadPing({stQuestion.tText.data(), static_cast<std::size_t>(nReceived)});
    if (eForm == EPingForm::NONE || m_clThread.bMustStop()) { // a shutdown can look like an empty question
        return;
    }
    AnswerFromAsked(&stHeader);
    Send(nSocket, stHeader, csAnswer(eForm));
    Send(nSocket, stHeader, "\r\n");
}
