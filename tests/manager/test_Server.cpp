// The TCP server with its conversations, and what happens at once, over real sockets in a network of the
// test's own, against a scripted systemctl. Exact bytes with the real one are asked in the machine.

#include "Conversation.h"
#include "manager/SetupManager.h"
#include "tools/Command.h"
#include "tools/PingClient.h"
#include "tools/PipeClient.h"
#include "tools/SoftLimit.h"
#include "tools/Stopwatch.h"
#include "tools/SystemdTest.h"
#include "tools/Wait.h"
#include "tools/WireClient.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <thread>

namespace {
using namespace std::string_literals;
using ::testing::HasSubstr;

constexpr char s_szSystemctl[] = ". " VELMO_SCRIPTS "conversations.sh";
constexpr char s_szGreeting[] = "HELLO FROM SERVEUR SETUP 24.0.6.0\r\n";
constexpr char s_szUnknown[] = "ERROR\t1No such file or directory\r\n";

/// Descriptors, as services are started; the manager raises it.
const CSoftLimit s_clUsual(RLIMIT_NOFILE, 1024);

class Server : public CSystemdTest
{
protected:
    void SetUp() override
    {
        CSystemdTest::SetUp();
        if (IsSkipped()) {
            return;
        }

        ASSERT_TRUE(bFreshNetwork());
        m_nThreads = nEntries("/proc/self/task");
        m_pclTool = std::make_unique<CFakeTool>("/bin/systemctl", s_szSystemctl);
        m_pclManager = std::make_unique<CSetupManager>();
        gpclSetupManager = m_pclManager.get();
        ASSERT_TRUE(m_pclManager->bStart());
        m_clMainLoop = std::thread([this] { m_pclManager->MainLoop(); });
    }
    void TearDown() override
    {
        if (m_pclManager == nullptr) {
            return;
        }

        StopManager();
        EXPECT_TRUE(CDialog::s_bEndAll(5000));
        EXPECT_TRUE(bWaitUntil([this] { return nEntries("/proc/self/task") == m_nThreads; }, 5000))
            << "a thread is left over";
        gpclSetupManager = nullptr;
        m_pclManager.reset();
        m_pclTool.reset();
        CSystemdTest::TearDown();
    }
    /// As main stops it, but for its conversations.
    void StopManager()
    {
        if (m_clMainLoop.joinable()) {
            m_pclManager->Stop();
            m_clMainLoop.join();
            EXPECT_FALSE(std::filesystem::exists(g_szManagerPipe));
        }
    }
    /// A conversation that has been greeted.
    static std::unique_ptr<CWireClient> pclOpen(const char* pszAddress = "127.0.0.1")
    {
        auto pclTool = std::make_unique<CWireClient>(pszAddress, g_wManagerPort);
        EXPECT_EQ(pclTool->csLine(), s_szGreeting);
        return pclTool;
    }

    std::unique_ptr<CFakeTool> m_pclTool;
    std::unique_ptr<CSetupManager> m_pclManager;
    std::thread m_clMainLoop;
    int m_nThreads = 0;
};
} // namespace

