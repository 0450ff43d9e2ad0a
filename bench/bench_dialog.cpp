#include "manager/Dialog.h"

#include <benchmark/benchmark.h>
#include <cstdint>
#include <memory>
#include <sys/socket.h>
#include <tuple>
#include <unistd.h>

namespace {
/// A conversation that no thread serves, and its other end.
class CPair
{
public:
    CPair()
    {
        int tFd[2] = {-1, -1};
        std::ignore =
            ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, tFd); // without it no command arrives
        m_clTool = CDescripteur(tFd[0]);
        m_pclDialog = std::make_unique<CDialog>(CDescripteur(tFd[1]));
    }
    CPair(const CPair&) = delete;
    CPair& operator=(const CPair&) = delete;
    CDialog& clDialog() const { return *m_pclDialog; }
    int nTool() const { return m_clTool.nFd(); }

private:
    CDescripteur m_clTool;
    std::unique_ptr<CDialog> m_pclDialog;
};

/// Finding and decoding one line. The time includes two system calls.
void ReadCommandLine(benchmark::State& clState)
{
    const CPair clPair;
    const std::string csLine =
        "STATUS\t" + std::string(static_cast<std::size_t>(clState.range(0)), 'a') + "\r\n";
    CTString csKeyword;

    for (auto _ : clState) {
        std::ignore = ::send(clPair.nTool(), csLine.data(), csLine.size(), MSG_NOSIGNAL);
        if (!clPair.clDialog().bGetCommand(&csKeyword)) {
            clState.SkipWithError("no command");
        }
    }

    clState.SetBytesProcessed(clState.iterations() * static_cast<std::int64_t>(csLine.size()));
}
BENCHMARK(ReadCommandLine)->RangeMultiplier(10)->Range(10, 100000);

/// A whole conversation on this thread, whose only command ends it. The time includes the socket pair and the
/// object.
void Converse(benchmark::State& clState)
{
    for (auto _ : clState) {
        const CPair clPair;
        std::ignore = ::send(clPair.nTool(), "QUIT\r\n", 6, MSG_NOSIGNAL);
        clPair.clDialog()._WaitForCommande();
    }
}
BENCHMARK(Converse);
} // namespace
