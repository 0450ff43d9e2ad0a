#include "manager/PipeServer.h"
#include "tools/Command.h"
#include "tools/PipeClient.h"
#include "tools/PrivateWorld.h"
#include "tools/Wait.h"

#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <semaphore>
#include <set>
#include <sys/ioctl.h>
#include <thread>

namespace {
constexpr const char* s_pszPipe = "/tmp/pipeserver_under_test";

/// Answers with the request's path field; "throw", "mask" and "wait" do what they say.
class CEchoPipe : public CPipeServer
{
public:
    explicit CEchoPipe(const char* pszName = s_pszPipe) : m_pszName(pszName) {}
    ~CEchoPipe() override { bStop(); }

    std::atomic<int> m_nHandled{0};
    std::binary_semaphore m_clEntered{0};
    std::binary_semaphore m_clGoOn{0};

protected:
    void _ProcessMessage(const stSEND* pstSend, stRET* pstReturn) override
    {
        const std::wstring csOrder = stReadAnsi(*pstSend).csName;
        std::string csReply = "served";
        if (csOrder == L"throw") {
            throw std::runtime_error("what went wrong");
        }
        if (csOrder == L"mask") {
            sigset_t stMask;
            ::pthread_sigmask(SIG_BLOCK, nullptr, &stMask);
            csReply =
                sigismember(&stMask, SIGTERM) == 1 && sigismember(&stMask, SIGCHLD) == 0 ? "held" : "open";
        }
        if (csOrder == L"wait") {
            m_clEntered.release();
            m_clGoOn.acquire();
        }
        ++m_nHandled;
        WriteReply(csReply, pstReturn);
    }
    const char* _vpszGetServerPipeName() const override { return m_pszName; }

private:
    const char* m_pszName;
};

class PipeServer : public ::testing::Test
{
protected:
    void SetUp() override { REQUIRE_PRIVATE_WORLD(); }
    static std::string csAsk(const std::string& csOrder, int nReply = 77)
    {
        const CReplyPipe clReply(nReply);
        const std::string st = csRequest(nReply, 0, csOrder, "", 1);
        return bWritePipe(s_pszPipe, st) ? clReply.csReply() : "<no server>";
    }
    static bool bDrained(const char* pszPipe = s_pszPipe)
    {
        const CDescripteur clPipe(::open(pszPipe, O_RDWR | O_NONBLOCK | O_CLOEXEC));
        return bWaitUntil(
            [&] {
                int nLeft = -1;
                return ::ioctl(clPipe.nFd(), FIONREAD, &nLeft) == 0 && nLeft == 0;
            },
            5000);
    }
};
} // namespace

TEST_F(PipeServer, UsesOnlyAFifoOfOursAndReplacesAllElse)
{
    const struct
    {
        const char* pszBefore; ///< $P is the server's name
        bool bKept;
    } tCases[] = {
        {"true", false},
        {"mkfifo -m 600 $P", true},
        {"mkfifo -m 644 $P", true},
        {"mkfifo -m 622 $P", false},
        {"mkfifo -m 660 $P", false},
        {"mkfifo -m 600 $P; chown nobody $P", false},
        {"mkfifo -m 600 $P; ln $P /tmp/second", false},
        {"mkfifo -m 600 /tmp/second; ln -s /tmp/second $P", false},
        {"echo precious >/tmp/victim; ln -s /tmp/victim $P", false},
        {"ln -s /tmp/nowhere $P", false},
        {"echo data >$P", false},
        {"mkdir $P", false},
        {"mkdir -p $P/full/of/things", false},
        {"mknod $P c 1 3", false},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszBefore);
        const auto fnInode = [] {
            struct stat stFile
            {};
            return ::lstat(s_pszPipe, &stFile) == 0 ? stFile.st_ino : 0;
        };
        const std::string csName = std::string("P=") + s_pszPipe + "; ";
        ASSERT_EQ(stRun(csName + "rm -rf $P /tmp/second /tmp/victim; " + st.pszBefore).nStatus, 0);
        const ino_t nBefore = fnInode();
        CEchoPipe clServer;
        ASSERT_TRUE(clServer.bStart());
        EXPECT_EQ(fnInode() == nBefore, st.bKept);
        EXPECT_EQ(stRun(std::string("stat -c '%F %a %u' ") + s_pszPipe).csOutput, "fifo 600 0\n");
        EXPECT_EQ(csAsk("x"), "served");
        EXPECT_EQ(stRun("! [ -e /tmp/nowhere ] && ! [ -f /tmp/victim ] || grep precious /tmp/victim").nStatus,
                  0);
        EXPECT_TRUE(clServer.bStop());
        EXPECT_EQ(fnInode(), 0u) << "left behind";
    }
}

