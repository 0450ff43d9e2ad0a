// Which machines lists and hosts files stand for.

#include "ScriptedManager.h"
#include "support/XYString.h"
#include "velmoctl/Failure.h"
#include "velmoctl/Hosts.h"

#include <gtest/gtest.h>
#include <sstream>

namespace {
std::string csShown(const std::string& csName)
{
    return csName;
}

std::string csShown(const STHost& st)
{
    return st.csName + (st.csAddress != st.csName ? "=" + st.csAddress : "") +
           (st.wPort != 0 ? ":" + std::to_string(st.wPort) : "");
}

/// The names or machines that a function gives, or the words of its failure.
template <class TFunction>
std::string csOutcome(const TFunction& fn)
{
    try {
        std::string cs;
        for (const auto& cl : fn()) {
            cs += (cs.empty() ? "" : " ") + csShown(cl);
        }
        return cs;
    } catch (const CFailure& clFailure) {
        EXPECT_EQ(clFailure.eExit(), EExit::USAGE);
        return std::string("! ") + clFailure.what();
    }
}
} // namespace

TEST(Hosts, ListsCountAsTheyAreWritten)
{
    const std::string csExpected = csReadSource("tests/velmoctl/lists.txt");
    std::string csFound;
    std::istringstream clLines(csExpected);
    for (std::string cs; std::getline(clLines, cs);) {
        const std::string csList = cs.substr(0, cs.find(" -> "));
        csFound += csList + " -> " + csOutcome([&csList] { return tExpandList(csList); }) + "\n";
    }
    EXPECT_FALSE(csExpected.empty());
    EXPECT_EQ(csFound, csExpected);
}

TEST(Hosts, AnInventoryIsAHostsFile)
{
    // As an editor of another system leaves it, with a mark before and "\r\n" after the lines.
    const CHostsFile clFile(
        "\xEF\xBB\xBF" + csReplaceAll<char>(csReadSource("tests/velmoctl/inventory"), "\n", "\r\n"), "F");
    const std::string csDb = "db01=10.0.0.9 db02=10.0.0.2:5000 db03=10.0.0.9";
    const std::pair<const char*, std::string> tCases[] = {
        {"db", csDb},
        {"late", "w1 w2 9x 10x 8x"},
        {"all_of_it", csDb + " w1 w2 9x 10x 8x"},
        {"ungrouped", "lonely"},
        {"all", "lonely " + csDb + " w1 w2 9x 10x 8x"},
        {"vars", "! F has no group \"vars\""},
    };
    for (const auto& [pszGroup, csExpected] : tCases) {
        EXPECT_EQ(csOutcome([&clFile, csGroup = pszGroup] { return clFile.tGroup(csGroup); }), csExpected)
            << pszGroup;
    }
    EXPECT_EQ(csShown(clFile.stFind("db02")) + " " + csShown(clFile.stFind("other")),
              "db02=10.0.0.2:5000 other");
}

TEST(Hosts, AFileThatCannotBeReadIsToldWithItsLine)
{
    const std::pair<const char*, const char*> tCases[] = {
        {"a\n[x:hosts]\n", "! F, line 2: [x:hosts] is not a group"},
        {"a\n\"\" velmo_port=5\n", "! F, line 2: a machine without a name"},
        {"[]\n", "! F, line 1: [] is not a group"},
        {"\n\ndb[1:x]\n", "! F, line 3: [1:x] is not a range such as [01-40] or [a-f]"},
        {"a\nb ansible_host=\"\"\n", "! F, line 2: ansible_host= without an address"},
        {":22\n", "! F, line 1: a machine without a name"},
        {"a velmo_port=0\n", "! F, line 1: \"0\" is not a port from 1 to 65535"},
        {"a[1:9000]\nb[1:9000]\n", "! F, line 2: more than 10000 machines"},
        {"db[1:2]:22\n[::1]:33\nw#spare\n", "db1 db2 ::1 w"}, // that can: ssh's ports, a comment at once
    };
    for (const auto& [pszText, pszExpected] : tCases) {
        EXPECT_EQ(csOutcome([csText = pszText] { return CHostsFile(csText, "F").tAll(); }), pszExpected);
    }
}
