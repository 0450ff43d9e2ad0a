// Main program of a target without the fuzzer: runs it over the files of its corpus, each also cut short.

#include "Target.h"

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <vector>

TEST(Fuzz, TheCorpusHoldsNoSurprise)
{
    int nFiles = 0;
    for (const auto& clFile : std::filesystem::directory_iterator(VELMO_CORPUS)) {
        SCOPED_TRACE(clFile.path().string());
        std::ifstream clText(clFile.path(), std::ios::binary);
        const std::vector<char> tBytes(std::istreambuf_iterator<char>(clText), {});
        const auto* const pBytes = reinterpret_cast<const std::uint8_t*>(tBytes.data());
        for (std::size_t nCut = 0; nCut <= tBytes.size(); nCut += 1 + tBytes.size() / 200) {
            const std::vector<std::uint8_t> tExact(pBytes, pBytes + nCut); // its end is the end of the memory
            EXPECT_EQ(LLVMFuzzerTestOneInput(tExact.data(), nCut), 0);
        }
        EXPECT_EQ(LLVMFuzzerTestOneInput(pBytes, tBytes.size()), 0);
        ++nFiles;
    }
    EXPECT_GT(nFiles, 1);
}