TEST_F(PipeServer, DoesNotStartWhereTheNameCannotBeHad)
{
    CEchoPipe clNoFolder("/tmp/missing/pipe");
    EXPECT_FALSE(clNoFolder.bStart());
    ASSERT_EQ(stRun("mkdir /tmp/mounted && mount -t tmpfs none /tmp/mounted").nStatus, 0);
    CEchoPipe clMounted("/tmp/mounted");
    EXPECT_FALSE(clMounted.bStart());
    EXPECT_EQ(stRun("umount /tmp/mounted && rmdir /tmp/mounted").nStatus, 0);
}

TEST_F(PipeServer, HalvesAreDiscardedAndTheNextRecordIsServed)
{
    CEchoPipe clServer;
    ASSERT_TRUE(clServer.bStart());
    const CReplyPipe clReply(78);
    const std::string st = csRequest(78, 0, "x", "", 1);
    for (const auto& [nFrom, nSize] :
         {std::pair<std::size_t, std::size_t>{0, 400}, {400, 392}, {0, 791}, {0, 1}}) {
        ASSERT_TRUE(bWritePipe(s_pszPipe, st.substr(nFrom, nSize)));
        ASSERT_TRUE(bDrained());
    }
    EXPECT_EQ(csAsk("x"), "served");
    EXPECT_EQ(clServer.m_nHandled, 1);
    EXPECT_EQ(clReply.csReply(0), "<nothing in time>");
}

TEST_F(PipeServer, TwoHundredWritersAtOnceEachGetTheirReply)
{
    CEchoPipe clServer;
    ASSERT_TRUE(clServer.bStart());
    std::atomic<int> nServed = 0;
    std::vector<std::thread> tWriters;
    for (int n = 0; n < 200; ++n) {
        tWriters.emplace_back([&, n] { nServed += csAsk("x", -n) == "served"; });
    }
    for (std::thread& clWriter : tWriters) {
        clWriter.join();
    }
    EXPECT_EQ(nServed, 200);
    EXPECT_EQ(clServer.m_nHandled, 200);
}

TEST_F(PipeServer, AReplyThatCannotBeWrittenCostsNothingElse)
{
    CEchoPipe clServer;
    ASSERT_TRUE(clServer.bStart());
    const struct
    {
        const char* pszBefore; ///< $R is the reply's name
        const char* pszFile;   ///< what a file at the name holds afterwards
    } tCases[] = {
        {"true", ""},
        {"echo precious >$R", "precious\n"},
        {"echo precious >/tmp/victim; ln -s /tmp/victim $R", "precious\n"},
        {"mkfifo -m 600 /tmp/linked; ln -s /tmp/linked $R", ""},
        {"mkdir $R", ""},
        {"mkfifo -m 600 $R", ""}, // without reader
    };
    int nHandled = 0;
    for (const auto& stCase : tCases) {
        SCOPED_TRACE(stCase.pszBefore);
        const std::string csName = "R=" + csReplyPipe(79) + "; ";
        ASSERT_EQ(stRun("rm -rf /tmp/__pipe*; " + csName + stCase.pszBefore).nStatus, 0);
        const std::string st = csRequest(79, 0, "x", "", 1);
        ASSERT_TRUE(bWritePipe(s_pszPipe, st));
        EXPECT_EQ(csAsk("x"), "served");
        EXPECT_EQ(clServer.m_nHandled, nHandled += 2);
        EXPECT_EQ(stRun(csName + "[ -f $R ] && cat $R").csOutput, stCase.pszFile);
    }
}

