#include "service/SystemctlOutput.h"

#include <benchmark/benchmark.h>
#include <cstdint>

namespace {
/// The output of "systemctl list-units" for so many servers.
void ReadListing(benchmark::State& clState)
{
    std::string csOutput;
    for (std::int64_t n = 0; n < clState.range(0); ++n) {
        csOutput += "  DXCS-Server" + std::to_string(n) + ".service   loaded active running DXCS-Server\n";
    }

    for (auto _ : clState) {
        if (tReadListing(csOutput).size() != static_cast<std::size_t>(clState.range(0))) {
            clState.SkipWithError("units are missing");
        }
    }

    clState.SetItemsProcessed(clState.iterations() * clState.range(0));
}
BENCHMARK(ReadListing)->Arg(10)->Arg(100)->Arg(1000)->Arg(10000);

/// The output of "systemctl show". The argument is the number of properties beside the three that are needed.
void ReadShow(benchmark::State& clState)
{
    std::string csOutput = "Type=forking\n";
    for (std::int64_t n = 0; n < clState.range(0); ++n) {
        csOutput += "SomeProperty=some value of it\n";
    }
    csOutput += "Description=A server\nExecStart={ path=/opt/a ; argv[]=/opt/a --SERVICE A ; status=0 }\n";

    for (auto _ : clState) {
        if (!stReadShow(csOutput).csBinaryPath) {
            clState.SkipWithError("no command line");
        }
    }
}
BENCHMARK(ReadShow)->Arg(0)->Arg(100);
} // namespace