TEST_F(Server, EveryCommandGivesItsReplyOnBothAddressFamiliesAndEveryStateItsWord)
{
    const std::tuple<const char*, const char*, const char*> tCases[] = {
        // the servers' state, the line, the reply
        {"active", "START\ta", "OK\r\n"},
        {"active", "start\tbad", "ERROR\t2Operation canceled\r\n"},
        {"active", "START\tnone", s_szUnknown},
        {"active", "START", s_szUnknown},
        {"active", "status\ta\tignored", "STATUS\tRUNNING\r\n"},
        {"reloading", "STATUS\tdxsql", "STATUS\tRUNNING\r\n"},
        {"inactive", "STATUS\ta", "STATUS\tSTOPPED\r\n"},
        {"failed", "STATUS\ta", "STATUS\tSTOPPED\r\n"},
        {"activating", "STATUS\ta", "STATUS\tSTART_PENDING\r\n"},
        {"deactivating", "STATUS\ta", "STATUS\tSTOP_PENDING\r\n"},
        {"", "STATUS\ta", "STATUS\tSTOPPED\r\n"},
        {"active", "STATUS\tCaf\xE9", "STATUS\tRUNNING\r\n"},
        {"active", "UNINSTALL\tnone\t1", "ERROR\t11\r\n"},
        {"active", "UNINSTALL\tdxsql\t1", "ERROR\t11\r\n"},
        {"active", "UNINSTALL\tbad\t0", "ERROR\t3Operation canceled\r\n"},
        {"active", "UNINSTALL\ta\t0", "OK\r\n"},
        {"active", "CLUSTERINFO\tCaf\xE9", s_szUnknown},
        {"active", "STOP\ta", "ERROR\t8\r\n"},
        {"active", "", "ERROR\t8\r\n"},
        {"active", "STATUS\tbu*", s_szUnknown},
        {"active", "mode_utf8", "OK\r\n"},
        {"active", "STATUS\tCafé", "STATUS\tRUNNING\r\n"},
        {"active", "STATUS\tCaf\xE9", s_szUnknown},
    };
    for (const char* pszAddress : {"127.0.0.1", "::1"}) {
        const auto pclTool = pclOpen(pszAddress);
        for (const auto& [pszState, pszSent, pszReply] : tCases) {
            m_pclTool->Write("state", pszState + std::string("\n"));
            EXPECT_EQ(pclTool->csAsk(pszSent), pszReply) << pszSent << " " << pszState;
        }
        EXPECT_TRUE(pclTool->bSend("QUIT\r\n"));
        EXPECT_TRUE(pclTool->bClosed());
    }
}

TEST_F(Server, InfoListsHostAndServersInTheEncodingOfTheConversation)
{
    m_pclTool->Write("srv/DXConf.ini",
                     "[INIT]\nAccessPort=4911\n[ClusterNode]\nCluster=1\nClusterManager=boss\n");
    const auto pclTool = pclOpen();
    const std::string csReply = pclTool->csAsk("info");
    EXPECT_TRUE(csReply.starts_with("YES\t"));
    EXPECT_THAT(csReply, HasSubstr("inux"));
    EXPECT_THAT(csReply, HasSubstr("\t" + stRun("uname -r | tr -d '\\n'").csOutput + "\t"));
    const long nKiB = std::stol(stRun("grep -o '[0-9]*' /proc/meminfo").csOutput);
    EXPECT_THAT(csReply, HasSubstr("\t" + std::to_string(nKiB / 1024) + " Mo\t"));
    EXPECT_TRUE(csReply.ends_with(" Mo\ta\t4911\tCaf\xE9\t4900\t\t4900\r\n"))
        << csReply; // dxsql: an empty name
    EXPECT_EQ(pclTool->csAsk("CLUSTERINFO\ta"), "YES\t1\tboss\r\n");
    m_pclTool->Write("default/DXConf.ini", "[INIT]\nAccessPort=4912\n");
    m_pclTool->Write("srv/DXConf.ini", "[ClusterNode]\nCluster=2\nClusterManager=boss\n");
    EXPECT_EQ(pclTool->csAsk("CLUSTERINFO\ta"), "YES\t0\t\r\n");
    EXPECT_EQ(pclTool->csAsk("MODE_UTF8"), "OK\r\n");
    EXPECT_TRUE(pclTool->csAsk("INFO").ends_with("\ta\t4900\tCafé\t4900\t\t4912\r\n"));
}

