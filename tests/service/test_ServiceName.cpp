// The forms of a service's name and of its program, without any tool: what systemd itself makes of them is
// asked in the machine.

#include "service/CommandLine.h"
#include "service/ServiceManagerUnix.h"
#include "service/ServiceName.h"
#include "service/UnitFile.h"

#include <gtest/gtest.h>

namespace {
class ServiceName : public ::testing::Test
{
protected:
    void SetUp() override { CServiceManager::ms_eDistri = DISTRI_SYSTEMD; }
    void TearDown() override { CServiceManager::ms_eDistri = DISTRI_UNKNOWN; }
    static CServiceName clSaid(const std::wstring& cs) { return CServiceName::s_clSaid(cs.c_str()); }
};
} // namespace

TEST_F(ServiceName, WhatIsSaidIsAskedInOneWordAndListedAgainAsItWas)
{
    const struct
    {
        const wchar_t* pszSaid;
        const wchar_t* pszRegistry;
        const char* pszAsked;
    } tCases[] = {
        {L"DXCS-Velmo_20261121 083000", L"DXCS-Velmo_20261121_083000", "DXCS-Velmo_20261121_083000"},
        {L"DXCS-R&D", L"DXCS-R&D", "DXCS-R\\x26D"},
        {L"DXCS-a=b!]", L"DXCS-a=b!]", "DXCS-a\\x3db\\x21\\x5d"},
        {L"DXCS-e@", L"DXCS-e@", "DXCS-e\\x40"},
        {L"DXCS-a@@", L"DXCS-a@@", "DXCS-a@@"}, // an instance, which systemd takes as it is
        {L"DXCS-Données €", L"DXCS-Données_€", "DXCS-Donn\\xc3\\xa9es_\\xe2\\x82\\xac"},
        {L"DXCS-x;y|z", L"DXCS-x;y|z", "DXCS-x\\x3by\\x7cz"},
        {L"DXCS-a\\b", L"DXCS-a\\b", "DXCS-a\\b"},
    };
    for (const auto& [pszSaid, pszRegistry, pszAsked] : tCases) {
        const CServiceName clName = clSaid(pszSaid);
        EXPECT_EQ(clName.csRegistry(), pszRegistry);
        EXPECT_EQ(clName.csAsked(), std::wstring(pszAsked, pszAsked + std::string_view(pszAsked).size()));
        const CServiceName clListed = CServiceName::s_clListed(pszAsked);
        EXPECT_EQ(clListed.csText(), pszRegistry);
        EXPECT_EQ(clListed.csAsked(), clName.csAsked());
        EXPECT_TRUE(clListed == clName);
        EXPECT_EQ(clListed.csRegisteredAs(pszSaid), pszSaid);
        EXPECT_EQ(clListed.csRegisteredAs(L"DXCS-Other"), pszRegistry);
    }
    // What no registration can have written is no registered name; a list is not forged by it.
    const CServiceName clUnit = CServiceName::s_clListed("DXCS-a__b");
    EXPECT_EQ(clUnit.csRegisteredAs(L"DXCS-a\tb"), L"DXCS-a__b");
    for (const wchar_t* psz : {L"DXCS-a\tb", L"DXCS-a__b\tDXCS-b\t1", L"DXCS-\x1b[31m", L"\x01", L"\x9b"}) {
        EXPECT_EQ(clUnit.csShownAs(psz), L"DXCS-a__b");
    }
    EXPECT_EQ(clUnit.csShownAs(L"Orders of Zürich"), L"Orders of Zürich");
    EXPECT_EQ(clUnit.csShownAs(nullptr), L"DXCS-a__b");
    // Names of units of somebody else's that no name of ours escapes to are nobody's but their own.
    for (const char* psz : {"DXCS-a\\x41", "DXCS-a\\x3B", "DXCS-a\\x0ab", "DXCS-a\\xff", "DXCS-a\\x2fb"}) {
        const CServiceName clListed = CServiceName::s_clListed(psz);
        EXPECT_EQ(clListed.csText(), std::wstring(psz, psz + std::string_view(psz).size()));
        EXPECT_TRUE(clSaid(clListed.csText()) == clListed);
        EXPECT_EQ(clSaid(clListed.csText()).csAsked(), clListed.csText());
    }
}

TEST_F(ServiceName, ToolsTextIsOneHarmlessWordOrNamesNothing)
{
    for (const wchar_t* psz :
         {L"-Hhost", L"DXCS-bu*", L"b?", L"[ab]", L"a\"b", L"a\nb", L"a\rb", L"a\x7f", L"a\x85", L"DXCS-a/b",
          L"DXCS-a.service", L"DXCS-a.timer", L"", L"DXCS-R\\x26D"}) {
        EXPECT_EQ(clSaid(psz).csAsked(), L"") << ::testing::PrintToString(std::wstring(psz));
    }
    EXPECT_EQ(clSaid(std::wstring(247, L'x')).csAsked().size(), 247u);
    EXPECT_EQ(clSaid(std::wstring(248, L'x')).csAsked(), L""); // ".service" would make it more than 255 bytes
    EXPECT_EQ(clSaid(std::wstring(31, L'é')).csAsked(), L"") << "measured escaped";
    EXPECT_EQ(CServiceName::s_clSaid(nullptr).csAsked(), L"");
}

