// Tools that cannot answer, on a real systemd: while it executes itself anew, and out of processes or
// descriptors. What the manager then says is right, or one of the failures that its protocol defines; never a
// short list, a wrong state or a unit written over. VELMO_LONG: longer, and every limit.

#include "MachineTest.h"
#include "support/CloseRange.h"
#include "tools/PrivateWorld.h"
#include "tools/Tally.h"

#include <cstdio>
#include <thread>
#include <vector>

namespace {
using ::testing::AnyOf;

/// Judges the reply to a line whose right reply ends in a known way.
void Judge(CTally& clTally, const std::string& csLine, const std::string& csEnd, const std::string& csReply)
{
    // Without a reply; state unknown; not looked up, with another text than that of a server that is not
    // there.
    const bool bCut = csReply == "<closed>" || csReply == "<reset>" || csReply == "<not sent>";
    const bool bRefused = csLine != "INFO" && csReply != g_szNone &&
                          (csReply.starts_with("ERROR\t4") || csReply.starts_with("ERROR\t1"));
    if (csReply.ends_with(csEnd)) {
        clTally.Count("right");
    } else if (bCut || bRefused) {
        clTally.Count("failed"); // in a way that the protocol defines
    } else {
        clTally.Wrong(csLine, csEnd, csReply);
    }
}

/// Two servers that run and one that was stopped; what INFO ends with.
constexpr char s_szList[] = " Mo\tDXCS-idle\t4913\tDXCS-one\t4911\tDXCS-two\t4912\r\n";

class Tools : public CMachineTest
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
        PutServer("thief", 4914, "", "one");
        m_csUnits = csUnits();
    }
    void Start(const std::string& csWrapper = "")
    {
        m_pclManager.reset();
        ASSERT_TRUE(bFreshNetwork()); // the port of the last one may still be held
        StartManager("RestartOnFailed=0\n", csWrapper);
    }
    static std::string csUnits() { return stRun("head -n 100 /lib/systemd/system/DXCS-*").csOutput; }

    /// One conversation after the other until the time is over.
    static void Converse(CTally& clTally, CClock::time_point clEnd)
    {
        const std::pair<std::string, std::string> tQuestions[] = {{"STATUS\tone", "STATUS\tRUNNING\r\n"},
                                                                  {"INFO", s_szList},
                                                                  {"STATUS\tidle", "STATUS\tSTOPPED\r\n"},
                                                                  {"STATUS\tnobody", g_szNone},
                                                                  {"STATUS\ttwo", "STATUS\tRUNNING\r\n"}};
        while (CClock::now() < clEnd) {
            CWireClient clTool("127.0.0.1", 4999);
            std::string csReply = clTool.csLine(30s);
            Judge(clTally, "greeting", g_szHello, csReply);
            for (const auto& [csLine, csEnd] : tQuestions) {
                if (csReply.front() != '<' && CClock::now() < clEnd) {
                    csReply = clTool.csAsk(csLine, 30s);
                    Judge(clTally, csLine, csEnd, csReply);
                }
            }
        }
    }
    /// Eight conversations at once, and registrations under a name that is taken, all the while. Returns how
    /// many answers were failures, of which none is wrong.
    long nAsk(const std::string& csWhat, std::chrono::seconds clTime) const
    {
        CTally clTally;
        {
            const auto clEnd = CClock::now() + clTime;
            std::vector<std::jthread> tTools;
            for (int n = 0; n < 8; ++n) {
                tTools.emplace_back([&] { Converse(clTally, clEnd); });
            }
            while (CClock::now() < clEnd) {
                EXPECT_THAT(csRegisterItself("thief"),
                            AnyOf(HasSubstr("already registered"), HasSubstr("could not be listed"),
                                  HasSubstr("did not answer in time"))); // no descriptor for the reply
                std::this_thread::sleep_for(200ms);
            }
        }
        std::printf("FIGURE %s: %ld answers right, %ld defined failures, %ld wrong\n", csWhat.c_str(),
                    clTally.nCount("right"), clTally.nCount("failed"), clTally.nCount("wrong"));
        EXPECT_EQ(clTally.csWrong(), "");
        EXPECT_EQ(csUnits(), m_csUnits);
        return clTally.nCount("failed");
    }
    /// Nothing is left of the trouble, once what was asked meanwhile is worked off.
    static void ExpectAllRight()
    {
        bool bAllRight = false;
        for (int n = 0; n < 10 && !bAllRight; ++n) {
            CTally clTally;
            Converse(clTally, CClock::now() + 500ms);
            EXPECT_EQ(clTally.csWrong(), "");
            bAllRight = clTally.nCount("right") > 0 && clTally.nCount("failed") == 0;
        }
        EXPECT_TRUE(bAllRight);
    }
    std::string m_csUnits;
};

/// Limits the number of processes and threads of a process, by a control group. It lies beside the machine's
/// own: the kernel has one hierarchy of them.
class CProcessLimit
{
public:
    explicit CProcessLimit(pid_t nPid)
        : m_bMade(stRun("mkdir -p /tmp/pids && mount -t cgroup -o pids none /tmp/pids && mkdir " +
                        m_csFolder + " && echo " + std::to_string(nPid) + " >" + m_csFolder + "/cgroup.procs")
                      .nStatus == 0)
    {}
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
    void Limit(const std::string& csMax) const { std::ofstream(m_csFolder + "/pids.max") << csMax; }

private:
    const std::string m_csFolder = "/tmp/pids/velmo-test-tools-" + std::to_string(::getpid());
    const bool m_bMade;
};
} // namespace

TEST_F(Tools, ASystemdThatExecutesItselfAnewHidesNothing)
{
    Start();
    int nTimes = 0;
    std::jthread clReexec([&](const std::stop_token& clStop) {
        for (; !clStop.stop_requested(); ++nTimes) {
            stRun("systemctl daemon-reexec");
            std::this_thread::sleep_for(1s);
        }
    });
    EXPECT_EQ(nAsk("systemctl daemon-reexec every second", bLong() ? 60s : 6s), 0)
        << "asked again, each question was answered";
    clReexec = {};
    EXPECT_GE(nTimes, 3);
    ExpectAllRight();
}

TEST_F(Tools, OutOfProcessesAnAnswerIsRightOrADefinedFailure)
{
    Start();
    const CProcessLimit clLimit(m_pclManager->nPid());
    if (!clLimit.bMade()) {
        GTEST_SKIP() << "SKIPPED: needs the pids controller in a hierarchy of its own";
    }
    long nFailed = 0;
    for (const int nMax : bLong() ? std::vector{10, 12, 14, 16, 18, 20} : std::vector{10, 14}) {
        clLimit.Limit(std::to_string(nMax));
        nFailed += nAsk("at most " + std::to_string(nMax) + " processes and threads", bLong() ? 20s : 4s);
        clLimit.Limit("max");
        ExpectAllRight();
    }
    EXPECT_GT(nFailed, 0) << "the limits were not felt";
}

TEST_F(Tools, OutOfDescriptorsAnAnswerIsRightOrADefinedFailure)
{
    nCloseRange(3, ~0U, s_nCloseRangeCloexec); // the manager is to have what it opens itself
    for (const int nMax : bLong() ? std::vector{16, 20, 24, 32, 48, 64} : std::vector{16, 24}) {
        ASSERT_NO_FATAL_FAILURE(Start("prlimit --nofile=" + std::to_string(nMax) + " "));
        nAsk("at most " + std::to_string(nMax) + " descriptors", bLong() ? 20s : 4s);
        ExpectAllRight();
    }
}