TEST_F(PipeServer, AFullReplyFifoLosesTheReplyOnly)
{
    CEchoPipe clServer;
    ASSERT_TRUE(clServer.bStart());
    const CReplyPipe clFull(80);
    const std::array<char, 4096> tPage{};
    while (::write(clFull.nFd(), tPage.data(), tPage.size()) > 0) {
    }
    const std::string st = csRequest(80, 0, "x", "", 1);
    ASSERT_TRUE(bWritePipe(s_pszPipe, st));
    EXPECT_EQ(csAsk("x"), "served");
    EXPECT_EQ(clServer.m_nHandled, 2);
}

TEST_F(PipeServer, AFailingRequestIsAnsweredAndTheNextIsServed)
{
    CEchoPipe clServer;
    ASSERT_TRUE(clServer.bStart());
    EXPECT_EQ(csAsk("throw"), "what went wrong");
    EXPECT_EQ(csAsk("x"), "served");
}

TEST_F(PipeServer, ItsThreadLeavesSigtermToTheMainThread)
{
    CEchoPipe clServer;
    ASSERT_TRUE(clServer.bStart());
    EXPECT_EQ(csAsk("mask"), "held");
}

TEST_F(PipeServer, AStopLetsTheRequestInProgressFinish)
{
    CEchoPipe clServer;
    ASSERT_TRUE(clServer.bStart());
    const CReplyPipe clReply(81);
    const std::string st = csRequest(81, 0, "wait", "", 1);
    ASSERT_TRUE(bWritePipe(s_pszPipe, st));
    clServer.m_clEntered.acquire();
    std::atomic<bool> bStopped = false;
    std::thread clStopper([&] { bStopped = clServer.bStop(); });
    EXPECT_FALSE(bWaitUntil([&] { return bStopped.load(); }, 100)); // silence has to be waited out
    clServer.m_clGoOn.release();
    clStopper.join();
    EXPECT_EQ(clReply.csReply(), "served");
}

TEST_F(PipeServer, AFifoRemovedMeanwhileIsMissedAndItsSuccessorLeftAlone)
{
    CEchoPipe clServer;
    ASSERT_TRUE(clServer.bStart());
    ASSERT_EQ(::unlink(s_pszPipe), 0);
    EXPECT_EQ(csAsk("x"), "<no server>");
    ASSERT_EQ(stRun(std::string("echo other >") + s_pszPipe).nStatus, 0);
    clServer.bStop();
    EXPECT_EQ(stRun(std::string("cat ") + s_pszPipe).csOutput, "other\n");
    ASSERT_TRUE(clServer.bStart());
    EXPECT_EQ(csAsk("x"), "served");
}

TEST_F(PipeServer, StartingAndStoppingOverAndOverLeavesNothing)
{
    const auto fnCount = [] {
        return stRun("ls /proc/$PPID/fd | wc -l; ls /proc/$PPID/task | wc -l").csOutput;
    };
    const std::string csBefore = fnCount();
    for (int n = 0; n < 200; ++n) {
        CEchoPipe clServer;
        ASSERT_TRUE(clServer.bStart());
        if (n % 2 == 0) {
            ASSERT_TRUE(clServer.bStart()); // started anew
        }
    }
    EXPECT_TRUE(bWaitUntil([&] { return fnCount() == csBefore; }, 2000)) << csBefore << fnCount();
}
