// Tools that cannot answer, on a real systemd: while it executes itself anew, and out of processes or
// descriptors. What the manager then says is right, or one of the failures that its protocol defines; never a
// short list, a wrong state or a unit written over. VELMO_LONG: longer, and every limit.

#include "support/CloseRange.h"
#include "tools/Command.h"
#include "tools/Machine.h"
#include "tools/PipeClient.h"
#include "tools/PrivateWorld.h"
#include "tools/Wait.h"
#include "tools/WireClient.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {
using ::testing::AnyOf;
using ::testing::HasSubstr;
using namespace std::chrono_literals;

const bool s_bLong = std::getenv("VELMO_LONG") != nullptr;
constexpr int s_nTools = 8;
constexpr char s_szAbsent[] = "ERROR\t1No such file or directory\r\n";

/// What came of questions.
struct STTally
{
    std::atomic<int> nRight{0};
    std::atomic<int> nFailed{0}; ///< in a way that the protocol defines
    std::mutex clLock;
    std::set<std::string> tWrong;
};

/// Judges the reply to a line whose right reply ends in a known way.
void Judge(STTally& st, const std::string& csLine, const std::string& csEnd, const std::string& csReply)
{
    // Without a reply; state unknown; not looked up, with another text than that of a server that is not
    // there.
    const bool bCut = csReply == "<closed>" || csReply == "<reset>" || csReply == "<not sent>";
    const bool bRefused = csLine != "INFO" && csReply != s_szAbsent &&
                          (csReply.starts_with("ERROR\t4") || csReply.starts_with("ERROR\t1"));
    if (csReply.ends_with(csEnd)) {
        ++st.nRight;
    } else if (bCut || bRefused) {
        ++st.nFailed;
    } else {
        const std::lock_guard<std::mutex> clGuard(st.clLock);
        st.tWrong.insert(csLine + ": " + csReply);
    }
}

/// Two servers that run and one that was stopped; what INFO ends with.
constexpr char s_szList[] = " Mo\tDXCS-idle\t4913\tDXCS-one\t4911\tDXCS-two\t4912\r\n";

class Tools : public ::testing::Test
{
protected:
    void SetUp() override
    {
        for (const auto& [pszName, nPort] : {std::pair{"one", 4911}, {"two", 4912}, {"idle", 4913}}) {
            // INFO drops five characters of the display name.
            AddServer(pszName, std::string("DXCS-") + pszName, nPort, "",
                      std::string("DXCS-DXCS-") + pszName);
        }
        ASSERT_EQ(stRun("systemctl daemon-reload && systemctl enable DXCS-one DXCS-two DXCS-idle && "
                        "systemctl start DXCS-one DXCS-two")
                      .nStatus,
                  0);
        m_csUnits = csUnits();
    }
    void TearDown() override
    {
        m_pclManager.reset();
        RemoveServices();
    }
    void Start(const std::string& csWrapper = "")
    {
        m_pclManager.reset();
        ASSERT_TRUE(bFreshNetwork()); // the port of the last one may still be held
        PutManager("manager", "RestartOnFailed=0\n");
        m_pclManager = std::make_unique<CManagerProcess>(csWrapper + " /opt/velmo/manager/VelmoManager");
        ASSERT_TRUE(m_pclManager->bAnswers());
        ASSERT_TRUE(bWaitUntil([] { return bWritePipe("/tmp/__pipe_velmomanager__", ""); }, 5000));
    }
    static std::string csUnits() { return stRun("head -n 100 /lib/systemd/system/DXCS-*").csOutput; }

