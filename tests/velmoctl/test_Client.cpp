// The client as a program, against servers on the loopback that keep to the protocol, and others that do not.

#include "ScriptedManager.h"
#include "tools/Address.h"
#include "tools/PrivateWorld.h"
#include "tools/Wait.h"
#include "velmoctl/Replies.h"

#include <atomic>
#include <chrono>
#include <gmock/gmock.h>

using ::testing::HasSubstr;

namespace {
constexpr const char* s_pszHost = "YES\t24.0.6.0\tLinux X\t6.1\t2 x Y\t64 Mo";
const std::string s_csGreeting = "HELLO FROM SERVEUR SETUP 24.0.6.0\r\n";

/// What an endless line may cost is a small part of this. Sanitizers need more than any limit.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const std::string s_csLimit;
#else
const std::string s_csLimit = "ulimit -v 200000; ";
#endif

std::string csHost(const std::string& csServers)
{
    return s_pszHost + csServers;
}

/// "name=port;" of each server in a reply line.
std::string csServers(std::string_view csLine)
{
    const auto stInfo = stReadInfo(csLine);
    std::string cs;
    for (const STServer& st : stInfo.value_or(STInfo{"", "", "", "", "", {{"<none>", ""}}}).tServers) {
        cs += st.csName + "=" + st.csPort + ";";
    }
    return cs;
}
} // namespace

TEST(Replies, ServersAreReadInPairsAlsoAroundNamesWithTabs)
{
    const std::pair<const char*, const char*> tCases[] = {
        {"YES\tv\ts\tk\tp\tm\ta\t1\tb\t2", "a=1;b=2;"},
        {"YES\t?\ts\tk\tp\tm\t\t4900", "dxsql=4900;"},
        {"YES\tv\ts\tk\tp\tm\ta\tauto\tb\t", "a=auto;b=;"},
        {"YES\tv\ts\tk\tp\tm\ta\tb\t1\tc\t2", "a b=1;c=2;"},
        {"YES\tv\ts\tk\tp\tm\ta", ""},
        {"YES\tv\ts\tk\tp", "<none>=;"},
        {"NO\tv\ts\tk\tp\tm\ta\t1", "<none>=;"},
        {"", "<none>=;"},
    };
    for (const auto& [pszLine, pszServers] : tCases) {
        EXPECT_EQ(csServers(pszLine), pszServers) << pszLine;
    }
}

TEST(Replies, ARefusalIsItsCodeAndTheTextBehindIt)
{
    const std::tuple<const char*, std::uint32_t, const char*> tCases[] = {
        {"ERROR\t8", 8, ""},
        {"ERROR\t1No such file", 1, "No such file"},
        {"ERROR\t12\tSuccess", 12, "Success"},
        {"ERROR\t0\t", 0, ""}};
    for (const auto& [pszLine, nCode, pszText] : tCases) {
        const auto stRefusal = stReadRefusal(pszLine);
        ASSERT_TRUE(stRefusal.has_value()) << pszLine;
        EXPECT_EQ(stRefusal->nCode, nCode) << pszLine;
        EXPECT_EQ(stRefusal->csText, pszText);
    }
    for (const char* psz : {"ERROR\t", "ERROR", "ERROR\t99999999999", "ERROR\t-1", "OK"}) {
        EXPECT_FALSE(stReadRefusal(psz).has_value()) << psz;
    }
    EXPECT_FALSE(csReadState("STATUS\tUNKNOWN").has_value());
    EXPECT_FALSE(csReadState("STATUS\tRUNNING\t").has_value());
    EXPECT_FALSE(csReadCluster("YES\t2\tx").has_value());
}

