#include "service/SystemctlOutput.h"

#include <fstream>
#include <gtest/gtest.h>
#include <iterator>

namespace {
std::string csRecorded(const std::string& csFile)
{
    std::ifstream clFile(VELMO_RECORDED + csFile);
    return {std::istreambuf_iterator<char>(clFile), {}};
}
} // namespace

TEST(ListUnits, EveryFormOfAListingGivesTheUnits)
{
    const struct
    {
        const char* pszForm;
        const char* pszOutput;
        std::vector<std::string_view> tExpected;
    } tCases[] = {
        {"without marks, as before 246",
         "DXCS-a.service loaded active running A\nssh.service   loaded active x S\n",
         {"DXCS-a", "ssh"}},
        {"a bullet without indentation, as in 219",
         "● DXCS-f.service loaded failed failed F\nDXCS-a.service l a r A\n",
         {"DXCS-f", "DXCS-a"}},
        {"two blanks before every line",
         "  DXCS-a.service loaded active   running A\n  DXCS-b.service l i d B\n",
         {"DXCS-a", "DXCS-b"}},
        {"every mark",
         "● DXCS-1.service n\n○ DXCS-2.service m\n× DXCS-3.service l\n↻ DXCS-4.service l\n* DXCS-5.service "
         "l\n",
         {"DXCS-1", "DXCS-2", "DXCS-3", "DXCS-4", "DXCS-5"}},
        {"escaped and template names",
         "  DXCS-Donn\\xc3\\xa9es.service l a r x\n  user@0.service l a r x\n",
         {"DXCS-Donn\\xc3\\xa9es", "user@0"}},
        {"names with the type inside, of units and of unit files",
         "● DXCS-v.service.1.service loaded active running DXCS-v.service.1\n  DXCS-x.serviced.service l a r "
         "A\n"
         "DXCS-x.service-1.service enabled enabled\nDXCS-a.service_b.service\tmasked\n",
         {"DXCS-v.service.1", "DXCS-x.serviced", "DXCS-x.service-1", "DXCS-a.service_b"}},
        {"a first word that does not end with the type", "a b.service.service x\n", {"a b"}},
        {"lines that name no service",
         "\n  boot.mount loaded\n0 units listed.\n  DXCS-a.service x\n",
         {"DXCS-a"}},
    };
    for (const auto& st : tCases) {
        const auto tUnits = tReadListing(st.pszOutput);
        EXPECT_EQ(std::vector<std::string_view>(tUnits.begin(), tUnits.end()), st.tExpected) << st.pszForm;
    }
}

TEST(Show, TellsExistenceDescriptionAndCommandLine)
{
    using Text = std::optional<std::string>;
    const struct
    {
        const char* pszForm;
        const char* pszOutput;
        bool bExists;
        bool bOneProgram;
        Text csDescription;
        Text csBinaryPath;
        Text csExecutable;
    } tCases[] = {
        {"a running unit",
         "Type=forking\nExecStart={ path=/opt/a/dx ; argv[]=/opt/a/dx --SERVICE DXCS-a ; pid=0 ; "
         "}\nDescription=a = b\n",
         true, true, "a = b", "/opt/a/dx --SERVICE DXCS-a ", "/opt/a/dx"},
        {"a unit that does not exist",
         "Type=\nDescription=DXCS-x.service\n",
         false,
         true,
         "DXCS-x.service",
         {},
         {}},
        {"an executable with spaces, a semicolon and what looks like the next key",
         "Type=forking\nExecStart={ path=/o/a  b; c ; argv[]=x/dx ; argv[]=/o/a  b; c ; argv[]=x/dx "
         "--SERVICE N ; "
         "pid=0 ; }\n",
         true,
         true,
         {},
         "/o/a  b; c ; argv[]=x/dx --SERVICE N ",
         "/o/a  b; c ; argv[]=x/dx"},
        {"a first argument that is not the executable",
         "Type=forking\nExecStart={ path=/opt/a/dx ; argv[]=/opt//a/dx --SERVICE N ; }\n",
         true,
         true,
         {},
         "/opt//a/dx --SERVICE N ",
         {}},
        {"an executable whose name the first argument only begins with",
         "Type=forking\nExecStart={ path=/opt/a/dx ; argv[]=/opt/a/dxdemo --SERVICE N ; }\n",
         true,
         true,
         {},
         "/opt/a/dxdemo --SERVICE N ",
         {}},
        {"several command lines",
         "Type=oneshot\nExecStart={ path=/a ; argv[]=/a ; }\nExecStart={ path=/b ; argv[]=/b -x ; }\n",
         true,
         false,
         {},
         "/b -x ",
         "/b"},
        {"no semicolon behind argv", "Type=simple\nExecStart={ argv[]=/x", true, true, {}, {}, {}},
        {"nothing", "", false, true, {}, {}, {}},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszForm);
        const STUnitShown stShown = stReadShow(st.pszOutput);
        EXPECT_EQ(stShown.bExists, st.bExists);
        EXPECT_EQ(stShown.csDescription, st.csDescription);
        EXPECT_EQ(stShown.csBinaryPath, st.csBinaryPath);
        EXPECT_EQ(stShown.csExecutable, st.csExecutable);
        EXPECT_EQ(stShown.bOneProgram, st.bOneProgram);
    }
    EXPECT_EQ(csReadProperty("P=a=b\n"), "a=b");
    EXPECT_EQ(csReadProperty("P="), "");
    EXPECT_EQ(csReadProperty("no property"), "");
}

