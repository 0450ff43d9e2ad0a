#include "service/SystemctlOutput.h"

#include <benchmark/benchmark.h>
#include <cstdint>

namespace {
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

/// The argument: how many properties stand around the three that are looked for.
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