TEST_F(ServiceName, ALookupTakesTwoCharactersForSpacesAndFindsNothingByMoreThanOneWord)
{
    EXPECT_EQ(clSaid(L"DXCS-Plain;").clLookedUp().csAsked(), L"DXCS-Plain");
    EXPECT_EQ(clSaid(L"DXCS-my base|").clLookedUp().csText(), L"DXCS-my_base");
    for (const wchar_t* psz : {L"DXCS-Plain;x", L"DXCS-a|b", L"DXCS-x;-Hhost", L";", L"a;;b"}) {
        EXPECT_EQ(clSaid(psz).clLookedUp().csAsked(), L"") << ::testing::PrintToString(std::wstring(psz));
    }
    EXPECT_EQ(CServiceName::s_clListed("DXCS-a\\x3bb").csAsked(), L"DXCS-a\\x3bb");
}

TEST_F(ServiceName, OnlyWhatIsFoundAgainIsInstallable)
{
    const struct
    {
        bool bSystemd;
        bool bSysV;
        std::vector<std::wstring> tNames;
    } tCases[] = {
        {true, true, {L"DXCS-a b", L"DXCS-é𝄞", L"DXCS--a-", L"DXCS-a@", std::wstring(247, L'x')}},
        {true, false, {L"DXCS-R&D"}},
        {false, true, {L"DXCS-5%q", std::wstring(251, L'x')}},
        {false, false, {L"DXCS-a\\", L"DXCS-$HOME", L"DXCS-d'or", L"DXCS-a;b", L"DXCS-a|b", L"DXCS-a "}},
        {false, false, {L" DXCS-a", L"DXCS-a\tb", L"DXCS-a -b", L"-a", L"DXCS-a.timer", L""}},
        {false, false, {L"DXCS-a\x01", L"DXCS-a\xFFFF", L"DXCS-a\xD800", std::wstring(252, L'x')}},
    };
    for (const auto& st : tCases) {
        for (const std::wstring& csName : st.tNames) {
            SCOPED_TRACE(::testing::PrintToString(csName));
            CServiceManager::ms_eDistri = DISTRI_SYSTEMD;
            EXPECT_EQ(clSaid(csName).bInstallable(), st.bSystemd);
            CServiceManager::ms_eDistri = DISTRI_DEBIAN;
            EXPECT_EQ(clSaid(csName).bInstallable(), st.bSysV);
        }
    }
}

TEST_F(ServiceName, AProgramIsQuotedOnlyForItsSpacesAndIsTheSameAgain)
{
    EXPECT_EQ(CProgram::s_clAt(L"/opt/a;b/dx").csCommandLine(L"--SERVICE"), L"/opt/a;b/dx --SERVICE");
    for (const wchar_t* psz : {L"/opt/my db/srv", L"\"/opt/my db/srv\""}) {
        EXPECT_EQ(CProgram::s_clAt(psz).csCommandLine(L"--SERVICE"), L"\"/opt/my db/srv\" --SERVICE");
    }
    const std::pair<bool, std::vector<std::wstring>> tCases[] = {
        {true, {L"/opt/a/dx --SERVICE", L"\"/opt/my db/srv\" --SERVICE", L"/opt//a/./dx --SERVICE"}},
        {true, {L"\"/opt/ two  ; x/srv\" --SERVICE", L"\"/opt/a --b/srv\" --SERVICE"}},
        {false, {L"\"/opt//a ; x/dx\" --SERVICE"}}, // shown simplified, then cut at the ";"
        {false, {L"\"/opt/x ; argv[]=/opt/x /dx\" --SERVICE", L"\"/opt/a\"b --SERVICE"}},
        {false, {L"/opt/my db/srv --SERVICE", L"/opt/a/ --SERVICE", L"/opt/a/. --SERVICE", L"dx --SERVICE"}},
        {false, {L"/opt/a%b/dx", L"/opt/a$b/dx", L"/opt/a'b/dx", L"/opt/a\\b/dx", L"/opt/a\"b/dx"}},
        {false, {L"/opt/a\tb/dx", L"/opt/a\nb/dx", L""}},
    };
    for (const auto& [bGood, tLines] : tCases) {
        for (const std::wstring& csLine : tLines) {
            EXPECT_EQ(bUnitReadsBack(csLine, clSaid(L"DXCS-a")), bGood) << ::testing::PrintToString(csLine);
        }
    }
}

TEST_F(ServiceName, AUnitFileSaysAProgramOnlyWhenItsPathEndsThere)
{
    const std::pair<const char*, std::optional<std::wstring>> tLines[] = {
        {"/opt/a/dx --SERVICE DXCS-a", L"/opt/a/dx"},
        {"\"/opt/my db/dx\" --SERVICE DXCS-a", L"/opt/my db/dx"},
        {"/opt/a/dx", L"/opt/a/dx"},
        {"/opt/sp ace/dx --SERVICE DXCS-a", std::nullopt},
        {"/opt/sp --ace/dx --SERVICE DXCS-a", std::nullopt},
        {"/opt/a %n/dx --SERVICE DXCS-a", std::nullopt},
        {"/opt/a/dx \\\n --x", std::nullopt},
        {"\"/opt/a\"b/dx --SERVICE DXCS-a", std::nullopt},
        {"/opt/a/dx --x\nExecStart=/opt/b/dx --y", std::nullopt},
    };
    for (const auto& [pszLine, csProgram] : tLines) {
        EXPECT_EQ(csProgramInUnit(std::string("[Service]\nExecStart=") + pszLine + "\n"), csProgram)
            << pszLine;
    }
}
