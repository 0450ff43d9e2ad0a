// The built manager while one call of one function fails, or falls short, once; for every function, swept
// over the calls that a start, a conversation, a ping, a registration and a stop make. It may refuse, never
// more. VELMO_FAULT_TURNS is how many calls of a function are swept (evenly spread); "all" takes every one.
// To look into a failed one: VELMO_FAULT_TURN=<its number> VELMO_FAULT_TRACE=1.

#include "ManagerWorld.h"
#include "support/Descripteur.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <set>
#include <sys/wait.h>
#include <unistd.h>

namespace {
struct STFault
{
    const char* pszFunction;
    const char* pszWhat; ///< shown with the test
    int nErrno;          ///< 0: falls short
};

/// What the library in the manager tells: the calls so far, and the fault's turn once it has come.
class CReportFile
{
public:
    CReportFile() : m_clFile(::open(Path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600))
    {
        (void)!::ftruncate(m_clFile.nFd(), 2 * sizeof(unsigned int));
    }
    unsigned int nCalls() const { return _nRead(0); }
    unsigned int nFired() const { return _nRead(1); }
    static constexpr char Path[] = "/tmp/faults.report";

private:
    unsigned int _nRead(int nIndex) const
    {
        unsigned int n = 0;
        (void)!::pread(m_clFile.nFd(), &n, sizeof n, nIndex * static_cast<off_t>(sizeof n));
        return n;
    }
    CDescripteur m_clFile;
};

/// One manager's life with one fault; empty when it was as it has to be. *pnCalls is set to the calls of the
/// function until the first questions were through.
std::string csLive(const STFault& st, unsigned int nTurn, unsigned int* pnCalls)
{
    CManagerWorld::Reset();
    const CReportFile clReport;
    const std::string csWhat = st.nErrno == 0 ? "short" : std::to_string(st.nErrno);
    CManagerRun clManager(
        {"LD_PRELOAD=/run/velmo/libvelmofaults.so",
         "VELMO_FAULT=" + std::string(st.pszFunction) + " " + std::to_string(nTurn) + " " + csWhat,
         std::string("VELMO_FAULT_REPORT=") + CReportFile::Path});
    std::string csAll;
    if (clManager.bAnswers()) {
        const bool bAtStart = clReport.nFired() != 0;
        const STFigures stBefore = clManager.stSettled({0, 0, 0, 0}, 20);
        (void)csPlay(false);
        const bool bFired = clReport.nFired() != 0;
        *pnCalls = clReport.nCalls();
        // A fault at the start may have left it without systemd or a port; after any other one all is as
        // before.
        const bool bAllRight = !bAtStart && (bFired || nTurn == 0);
        if (const std::string cs = csPlay(bAllRight); bAllRight) {
            csAll += cs;
        }
        const STFigures stAfter = clManager.stSettled(stBefore);
        if (stAfter.nDescriptors > stBefore.nDescriptors || stAfter.nThreads > stBefore.nThreads ||
            stAfter.nChildren > 0) {
            csAll += "left: " + std::to_string(stAfter.nDescriptors - stBefore.nDescriptors) +
                     " descriptors, " + std::to_string(stAfter.nThreads - stBefore.nThreads) + " threads, " +
                     std::to_string(stAfter.nChildren) + " children\n";
        }
        if (clManager.csStop() != "exit 0") {
            csAll += "stop: " + clManager.csStop(0) + "\n";
        }
    } else if (const std::string csEnd = clManager.csStop(); !csEnd.starts_with("exit ")) {
        csAll += "refused start: " + csEnd + "\n";
    }
    return csAll + CManagerWorld::csDamage();
}

/// The turns to be swept: evenly spread over the calls, or the one that VELMO_FAULT_TURN tells.
std::set<unsigned int> tTurns(unsigned int nCalls)
{
    if (const char* pszOne = std::getenv("VELMO_FAULT_TURN"); pszOne != nullptr) {
        return {static_cast<unsigned int>(std::stoul(pszOne))};
    }
    const char* pszTurns = std::getenv("VELMO_FAULT_TURNS");
    const std::string csTurns = pszTurns != nullptr ? pszTurns : "8";
    const unsigned int nTurns =
        csTurns == "all" ? nCalls : std::min(nCalls, static_cast<unsigned int>(std::stoul(csTurns)));
    std::set<unsigned int> tSet;
    for (unsigned int n = 0; n < nTurns; ++n) {
        tSet.insert(1 + n * nCalls / nTurns);
    }
    return tSet;
}

/// All turns of a fault.
std::string csSweep(const STFault& st)
{
    static const CManagerWorld s_clWorld;
    unsigned int nCalls = 0;
    std::string csAll = csLive(st, 0, &nCalls);
    if (!csAll.empty() || nCalls == 0) {
        return "without a fault: " + csAll + (nCalls == 0 ? "the function is never called\n" : "");
    }
    const std::set<unsigned int> tSwept = tTurns(nCalls);
    for (const unsigned int nTurn : tSwept) {
        unsigned int nIgnored = 0;
        if (const std::string cs = csLive(st, nTurn, &nIgnored); !cs.empty()) {
            csAll += "call " + std::to_string(nTurn) + " of " + std::to_string(nCalls) + ": " + cs;
        }
    }
    std::printf("%s %s: %zu of %u calls\n", st.pszFunction, st.pszWhat, tSwept.size(), nCalls);
    return csAll;
}

class Faults : public ::testing::TestWithParam<STFault>
{};
} // namespace

