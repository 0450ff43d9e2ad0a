// Reply lines as a manager sends them, and as it should not.

#include "velmoctl/Replies.h"

#include <gtest/gtest.h>

namespace {
std::string csServers(std::string_view csLine)
{
    const auto stInfo = stReadInfo(csLine);
    std::string cs;
    for (const STServer& st : stInfo.value_or(STInfo{"", "", "", "", "", {{"<none>", ""}}}).tServers) {
        cs += st.csName + "=" + st.csPort + ";";
    }
    return cs;
}
} // namespace

TEST(Replies, ServersAreReadInPairsAlsoAroundNamesWithTabs)
{
    const struct
    {
        const char* pszLine;
        const char* pszServers;
    } tCases[] = {
        {"YES\tv\ts\tk\tp\tm", ""},
        {"YES\tv\ts\tk\tp\tm\ta\t1\tb\t2", "a=1;b=2;"},
        {"YES\t?\ts\tk\tp\tm\t\t4900", "dxsql=4900;"},
        {"YES\tv\ts\tk\tp\tm\ta\tauto\tb\t", "a=auto;b=;"},
        {"YES\tv\ts\tk\tp\tm\ta\tb\t1\tc\t2", "a b=1;c=2;"},
        {"YES\tv\ts\tk\tp\tm\ta", ""},
        {"YES\tv\ts\tk\tp", "<none>=;"},
        {"NO\tv\ts\tk\tp\tm\ta\t1", "<none>=;"},
        {"YES", "<none>=;"},
        {"", "<none>=;"},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszLine);
        EXPECT_EQ(csServers(st.pszLine), st.pszServers);
    }
}

TEST(Replies, ARefusalIsItsCodeAndTheTextBehindIt)
{
    const struct
    {
        const char* pszLine;
        int nCode;
        const char* pszText;
    } tCases[] = {
        {"ERROR\t8", 8, ""},
        {"ERROR\t1No such file or directory", 1, "No such file or directory"},
        {"ERROR\t12\tSuccess", 12, "Success"},
        {"ERROR\t0\t", 0, ""},
        {"ERROR\t", -1, ""},
        {"ERROR", -1, ""},
        {"ERROR\t99999999999", -1, ""},
        {"ERROR\t-1", -1, ""},
        {"OK", -1, ""},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszLine);
        const auto stRefusal = stReadRefusal(st.pszLine);
        EXPECT_EQ(stRefusal.has_value() ? static_cast<int>(stRefusal->nCode) : -1, st.nCode);
        EXPECT_EQ(stRefusal.has_value() ? stRefusal->csText : "", st.pszText);
    }
    EXPECT_FALSE(csReadState("STATUS\tUNKNOWN").has_value());
    EXPECT_FALSE(csReadState("STATUS\tRUNNING\t").has_value());
    EXPECT_FALSE(csReadCluster("YES\t2\tx").has_value());
}
