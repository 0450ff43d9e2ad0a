// The client as a program, against servers on the loopback that keep to the protocol, and others that do not.

#include "ScriptedManager.h"
#include "tools/PrivateWorld.h"
#include "tools/TempDir.h"
#include "velmoctl/Tool.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <gmock/gmock.h>
#include <optional>
#include <thread>
#include <tuple>

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {
using CClock = std::chrono::steady_clock;

/// What an endless line may cost is a small part of this. Sanitizers need more than any limit.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const std::string s_csLimit;
#else
const std::string s_csLimit = "ulimit -v 200000; ";
#endif
} // namespace

TEST(Client, ServersAreReadInPairsAlsoAroundNamesWithTabs)
{
    const std::pair<std::string, const char*> tCases[] = {
        {csInfo(""), "[]\n"},
        {csInfo("\ta\t1\t\t4900\tc\tauto"), "[\"a\",\"dxsql\",\"c\"]\n"},
        {csInfo("\ta\tb\t1\tc\t2"), "[\"a b\",\"c\"]\n"},
        {csInfo("\tcut off"), "[]\n"},
        {csInfo("\t\"\\\x01\xE2\x80\xAEé\t1"), "[\"\\\"\\\\\\u0001\\u202eé\"]\n"},
        {"YES\tv\ts\tk\tp", "answered what was not expected: \"YES�v�s�k�p\"\n"},
    };
    for (const auto& [csReply, pszNames] : tCases) {
        CScriptedManager clManager({{"INFO", csReply}});
        EXPECT_THAT(stClient(clManager.csPort(), "list --names --json").csOutput, HasSubstr(pszNames));
    }
}

TEST(Client, ShowsWhatTheManagerAnswersForReadersAndForPrograms)
{
    CScriptedManager clManager({{"INFO", csInfo("\tOrders\t4900\tDonnées 1\t\t\t007")},
                                {"STATUS\tOrders", "STATUS\tRUNNING"},
                                {"STATUS\tDonnées 1", "STATUS\tSTART_PENDING"},
                                {"STATUS\tdxsql", "STATUS\tUNKWNOWN"},
                                {"STATUS\tgone", "ERROR\t1No such file or directory"},
                                {"STATUS\tdark", "ERROR\t4Connection timed out"},
                                {"STATUS\thidden", "ERROR\t1Operation canceled"},
                                {"START\tOrders", "OK"},
                                {"START\tlame", "ERROR\t2Operation canceled"},
                                {"CLUSTERINFO\tOrders", "YES\t1\tboss"},
                                {"CLUSTERINFO\tlone", "YES\t0\t"},
                                {"CLUSTERINFO\tgone", "ERROR\t1"}});
    for (const char* pszLocale : {"C", "C.UTF-8", "fr_FR.ISO-8859-1"}) {
        SCOPED_TRACE(pszLocale);
        ::setenv("LC_ALL", pszLocale, 1);
        Play(clManager, "commands.txt");
    }
    ::unsetenv("LC_ALL");
}

TEST(Client, UninstallingFollowsTheManagersAnswers)
{
    CScriptedManager::Answers tAnswers = {{"UNINSTALL\tall\t1", "ERROR\t12\tSuccess"},
                                          {"UNINSTALL\tall\t0", "OK"},
                                          {"UNINSTALL\tpart\t1", "OK"},
                                          {"UNINSTALL\tstays\t1", "ERROR\t12\tSuccess"},
                                          {"UNINSTALL\tstays\t0", "ERROR\t13Read-only"},
                                          {"UNINSTALL\truns\t0", "ERROR\t3Canceled"},
                                          {"UNINSTALL\tgone\t0", "ERROR\t11"},
                                          {"UNINSTALL\tnew\t0", "ERROR\t77\tnew"}};
    for (const std::string csName : {"all", "part", "stays", "runs", "gone", "new", "X"}) {
        tAnswers["STATUS\t" + csName] = "STATUS\tRUNNING";
    }
    CScriptedManager clManager(tAnswers);
    Play(clManager, "uninstall.txt");
    EXPECT_EQ(clManager.csAsked(), "STATUS\tall|UNINSTALL\tall\t1|UNINSTALL\tall\t0|"
                                   "STATUS\tpart|UNINSTALL\tpart\t1|"
                                   "STATUS\tstays|UNINSTALL\tstays\t1|UNINSTALL\tstays\t0|"
                                   "STATUS\truns|UNINSTALL\truns\t0|STATUS\tgone|UNINSTALL\tgone\t0|"
                                   "STATUS\tnew|UNINSTALL\tnew\t0|STATUS\tX|STATUS\tX|");
}

