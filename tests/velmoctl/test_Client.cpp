// The client as a program, against servers on the loopback that keep to the protocol, and others that do not.

#include "ScriptedManager.h"
#include "tools/PrivateWorld.h"

#include <atomic>
#include <chrono>
#include <gmock/gmock.h>

using ::testing::HasSubstr;

namespace {
constexpr const char* s_pszHost = "YES\t24.0.6.0\tLinux X\t6.1\t2 x Y\t64 Mo";
constexpr const char* s_pszGreeting = "HELLO FROM SERVEUR SETUP 24.0.6.0\r\n";

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
} // namespace

TEST(Client, ShowsWhatTheManagerAnswersForReadersAndForPrograms)
{
    CScriptedManager clManager({{"INFO", csHost("\tOrders\t4900\tDonn\xC3\xA9"
                                                "es 1\t\t\tabc")},
                                {"STATUS\tOrders", "STATUS\tRUNNING"},
                                {"STATUS\tDonn\xC3\xA9"
                                 "es 1",
                                 "STATUS\tSTART_PENDING"},
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
        const char* pszArguments;
        int nStatus;
        const char* pszOutput;
    } tCases[] = {
        {"list", 0,
         "NAME       PORT  STATE\nOrders     4900  running\nDonn\xC3\xA9"
         "es 1        starting\ndxsql      abc   unknown\n"},
        {"list --json", 0,
         "[{\"name\": \"Orders\", \"port\": 4900, \"state\": \"running\"}, {\"name\": \"Donn\xC3\xA9"
         "es 1\", \"port\": \"\", \"state\": \"starting\"}, "
         "{\"name\": \"dxsql\", \"port\": \"abc\", \"state\": \"unknown\"}]\n"},
        {"list --names", 0,
         "Orders\nDonn\xC3\xA9"
         "es 1\ndxsql\n"},
        {"info", 0,
         "version     24.0.6.0\nsystem      Linux X\nkernel      6.1\nprocessors  2 x Y\nmemory      64 Mo\n"
         "servers     3\n  Orders, port 4900\n  Donn\xC3\xA9"
         "es 1, port \n  dxsql, port abc\n"},
        {"status Orders", 0, "running\n"},
        {"status 'Donn\xC3\xA9"
         "es 1'",
         0, "starting\n"},
        {"status 'Donn\xE9"
         "es 1'",
         0, "starting\n"}, // as a terminal with a single-byte character set sends it
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
    for (const auto& st : tCases) {
        for (const char* pszLocale : {"LC_ALL=C ", "LC_ALL=C.UTF-8 ", "LC_ALL=fr_FR.ISO-8859-1 "}) {
            SCOPED_TRACE(std::string(pszLocale) + st.pszArguments);
            const STCommandResult stResult =
                stRun(pszLocale + csClient() + " --port " + clManager.csPort() + " " + st.pszArguments);
            EXPECT_EQ(stResult.nStatus, st.nStatus);
            EXPECT_EQ(stResult.csOutput, st.pszOutput);
        }
    }
}

TEST(Client, UninstallingFollowsTheManagersAnswers)
{
    const std::string csGone = "ERROR\t12\tSuccess";
    const struct
    {
        const char* pszOptions;
        CScriptedManager::Answers tAnswers; // beside the state
        int nStatus;
        const char* pszOutput;
        const char* pszAsked; // behind the state
    } tCases[] = {
        {"--yes",
         {{"UNINSTALL\tX\t0", "OK"}},
         0,
         "\"X\" is uninstalled, its files are kept",
         "UNINSTALL\tX\t0|"},
        {"--yes --delete-files",
         {{"UNINSTALL\tX\t1", csGone}, {"UNINSTALL\tX\t0", "OK"}},
         0,
         "\"X\" is uninstalled, its files are deleted",
         "UNINSTALL\tX\t1|UNINSTALL\tX\t0|"},
        {"--yes --delete-files",
         {{"UNINSTALL\tX\t1", "OK"}},
         1,
         "\"X\" is uninstalled, but its files could not all be deleted",
         "UNINSTALL\tX\t1|"},
        {"--yes --delete-files",
         {{"UNINSTALL\tX\t1", csGone}, {"UNINSTALL\tX\t0", "ERROR\t13Read-only file system"}},
         1,
         "velmoctl: the files of \"X\" are deleted, its service is still registered: the server \"X\" is "
         "stopped, "
         "but its service could not be removed (Read-only file system); try again without --delete-files",
         "UNINSTALL\tX\t1|UNINSTALL\tX\t0|"},
        {"--yes",
         {{"UNINSTALL\tX\t0", "ERROR\t3Operation canceled"}},
         1,
         "velmoctl: the server \"X\" could not be stopped, so nothing was removed (Operation canceled)",
         "UNINSTALL\tX\t0|"},
        {"--yes",
         {{"UNINSTALL\tX\t0", "ERROR\t11"}},
         1,
         "velmoctl: there is no server \"X\" that can be uninstalled",
         "UNINSTALL\tX\t0|"},
        {"--yes",
         {{"UNINSTALL\tX\t0", "ERROR\t77\tnew"}},
         1,
         "velmoctl: the manager answered with error 77 (new)",
         "UNINSTALL\tX\t0|"},
        {"--yes",
         {{"UNINSTALL\tX\t0", "STATUS\tRUNNING"}},
         4,
         "answered what was not expected: \"STATUS\xEF\xBF\xBD"
         "RUNNING\"",
         "UNINSTALL\tX\t0|"},
        {"--dry-run --delete-files",
         {},
         0,
         "\"X\" is running. Uninstalling would stop it, delete the folder of its program with all databases "
         "in it, "
         "and remove its service",
         ""},
        {"", {}, 2, "velmoctl: nobody can be asked without a terminal: add --yes", ""},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszOutput);
        CScriptedManager::Answers tAnswers = st.tAnswers;
        tAnswers.emplace_back("STATUS\tX", "STATUS\tRUNNING");
        CScriptedManager clManager(tAnswers);
        const STCommandResult stResult =
            stClient(clManager.csPort(), std::string("uninstall X ") + st.pszOptions);
        EXPECT_EQ(stResult.nStatus, st.nStatus);
        EXPECT_THAT(stResult.csOutput, HasSubstr(st.pszOutput));
        EXPECT_EQ(clManager.csAsked(), std::string("STATUS\tX|") + st.pszAsked);
    }
}

TEST(Client, ListAsksForAllStatesAtOnce)
{
    std::atomic<int> nAsking = 0;
    CScriptedServer clServer([&](CClientSide& clClient) {
        clClient.bSend(s_pszGreeting);
        for (std::string cs; !(cs = clClient.csLine()).empty();) {
            std::string csServers;
            for (int n = 0; n < 8; ++n) {
                csServers += "\ts" + std::to_string(n) + "\t49";
            }
            if (cs.starts_with("STATUS")) {
                ++nAsking;
                for (int n = 0; n < 1000 && nAsking < 8; ++n) { // no answer before all have asked
                    ::usleep(5000);
                }
            }
            clClient.bSend(cs == "MODE_UTF8"
                               ? "OK\r\n"
                               : (cs == "INFO" ? csHost(csServers) : "STATUS\tPAUSED") + "\r\n");
        }
    });
    const STCommandResult stResult = stClient(clServer.csPort(), "list --timeout 4");
    EXPECT_EQ(stResult.nStatus, 0) << stResult.csOutput;
    EXPECT_THAT(stResult.csOutput, HasSubstr("s7    49    paused\n"));
}

TEST(Client, AnAbsentSlowOrHostileManagerIsAClearErrorInTime)
{
    const auto fnGreets = [](CClientSide& cl) {
        cl.bSend(s_pszGreeting);
        cl.csLine();
        cl.bSend("OK\r\n");
        return cl.csLine();
    };
    const auto fnEndless = [](CClientSide& cl, const std::string& csBlock, int nPause) {
        while (cl.bSend(csBlock)) {
            ::usleep(static_cast<useconds_t>(nPause));
        }
    };
    const struct
    {
        const char* pszWhat;
        std::function<void(CClientSide&)> fnServe;
        int nStatus;
        const char* pszWords;
    } tCases[] = {
        {"says nothing", [](CClientSide& cl) { cl.WaitForEnd(); }, 3, "did not answer within 0.5 s"},
        {"hangs up", [](CClientSide&) {}, 4, "broke off without a reply"},
        {"is another server",
         [](CClientSide& cl) {
             cl.bSend("220 mail ready\r\n");
             cl.WaitForEnd();
         },
         4, "is not a manager"},
        {"greets in bytes", [](CClientSide& cl) { cl.bSend(std::string(64, '\0') + "\xFF\xFE\r\n"); }, 4,
         "is not a manager"},
        {"greets without end", [&](CClientSide& cl) { fnEndless(cl, std::string(65536, 'x'), 0); }, 4,
         "sends a line without an end"},
        {"drips", [&](CClientSide& cl) { fnEndless(cl, "H", 20'000); }, 3, "did not answer within 0.5 s"},
        {"answers silence",
         [&](CClientSide& cl) {
             fnGreets(cl);
             cl.WaitForEnd();
         },
         3, "did not answer within 0.5 s"},
        {"answers half",
         [&](CClientSide& cl) {
             fnGreets(cl);
             cl.bSend("STATUS\tRUN");
         },
         4, "broke off in a reply"},
        {"answers without end",
         [&](CClientSide& cl) {
             fnGreets(cl);
             fnEndless(cl, std::string(65536, '\r'), 0);
         },
         4, "sends a line without an end"},
        {"answers another question",
         [&](CClientSide& cl) {
             fnGreets(cl);
             cl.bSend("YES\t0\t\r\n");
         },
         4, "answered what was not expected: \"YES"},
        {"answers with terminal commands",
         [&](CClientSide& cl) {
             fnGreets(cl);
             cl.bSend("\033]0;owned\a\x9B" + std::string(4000, 'y') + "\r\n");
         },
         4, "\"\xEF\xBF\xBD]0;owned\xEF\xBF\xBD\xEF\xBF\xBDyyy"},
        {"knows no UTF-8",
         [](CClientSide& cl) {
             cl.bSend(s_pszGreeting);
             cl.csLine();
             cl.bSend("ERROR\t8\r\n");
             cl.WaitForEnd();
         },
         4, "answered what was not expected"},
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
    std::string csFreePort;
    {
        CScriptedServer clGone([](CClientSide&) {});
        csFreePort = clGone.csPort();
    }
    const STCommandResult stResult = stClient(csFreePort, "status X");
    EXPECT_EQ(stResult.nStatus, 3);
    EXPECT_EQ(stResult.csOutput, "velmoctl: no manager can be reached on this machine, port " + csFreePort +
                                     ": Connection refused\n");
}

TEST(Client, AListIsShownAsFarAsItCanBeHad)
{
    CScriptedServer clServer([](CClientSide& cl) {
        cl.bSend(s_pszGreeting);
        for (std::string cs; !(cs = cl.csLine()).empty();) {
            if (cs == "STATUS\tmute") {
                cl.WaitForEnd();
            }
            cl.bSend(cs == "INFO"           ? csHost("\tgood\t1\tmute\t2\tlost\t3\n") + "\r\n"
                     : cs == "MODE_UTF8"    ? "OK\r\n"
                     : cs == "STATUS\tgood" ? "STATUS\tRUNNING\r\n"
                                            : "ERROR\t1\r\n");
        }
    });
    const STCommandResult stResult = stClient(clServer.csPort(), "list --timeout 0.5");
    EXPECT_EQ(stResult.nStatus, 3);
    EXPECT_THAT(stResult.csOutput, HasSubstr("good  1     running\n"));
    EXPECT_THAT(stResult.csOutput, HasSubstr("mute  2     ?\n"));
    EXPECT_THAT(stResult.csOutput, HasSubstr("velmoctl: mute: the manager on this machine, port " +
                                             clServer.csPort() + " did not answer within 0.5 s\n"));
    EXPECT_THAT(stResult.csOutput, HasSubstr("velmoctl: lost: there is no server \"lost\"\n"));
}

TEST(Client, AManagerThatHasGoneSilentIsNotAskedOnAndOn)
{
    std::string csServers;
    for (int n = 0; n < 160; ++n) {
        csServers += "\tmute" + std::to_string(n) + "\t1";
    }
    CScriptedServer clServer([&](CClientSide& cl) {
        cl.bSend(s_pszGreeting);
        for (std::string cs; !(cs = cl.csLine()).empty() && !cs.starts_with("STATUS");) {
            cl.bSend(cs == "INFO" ? csHost(csServers) + "\r\n" : "OK\r\n");
        }
        cl.WaitForEnd();
    });
    const auto clStart = std::chrono::steady_clock::now();
    const STCommandResult stResult = stClient(clServer.csPort(), "list --timeout 0.5");
    EXPECT_LT(std::chrono::steady_clock::now() - clStart, std::chrono::seconds(3));
    EXPECT_EQ(stResult.nStatus, 3);
    EXPECT_THAT(stResult.csOutput, HasSubstr("velmoctl: mute159: not asked"));
}

TEST(Client, AManagerWhoseBytesComeOneByOneIsUnderstood)
{
    CScriptedServer clServer([](CClientSide& cl) {
        const auto fnSend = [&](std::string_view csLine) {
            for (; !csLine.empty(); csLine.remove_prefix(1)) {
                cl.bSend(csLine.substr(0, 1));
                ::usleep(1000);
            }
            return cl.csLine();
        };
        fnSend(s_pszGreeting);
        fnSend("OK\r\n");
        fnSend("STATUS\tRUNNING\r\n");
    });
    EXPECT_EQ(stClient(clServer.csPort(), "status X --timeout 5").csOutput, "running\n");
}

TEST(Client, ForgedAnswersToADiscoveryAreLeftOut)
{
    if (!bFreshNetwork()) { // questions go to every interface: there is only the loopback
        GTEST_SKIP() << "SKIPPED: needs root and network namespaces";
    }
    const CDescripteur clSocket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in st{};
    st.sin_family = AF_INET;
    st.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    st.sin_port = htons(4999);
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
                                 "127.0.0.1 (this machine)  24.0.6.0  Linux X  \xEF\xBF\xBD[2Jx:1\n");
    EXPECT_EQ(csQuestions, "ARE YOU A DEXARO MANAGER UTF-8?\r\nARE YOU A DEXARO MANAGER UTF-8?\r\n")
        << "twice";
}

TEST(Client, AWrongCommandLineIsToldAndNothingIsSent)
{
    CScriptedManager clManager(CScriptedManager::Answers{});
    const struct
    {
        const char* pszArguments;
        const char* pszWords;
    } tCases[] = {
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
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszArguments);
        const STCommandResult stResult = stClient(clManager.csPort(), st.pszArguments);
        EXPECT_EQ(stResult.nStatus, 2);
        EXPECT_THAT(stResult.csOutput, HasSubstr(st.pszWords));
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
