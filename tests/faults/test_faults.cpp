// The built manager while one call of one function fails, or falls short, once; for every function, swept
// over the calls that a start, a conversation, a ping, a registration and a stop make. It may refuse, never
// more. VELMO_FAULT_TURNS is how many calls of a function are swept (evenly spread); "all" takes every one.
// VELMO_FAULT_TURN=<its number> repeats a failed one.

#include "ManagerWorld.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <netdb.h>
#include <set>
#include <unistd.h>

namespace {
struct STFault
{
    std::string csFunction;
    int nError; ///< 0: falls short
};

/// What the library in the manager writes into a file.
struct STReport
{
    unsigned int nCalls = 0; ///< so far
    unsigned int nFired = 0; ///< the fault's turn, once it has come
};
constexpr char s_szReport[] = "/tmp/faults.report";

STReport stReadReport()
{
    STReport st;
    std::ifstream(s_szReport).read(reinterpret_cast<char*>(&st), sizeof st);
    return st;
}

/// One manager's life with one fault (turn 0: none); returns the calls of the function until the first
/// questions were through.
unsigned int nLive(const STFault& st, unsigned int nTurn)
{
    CManagerWorld::Reset();
    std::ofstream(s_szReport).write("\0\0\0\0\0\0\0\0", sizeof(STReport));
    CManagerRun clManager("env LD_PRELOAD=/run/velmo/libvelmofaults.so VELMO_FAULT='" + st.csFunction + " " +
                          std::to_string(nTurn) + " " + std::to_string(st.nError) +
                          "' VELMO_FAULT_REPORT=" + s_szReport + " ");
    STReport stPlayed;
    if (clManager.bAnswers()) {
        const bool bAtStart = stReadReport().nFired != 0;
        ::usleep(20'000); // the last thread is on its way
        const STFigures stBefore = stFiguresOf(clManager.nPid());
        (void)csPlay(false);
        stPlayed = stReadReport();
        // A fault at the start may have left it without systemd or a port; after any other one all is as
        // before.
        const bool bAllRight = !bAtStart && (stPlayed.nFired != 0 || nTurn == 0);
        const std::string csWrong = csPlay(bAllRight);
        EXPECT_TRUE(!bAllRight || csWrong.empty()) << csWrong;
        ExpectNothingLeft(clManager.nPid(), stBefore);
        EXPECT_EQ(clManager.nStop(), 0);
    } else {
        const int nEnd = clManager.nStop();
        EXPECT_TRUE(nEnd == 0 || nEnd == 255) << nEnd;
    }
    EXPECT_EQ(CManagerWorld::csDamage(), "");
    return stPlayed.nCalls;
}

/// The turns to be swept: evenly spread over the calls, or the one that VELMO_FAULT_TURN tells.
std::set<unsigned int> tTurns(unsigned int nCalls)
{
    const auto nSetting = [](const char* pszName, unsigned int nDefault) {
        const char* psz = std::getenv(pszName);
        return psz == nullptr              ? nDefault
               : psz == std::string("all") ? ~0u
                                           : static_cast<unsigned int>(std::stoul(psz));
    };
    if (const unsigned int nOne = nSetting("VELMO_FAULT_TURN", 0); nOne != 0) {
        return {nOne};
    }

    const unsigned int nTurns = std::min(nCalls, nSetting("VELMO_FAULT_TURNS", 8));
    std::set<unsigned int> tSet;
    for (unsigned int n = 0; n < nTurns; ++n) {
        tSet.insert(1 + n * nCalls / nTurns);
    }
    return tSet;
}

/// "open_TooManyOpenFiles", "read_Short"; the resolver's errors are negative. EMFILE and the like have names
/// only in newer C libraries than the oldest release's.
std::string csName(const STFault& st)
{
    if (st.nError <= 0) {
        return st.csFunction + (st.nError == 0 ? "_Short" : "_Resolver");
    }
    std::string cs = st.csFunction + "_";
    bool bBegin = true; // of a word
    for (const char c : std::string(std::strerror(st.nError))) {
        if (std::isalnum(static_cast<unsigned char>(c)) != 0) {
            cs += static_cast<char>(bBegin ? std::toupper(c) : c);
        }
        bBegin = c == ' ';
    }
    return cs;
}

class Faults : public ::testing::TestWithParam<STFault>
{};
} // namespace

TEST_P(Faults, OneFailedCallCostsAtMostTheRequestThatNeededIt)
{
    REQUIRE_PRIVATE_WORLD();
    const CManagerWorld clWorld;
    const unsigned int nCalls = nLive(GetParam(), 0);
    ASSERT_TRUE(nCalls > 0 && !HasFailure()) << "without a fault";
    const std::set<unsigned int> tSwept = tTurns(nCalls);
    for (const unsigned int nTurn : tSwept) {
        SCOPED_TRACE("call " + std::to_string(nTurn) + " of " + std::to_string(nCalls));
        (void)nLive(GetParam(), nTurn);
    }
    std::printf("%zu of %u calls\n", tSwept.size(), nCalls);
}

INSTANTIATE_TEST_SUITE_P(
    Every, Faults,
    ::testing::Values(STFault{"clone", EAGAIN}, STFault{"pipe2", EMFILE}, STFault{"open", EMFILE},
                      STFault{"openat", EMFILE}, STFault{"accept4", EMFILE}, STFault{"accept4", ECONNABORTED},
                      STFault{"malloc", ENOMEM}, STFault{"calloc", ENOMEM}, STFault{"pthread_create", EAGAIN},
                      STFault{"read", EIO}, STFault{"read", EINTR}, STFault{"read", 0},
                      STFault{"write", ENOSPC}, STFault{"write", 0}, STFault{"pwrite", ENOSPC},
                      STFault{"pwrite", 0}, STFault{"pread", EIO}, STFault{"pread", 0},
                      STFault{"recv", EINTR}, STFault{"recv", ECONNRESET}, STFault{"recv", 0},
                      STFault{"send", EPIPE}, STFault{"recvmsg", ENOMEM}, STFault{"sendmsg", ENOBUFS},
                      STFault{"getaddrinfo", EAI_MEMORY}, STFault{"socket", EMFILE},
                      STFault{"bind", EADDRINUSE}, STFault{"listen", EADDRINUSE},
                      STFault{"setsockopt", ENOPROTOOPT}, STFault{"select", ENOMEM}, STFault{"select", EINTR},
                      STFault{"mkfifo", ENOSPC}, STFault{"access", EACCES}, STFault{"stat", EACCES},
                      STFault{"fstat", EIO}, STFault{"dlopen", ENOMEM}),
    [](const auto& st) { return csName(st.param); });
