#include "ProfileProgram.h"
#include "tools/TempDir.h"

#include <gtest/gtest.h>
#include <random>

TEST(ProfileStore, DoesWhatTheModelDoesOnThousandsOfFiles)
{
    const CTempDir clDirectory;
    const std::string csPath = clDirectory.csPath("fuzz.ini");
    std::vector<std::uint8_t> tBytes(160);
    for (unsigned int nSeed = 1; nSeed <= 6000; ++nSeed) {
        std::mt19937 clRandom(nSeed);
        for (std::uint8_t& n : tBytes) {
            n = static_cast<std::uint8_t>(clRandom());
        }
        ASSERT_EQ(CProfileProgram(tBytes.data(), tBytes.size(), csPath).csRun(), "") << "seed " << nSeed;
    }
}
