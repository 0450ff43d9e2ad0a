// Which machines lists and hosts files stand for.

#include "velmoctl/Failure.h"
#include "velmoctl/Hosts.h"

#include <gtest/gtest.h>

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
    const std::pair<const char*, const char*> tCases[] = {
        {"db1", "db1"},
        {"db1,,db2,", "db1 db2"},
        {"db[08-11]", "db08 db09 db10 db11"},
        {"db[8-11].x", "db8.x db9.x db10.x db11.x"},
        {"[a-c]z", "az bz cz"},
        {"r[1-2]n[a-b]", "r1na r1nb r2na r2nb"},
        {"[::1],fe80::1%eth0,10.0.0.1", "::1 fe80::1%eth0 10.0.0.1"},
        {"db[1-", "! [1-] is not a range such as [01-40] or [a-f]"},
        {"db[2-1]", "! [2-1] is not a range such as [01-40] or [a-f]"},
        {"db[1-b]", "! [1-b] is not a range such as [01-40] or [a-f]"},
        {"db[4294967294-4294967295]", "db4294967294 db4294967295"},
        {"db[]", "! [] is not a range such as [01-40] or [a-f]"},
        {"db[1-4000000000]", "! [1-4000000000] is not a range such as [01-40] or [a-f]"},
        {"x[1-999][1-999]", "! [1-999] is not a range such as [01-40] or [a-f]"},
        {"x[1-9999],y[1-9999]", "! more than 10000 machines"},
    };
    for (const auto& [pszList, pszExpected] : tCases) {
        EXPECT_EQ(csOutcome([csList = pszList] { return tExpandList(csList); }), pszExpected) << pszList;
    }
}

TEST(Hosts, AnInventoryIsAHostsFile)
{
    const CHostsFile clFile("\xEF\xBB\xBF"
                            R"(# the fleet
lonely  # spare
; old style
[db]
db[01:03] ansible_user=root ansible_host="10.0.0.9"
db02:2222 velmo_port=5000 'ansible_host=10.0.0.2'
[db:vars]
ansible_port=22
[all_of_it:children]
db
late
all_of_it
[late]
w[1-2]  db01
[9:10:1]x
[8:9:4294967295]x
)",
                            "F");
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
    };
    for (const auto& [pszText, pszExpected] : tCases) {
        EXPECT_EQ(csOutcome([csText = pszText] { return CHostsFile(csText, "F").tAll(); }), pszExpected);
    }
}
