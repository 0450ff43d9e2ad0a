#include "manager/PipeRecords.h"
#include "manager/PipeServer.h"
#include "support/Conversion.h"
#include "tools/Command.h"
#include "tools/PipeClient.h"
#include "tools/PrivateWorld.h"
#include "tools/Wait.h"

#include <atomic>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <semaphore>
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
    static bool bDrained()
    {
        const CDescripteur clPipe(::open(s_pszPipe, O_RDWR | O_NONBLOCK | O_CLOEXEC));
        int nLeft = -1;
        return bWaitUntil([&] { return ::ioctl(clPipe.nFd(), FIONREAD, &nLeft) == 0 && nLeft == 0; }, 5000);
    }
};
} // namespace

TEST(PipeRecords, TextsAndPortsAreReadAsTheirFormsHaveThem)
{
    const auto stRecord = [](const std::string& csName, const std::string& csPort) {
        stSEND st{};
        std::memcpy(reinterpret_cast<char*>(&st) + 8, csName.data(), csName.size());
        std::memcpy(reinterpret_cast<char*>(&st) + 530, csPort.data(), csPort.size());
        return st;
    };
    EXPECT_EQ(stReadAnsi(stRecord("Caf\xe9 \x80", "1")).csName, L"Caf\u00e9 \u20ac");
    const auto stWide =
        stReadUTF16(stRecord("\x24\x13" + csToUTF16(L"\u0416\U0001F600") + std::string("\0\xD8z\0", 4), ""));
    EXPECT_EQ(stWide.csName, L"\u0416\U0001F600\uFFFDz");
    EXPECT_EQ(stWide.wPort, 4900);
    const std::pair<std::string, int> tPorts[] = {// the low 16 bits count
                                                  {"70000", 4464}, {"65535", 65535},
                                                  {"-1", 65535},   {" +12x9", 12},
                                                  {"", 0},         {std::string(262, '0'), 0}};
    for (const auto& [csDigits, nPort] : tPorts) {
        EXPECT_EQ(stReadAnsi(stRecord("x", csDigits)).wPort, nPort) << csDigits;
    }
    const stSEND stFull = stRecord(std::string(784, 'A'), ""); // no NUL anywhere; 0x4141 as a unit
    EXPECT_EQ(stReadAnsi(stFull).csName, std::wstring(261, L'A'));
    EXPECT_EQ(stReadAnsi(stFull).csPath, std::wstring(261, L'A'));
    EXPECT_EQ(stReadUTF16(stFull).csName, std::wstring(129, L'\u4141'));
    EXPECT_EQ(stReadUTF16(stFull).csPath, std::wstring(262, L'\u4141'));
}

TEST(PipeRecords, ReplyIsCutAtACharacterAndAlwaysEnds)
{
    const std::string csLong(497, 'x');
    const std::pair<std::string, std::string> tCases[] = {{"UNKNOWN", "UNKNOWN"},
                                                          {csLong + "1234", csLong + "123"},
                                                          {csLong + "1€", csLong + "1"},
                                                          {csLong + "€!", csLong + "€"}};
    for (const auto& [csText, csReply] : tCases) {
        stRET stReturn;
        std::memset(&stReturn, 'R', sizeof stReturn); // what an earlier reply left
        WriteReply(csText, &stReturn);
        const std::string csBytes(reinterpret_cast<const char*>(&stReturn), sizeof stReturn);
        EXPECT_EQ(csBytes, csReply + std::string(501 - csReply.size(), '\0'));
    }
}

TEST_F(PipeServer, UsesOnlyAFifoOfOursAndReplacesAllElse)
{
    const std::pair<const char*, bool> tCases[] = {
        // what makes $P, the server's name; whether it is kept
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
        {"mkdir -p $P/full/of/things", false},
        {"mknod $P c 1 3", false},
    };
    const std::string csName = std::string("P=") + s_pszPipe + "; ";
    const auto csInode = [&] { return stRun(csName + "stat -c %i $P || true").csOutput; };
    for (const auto& [pszBefore, bKept] : tCases) {
        SCOPED_TRACE(pszBefore);
        ASSERT_EQ(stRun(csName + "rm -rf $P /tmp/second /tmp/victim; " + pszBefore).nStatus, 0);
        const std::string csBefore = csInode();
        CEchoPipe clServer;
        ASSERT_TRUE(clServer.bStart());
        EXPECT_EQ(csInode() == csBefore, bKept);
        EXPECT_EQ(stRun(csName + "stat -c '%F %a %u' $P").csOutput, "fifo 600 0\n");
        EXPECT_EQ(csAsk("x"), "served");
        EXPECT_EQ(stRun("! [ -e /tmp/nowhere ] && ! [ -f /tmp/victim ] || grep precious /tmp/victim").nStatus,
                  0);
        EXPECT_TRUE(clServer.bStop());
        EXPECT_NE(stRun(csName + "ls -d $P").nStatus, 0) << "left behind";
    }
    EXPECT_FALSE(CEchoPipe("/tmp/missing/pipe").bStart());
    ASSERT_EQ(stRun("mkdir /tmp/mounted && mount -t tmpfs none /tmp/mounted").nStatus, 0);
    EXPECT_FALSE(CEchoPipe("/tmp/mounted").bStart());
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
    const std::string csName = "R=" + csReplyPipe(79) + "; ";
    const std::string st = csRequest(79, 0, "x", "", 1);
    const std::pair<const char*, const char*> tCases[] = {
        // what makes $R, the reply's name; a file's content then
        {"true", ""},
        {"echo precious >$R", "precious\n"},
        {"echo precious >/tmp/victim; ln -s /tmp/victim $R", "precious\n"},
        {"mkfifo -m 600 /tmp/linked; ln -s /tmp/linked $R", ""},
        {"mkdir $R", ""},
        {"mkfifo -m 600 $R", ""}, // without reader
    };
    int nHandled = 0;
    for (const auto& [pszBefore, pszFile] : tCases) {
        SCOPED_TRACE(pszBefore);
        ASSERT_EQ(stRun("rm -rf /tmp/__pipe*; " + csName + pszBefore).nStatus, 0);
        ASSERT_TRUE(bWritePipe(s_pszPipe, st));
        EXPECT_EQ(csAsk("x"), "served");
        EXPECT_EQ(clServer.m_nHandled, nHandled += 2);
        EXPECT_EQ(stRun(csName + "[ -f $R ] && cat $R").csOutput, pszFile);
    }
    const CReplyPipe clFull(79);
    const std::array<char, 4096> tPage{};
    while (::write(clFull.nFd(), tPage.data(), tPage.size()) > 0) {
    }
    ASSERT_TRUE(bWritePipe(s_pszPipe, st));
    EXPECT_EQ(csAsk("x"), "served");
    EXPECT_EQ(clServer.m_nHandled, nHandled += 2);
}

TEST_F(PipeServer, AFailingRequestIsAnsweredAndTheThreadLeavesSigtermToTheMainThread)
{
    CEchoPipe clServer;
    ASSERT_TRUE(clServer.bStart());
    EXPECT_EQ(csAsk("throw"), "what went wrong");
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
