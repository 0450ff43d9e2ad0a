#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

/// What every fuzz target shares. A target is the one function below; libFuzzer calls it with bytes of its
/// own making, the ordinary test with the files of corpus/<target>/.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pBytes, std::size_t nBytes);

inline std::string_view csInput(const std::uint8_t* pBytes, std::size_t nBytes)
{
    return {reinterpret_cast<const char*>(pBytes), nBytes};
}

/// What must hold for every input.
inline void Require(bool bHolds)
{
    if (!bHolds) {
        std::abort();
    }
}