TEST_F(Server, WhatSystemctlCannotTellIsNeverAnEmptyListOrAWrongState)
{
    const std::tuple<const char*, const char*, const char*> tCases[] = {
        // the calls that fail, the line, the reply
        {"list-units*", "INFO", "<closed>"},
        {"*show\\ DXCS-Caf*", "INFO", "<closed>"},
        {"*show\\ dxsql", "INFO", "<closed>"},
        {"*Description*", "STATUS\ta", "ERROR\t1Operation canceled\r\n"},
        {"*Description*", "START\ta", "ERROR\t1Operation canceled\r\n"},
        {"*ActiveState*", "STATUS\ta", "ERROR\t4Operation canceled\r\n"},
        {"*FragmentPath*", "UNINSTALL\ta\t0", "ERROR\t13Operation canceled\r\n"},
        {"*SourcePath*", "UNINSTALL\ta\t0", "ERROR\t13Operation canceled\r\n"},
        {"*ActiveState*", "UNINSTALL\ta\t0", "ERROR\t13Operation canceled\r\n"},
    };
    for (const auto& [pszBroken, pszSent, pszReply] : tCases) {
        m_pclTool->Write("broken", pszBroken);
        EXPECT_EQ(pclOpen()->csAsk(pszSent, std::chrono::seconds(20)), pszReply) << pszBroken;
    }
    EXPECT_EQ(nCount(m_pclTool->csTakeJournal(), "disable"), 0) << "what could not be asked is not changed";
    constexpr const char* pszQuestion = "ARE YOU A DEXARO MANAGER UTF-8?\r\n";
    CPingClient clTool;
    m_pclTool->Write("broken", "list-units*");
    ASSERT_TRUE(clTool.Ask("127.0.0.1", g_wManagerPort, pszQuestion));
    EXPECT_EQ(clTool.csAnswer(3000), "<nothing in time>");
    m_pclTool->Write("broken", "nothing");
    ASSERT_TRUE(clTool.Ask("127.0.0.1", g_wManagerPort, pszQuestion));
    EXPECT_TRUE(clTool.csAnswer().starts_with("127.0.0.1 YES\t"));
}

TEST_F(Server, AFolderIsDeletedOnlyWhenItIsCertainWhoseItIs)
{
    const auto pclTool = pclOpen();
    const std::tuple<const char*, const char*, bool> tCases[] = {
        // what makes it in $DIR, where "srv/dx" is the executable of DXCS-a; whether its folder is deleted
        {"a link", "touch dx; ln -s $PWD/dx srv/dx", false},
        {"a folder", "mkdir srv/dx", false},
        {"gone, and nothing names it", "true", false},
        {"gone, and the unit names another", "echo ExecStart=$PWD/srv/dx2 --SERVICE DXCS-a >unit", false},
        {"gone, and the unit names it twice", "(echo ExecStart=$PWD/srv/dx; echo ExecStart=/x) >unit", false},
        {"another's executable through a link", "touch srv/dx; ln -s srv here; echo $PWD/here/dx >other",
         false},
        {"another that cannot be asked", "touch srv/dx; touch fails", false},
        {"gone, and the unit names it", "echo ExecStart=$PWD/srv/dx --SERVICE DXCS-a >unit", true},
        {"a neighbour with a longer name", "touch srv/dx; echo $PWD/srv2/dx >other", true},
    };
    for (const auto& [pszCase, pszMake, bDeleted] : tCases) {
        const std::string csMake = "cd " + m_pclTool->csFolder() +
                                   " && rm -rf srv unit other fails here dx && "
                                   "mkdir -p srv/data && touch srv/data/base && " +
                                   pszMake;
        ASSERT_EQ(stRun(csMake).nStatus, 0) << pszCase;
        EXPECT_EQ(pclTool->csAsk("UNINSTALL\ta\t1"), bDeleted ? "ERROR\t12\t\r\n" : "OK\r\n") << pszCase;
        EXPECT_EQ(m_pclTool->bExists("srv/data/base"), !bDeleted) << pszCase;
    }
}

TEST_F(Server, ALineMayComeInPiecesOrBeLongAndWhatFollowsItInOneSegmentIsLost)
{
    const auto pclTool = pclOpen();
    for (const char* pszPiece : {"STA", "TUS\t", "a\r", "\n"}) {
        EXPECT_TRUE(pclTool->bSend(pszPiece));
        EXPECT_TRUE(pszPiece[0] == '\n' || pclTool->bSilent());
    }
    EXPECT_EQ(pclTool->csLine(), "STATUS\tRUNNING\r\n");
    EXPECT_TRUE(pclTool->bSend("NO\targuments\r\nSTATUS\ta\r\n"));
    EXPECT_EQ(pclTool->csLine(), "ERROR\t8\r\n");
    EXPECT_TRUE(pclTool->bSilent());
}