TEST(Client, ShowsWhatTheManagerAnswersForReadersAndForPrograms)
{
    CScriptedManager clManager({{"INFO", csHost("\tOrders\t4900\tDonnées 1\t\t\tabc")},
                                {"STATUS\tOrders", "STATUS\tRUNNING"},
                                {"STATUS\tDonnées 1", "STATUS\tSTART_PENDING"},
                                {"STATUS\tdxsql", "STATUS\tUNKWNOWN"},
                                {"STATUS\tgone", "ERROR\t1No such file or directory"},
                                {"STATUS\tdark", "ERROR\t4Connection timed out"},
                                {"START\tOrders", "OK"},
                                {"START\tlame", "ERROR\t2Operation canceled"},
                                {"CLUSTERINFO\tOrders", "YES\t1\tboss"},
                                {"CLUSTERINFO\tlone", "YES\t0\t"},
                                {"CLUSTERINFO\tgone", "ERROR\t1"}});
    const struct
    {
        std::string csArguments;
        int nStatus;
        const char* pszOutput;
    } tCases[] = {
        {"list", 0,
         "NAME       PORT  STATE\nOrders     4900  running\nDonnées 1        starting\ndxsql      abc   "
         "unknown\n"},
        {"list --json", 0,
         "[{\"name\": \"Orders\", \"port\": 4900, \"state\": \"running\"}, "
         "{\"name\": \"Données 1\", \"port\": \"\", \"state\": \"starting\"}, "
         "{\"name\": \"dxsql\", \"port\": \"abc\", \"state\": \"unknown\"}]\n"},
        {"list --names", 0, "Orders\nDonnées 1\ndxsql\n"},
        {"info", 0,
         "version     24.0.6.0\nsystem      Linux X\nkernel      6.1\nprocessors  2 x Y\nmemory      64 Mo\n"
         "servers     3\n  Orders, port 4900\n  Données 1, port \n  dxsql, port abc\n"},
        {"status Orders", 0, "running\n"},
        {"status 'Données 1'", 0, "starting\n"},
        {"status \"$(printf 'Donn\\351es 1')\"", 0, "starting\n"}, // a single-byte terminal's
        {"status Orders --json", 0, "{\"name\": \"Orders\", \"state\": \"running\"}\n"},
        {"status gone", 1, "velmoctl: there is no server \"gone\"\n"},
        {"status dark", 1,
         "velmoctl: the state of the server \"dark\" could not be read (Connection timed out)\n"},
        {"start Orders", 0, "\"Orders\" is started\n"},
        {"start lame", 1, "velmoctl: the server \"lame\" could not be started (Operation canceled)\n"},
        {"cluster Orders", 0, "\"Orders\" belongs to the cluster managed by \"boss\"\n"},
        {"cluster --json -- Orders", 0, "{\"name\": \"Orders\", \"cluster_manager\": \"boss\"}\n"},
        {"cluster lone --json", 0, "{\"name\": \"lone\", \"cluster_manager\": null}\n"},
        {"cluster else", 1, "velmoctl: the manager does not know this question\n"},
        {"cluster gone", 1, "velmoctl: there is no server \"gone\", or its folder is missing\n"},
    };
    for (const char* pszLocale : {"C", "C.UTF-8", "fr_FR.ISO-8859-1"}) {
        ::setenv("LC_ALL", pszLocale, 1);
        for (const auto& st : tCases) {
            SCOPED_TRACE(pszLocale + (" " + st.csArguments));
            const STCommandResult stResult = stClient(clManager.csPort(), st.csArguments);
            EXPECT_EQ(stResult.nStatus, st.nStatus);
            EXPECT_EQ(stResult.csOutput, st.pszOutput);
        }
    }
    ::unsetenv("LC_ALL");
}