TEST(Blocks, EverySystemdPrintsOneForEachNameInTheOrderAsked)
{
    const struct
    {
        const char* pszFile;
        std::vector<bool> tExists;
        const char* pszIdOfSecond;
    } tCases[] = {
        {"show6.txt", {true, false, true, true, true, true}, ""},
        {"show3.A-nonexistent-C.txt", {true, false, true}, ""},
        {"show3.invalidname.txt", {true, false, true}, "DXCS-bad\\x20name.service"},
    };
    for (const std::string csSuite : {"bullseye.", "bookworm.", "sid."}) {
        for (const auto& st : tCases) {
            const std::string csOutput = csRecorded(csSuite + st.pszFile);
            const std::vector<std::string_view> tBlocks = tReadBlocks(csOutput);
            ASSERT_EQ(tBlocks.size(), st.tExists.size()) << csSuite << st.pszFile;
            EXPECT_EQ(csReadId(tBlocks[1]), st.pszIdOfSecond) << csSuite << st.pszFile;
            for (std::size_t n = 0; n < tBlocks.size(); ++n) {
                EXPECT_EQ(stReadShow(tBlocks[n]).bExists, st.tExists[n]) << csSuite << st.pszFile << n;
            }
            EXPECT_EQ(stReadShow(tBlocks[0]).csExecutable, "/bin/sleep") << csSuite << st.pszFile;
        }
    }
}

TEST(Blocks, WhatIsNoneIsNotTakenForOne)
{
    using Blocks = std::vector<std::string_view>;
    const struct
    {
        std::string_view csOutput;
        Blocks tExpected;
    } tCases[] = {
        {"", {}},
        {"\n", {"", ""}},
        {"Id=a\n\nId=b\n", {"Id=a\n", "Id=b\n"}},
        {"Id=a\n\n\nId=b\n", {"Id=a\n", "", "Id=b\n"}},
        {"Id=a\n\nId=b\n\n", {"Id=a\n", "Id=b\n", ""}},
        {"Id=a\r\n\r\nId=b\r\n", {"Id=a\r\n\r\nId=b\r\n"}},
        {"Id=a\n\nId=b", {"Id=a\n", "Id=b"}},
    };
    for (const auto& st : tCases) {
        EXPECT_EQ(tReadBlocks(st.csOutput), st.tExpected) << st.csOutput;
    }
    EXPECT_EQ(csReadId("noise\nid=a.service\n"), "a.service");
    EXPECT_EQ(csReadId("Description=Id=b\nId=a\n"), "a");
    EXPECT_EQ(csReadId("Id=a\nId=b\n"), "") << "of which one it is cannot be told";
    EXPECT_EQ(csReadId("Id=a"), "") << "may go on";
}

TEST(ListUnits, EverySystemdsListingGivesTheUnits)
{
    for (const std::string csFile :
         {"bullseye.list-units.utf8.txt", "bullseye.list-units.C.txt", "bookworm.list-units.utf8.txt",
          "trixie.list-units.utf8.txt", "sid.list-units.utf8.txt"}) {
        const std::string csOutput = csRecorded(csFile);
        std::string csServers;
        for (const std::string_view csUnit : tReadListing(csOutput)) {
            csServers += csUnit.starts_with("DXCS-") ? std::string(csUnit.substr(5)) + " " : "";
        }
        EXPECT_EQ(csServers, "Alpha BadSet Failed Masked NoDesc NotFound Starting Stopped Zurich\\xc3\\xbc ")
            << csFile;
    }
}