TEST_F(Server, OfALineTheFirstCharactersCount)
{
    constexpr std::size_t nMax = CLineBuffer::s_nMaxLine;
    const std::string csStatus = "STATUS\ta\t";
    const std::pair<std::string, const char*> tCases[] = {
        // The fill ends in CR characters where the kept text, or a block of 1,024 bytes, ends.
        {csStatus + std::string(nMax - csStatus.size() - 1, 'x'), "STATUS\tRUNNING\r\n"},
        {csStatus + std::string(nMax - csStatus.size() - 1, 'x') + "\r", "STATUS\tRUNNING\r\n"},
        {csStatus + std::string(nMax - csStatus.size(), 'x') + "\rx", "STATUS\tRUNNING\r\n"},
        {csStatus + std::string(nMax, '\r') + "\n", "STATUS\tRUNNING\r\n"},
        {csStatus + std::string(8'000'000, '\r'), "STATUS\tRUNNING\r\n"},
        {csStatus + std::string(20 * nMax + 1015, '\n'), "STATUS\tRUNNING\r\n"},
        {std::string(nMax, ' ') + "\tSTATUS\ta", "ERROR\t8\r\n"},
        {"STATUS\t" + std::string(70'000, 'a'), s_szUnknown},
        {"STATUS\t" + std::string(2'000'000, 'a'), s_szUnknown},
        {"STATUS\ta\0b"s, s_szUnknown},
        {"STATUS\0\ta"s, "ERROR\t8\r\n"}, // a NUL ends no keyword
        {"MODE_UTF8", "OK\r\n"},
        {"STATUS\tCafé\t" + std::string(3 * nMax, '\xC3') + "\xA9", "STATUS\tRUNNING\r\n"},
    };
    const auto pclTool = pclOpen();
    for (const auto& [csSent, pszReply] : tCases) {
        SCOPED_TRACE(csSent.substr(0, 20) + "... " + std::to_string(csSent.size()));
        const CStopwatch clTook;
        EXPECT_EQ(pclTool->csAsk(csSent, std::chrono::seconds(20)), pszReply);
        EXPECT_LT(clTook.nMs(), 10'000) << "the search must stay linear";
        EXPECT_EQ(pclTool->csAsk("HELLO"), "ERROR\t8\r\n") << "nothing of the line is left over";
    }
}

TEST_F(Server, FifteenHundredConversationsAtOnceAreAllGreetedBeforeTheirReply)
{
    if (s_clUsual.nHard() < 4000) {
        GTEST_SKIP() << "SKIPPED: hard descriptor limit below 4000";
    }
    std::vector<CWireClient> tTools(1500);
    for (CWireClient& clTool : tTools) {
        ASSERT_TRUE(clTool.bConnect("127.0.0.1", g_wManagerPort) && clTool.bSend("HELLO\r\n"));
        ASSERT_EQ(clTool.csLine(), s_szGreeting);
    }
    for (CWireClient& clTool : tTools) {
        EXPECT_EQ(clTool.csLine(), "ERROR\t8\r\n");
    }
    EXPECT_EQ(tTools.back().csAsk("STATUS\ta"), "STATUS\tRUNNING\r\n");
}

TEST_F(Server, OutOfDescriptorsItWaitsAndThenAcceptsAgain)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "SKIPPED: the sanitizer itself needs descriptors";
#endif
    const auto pclTool = pclOpen();
    std::vector<CDescripteur> tFill; // no holes, so that the limit is a number of free descriptors
    while (tFill.size() < 64) {
        tFill.emplace_back(::fcntl(0, F_DUPFD_CLOEXEC, 0));
    }
    // Three tools' own ends and one to spare; a waiting accept may hold one more. So two are served at most.
    std::optional<CSoftLimit> clNone(std::in_place, RLIMIT_NOFILE,
                                     static_cast<rlim_t>(tFill.back().nFd()) + 1 + 4);
    CWireClient tTools[3];
    for (CWireClient& clTool : tTools) {
        ASSERT_TRUE(clTool.bConnect("127.0.0.1", g_wManagerPort));
    }
    const std::clock_t nCpuBefore = std::clock(); // of the process
    EXPECT_TRUE(tTools[2].bSilent(std::chrono::milliseconds(500)));
    EXPECT_LT(std::clock() - nCpuBefore, CLOCKS_PER_SEC / 10);
    EXPECT_EQ(pclTool->csAsk("HELLO"), "ERROR\t8\r\n") << "those in progress are unharmed";
    clNone.reset();
    EXPECT_EQ(tTools[2].csLine(std::chrono::milliseconds(1000)), s_szGreeting);
}

TEST_F(Server, AnotherStartTakesThePortFromWhatConversationsLeftAndFromNobodyWhoListens)
{
    const auto pclTimeWait = pclOpen();
    const auto pclHalfClosed = pclOpen();
    EXPECT_TRUE(pclTimeWait->bSend("QUIT\r\n"));
    EXPECT_TRUE(pclTimeWait->bClosed());
    pclTimeWait->Close();
    StopManager();
    EXPECT_TRUE(CDialog::s_bEndAll(5000));
    EXPECT_TRUE(pclHalfClosed->bClosed()) << "and this tool does not hang up";

    CSetupManager clNext;
    gpclSetupManager = &clNext;
    EXPECT_TRUE(clNext.bStart());
    EXPECT_EQ(pclOpen()->csAsk("HELLO"), "ERROR\t8\r\n");
    CSetupManager clSecond; // its sockets would be shareable, as the first one's are
    EXPECT_FALSE(clSecond.bStart());
    clNext.__TermMainLoop();
    EXPECT_TRUE(CDialog::s_bEndAll(5000));
    gpclSetupManager = m_pclManager.get();
}

TEST_F(Server, AFloodOfQuestionsNeedsAFewListingsOnlyAndAnAskerIsAnsweredOnceForEachForm)
{
    m_pclTool->Write("slow", "0.2");
    CPingClient clFirst; // keeps the thread busy while the others ask
    ASSERT_TRUE(clFirst.Ask("127.0.0.1", g_wManagerPort, ""));
    ASSERT_TRUE(bWaitUntil([&] { return !m_pclTool->csTakeJournal().empty(); }, 5000));

    std::vector<CPingClient> tAskers(300);
    for (CPingClient& clAsker : tAskers) {
        ASSERT_TRUE(clAsker.Ask("127.0.0.1", g_wManagerPort, ""));
    }
    for (const char* pszMore : {"ARE", "ARE YOU A DEXARO SERVER SETUP?\r\n", "no question"}) {
        ASSERT_TRUE(tAskers.front().AskAgain("127.0.0.1", g_wManagerPort, pszMore));
    }

    const auto ExpectAnswer = [](const CPingClient& clAsker) {
        EXPECT_THAT(clAsker.csAnswer(), HasSubstr("\ta\t4900"));
        EXPECT_EQ(clAsker.csAnswer(), "127.0.0.1 \r\n");
    };
    std::for_each(tAskers.begin(), tAskers.end(), ExpectAnswer);
    ExpectAnswer(tAskers.front()); // in the other form
    EXPECT_EQ(tAskers.front().csAnswer(1000), "<nothing in time>");
    EXPECT_LE(nCount(m_pclTool->csTakeJournal(), "list-units"), 3);
}

TEST_F(Server, AStopEndsInTimeWhateverItMeetsAndAnswersWhatCanBeAnswered)
{
    const std::function<std::string()> fnStart = [] { return pclOpen()->csAsk("START\ta"); };
    const std::function<std::string()> fnRegister = [] {
        const CReplyPipe clReply(-4711);
        (void)bWritePipe(g_szManagerPipe, csRequest(-4711, 1, "new", "/none/new", 5000));
        return clReply.csReply();
    };
    const struct
    {
        const char* pszWhat;
        std::function<std::string()> fnAsk;
        const char* pszSlow; ///< file that tells how slow
        const char* pszTime;
        const char* pszUntil; ///< the call in which the stop comes
        const char* pszReply; ///< part of it
        long nMaxMs;
        const char* pszNever; ///< call that must not come
    } tCases[] = {
        {"START that can be done", fnStart, "slow", "0.1", "show DXCS-a", "OK", 1500, "none"},
        {"registration that reads", fnRegister, "slow", "0.5", "list-units", "Operation canceled", 1000,
         "show"},
        {"registration that writes", fnRegister, "slow-daemon-reload", "60", "daemon-reload",
         "Not done: systemctl daemon-reload, systemctl enable DXCS-new, start.", 1900, "start"},
        {"registration that can be written", fnRegister, "slow-daemon-reload", "0.3", "daemon-reload",
         "Not done: start.", 1400, "start"},
        {"registration that starts", fnRegister, "slow-start", "60", "start", "Not done: start.", 1000,
         "none"},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszWhat);
        m_pclTool->Write("state", "failed\n");
        m_pclTool->Write(st.pszSlow, st.pszTime);
        auto clReply = std::async(std::launch::async, st.fnAsk);
        std::string csJournal;
        ASSERT_TRUE(bWaitUntil(
            [&] { return (csJournal += m_pclTool->csTakeJournal()).find(st.pszUntil) != std::string::npos; },
            5000));

        const CStopwatch clTook;
        StopManager();
        EXPECT_TRUE(CDialog::s_bEndAll(CStopping::nAnswersLeftMs() + 150));
        EXPECT_LE(clTook.nMs(), st.nMaxMs);
        EXPECT_THAT(clReply.get(), HasSubstr(st.pszReply));
        EXPECT_EQ(m_pclTool->csTakeJournal().find(st.pszNever), std::string::npos);
        stRun("rm -f /lib/systemd/system/DXCS-new.service");
        TearDown();
        SetUp();
    }
}

/// The C library's text in a locale that is not installed here: bytes that are no UTF-8.
extern "C" char* strerror_r(int nErrno, char* pBuffer, std::size_t nSize) noexcept
{
    constexpr int nForeign = 4242;
    std::snprintf(pBuffer, nSize, "%s", nErrno == nForeign ? "d\xE9j\xE0 vu" : std::strerror(nErrno));
    return pBuffer;
}

TEST(Dialog, TheSystemsTextGoesOutAsTheCLibraryGivesIt)
{
    STConversation st;
    errno = 4242;
    st.clDialog.ACK(ERREUR_START, 1u);
    char tReply[64]{};
    EXPECT_GT(::recv(st.clTool.nFd(), tReply, sizeof tReply - 1, 0), 0);
    EXPECT_STREQ(tReply, "ERROR\t2d\xE9j\xE0 vu\r\n");
}

TEST(PingEcho, ADatagramIsAQuestionWhenAQuestionBeginsWithIt)
{
    const std::pair<std::string, EPingForm> tCases[] = {
        {"ARE YOU A DEXARO SERVER SETUP?\r\n", EPingForm::SYSTEM},
        {"ARE YOU A DEXARO SERVER SETUP?\r\n\0"s, EPingForm::SYSTEM},
        {"ARE YOU A DEXARO SERVER SETUP?\r\n\0\0"s, EPingForm::NONE},
        {"ARE YOU A DEXARO S", EPingForm::SYSTEM},
        {"ARE YOU A DEXARO MANAGER UTF-8?\r\n!", EPingForm::NONE},
        {"ARE YOU A DEXARO ", EPingForm::UTF8},
        {"", EPingForm::UTF8},
        {"are you a dexaro", EPingForm::NONE},
    };
    for (const auto& [csDatagram, eForm] : tCases) {
        EXPECT_EQ(eReadPing(csDatagram), eForm) << csDatagram;
    }
}

TEST(PingEcho, AListThatIsTooLongLosesWholeServers)
{
    constexpr const char* pszTwo = "\tA\t1\tBB\t22";
    const std::pair<std::size_t, const char*> tCases[] = {
        {10, pszTwo}, {9, "\tA\t1"}, {4, "\tA\t1"}, {3, ""}};
    for (const auto& [nMax, pszFitting] : tCases) {
        EXPECT_EQ(csFittingServers(pszTwo, nMax), pszFitting) << nMax;
    }
    EXPECT_EQ(csFittingServers("\t\t1\t\t2", 5), "\t\t1") << "empty names";
}