TEST(Client, UninstallingFollowsTheManagersAnswers)
{
    const struct
    {
        const char* pszOptions;
        const char* pszDeleting; ///< answer to the request with the files; null: it is not to come
        const char* pszKeeping;  ///< answer to the one without them, which comes last
        int nStatus;
        const char* pszOutput;
    } tCases[] = {
        {"--yes", nullptr, "OK", 0, "\"X\" is uninstalled, its files are kept"},
        {"--yes --delete-files", "ERROR\t12\tSuccess", "OK", 0,
         "\"X\" is uninstalled, its files are deleted"},
        {"--yes --delete-files", "OK", nullptr, 1,
         "\"X\" is uninstalled, but its files could not all be deleted"},
        {"--yes --delete-files", "ERROR\t12\tSuccess", "ERROR\t13Read-only", 1,
         "velmoctl: the files of \"X\" are deleted, its service is still registered: the server \"X\" is "
         "stopped, but "
         "its service could not be removed (Read-only); try again without --delete-files"},
        {"--yes", nullptr, "ERROR\t3Canceled", 1,
         "\"X\" could not be stopped, so nothing was removed (Canceled)"},
        {"--yes", nullptr, "ERROR\t11", 1, "velmoctl: there is no server \"X\" that can be uninstalled"},
        {"--yes", nullptr, "ERROR\t77\tnew", 1, "velmoctl: the manager answered with error 77 (new)"},
        {"--yes", nullptr, "STATUS\tRUNNING", 4, "answered what was not expected: \"STATUS�RUNNING\""},
        {"--dry-run --delete-files", nullptr, nullptr, 0,
         "\"X\" is running. Uninstalling would stop it, delete the folder of its program with all databases "
         "in it, and "
         "remove its service"},
        {"", nullptr, nullptr, 2, "velmoctl: nobody can be asked without a terminal: add --yes"},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszOutput);
        CScriptedManager::Answers tAnswers = {{"STATUS\tX", "STATUS\tRUNNING"}};
        std::string csAsked = "STATUS\tX|";
        for (const auto& [csRequest, pszAnswer] : {std::pair{std::string("UNINSTALL\tX\t1"), st.pszDeleting},
                                                   {"UNINSTALL\tX\t0", st.pszKeeping}}) {
            if (pszAnswer != nullptr) {
                tAnswers[csRequest] = pszAnswer;
                csAsked += csRequest + "|";
            }
        }
        CScriptedManager clManager(tAnswers);
        const STCommandResult stResult =
            stClient(clManager.csPort(), std::string("uninstall X ") + st.pszOptions);
        EXPECT_EQ(stResult.nStatus, st.nStatus);
        EXPECT_THAT(stResult.csOutput, HasSubstr(st.pszOutput));
        EXPECT_EQ(clManager.csAsked(), csAsked);
    }
}

