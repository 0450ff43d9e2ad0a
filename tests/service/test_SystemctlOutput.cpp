#include "service/ServiceName.h"
#include "service/SystemctlOutput.h"

#include <gtest/gtest.h>

namespace {
using TNames = std::vector<std::string>;

TNames tRead(std::string_view csOutput)
{
    TNames tNames;
    for (const std::string_view cs : tReadListing(csOutput)) {
        tNames.emplace_back(cs);
    }
    return tNames;
}
} // namespace

TEST(ListUnits, EveryFormOfAListingGivesTheUnits)
{
    const struct
    {
        const char* pszForm;
        const char* pszOutput;
        TNames tExpected;
    } tCases[] = {
        {"without marks, as before 246",
         "DXCS-a.service loaded active running A\nssh.service   loaded active running OpenSSH\n",
         {"DXCS-a", "ssh"}},
        {"a bullet without indentation, as in 219",
         "● DXCS-f.service loaded failed failed F\nDXCS-a.service loaded active running A\n",
         {"DXCS-f", "DXCS-a"}},
        {"two blanks before every line",
         "  DXCS-a.service loaded active   running A\n  DXCS-b.service loaded inactive dead    B\n",
         {"DXCS-a", "DXCS-b"}},
        {"every UTF-8 mark",
         "● DXCS-1.service not-found inactive dead 1\n○ DXCS-2.service masked inactive dead 2\n"
         "× DXCS-3.service loaded failed failed 3\n↻ DXCS-4.service loaded activating auto-restart 4\n",
         {"DXCS-1", "DXCS-2", "DXCS-3", "DXCS-4"}},
        {"the ASCII mark", "* DXCS-f.service loaded failed failed F\n", {"DXCS-f"}},
        {"escaped and template names",
         "  DXCS-Donn\\xc3\\xa9es.service loaded active running x\n  user@0.service l a r x\n",
         {"DXCS-Donn\\xc3\\xa9es", "user@0"}},
        {"a last line without line end",
         "  DXCS-a.service l a r x\n  DXCS-b.service l a r x",
         {"DXCS-a", "DXCS-b"}},
        {"lines that name no service",
         "\n  boot.mount loaded\n0 units listed.\n  DXCS-a.service x\n",
         {"DXCS-a"}},
        {"nothing", "", {}},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszForm);
        EXPECT_EQ(tRead(st.pszOutput), st.tExpected);
    }
    const std::string csLong(240, 'x');
    EXPECT_EQ(tRead("  DXCS-" + csLong + ".service loaded active running L\n"), TNames{"DXCS-" + csLong});
}

TEST(Show, TellsExistenceDescriptionAndCommandLine)
{
    const struct
    {
        const char* pszForm;
        const char* pszOutput;
        bool bExists;
        const char* pszDescription; ///< null: none
        const char* pszBinaryPath;
    } tCases[] = {
        {"a running unit",
         "Type=forking\nExecStart={ path=/opt/a/dx ; argv[]=/opt/a/dx --SERVICE DXCS-a ; ignore_errors=no ; "
         "pid=0 ; }\n"
         "Description=DXCS-a = first\n",
         true, "DXCS-a = first", "/opt/a/dx --SERVICE DXCS-a "},
        {"keys in any case and order", "DESCRIPTION=d\ntype=simple\n", true, "d", nullptr},
        {"a unit that does not exist", "Type=\nDescription=DXCS-x.service\n", false, "DXCS-x.service",
         nullptr},
        {"argv at the very start does not count", "Type=simple\nExecStart=argv[]=/x ;\n", true, nullptr,
         nullptr},
        {"no semicolon behind argv", "Type=simple\nExecStart={ argv[]=/x", true, nullptr, nullptr},
        {"lines without an equals sign", "nonsense\n\nType=dbus\n", true, nullptr, nullptr},
        {"nothing", "", false, nullptr, nullptr},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszForm);
        const stUnitShown stShown = stReadShow(st.pszOutput);
        EXPECT_EQ(stShown.bExists, st.bExists);
        EXPECT_EQ(stShown.csDescription, st.pszDescription != nullptr
                                             ? std::optional<std::string>(st.pszDescription)
                                             : std::nullopt);
        EXPECT_EQ(stShown.csBinaryPath,
                  st.pszBinaryPath != nullptr ? std::optional<std::string>(st.pszBinaryPath) : std::nullopt);
    }
}