TEST(Client, AnAbsentSlowOrHostileManagerIsAClearErrorInTime)
{
    const std::string csHostile = "\033]0;owned\a\xC2\x9B\xE2\x80\xAE" + std::string(4000, 'y');
    const struct
    {
        std::vector<std::string> tSent;       ///< each but the first behind a line of the client
        std::optional<std::string> csOnAndOn; ///< then sent without end; empty: silence; none: hangs up
        int nStatus;
        const char* pszWords;
    } tCases[] = {
        {{}, "", 3, "did not answer within 0.5 s"},
        {{}, {}, 4, "broke off without a reply"},
        {{"220 mail ready\r\n"}, "", 4, "is not a manager"},
        {{}, "H", 3, "did not answer within 0.5 s"},
        {{g_csGreeting, "ERROR\t8\r\n"}, "", 4, "answered what was not expected: \"ERROR"},
        {{g_csGreeting, "OK\r\n", "YES\t1"}, {}, 4, "broke off in a reply"},
        {{g_csGreeting, "OK\r\n", ""}, std::string(65536, '\r'), 4, "sends a line without an end"},
        {{g_csGreeting, "OK\r\n", "STATUS\tRUNNING\r\n"}, "", 4, "answered what was not expected: \"STATUS"},
        {{g_csGreeting, "OK\r\n", csHostile + "\r\n"}, "", 4, "\"�]0;owned���yyy"},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszWords);
        CScriptedServer clServer([&st](const CClientSide& cl) {
            cl.Recite(st.tSent);
            if (!st.csOnAndOn) {
                cl.HangUp();
            }
            while (!st.csOnAndOn.value_or("").empty() && cl.bSend(*st.csOnAndOn)) {
                ::usleep(5000);
            }
            cl.StaySilent();
        });
        const auto clStart = CClock::now();
        const STCommandResult stResult = stRun(s_csLimit + csClient() + " --timeout 0.5 --port " +
                                               clServer.csPort() + " cluster X >/dev/null");
        EXPECT_LT(CClock::now() - clStart, std::chrono::seconds(3));
        EXPECT_EQ(stResult.nStatus, st.nStatus);
        EXPECT_THAT(stResult.csOutput, AllOf(StartsWith("velmoctl: "), HasSubstr(st.pszWords)));
        EXPECT_LT(stResult.csOutput.size(), 400u);
        EXPECT_EQ(std::ranges::count(stResult.csOutput, '\n'), 1);
    }
    const std::string csFreePort = CScriptedServer([](const CClientSide&) {}).csPort();
    const STCommandResult stResult = stClient(csFreePort, "list");
    EXPECT_EQ(stResult.nStatus, 3);
    EXPECT_EQ(stResult.csOutput, "velmoctl: no manager can be reached on this machine, port " + csFreePort +
                                     ": Connection refused\n");
}

TEST(Client, AListAsksAtOnceAndIsShownAsFarAsItCanBeHadInTime)
{
    std::string csServers = "\tmute\t1\tgood\t2\tlost\t3";
    for (int n = 0; n < 160; ++n) {
        csServers += "\tmute\t1";
    }
    CScriptedManager clManager({{"INFO", csInfo(csServers)},
                                {"STATUS\tmute", ""},
                                {"STATUS\tgood", "STATUS\tPAUSED"},
                                {"STATUS\tlost", "ERROR\t1\n"}});
    const auto clStart = CClock::now();
    const STCommandResult stResult = stClient(clManager.csPort(), "list --timeout 0.5");
    EXPECT_LT(CClock::now() - clStart, std::chrono::seconds(3));
    EXPECT_EQ(stResult.nStatus, 3);
    const std::string csSilence =
        "the manager on this machine, port " + clManager.csPort() + " did not answer within 0.5 s\n";
    EXPECT_THAT(
        stResult.csOutput,
        AllOf(
            HasSubstr("mute  1     ?\n"), HasSubstr("good  2     paused\n"),
            HasSubstr("velmoctl: the server \"lost\" on this machine could not be looked up (\xEF\xBF\xBD)"),
            HasSubstr("velmoctl: mute, mute, mute, mute: " + csSilence),
            HasSubstr("velmoctl: mute, mute, mute, mute, mute and 152 more: not asked: " + csSilence)));

    // A name that cannot be sent is the manager's fault, and the other servers are asked about.
    CScriptedManager clOdd({{"INFO", csInfo("\ta\nb\t1\tgood\t2")}, {"STATUS\tgood", "STATUS\tPAUSED"}});
    const STCommandResult stOdd = stClient(clOdd.csPort(), "list --json");
    EXPECT_EQ(stOdd.nStatus, 4);
    EXPECT_THAT(stOdd.csOutput, AllOf(HasSubstr(R"("kind":"nonsense")"), HasSubstr(R"("state":"paused")")));
}