TEST(Client, AnAbsentSlowOrHostileManagerIsAClearErrorInTime)
{
    using Serve = std::function<void(CClientSide&)>;
    /// Keeps to the protocol up to the reply, which may go on without end.
    const auto fnReplies = [](const std::string& csReply, bool bEndless = false) {
        return [=](CClientSide& cl) {
            cl.bSend(s_csGreeting);
            cl.csLine();
            cl.bSend("OK\r\n");
            cl.csLine();
            while (cl.bSend(csReply) && bEndless) {
            }
        };
    };
    const auto fnSays = [](const std::string& csBytes) {
        return [=](CClientSide& cl) {
            cl.bSend(csBytes);
            cl.WaitForEnd();
        };
    };
    const auto fnGoesOn = [](const std::string& csBytes, useconds_t nPause) {
        return [=](CClientSide& cl) {
            while (cl.bSend(csBytes)) {
                ::usleep(nPause);
            }
        };
    };
    const struct
    {
        const char* pszWhat;
        Serve fnServe;
        int nStatus;
        const char* pszWords;
    } tCases[] = {
        {"says nothing", fnSays(""), 3, "did not answer within 0.5 s"},
        {"hangs up", [](CClientSide&) {}, 4, "broke off without a reply"},
        {"is another server", fnSays("220 mail ready\r\n"), 4, "is not a manager"},
        {"greets in bytes", fnSays(std::string(64, '\0') + "\xFF\xFE\r\n"), 4, "is not a manager"},
        {"greets without end", fnGoesOn(std::string(65536, 'x'), 0), 4, "sends a line without an end"},
        {"drips", fnGoesOn("H", 20'000), 3, "did not answer within 0.5 s"},
        {"knows no UTF-8", fnSays(s_csGreeting + "ERROR\t8\r\n"), 4, "answered what was not expected"},
        {"answers silence", fnSays(s_csGreeting + "OK\r\n"), 3, "did not answer within 0.5 s"},
        {"answers half", fnReplies("STATUS\tRUN"), 4, "broke off in a reply"},
        {"answers without end", fnReplies(std::string(65536, '\r'), true), 4, "sends a line without an end"},
        {"answers another question", fnReplies("YES\t0\t\r\n"), 4, "answered what was not expected: \"YES"},
        {"answers with terminal commands", fnReplies("\033]0;owned\a\x9B" + std::string(4000, 'y') + "\r\n"),
         4, "\"�]0;owned��yyy"},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszWhat);
        CScriptedServer clServer(st.fnServe);
        const auto clStart = std::chrono::steady_clock::now();
        const STCommandResult stResult = stRun(s_csLimit + csClient() + " --timeout 0.5 --port " +
                                               clServer.csPort() + " status X >/dev/null");
        EXPECT_LT(std::chrono::steady_clock::now() - clStart, std::chrono::seconds(3));
        EXPECT_EQ(stResult.nStatus, st.nStatus);
        EXPECT_TRUE(stResult.csOutput.starts_with("velmoctl: ")) << stResult.csOutput;
        EXPECT_THAT(stResult.csOutput, HasSubstr(st.pszWords));
        EXPECT_LT(stResult.csOutput.size(), 400u);
        EXPECT_EQ(std::count(stResult.csOutput.begin(), stResult.csOutput.end(), '\n'), 1);
    }
    const std::string csFreePort = CScriptedServer([](CClientSide&) {}).csPort();
    const STCommandResult stResult = stClient(csFreePort, "status X");
    EXPECT_EQ(stResult.nStatus, 3);
    EXPECT_EQ(stResult.csOutput, "velmoctl: no manager can be reached on this machine, port " + csFreePort +
                                     ": Connection refused\n");
}

TEST(Client, AListAsksAtOnceAndIsShownAsFarAsItCanBeHad)
{
    std::atomic<int> nAsking = 0;
    CScriptedServer clServer([&](CClientSide& cl) {
        cl.bSend(s_csGreeting);
        for (std::string cs; !(cs = cl.csLine()).empty();) {
            if (cs.starts_with("STATUS")) {
                ++nAsking;
                (void)bWaitUntil([&] { return nAsking == 3; }, 800); // no answer before all have asked
            }
            if (cs == "STATUS\tmute") {
                cl.WaitForEnd();
            }
            cl.bSend(cs == "INFO"           ? csHost("\tgood\t1\tmute\t2\tlost\t3\n") + "\r\n"
                     : cs == "MODE_UTF8"    ? "OK\r\n"
                     : cs == "STATUS\tgood" ? (nAsking == 3 ? "STATUS\tPAUSED\r\n" : "STATUS\tSTOPPED\r\n")
                                            : "ERROR\t1\r\n");
        }
    });
    const STCommandResult stResult = stClient(clServer.csPort(), "list --timeout 1");
    EXPECT_EQ(stResult.nStatus, 3);
    EXPECT_THAT(stResult.csOutput, HasSubstr("good  1     paused\n"));
    EXPECT_THAT(stResult.csOutput, HasSubstr("mute  2     ?\n"));
    EXPECT_THAT(stResult.csOutput, HasSubstr("velmoctl: mute: the manager on this machine, port " +
                                             clServer.csPort() + " did not answer within 1 s\n"));
    EXPECT_THAT(stResult.csOutput, HasSubstr("velmoctl: lost: there is no server \"lost\"\n"));
}

TEST(Client, AManagerWhoseBytesDripIsUnderstoodAndASilentOneNotAskedOnAndOn)
{
    std::string csServers;
    for (int n = 0; n < 160; ++n) {
        csServers += "\tmute" + std::to_string(n) + "\t1";
    }
    CScriptedServer clServer([&](CClientSide& cl) {
        cl.bSend(s_csGreeting);
        for (std::string cs; !(cs = cl.csLine()).empty() && !cs.starts_with("STATUS\tmute");) {
            const std::string csReply = cs == "INFO"        ? csHost(csServers)
                                        : cs == "MODE_UTF8" ? "OK"
                                                            : "STATUS\tRUNNING";
            for (const char c : csReply.substr(0, 20)) {
                cl.bSend(std::string(1, c));
                ::usleep(1000);
            }
            cl.bSend(csReply.substr(std::min<std::size_t>(20, csReply.size())) + "\r\n");
        }
        cl.WaitForEnd();
    });
    EXPECT_EQ(stClient(clServer.csPort(), "status X --timeout 5").csOutput, "running\n");
    const auto clStart = std::chrono::steady_clock::now();
    const STCommandResult stResult = stClient(clServer.csPort(), "list --timeout 0.5");
    EXPECT_LT(std::chrono::steady_clock::now() - clStart, std::chrono::seconds(3));
    EXPECT_EQ(stResult.nStatus, 3);
    EXPECT_THAT(stResult.csOutput, HasSubstr("velmoctl: mute159: not asked"));
}

TEST(Client, ForgedAnswersToADiscoveryAreLeftOut)
{
    if (!bFreshNetwork()) { // questions go to every interface: there is only the loopback
        GTEST_SKIP() << "SKIPPED: needs root and network namespaces";
    }
    const CDescripteur clSocket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in6 st = stAddress("127.0.0.1", 4999);
    ASSERT_EQ(::bind(clSocket.nFd(), reinterpret_cast<sockaddr*>(&st), sizeof st), 0);
    std::string csQuestions;
    std::thread clAnswers([&] {
        std::array<char, 100> tBytes{};
        socklen_t nLength = sizeof st;
        for (ssize_t nRead = 0; (nRead = ::recvfrom(clSocket.nFd(), tBytes.data(), tBytes.size(), 0,
                                                    reinterpret_cast<sockaddr*>(&st), &nLength)) > 0;) {
            csQuestions.append(tBytes.data(), static_cast<std::size_t>(nRead));
            for (const std::string& cs :
                 {std::string(), std::string("\r\n"), std::string("YES\tv"), std::string(60'000, '\xFF'),
                  csHost("\t\033[2Jx\t1"), csHost("\tagain\t2")}) {
                ::sendto(clSocket.nFd(), cs.data(), cs.size(), 0, reinterpret_cast<sockaddr*>(&st), nLength);
            }
        }
    });
    const STCommandResult stResult = stRun(csClient() + " discover --timeout 0.4 2>&1");
    ::shutdown(clSocket.nFd(), SHUT_RDWR);
    clAnswers.join();
    EXPECT_EQ(stResult.csOutput, "ADDRESS                   VERSION   SYSTEM   SERVERS\n"
                                 "127.0.0.1 (this machine)  24.0.6.0  Linux X  �[2Jx:1\n");
    EXPECT_EQ(csQuestions, "ARE YOU A DEXARO MANAGER UTF-8?\r\nARE YOU A DEXARO MANAGER UTF-8?\r\n")
        << "twice";
}

TEST(Client, AWrongCommandLineIsToldAndNothingIsSent)
{
    CScriptedManager clManager(CScriptedManager::Answers{});
    const std::pair<const char*, const char*> tCases[] = {
        {"", "which command?"},
        {"stop X", "unknown command \"stop\""},
        {"status", "usage: velmoctl status NAME"},
        {"list X", "usage: velmoctl list\n"},
        {"list --dry-run", "\"list\" has no option --dry-run"},
        {"lint --host x f", "\"lint\" has no option --"},
        {"status X --timeout", "--timeout needs a value"},
        {"status X --timeout=never", "\"never\" is not a number"},
        {"status X --timeout nan", "is not a number"},
        {"status X --json=1", "--json takes no value"},
        {"status X --colour", "unknown option \"--colour\""},
        {"list --port 70000", "not a number from 1 to 65535"},
        {"start \"$(printf 'X\\nUNINSTALL\\tY\\t1')\"", "a name cannot contain tabs, line ends"},
    };
    for (const auto& [pszArguments, pszWords] : tCases) {
        SCOPED_TRACE(pszArguments);
        const STCommandResult stResult = stClient(clManager.csPort(), pszArguments);
        EXPECT_EQ(stResult.nStatus, 2);
        EXPECT_THAT(stResult.csOutput, HasSubstr(pszWords));
    }
    EXPECT_EQ(clManager.csAsked(), "");
}

TEST(Client, OutputThatCannotBeWrittenIsAnError)
{
    CScriptedManager clManager(CScriptedManager::Answers{{"INFO", csHost("")}});
    EXPECT_EQ(stClient(clManager.csPort(), "info >/dev/full").nStatus, 1);
    const STCommandResult stResult = stClient(clManager.csPort(), "watch --interval 0.01 | head -n 2");
    EXPECT_EQ(stResult.csOutput, "NAME  PORT  STATE\nNAME  PORT  STATE\n"); // and it ends
}
