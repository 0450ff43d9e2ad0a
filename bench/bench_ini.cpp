#include "config/WinApi.h"
#include "support/Conversion.h"
#include "tools/TempDir.h"

#include <array>
#include <benchmark/benchmark.h>
#include <string>

namespace {
/// A settings file of at least nLines lines and nBytes bytes, with [INIT] Name in its last line.
class CFile
{
public:
    CFile(std::size_t nLines, std::size_t nBytes)
    {
        std::string csBytes = "[FIRST]\nName = 0\n[INIT]\n";
        for (std::size_t n = 4; n < nLines || csBytes.size() < nBytes; ++n) {
            csBytes += "Setting" + std::to_string(n) + " = some value\n";
        }
        m_clDirectory.csWrite("a.ini", csBytes + "Name = x\n");
    }
    std::wstring csPath() const { return m_clDirectory.csWidePath("a.ini"); }

private:
    CTempDir m_clDirectory;
};

void ReadLastKey(benchmark::State& clState)
{
    const CFile clFile(static_cast<std::size_t>(clState.range(0)),
                       static_cast<std::size_t>(clState.range(1)));
    const std::wstring csPath = clFile.csPath();
    std::array<wchar_t, 100> tBuffer{};

    for (auto _ : clState) {
        benchmark::DoNotOptimize(
            GetPrivateProfileString(L"INIT", L"Name", L"", tBuffer.data(), tBuffer.size(), csPath.c_str()));
    }

    if (tBuffer[0] != L'x') {
        clState.SkipWithError("the key was not read");
    }
}
BENCHMARK(ReadLastKey)->Args({200, 0})->Unit(benchmark::kMicrosecond);
BENCHMARK(ReadLastKey)->Args({0, 10 << 20})->Unit(benchmark::kMillisecond);

/// The first key of the file alternately grows and shrinks, so that all that follows is moved. The caches are
/// warm: a single rewrite of a large file takes several times as long.
void RewriteFirstKey(benchmark::State& clState)
{
    const CFile clFile(static_cast<std::size_t>(clState.range(0)),
                       static_cast<std::size_t>(clState.range(1)));
    const std::wstring csPath = clFile.csPath();
    bool bLong = false;

    for (auto _ : clState) {
        bLong = !bLong;
        if (WritePrivateProfileString(L"FIRST", L"Name", bLong ? L"longer" : L"s", csPath.c_str()) == 0) {
            clState.SkipWithError("the key was not written");
        }
    }
}
BENCHMARK(RewriteFirstKey)->Args({200, 0})->Unit(benchmark::kMicrosecond);
BENCHMARK(RewriteFirstKey)->Args({0, 10 << 20})->Unit(benchmark::kMillisecond);
} // namespace
