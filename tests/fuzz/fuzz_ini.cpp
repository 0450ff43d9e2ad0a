#include "../config/ProfileProgram.h"
#include "tools/TempDir.h"

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pBytes, std::size_t nBytes)
{
    const CTempDir clDirectory; // not static: the fuzzer ends without destructors
    const std::string csDifference = CProfileProgram(pBytes, nBytes, clDirectory.csPath("fuzz.ini")).csRun();
    if (!csDifference.empty()) {
        std::fprintf(stderr, "%s\n", csDifference.c_str());
        std::abort();
    }
    return 0;
}