TEST_P(Faults, OneFailedCallCostsAtMostTheRequestThatNeededIt)
{
    REQUIRE_PRIVATE_WORLD();
    EXPECT_EQ(csSweep(GetParam()), "");
}

INSTANTIATE_TEST_SUITE_P(
    Every, Faults,
    ::testing::Values(
        STFault{"clone", "EAGAIN", EAGAIN}, STFault{"pipe2", "EMFILE", EMFILE},
        STFault{"open", "EMFILE", EMFILE}, STFault{"accept4", "EMFILE", EMFILE},
        STFault{"accept4", "ECONNABORTED", ECONNABORTED}, STFault{"malloc", "ENOMEM", ENOMEM},
        STFault{"calloc", "ENOMEM", ENOMEM}, STFault{"pthread_create", "EAGAIN", EAGAIN},
        STFault{"read", "EIO", EIO}, STFault{"read", "EINTR", EINTR}, STFault{"read", "Short", 0},
        STFault{"write", "ENOSPC", ENOSPC}, STFault{"write", "Short", 0}, STFault{"pwrite", "ENOSPC", ENOSPC},
        STFault{"pwrite", "Short", 0}, STFault{"pread", "EIO", EIO}, STFault{"pread", "Short", 0},
        STFault{"recv", "EINTR", EINTR}, STFault{"recv", "ECONNRESET", ECONNRESET},
        STFault{"recv", "Short", 0}, STFault{"send", "EPIPE", EPIPE}, STFault{"recvmsg", "ENOMEM", ENOMEM},
        STFault{"sendmsg", "ENOBUFS", ENOBUFS}, STFault{"getaddrinfo", "MEMORY", EAI_MEMORY},
        STFault{"socket", "EMFILE", EMFILE}, STFault{"bind", "EADDRINUSE", EADDRINUSE},
        STFault{"listen", "EADDRINUSE", EADDRINUSE}, STFault{"setsockopt", "ENOPROTOOPT", ENOPROTOOPT},
        STFault{"select", "ENOMEM", ENOMEM}, STFault{"select", "EINTR", EINTR},
        STFault{"mkfifo", "ENOSPC", ENOSPC}, STFault{"access", "EACCES", EACCES},
        STFault{"stat", "EACCES", EACCES}, STFault{"fstat", "EIO", EIO}, STFault{"dlopen", "ENOMEM", ENOMEM}),
    [](const auto& st) { return std::string(st.param.pszFunction) + "_" + st.param.pszWhat; });
