// What happens at once: lists that are asked for together, restarts beside a server that hangs, stops in the
// middle.

#include "manager/Dialog.h"
#include "manager/RestartOnFailed.h"
#include "manager/SetupManager.h"
#include "tools/Command.h"
#include "tools/PingClient.h"
#include "tools/PipeClient.h"
#include "tools/SystemdTest.h"
#include "tools/Wait.h"
#include "tools/WireClient.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

namespace {
using CClock = std::chrono::steady_clock;
using ::testing::HasSubstr;

/// Two servers of which one is installed by a registration. A call takes as long as the file $DIR/slow says,
/// or the file slow-VERB.
constexpr char s_szSlow[] = R"sh(for LAST; do :; done
for f in $DIR/slow $DIR/slow-$1; do [ ! -e $f ] || exec_slow=$(cat $f); done
[ -z "$exec_slow" ] || sleep $exec_slow
case "$*" in
--no-pager*) exit 0 ;;
list-units*) echo "  DXCS-a.service l a r A" ;;
*ActiveState*) echo "ActiveState=failed" ;;
*show\ DXCS-a) printf 'Type=forking\nExecStart={ argv[]=/none/dx --SERVICE x ; }\nDescription=DXCS-a\n' ;;
*show*) printf 'Type=\n' ;;
esac)sh";

int nCount(const std::string& csText, const std::string& csPart)
{
    int nFound = 0;
    for (std::size_t n = csText.find(csPart); n != std::string::npos; n = csText.find(csPart, n + 1)) {
        ++nFound;
    }
    return nFound;
}

class Simultaneous : public CSystemdTest
{
protected:
    void Start(const std::string& csTool)
    {
        ASSERT_TRUE(bFreshNetwork());
        m_pclTool = std::make_unique<CFakeTool>("/bin/systemctl", csTool);
        m_pclManager = std::make_unique<CSetupManager>();
        gpclSetupManager = m_pclManager.get();
        ASSERT_TRUE(m_pclManager->bStart());
        m_clMainLoop = std::thread([this] { m_pclManager->MainLoop(); });
        (void)m_pclTool->csTakeJournal();
    }
    /// Stops the manager as main does; milliseconds that it took.
    long nStop()
    {
        const auto clBegin = CClock::now();
        m_pclManager->Stop();
        m_clMainLoop.join();
        EXPECT_FALSE(std::filesystem::exists(g_szManagerPipe));
        EXPECT_TRUE(CDialog::s_bEndAll(CStopping::nAnswersLeftMs() + 150));
        return (CClock::now() - clBegin) / std::chrono::milliseconds(1);
    }
    void TearDown() override
    {
        if (m_clMainLoop.joinable()) {
            (void)nStop();
        }
        gpclSetupManager = nullptr;
        m_pclManager.reset();
        m_pclTool.reset();
        CSystemdTest::TearDown();
    }
    static std::unique_ptr<CWireClient> pclOpen()
    {
        auto pclTool = std::make_unique<CWireClient>("127.0.0.1", g_wManagerPort);
        EXPECT_EQ(pclTool->csLine(), "HELLO FROM SERVEUR SETUP 24.0.6.0\r\n");
        return pclTool;
    }
    std::unique_ptr<CFakeTool> m_pclTool;
    std::unique_ptr<CSetupManager> m_pclManager;
    std::thread m_clMainLoop;
};
} // namespace

TEST_F(Simultaneous, TwoHundredListsAndThreeHundredQuestionsNeedAFewListingsOnly)
{
    Start(s_szSlow);
    std::vector<std::unique_ptr<CWireClient>> tTools(200);
    for (auto& pclTool : tTools) {
        pclTool = pclOpen();
    }
    m_pclTool->Write("slow", "0.2");
    for (const auto& pclTool : tTools) {
        ASSERT_TRUE(pclTool->bSend("INFO\r\n"));
    }
    for (const auto& pclTool : tTools) {
        EXPECT_THAT(pclTool->csLine(), HasSubstr("\ta\t4900"));
    }
    EXPECT_LE(nCount(m_pclTool->csTakeJournal(), "list-units"), 3);

    std::vector<CPingClient> tAskers(300);
    for (CPingClient& clAsker : tAskers) {
        ASSERT_TRUE(clAsker.Ask("127.0.0.1", g_wManagerPort, "ARE YOU A DEXARO MANAGER UTF-8?\r\n"));
    }
    for (const CPingClient& clAsker : tAskers) {
        EXPECT_THAT(clAsker.csAnswer(), HasSubstr("\ta\t4900"));
        EXPECT_EQ(clAsker.csAnswer(), "127.0.0.1 \r\n");
    }
    EXPECT_LE(nCount(m_pclTool->csTakeJournal(), "list-units"), 3);
}

