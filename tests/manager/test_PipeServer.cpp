#include "manager/PipeRecords.h"
#include "manager/PipeServer.h"
#include "support/Conversion.h"
#include "tools/Command.h"
#include "tools/PipeClient.h"
#include "tools/PrivateWorld.h"
#include "tools/Wait.h"

#include <atomic>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <utility>

namespace {
constexpr const char* s_pszPipe = "/tmp/pipeserver_under_test";

/// Answers "served", unless it is told something else.
class CTestPipe : public CPipeServer
{
public:
    ~CTestPipe() override { bStop(); }

    std::function<std::string()> m_fnAnswer = [] { return "served"; };
    std::atomic<int> m_nHandled{0};

protected:
    void _ProcessMessage(const stSEND*, stRET* pstReturn) override
    {
        WriteReply(m_fnAnswer(), pstReturn);
        ++m_nHandled;
    }
    const char* _vpszGetServerPipeName() const override { return s_pszPipe; }
};

class PipeServer : public ::testing::Test
{
protected:
    void SetUp() override { REQUIRE_PRIVATE_WORLD(); }
    static std::string csAsk()
    {
        const CReplyPipe clReply(77);
        return bWritePipe(s_pszPipe, csRecord(77)) ? clReply.csReply() : "<no server>";
    }
    static std::string csRecord(int nReply) { return csRequest(nReply, 0, "name", "/path", 1); }
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
    const std::pair<std::string, int> tPorts[] = {{"65535", 65535}, {"-1", 65535}, {" +12x9", 12}, {"", 0}};
    for (const auto& [csDigits, nPort] : tPorts) {
        EXPECT_EQ(stReadAnsi(stRecord("x", csDigits)).wPort, nPort) << csDigits;
    }
    const stSEND stFull = stRecord(std::string(784, 'A'), ""); // no NUL anywhere; 0x4141 as a unit
    EXPECT_EQ(stReadAnsi(stFull).csName, std::wstring(261, L'A'));
    EXPECT_EQ(stReadUTF16(stFull).csPath, std::wstring(262, L'\u4141'));
}

TEST(PipeRecords, ReplyIsCutAtACharacterAndAlwaysEnds)
{
    const std::string csLong(497, 'x');
    const std::pair<std::string, std::string> tCases[] = {
        {csLong + "1234", csLong + "123"},
        {csLong + "1€", csLong + "1"},
        {csLong + "€!", csLong + "€"},
        {csLong + "\U0001F600", csLong},
        {csLong + "\x80\x80\x80\x80\x80", csLong + "\x80\x80\x80"},
    };
    for (const auto& [csText, csReply] : tCases) {
        stRET stReturn;
        std::memset(&stReturn, 'R', sizeof stReturn); // what an earlier reply left
        WriteReply(csText, &stReturn);
        const std::string csBytes(reinterpret_cast<const char*>(&stReturn), sizeof stReturn);
        EXPECT_EQ(csBytes, csReply + std::string(501 - csReply.size(), '\0'));
    }
}

TEST_F(PipeServer, UsesOnlyAFifoOfOursReplacesAllElseAndLeavesAnothersInItsPlace)
{
    const std::pair<const char*, bool> tCases[] = {
        // what makes $P, the server's name; whether it is kept
        {"true", false},
        {"mkfifo -m 644 $P", true},
        {"mkfifo -m 622 $P", false},
        {"mkfifo -m 600 $P; chown nobody $P", false},
        {"mkfifo -m 600 $P; ln $P /tmp/second", false},
        {"mkfifo -m 600 /tmp/second; ln -s /tmp/second $P", false},
        {"ln -s /tmp/victim $P", false},
        {"echo data >$P", false},
        {"mkdir -p $P/full/of/things", false},
    };
    const std::string csName = std::string("P=") + s_pszPipe + "; ";
    const auto csInode = [&] { return stRun(csName + "stat -c %i $P || true").csOutput; };
    for (const auto& [pszBefore, bKept] : tCases) {
        SCOPED_TRACE(pszBefore);
        stRun(csName + "rm -rf $P /tmp/second; echo precious >/tmp/victim; " + pszBefore);
        const std::string csBefore = csInode();
        CTestPipe clServer;
        ASSERT_TRUE(clServer.bStart());
        EXPECT_EQ(csInode() == csBefore, bKept);
        EXPECT_EQ(stRun(csName + "stat -c '%F %a %u' $P; cat /tmp/victim").csOutput,
                  "fifo 600 0\nprecious\n");
        EXPECT_EQ(csAsk(), "served");
        EXPECT_TRUE(clServer.bStop());
        EXPECT_NE(stRun(csName + "ls -d $P").nStatus, 0) << "left behind";
    }

    CTestPipe clServer;
    ASSERT_TRUE(clServer.bStart());
    ASSERT_EQ(stRun(csName + "rm $P; mkfifo $P").nStatus, 0);
    clServer.bStop();
    EXPECT_EQ(stRun(csName + "rm $P").nStatus, 0) << "it is another's";
}

TEST_F(PipeServer, AHalfIsDiscardedAndTheNextRecordIsServed)
{
    CTestPipe clServer;
    ASSERT_TRUE(clServer.bStart());
    const CDescripteur clPipe(::open(s_pszPipe, O_RDWR | O_NONBLOCK | O_CLOEXEC));
    int nLeft = -1;
    ASSERT_TRUE(bWritePipe(s_pszPipe, csRecord(78).substr(0, 400)));
    ASSERT_TRUE(bWaitUntil([&] { return ::ioctl(clPipe.nFd(), FIONREAD, &nLeft) == 0 && nLeft == 0; }, 5000));
    EXPECT_EQ(csAsk(), "served");
    EXPECT_EQ(clServer.m_nHandled, 1);
}

TEST_F(PipeServer, AReplyThatCannotBeWrittenCostsNothingElse)
{
    CTestPipe clServer;
    ASSERT_TRUE(clServer.bStart());
    const char* const tCases[] = {"true", "cp /tmp/victim $R", "ln -s /tmp/victim $R", "mkfifo -m 600 $R"};
    for (const char* pszBefore : tCases) {
        SCOPED_TRACE(pszBefore);
        const std::string csName = "R=" + csReplyPipe(79) + "; "; // nobody reads what is there
        stRun(csName + "rm -f $R; echo precious >/tmp/victim; " + pszBefore);
        ASSERT_TRUE(bWritePipe(s_pszPipe, csRecord(79)));
        EXPECT_EQ(csAsk(), "served");
        EXPECT_EQ(stRun(csName + "cat /tmp/victim; [ ! -f $R ] || cmp /tmp/victim $R").csOutput,
                  "precious\n");
    }
    const CReplyPipe clFull(79);
    const std::array<char, 4096> tPage{};
    while (::write(clFull.nFd(), tPage.data(), tPage.size()) > 0) {
    }
    ASSERT_TRUE(bWritePipe(s_pszPipe, csRecord(79)));
    EXPECT_EQ(csAsk(), "served");
}

TEST_F(PipeServer, AFailingRequestIsAnsweredAndTheNextOneServed)
{
    CTestPipe clServer;
    clServer.m_fnAnswer = []() -> std::string { throw std::runtime_error("what went wrong"); };
    ASSERT_TRUE(clServer.bStart());
    EXPECT_EQ(csAsk(), "what went wrong");
    EXPECT_EQ(csAsk(), "what went wrong");
}
