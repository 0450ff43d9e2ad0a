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

std::string csJoined(const std::vector<std::string_view>& tWords)
{
    std::string cs;
    for (const std::string_view csWord : tWords) {
        cs += std::string(csWord) + "|";
    }
    return cs;
}

/// What an output of "show" tells: the description, the command line with its program, "-" for what it does
/// not tell.
std::string csShown(const char* pszOutput)
{
    const STUnitShown st = stReadShow(pszOutput);
    return std::string(st.bExists ? "" : "absent: ") + (st.bOneProgram ? "" : "several: ") +
           st.csDescription.value_or("-") + "|" + st.csBinaryPath.value_or("-") + "|" +
           st.csExecutable.value_or("-");
}
} // namespace

TEST(ListUnits, EveryFormOfAListingGivesTheUnits)
{
    const std::pair<const char*, const char*> tCases[] = {
        // without marks, as before 246
        {"DXCS-a.service loaded active running A\nssh.service   loaded active x S\n", "DXCS-a|ssh|"},
        // a bullet without indentation, as in 219
        {"● DXCS-f.service loaded failed failed F\nDXCS-a.service l a r A\n", "DXCS-f|DXCS-a|"},
        // two spaces before every line
        {"  DXCS-a.service loaded active   running A\n  DXCS-b.service l i d B\n", "DXCS-a|DXCS-b|"},
        // every mark
        {"● D-1.service n\n○ D-2.service m\n× D-3.service l\n↻ D-4.service l\n* D-5.service l\n",
         "D-1|D-2|D-3|D-4|D-5|"},
        // escaped and template names
        {"  DXCS-Donn\\xc3\\xa9es.service l a r x\n  user@0.service l a r x\n",
         "DXCS-Donn\\xc3\\xa9es|user@0|"},
        // names with the type inside, of units and of unit files
        {"● D-v.service.1.service loaded active running D-v\n  D-x.serviced.service l a r A\n"
         "D-x.service-1.service enabled enabled\nD-a.service_b.service\tmasked\n",
         "D-v.service.1|D-x.serviced|D-x.service-1|D-a.service_b|"},
        // a first word that does not end with the type
        {"a b.service.service x\n", "a b|"},
        // lines that name no service
        {"\n  boot.mount loaded\n0 units listed.\n  DXCS-a.service x\n", "DXCS-a|"},
    };
    for (const auto& [pszOutput, pszUnits] : tCases) {
        const auto tUnits = tReadListing(pszOutput);
        EXPECT_EQ(csJoined({tUnits.begin(), tUnits.end()}), pszUnits);
    }
}

TEST(Show, TellsExistenceDescriptionAndCommandLine)
{
    const std::pair<const char*, const char*> tCases[] = {
        {"Type=forking\nExecStart={ path=/opt/a/dx ; argv[]=/opt/a/dx --SERVICE DXCS-a ; pid=0 ; }\n"
         "Description=a = b\n",
         "a = b|/opt/a/dx --SERVICE DXCS-a |/opt/a/dx"},
        {"Type=\nDescription=DXCS-x.service\n", "absent: DXCS-x.service|-|-"},
        // an executable with spaces, a semicolon and what looks like the next key
        {"Type=forking\nExecStart={ path=/o/a  b; c ; argv[]=x/dx ; argv[]=/o/a  b; c ; argv[]=x/dx "
         "--SERVICE N ; pid=0 ; }\n",
         "-|/o/a  b; c ; argv[]=x/dx --SERVICE N |/o/a  b; c ; argv[]=x/dx"},
        // a first argument that is not the executable
        {"Type=forking\nExecStart={ path=/opt/a/dx ; argv[]=/opt//a/dx --SERVICE N ; }\n",
         "-|/opt//a/dx --SERVICE N |-"},
        // an executable whose name the first argument only begins with
        {"Type=forking\nExecStart={ path=/opt/a/dx ; argv[]=/opt/a/dxdemo --SERVICE N ; }\n",
         "-|/opt/a/dxdemo --SERVICE N |-"},
        {"Type=oneshot\nExecStart={ path=/a ; argv[]=/a ; }\nExecStart={ path=/b ; argv[]=/b -x ; }\n",
         "several: -|/b -x |/b"},
        // no semicolon after argv
        {"Type=simple\nExecStart={ argv[]=/x", "-|-|-"},
        {"", "absent: -|-|-"},
    };
    for (const auto& [pszOutput, pszShown] : tCases) {
        EXPECT_EQ(csShown(pszOutput), pszShown);
    }
    EXPECT_EQ(csReadProperty("P=a=b\n"), "a=b");
    EXPECT_EQ(csReadProperty("P="), "");
    EXPECT_EQ(csReadProperty("no property"), "");
}

TEST(Blocks, EverySystemdPrintsOneForEachNameInTheOrderAsked)
{
    const std::tuple<const char*, const char*, const char*> tCases[] = {
        // the file, which of the units exist, the second one's Id
        {"show6.txt", "+-++++", ""},
        {"show3.A-nonexistent-C.txt", "+-+", ""},
        {"show3.invalidname.txt", "+-+", "DXCS-bad\\x20name.service"},
    };
    for (const std::string csSuite : {"bullseye.", "bookworm.", "sid."}) {
        for (const auto& [pszFile, pszExist, pszId] : tCases) {
            SCOPED_TRACE(csSuite + pszFile);
            const std::string csOutput = csRecorded(csSuite + pszFile);
            const std::vector<std::string_view> tBlocks = tReadBlocks(csOutput);
            std::string csExist;
            for (const std::string_view csBlock : tBlocks) {
                csExist += stReadShow(csBlock).bExists ? "+" : "-";
            }
            ASSERT_EQ(csExist, pszExist);
            EXPECT_EQ(csReadId(tBlocks[1]), pszId);
            EXPECT_EQ(stReadShow(tBlocks[0]).csExecutable, "/bin/sleep");
        }
    }
}

TEST(Blocks, WhatIsNoneIsNotTakenForOne)
{
    const std::pair<const char*, const char*> tCases[] = {
        {"", ""},
        {"\n", "||"},
        {"Id=a\n\nId=b\n", "Id=a\n|Id=b\n|"},
        {"Id=a\n\n\nId=b\n", "Id=a\n||Id=b\n|"},
        {"Id=a\n\nId=b\n\n", "Id=a\n|Id=b\n||"},
        {"Id=a\r\n\r\nId=b\r\n", "Id=a\r\n\r\nId=b\r\n|"},
        {"Id=a\n\nId=b", "Id=a\n|Id=b|"},
    };
    for (const auto& [pszOutput, pszBlocks] : tCases) {
        EXPECT_EQ(csJoined(tReadBlocks(pszOutput)), pszBlocks);
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
