#include "support/accesdllres.h"
#include "support/Conversion.h"

#include <benchmark/benchmark.h>
#include <cstdint>
#include <string>

namespace {
/// Mostly ASCII with an accented letter in every tenth place, like the texts on the wire.
std::wstring csText(std::int64_t nCharacters)
{
    std::wstring cs(static_cast<std::size_t>(nCharacters), L'a');
    for (std::size_t n = 9; n < cs.size(); n += 10) {
        cs[n] = L'\xE9';
    }
    return cs;
}

void ToWide(benchmark::State& clState, ECodePage eCodePage)
{
    const std::string csBytes = csNarrow(csText(clState.range(0)), eCodePage);
    for (auto _ : clState) {
        benchmark::DoNotOptimize(csWide(csBytes, eCodePage));
    }
    clState.SetBytesProcessed(clState.iterations() * static_cast<std::int64_t>(csBytes.size()));
}
BENCHMARK_CAPTURE(ToWide, 1252, CP_1252)->RangeMultiplier(10)->Range(10, 10000);
BENCHMARK_CAPTURE(ToWide, UTF8, CP_UTF8)->RangeMultiplier(10)->Range(10, 10000);

void ToNarrow(benchmark::State& clState, ECodePage eCodePage)
{
    const std::wstring cs = csText(clState.range(0));
    for (auto _ : clState) {
        benchmark::DoNotOptimize(csNarrow(cs, eCodePage));
    }
    clState.SetItemsProcessed(clState.iterations() * clState.range(0));
}
BENCHMARK_CAPTURE(ToNarrow, 1252, CP_1252)->RangeMultiplier(10)->Range(10, 10000);
BENCHMARK_CAPTURE(ToNarrow, UTF8, CP_UTF8)->RangeMultiplier(10)->Range(10, 10000);

void LookupMessage(benchmark::State& clState)
{
    CTString csMessage;
    for (auto _ : clState) {
        if (!DLLRES_bLoadString(g_stMyModule, 25627, &csMessage)) {
            clState.SkipWithError("no such message");
        }
    }
}
BENCHMARK(LookupMessage);

void LookupAndFormatMessage(benchmark::State& clState)
{
    CTString csMessage;
    for (auto _ : clState) {
        if (!DLLRES_bFormatMessage(&g_stMyModule, 25627, &csMessage, 4999u)) {
            clState.SkipWithError("no such message");
        }
    }
}
BENCHMARK(LookupAndFormatMessage);
} // namespace
