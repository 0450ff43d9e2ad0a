// The man page and the completion know every command and every option, and nothing else.

#include "ScriptedManager.h"
#include "support/XYString.h"
#include "velmoctl/Commands.h"

#include <gtest/gtest.h>
#include <set>

namespace {
const std::string s_csPage = csSource() + "/docs/man/velmoctl.1";

/// What bash offers for the last of the words, sorted, with blanks between.
std::string csCompletions(const std::string& csWords, const std::string& csSetUp = "")
{
    return stRun("bash -c '" + csSetUp + "source " + csSource() +
                 "/tools/velmoctl/velmoctl.bash; COMP_WORDS=(" + csWords +
                 "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _velmoctl; printf \"%s\\n\" \"${COMPREPLY[@]}\" "
                 "| LC_ALL=C sort | paste -sd\" \"'")
        .csOutput;
}

std::string csSorted(const std::vector<std::string>& tWords)
{
    std::string cs;
    for (const std::string& csWord : std::set(tWords.begin(), tWords.end())) {
        cs += (cs.empty() ? "" : " ") + csWord;
    }
    return cs + "\n";
}
} // namespace

TEST(Documents, TheManPageHasEveryCommandAndOptionAndNoFault)
{
    const std::string csPage = csReplaceAll<char>(stRun("cat " + s_csPage).csOutput, "\\-", "-");
    for (const std::string& csCommand : tCommandNames()) {
        EXPECT_TRUE(csPage.find("\n.B " + csCommand + "\n") != csPage.npos ||
                    csPage.find("\n.BI " + csCommand + " ") != csPage.npos)
            << csCommand;
        for (const std::string& csOption : tOptionsOf(csCommand)) {
            EXPECT_NE(csPage.find("\n.B " + csOption), csPage.npos) << csCommand << " " << csOption;
        }
    }
    if (stRun("command -v groff").nStatus != 0) {
        GTEST_SKIP() << "SKIPPED: no groff to check the page with";
    }
    EXPECT_EQ(stRun("groff -man -Tutf8 -ww -z " + s_csPage).csOutput, "");
}

TEST(Documents, TheCompletionOffersWhatTheCommandsKnowAndAsksTheManagerForNames)
{
    EXPECT_EQ(csCompletions("velmoctl \"\""), csSorted(tCommandNames()));
    EXPECT_EQ(csCompletions("velmoctl --host x li"), "lint list\n");
    for (const std::string& csCommand : tCommandNames()) {
        EXPECT_EQ(csCompletions("velmoctl " + csCommand + " --"), csSorted(tOptionsOf(csCommand)))
            << csCommand;
    }
    CScriptedManager clManager(
        CScriptedManager::Answers{{"INFO", "YES\tv\ts\tk\tp\tm\tOrders\t1\tOr der\t2\tStock\t3"}});
    EXPECT_EQ(csCompletions("velmoctl --port " + clManager.csPort() + " status Or",
                            "velmoctl() { " + csClient() + " \"$@\"; }; "),
              "Or\\ der Orders\n");
}