TEST_F(Simultaneous, AnAskerWithTheSameQuestionTwiceIsAnsweredOnce)
{
    Start(s_szSlow);
    m_pclTool->Write("slow", "0.2");
    CPingClient clFirst; // keeps the thread busy while the others ask
    ASSERT_TRUE(clFirst.Ask("127.0.0.1", g_wManagerPort, ""));
    ASSERT_TRUE(bWaitUntil([&] { return !m_pclTool->csTakeJournal().empty(); }, 5000));
    CPingClient clAsker;
    ASSERT_TRUE(clAsker.Ask("127.0.0.1", g_wManagerPort, ""));
    for (const char* pszMore : {"ARE", "ARE YOU A DEXARO SERVER SETUP?\r\n", "no question"}) {
        ASSERT_TRUE(clAsker.AskAgain("127.0.0.1", g_wManagerPort, pszMore));
    }
    for (int n = 0; n < 2; ++n) { // one for each form
        EXPECT_THAT(clAsker.csAnswer(), HasSubstr("\ta\t4900"));
        EXPECT_EQ(clAsker.csAnswer(), "127.0.0.1 \r\n");
    }
    EXPECT_EQ(clAsker.csAnswer(1000), "<nothing in time>");
}

TEST_F(Simultaneous, AServerThatHangsAtItsStartHoldsUpNoOtherRestart)
{
    // Twelve failed servers; the starts of the first six hang until the file "go" is there.
    CFakeTool clTool("/bin/systemctl", R"sh(for LAST; do :; done
case "$*" in
list-units*) for n in 1 2 3 4 5 6 7 8 9 10 11 12; do echo "  DXCS-$n.service l a r x"; done ;;
start*) [ ${LAST#DXCS-} -gt 6 ] || while [ ! -e $DIR/go ]; do sleep 0.05; done; echo >$DIR/up-$LAST ;;
*ActiveState*) [ -e $DIR/up-$LAST ] && echo ActiveState=active || echo ActiveState=failed ;;
*Description*) printf 'Type=forking\nDescription=x\nExecStart={ argv[]=/x ; }\n' ;;
esac)sh");
    CRestartOnFailed clMonitor(&m_clManager, 0);
    clMonitor.xStart();
    const auto bUp = [&](int n) { return clTool.bExists("up-DXCS-" + std::to_string(n)); };
    std::string csJournal;
    EXPECT_TRUE(bWaitUntil(
        [&] {
            csJournal += clTool.csTakeJournal();
            return bUp(7) && bUp(12);
        },
        10'000));
    const int nPasses = nCount(csJournal, "list-units");
    EXPECT_TRUE(bWaitUntil(
        [&] {
            csJournal += clTool.csTakeJournal();
            return nCount(csJournal, "list-units") > nPasses + 2;
        },
        10'000))
        << "passes go on";
    EXPECT_FALSE(bUp(1));
    for (int n = 1; n <= 12; ++n) {
        EXPECT_EQ(nCount(csJournal, "start DXCS-" + std::to_string(n) + "\n"), 1) << n;
    }
    clTool.Write("go", "");
    EXPECT_TRUE(bWaitUntil([&] { return bUp(1) && bUp(6); }, 5000));
    clMonitor.Stop();
}

TEST_F(Simultaneous, AStopEndsInTimeWhateverItMeetsAndAnswersWhatCanBeAnswered)
{
    const auto fnAsk = [](const char* pszLine) {
        return std::function<std::string()>([pszLine] {
            CWireClient clTool("127.0.0.1", g_wManagerPort);
            (void)clTool.csLine();
            return clTool.csAsk(pszLine);
        });
    };
    const std::function<std::string()> fnDiscover = [] {
        CPingClient clAsker;
        (void)clAsker.Ask("127.0.0.1", g_wManagerPort, "");
        return clAsker.csAnswer(3000);
    };
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
        {"INFO that can be done", fnAsk("INFO"), "slow", "0.06", "list-units", "\ta\t4900", 1400, "no"},
        {"INFO", fnAsk("INFO"), "slow", "60", "list-units", "<closed>", 1500, "show"},
        {"START", fnAsk("START\ta"), "slow-start", "60", "start DXCS-a", "<closed>", 1500, "no"},
        {"START that can be done", fnAsk("START\ta"), "slow", "0.1", "show DXCS-a", "OK", 1500, "no"},
        {"discovery", fnDiscover, "slow", "0.5", "list-units", "<nothing", 1000, "show"},
        {"registration that reads", fnRegister, "slow", "0.5", "list-units", "Operation canceled", 1000,
         "show"},
        {"registration that writes", fnRegister, "slow-daemon-reload", "60", "daemon-reload",
         "Not done: systemctl daemon-reload, systemctl enable DXCS-new, start.", 1900, "start"},
        {"registration that can be written", fnRegister, "slow-daemon-reload", "0.3", "daemon-reload",
         "Not done: start.", 1400, "start"},
        {"registration that starts", fnRegister, "slow-start", "60", "start", "Not done: start.", 1000, "no"},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszWhat);
        Start(s_szSlow);
        m_pclTool->Write(st.pszSlow, st.pszTime);
        auto clReply = std::async(std::launch::async, st.fnAsk);
        std::string csJournal;
        ASSERT_TRUE(bWaitUntil(
            [&] { return (csJournal += m_pclTool->csTakeJournal()).find(st.pszUntil) != std::string::npos; },
            5000));
        EXPECT_LE(nStop(), st.nMaxMs);
        EXPECT_THAT(clReply.get(), HasSubstr(st.pszReply));
        EXPECT_EQ(m_pclTool->csTakeJournal().find(st.pszNever), std::string::npos);
        stRun("rm -f /lib/systemd/system/DXCS-new.service");
        TearDown();
        SetUp();
    }
}
