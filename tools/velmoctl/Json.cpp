#include "velmoctl/Json.h"

#include "support/Conversion.h"
#include "velmoctl/Terminal.h"

#include <array>
#include <cstdio>

std::string csJsonLine(const Json& clValue)
{
    std::string cs;
    // The library escapes ASCII control characters. The other harmful ones occur inside texts only, where an
    // escape may stand.
    for (const wchar_t c : csFromUTF8(clValue.dump(-1, ' ', false, Json::error_handler_t::replace))) {
        if (!bHarmful(c)) {
            cs += csToUTF8({&c, 1});
            continue;
        }

        // Every harmful character has at most four hexadecimal digits; the mask tells the compiler so.
        std::array<char, 8> szEscape{};
        std::snprintf(szEscape.data(), szEscape.size(), "\\u%04x", static_cast<unsigned int>(c) & 0xFFFF);
        cs += szEscape.data();
    }

    return cs + "\n";
}

Json clJsonPort(const std::string& csText)
{
    constexpr std::size_t nSafeDigits = 15; // many readers keep numbers as doubles, exact up to 2^53
    const bool bNumber = !csText.empty() && csText.size() <= nSafeDigits &&
                         csText.find_first_not_of("0123456789") == std::string::npos &&
                         (csText.size() == 1 || csText[0] != '0');
    return bNumber ? Json(std::stoll(csText)) : Json(csText);
}

Json clJsonFailure(const CFailure& clFailure)
{
    return {{"kind", pszKind(clFailure.eExit())},
            {"status", static_cast<int>(clFailure.eExit())},
            {"text", clFailure.what()}};
}
