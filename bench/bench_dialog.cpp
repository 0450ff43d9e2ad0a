#include "manager/Dialog.h"

#include <benchmark/benchmark.h>
#include <cstdint>
#include <memory>
#include <sys/socket.h>
#include <unistd.h>

namespace {
/// A conversation without a thread, whose other end is ours.
class CPair
{
public:
    CPair()
    {
        int tFd[2] = {-1, -1};
        (void)::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, tFd);
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

/// Line search and decoding; two system calls are in it.
void ReadCommandLine(benchmark::State& clState)
{
    const CPair clPair;
    const std::string csLine =
        "STATUS\t" + std::string(static_cast<std::size_t>(clState.range(0)), 'a') + "\r\n";
    CTString csKeyword;
    for (auto _ : clState) {
        (void)::send(clPair.nTool(), csLine.data(), csLine.size(), MSG_NOSIGNAL);
        if (!clPair.clDialog().bGetCommand(&csKeyword)) {
            clState.SkipWithError("no command");
        }
    }
    clState.SetBytesProcessed(clState.iterations() * static_cast<std::int64_t>(csLine.size()));
}
BENCHMARK(ReadCommandLine)->RangeMultiplier(10)->Range(10, 100000);

/// Dispatch: a whole conversation on this thread, whose only command ends it; socket pair and object
/// included.
void Converse(benchmark::State& clState)
{
    for (auto _ : clState) {
        const CPair clPair;
        (void)::send(clPair.nTool(), "QUIT\r\n", 6, MSG_NOSIGNAL);
        clPair.clDialog()._WaitForCommande();
    }
}
BENCHMARK(Converse);
} // namespace
