#include "manager/PingEcho.h"

#include <gtest/gtest.h>
#include <string>
#include <utility>

using namespace std::string_literals;

TEST(PingEcho, ADatagramIsAQuestionWhenAQuestionBeginsWithIt)
{
    const std::pair<std::string, EPingForm> tCases[] = {
        {"ARE YOU A DEXARO SERVER SETUP?\r\n", EPingForm::SYSTEM},
        {"ARE YOU A DEXARO SERVER SETUP?\r\n\0"s, EPingForm::SYSTEM},
        {"ARE YOU A DEXARO SERVER SETUP?\r\n\0\0"s, EPingForm::NONE},
        {"ARE YOU A DEXARO S", EPingForm::SYSTEM},
        {"ARE YOU A DEXARO MANAGER UTF-8?\r\n!", EPingForm::NONE},
        {"ARE YOU A DEXARO ", EPingForm::UTF8},
        {"", EPingForm::UTF8},
        {"are you a dexaro", EPingForm::NONE},
    };
    for (const auto& [csDatagram, eForm] : tCases) {
        EXPECT_EQ(eReadPing(csDatagram), eForm) << csDatagram;
    }
}

TEST(PingEcho, AListThatIsTooLongLosesWholeServers)
{
    constexpr const char* pszTwo = "\tA\t1\tBB\t22";
    const std::pair<std::size_t, const char*> tCases[] = {
        {10, pszTwo}, {9, "\tA\t1"}, {4, "\tA\t1"}, {3, ""}};
    for (const auto& [nMax, pszFitting] : tCases) {
        EXPECT_EQ(csFittingServers(pszTwo, nMax), pszFitting) << nMax;
    }
    EXPECT_EQ(csFittingServers("\t\t1\t\t2", 5), "\t\t1") << "empty names";
}