    /// One conversation after the other until the time is over.
    static void Converse(STTally& st, std::chrono::steady_clock::time_point clEnd)
    {
        const std::pair<std::string, std::string> tQuestions[] = {{"STATUS\tone", "STATUS\tRUNNING\r\n"},
                                                                  {"INFO", s_szList},
                                                                  {"STATUS\tidle", "STATUS\tSTOPPED\r\n"},
                                                                  {"STATUS\tnobody", s_szAbsent},
                                                                  {"STATUS\ttwo", "STATUS\tRUNNING\r\n"}};
        while (std::chrono::steady_clock::now() < clEnd) {
            CWireClient clTool("127.0.0.1", 4999);
            std::string csReply = clTool.csLine(30s);
            Judge(st, "greeting", "HELLO FROM SERVEUR SETUP 24.0.6.0\r\n", csReply);
            for (const auto& [csLine, csEnd] : tQuestions) {
                if (csReply.front() != '<' && std::chrono::steady_clock::now() < clEnd) {
                    csReply = clTool.csAsk(csLine, 30s);
                    Judge(st, csLine, csEnd, csReply);
                }
            }
        }
    }
    /// Eight conversations at once, and registrations under a name that is taken, all the while.
    void Ask(const std::string& csWhat, std::chrono::seconds clTime)
    {
        STTally st;
        {
            const auto clEnd = std::chrono::steady_clock::now() + clTime;
            std::vector<std::jthread> tTools;
            for (int n = 0; n < s_nTools; ++n) {
                tTools.emplace_back([&] { Converse(st, clEnd); });
            }
            PutServer("thief", 4914, "", "one");
            while (std::chrono::steady_clock::now() < clEnd) {
                EXPECT_THAT(stRun("/opt/velmo/thief/dxdemo --REGISTER").csOutput,
                            AnyOf(HasSubstr("already registered"), HasSubstr("could not be listed"),
                                  HasSubstr("did not answer in time"))); // no descriptor for the reply
                std::this_thread::sleep_for(200ms);
            }
        }
        std::printf("FIGURE %s: %d answers right, %d defined failures, %zu wrong\n", csWhat.c_str(),
                    st.nRight.load(), st.nFailed.load(), st.tWrong.size());
        EXPECT_EQ(st.tWrong, std::set<std::string>());
        EXPECT_EQ(csUnits(), m_csUnits);
        m_nFailed = st.nFailed;
    }
    /// Nothing is left of the trouble, once what was asked meanwhile is worked off.
    static void ExpectAllRight()
    {
        bool bAllRight = false;
        for (int n = 0; n < 10 && !bAllRight; ++n) {
            STTally st;
            Converse(st, std::chrono::steady_clock::now() + 500ms);
            EXPECT_EQ(st.tWrong, std::set<std::string>());
            bAllRight = st.nRight > 0 && st.nFailed == 0;
        }
        EXPECT_TRUE(bAllRight);
    }
    std::unique_ptr<CManagerProcess> m_pclManager;
    std::string m_csUnits;
    int m_nFailed = 0;
};

/// A control group that limits the number of processes and threads in it. It lies beside the machine's own:
/// the kernel has one hierarchy of them.
class CProcessLimit
{
public:
    CProcessLimit()
    {
        stRun("mkdir -p /tmp/pids && mount -t cgroup -o pids none /tmp/pids");
        m_bMade = stRun("mkdir " + m_csFolder).nStatus == 0;
    }
    ~CProcessLimit()
    {
        // Whoever is still in it goes to the group of the test.
        stRun("for p in $(cat " + m_csFolder +
              "/cgroup.procs); do echo $p >/tmp/pids/cgroup.procs; done; rmdir " + m_csFolder +
              "; umount /tmp/pids");
    }
    CProcessLimit(const CProcessLimit&) = delete;
    CProcessLimit& operator=(const CProcessLimit&) = delete;

    bool bMade() const { return m_bMade; }
    void Take(pid_t nPid) const { std::ofstream(m_csFolder + "/cgroup.procs") << nPid; }
    void Limit(const std::string& csMax) const { std::ofstream(m_csFolder + "/pids.max") << csMax; }

private:
    std::string m_csFolder = "/tmp/pids/velmo-test-tools-" + std::to_string(::getpid());
    bool m_bMade = false;
};
} // namespace

TEST_F(Tools, ASystemdThatExecutesItselfAnewHidesNothing)
{
    Start();
    std::atomic<bool> bEnd{false};
    int nTimes = 0;
    std::thread clReexec([&] {
        for (; !bEnd; ++nTimes) {
            stRun("systemctl daemon-reexec");
            std::this_thread::sleep_for(1s);
        }
    });
    Ask("systemctl daemon-reexec every second", s_bLong ? 60s : 6s);
    bEnd = true;
    clReexec.join();
    EXPECT_GE(nTimes, 3);
    EXPECT_EQ(m_nFailed, 0) << "asked again, each question was answered";
    ExpectAllRight();
}

TEST_F(Tools, OutOfProcessesAnAnswerIsRightOrADefinedFailure)
{
    const CProcessLimit clLimit;
    if (!clLimit.bMade()) {
        GTEST_SKIP() << "SKIPPED: needs the pids controller in a hierarchy of its own";
    }
    Start();
    clLimit.Take(m_pclManager->nPid());
    int nFailed = 0;
    for (const int nMax : s_bLong ? std::vector{10, 12, 14, 16, 18, 20} : std::vector{10, 14}) {
        clLimit.Limit(std::to_string(nMax));
        Ask("at most " + std::to_string(nMax) + " processes and threads", s_bLong ? 20s : 4s);
        nFailed += m_nFailed;
        clLimit.Limit("max");
        ExpectAllRight();
    }
    EXPECT_GT(nFailed, 0) << "the limits were not felt";
}

TEST_F(Tools, OutOfDescriptorsAnAnswerIsRightOrADefinedFailure)
{
    nCloseRange(3, ~0U, s_nCloseRangeCloexec); // the manager is to have what it opens itself
    for (const int nMax : s_bLong ? std::vector{16, 20, 24, 32, 48, 64} : std::vector{16, 24}) {
        ASSERT_NO_FATAL_FAILURE(Start("prlimit --nofile=" + std::to_string(nMax)));
        Ask("at most " + std::to_string(nMax) + " descriptors", s_bLong ? 20s : 4s);
        ExpectAllRight();
    }
}