TEST(Client, AManagerWithManyNamesStillHasFourConversationsAtMost)
{
    std::atomic<int> nNow = 0, nMost = 0;
    CScriptedServer clServer([&](const CClientSide&) {
        nMost = std::max(nMost.load(), ++nNow);
        ::usleep(100'000);
        --nNow;
    });
    const CTempDir clFolder;
    const std::string csHosts = clFolder.csWrite("hosts", "m[1:9] ansible_host=127.0.0.1\n");
    EXPECT_EQ(stClient(clServer.csPort(), "info --hosts " + csHosts).nStatus, 4);
    EXPECT_EQ(nMost, 4);
}

TEST(Client, ForgedAnswersToADiscoveryAreLeftOut)
{
    if (!bFreshNetwork()) { // questions go to every interface: there is only the loopback
        GTEST_SKIP() << "SKIPPED: needs root and network namespaces";
    }
    const CDescripteur clSocket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in6 st = stAddress("127.0.0.1", 4999);
    ASSERT_EQ(::bind(clSocket.nFd(), reinterpret_cast<sockaddr*>(&st), sizeof st), 0);
    const std::string tAnswers[] = {
        "", "\r\n", "YES\tv", std::string(60'000, '\xFF'), csInfo("\t\033[2Jx\t1"), csInfo("\tagain\t2")};
    int nQuestions = 0;
    std::thread clAnswers([&] {
        std::array<char, 100> tBytes{};
        socklen_t nLength = sizeof st;
        auto* const pst = reinterpret_cast<sockaddr*>(&st);
        while (::recvfrom(clSocket.nFd(), tBytes.data(), tBytes.size(), 0, pst, &nLength) > 0) {
            ++nQuestions;
            for (const std::string& cs : tAnswers) {
                ::sendto(clSocket.nFd(), cs.data(), cs.size(), 0, pst, nLength);
            }
        }
    });
    EXPECT_EQ(stRun(csClient() + " discover --timeout 0.4 2>&1").csOutput,
              "ADDRESS                   VERSION   SYSTEM   SERVERS\n"
              "127.0.0.1 (this machine)  24.0.6.0  Linux X  �[2Jx:1\n");
    ::shutdown(clSocket.nFd(), SHUT_RDWR);
    clAnswers.join();
    EXPECT_EQ(nQuestions, 3);
}

TEST(Client, AWrongCommandLineIsToldAndNothingIsSent)
{
    CScriptedManager clManager(CScriptedManager::Answers{});
    Play(clManager, "refused.txt");
    EXPECT_EQ(stClient(clManager.csPort(), "list --port 70000").nStatus, 2);
    EXPECT_EQ(clManager.csAsked(), "");
}

TEST(Client, OutputThatCannotBeWrittenIsAnError)
{
    CScriptedManager clManager(CScriptedManager::Answers{{"INFO", csInfo("")}});
    EXPECT_EQ(stClient(clManager.csPort(), "info >/dev/full").nStatus, 1);
    const STCommandResult stResult = stClient(clManager.csPort(), "watch --interval 0.01 | head -n 2");
    EXPECT_EQ(stResult.csOutput, "NAME  PORT  STATE\nNAME  PORT  STATE\n"); // and it ends
}

TEST(Client, AToolHasEndedWhenItsOwnProcessHasWhoeverKeepsTheOutputOpen)
{
    const auto clStart = CClock::now();
    const STToolResult st = stRunTool({"sh", "-c", "echo up; sleep 4 & exit 3"}, Milliseconds(10'000));
    EXPECT_LT(CClock::now() - clStart, std::chrono::seconds(2));
    EXPECT_EQ(st.nStatus, 3);
    EXPECT_EQ(st.csOutput, "up\n");
    EXPECT_EQ(stRunTool({"sleep", "4"}, Milliseconds(100)).nStatus, -1);
}

TEST(Client, OutOfThreadsFewerAskAndAnUnknownHostIsStillAClearError)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "SKIPPED: the sanitizer needs a thread of its own";
#endif
    if (::geteuid() != 0) {
        GTEST_SKIP() << "SKIPPED: needs root, to be a user with a limit";
    }
    CScriptedManager clManager(CScriptedManager::Answers{{"INFO", csInfo("")}});
    const CTempDir clDir; // the other user may not see the checkout
    stRun("cp " + csClient() + " " + clDir.csPath() + " && chmod 0755 " + clDir.csPath());
    const auto stLimited = [&](int nThreads, const char* pszHosts) {
        return stRun("setpriv --reuid=64321 --clear-groups prlimit --nproc=" + std::to_string(nThreads) +
                     " " + clDir.csPath("velmoctl") + " --port " + clManager.csPort() +
                     " list --names --host " + pszHosts);
    };
    EXPECT_EQ(stLimited(2, "127.0.0.1,127.1").nStatus, 0);
    EXPECT_EQ(stLimited(1, "127.0.0.1").csOutput, "velmoctl: no thread can be started to ask with\n");
    const STCommandResult st = stLimited(2, "nobody.invalid");
    EXPECT_EQ(st.nStatus, 3);
    EXPECT_THAT(st.csOutput, HasSubstr("the host \"nobody.invalid\" cannot be found"));
}