TEST(Show, APropertyIsAllBehindTheFirstEqualsSignLessTheLineEnd)
{
    EXPECT_EQ(csReadProperty("ActiveState=active\n"), "active");
    EXPECT_EQ(csReadProperty("P=a=b\n"), "a=b");
    EXPECT_EQ(csReadProperty("P=\n"), "");
    EXPECT_EQ(csReadProperty("P="), "");
    EXPECT_EQ(csReadProperty("no property"), "");
}

TEST(UnitName, ToolsTextIsOneHarmlessArgumentOrNoService)
{
    const struct
    {
        const wchar_t* pszName;
        const wchar_t* pszUnit; ///< null: names no service
    } tCases[] = {
        {L"DXCS-a", L"DXCS-a"},
        {L"DXCS-Velmo_20261121 083000", L"DXCS-Velmo_20261121_083000"},
        {L"DXCS-a\tb", L"DXCS-a__b"},
        {L"DXCS-x -Hhost", L"DXCS-x_-Hhost"}, // the blank is gone, so no word begins with the dash
        {L"DXCS-x;y|z", L"DXCS-x;y|z"},
        {L"DXCS-x;-Hhost", nullptr},
        {L"DXCS-x|--root=/", nullptr},
        {L"-Hhost", nullptr},
        {L"DXCS-bu*", nullptr},
        {L"DXCS-b?", nullptr},
        {L"DXCS-[ab]", nullptr},
        {L"DXCS-a\"b", nullptr},
        {L"DXCS-a\nb", nullptr},
        {L"DXCS-a\rb", nullptr},
        {L"DXCS-a\x7f", nullptr},
        {L"DXCS-a\x85", nullptr},
        {L"DXCS-Donn\u00e9es \u20ac", L"DXCS-Donn\u00e9es_\u20ac"},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(::testing::PrintToString(std::wstring(st.pszName)));
        std::wstring csUnit;
        EXPECT_EQ(bUnitName(st.pszName, &csUnit), st.pszUnit != nullptr);
        EXPECT_EQ(csUnit, st.pszUnit != nullptr ? st.pszUnit : L"");
    }
    std::wstring csUnit;
    EXPECT_TRUE(bUnitName(std::wstring(247, L'x'),
                          &csUnit)); // with ".service" the 255 bytes that a unit name can have
    EXPECT_FALSE(bUnitName(std::wstring(248, L'x'), &csUnit));
    EXPECT_FALSE(bUnitName(std::wstring(124, L'\u00e9'), &csUnit));
    EXPECT_FALSE(bUnitName(std::wstring(L"a\0b", 3), &csUnit));
}

TEST(UnitName, FilesAndListingsHoldCharactersBeyondAsciiAsEscapes)
{
    EXPECT_EQ(csUnitFileName(L"DXCS-Donn\u00e9es;x"), L"DXCS-Donn\\xc3\\xa9es\\x3bx");
    EXPECT_EQ(csUnitFromListing("DXCS-Donn\\xc3\\xa9es"), L"DXCS-Donn\u00e9es");
    EXPECT_EQ(csUnitFromListing("a\\x2db\\xzz\\x"), L"a\\x2db\\xzz\\x"); // ASCII escapes belong to the name
}

TEST(ScriptName, FourCharactersAreSubstituted)
{
    EXPECT_EQ(csScriptName(L"DXCS-my.base a/b\tc"), L"DXCS-my-base_a-b__c");
}
