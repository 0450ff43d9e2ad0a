// The man page knows every command and every option, and the shells' completion offers what can stand in a
// line.

#include "ScriptedManager.h"
#include "support/XYString.h"
#include "tools/TempDir.h"
#include "velmoctl/Commands.h"

#include <gtest/gtest.h>

namespace {
/// What bash offers for the last of the words, sorted, with spaces between.
std::string csCompletions(const std::string& csWords)
{
    return stRun("bash -c 'velmoctl() { " + csClient() + " \"$@\"; }; source \"" + csSource() +
                 "/tools/velmoctl/completion/velmoctl.bash\"; COMP_WORDS=(" + csWords +
                 "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _velmoctl; printf \"%s\\n\" \"${COMPREPLY[@]}\" "
                 "| LC_ALL=C sort | paste -sd\" \"'")
        .csOutput;
}
} // namespace

TEST(Documents, TheManPageHasEveryCommandAndOptionAndNoFault)
{
    const std::string csPage = csReplaceAll<char>(csReadSource("docs/man/velmoctl.1"), "\\-", "-");
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
    EXPECT_EQ(stRun("groff -man -Tutf8 -ww -z '" + csSource() + "/docs/man/velmoctl.1'").csOutput, "");
}

TEST(Documents, TheCompletionOffersWhatCanStandThereAndAsksTheManagerForNames)
{
    CScriptedManager clManager(
        CScriptedManager::Answers{{"INFO", csInfo("\tOrders\t1\tOr der\t2\tStock\t3")}});
    const CTempDir clFolder;
    const std::string csFile = clFolder.csWrite("hosts", "db[1:2] ansible_host=127.0.0.1\n[web]\nw1\n");
    const std::string csOn = "velmoctl --port " + clManager.csPort() + " ";
    const std::pair<std::string, std::string> tCases[] = {
        {"velmoctl --host x li", "lint list\n"},
        {"velmoctl help wa", "watch\n"},
        {"velmoctl uninstall --d", "--delete-files --dry-run\n"},
        {"velmoctl list --state running,st", "running,starting running,stopped running,stopping\n"},
        {"velmoctl list --columns = na", "name\n"},
        {csOn + "status Or", "Or\\ der Orders\n"},
        {csOn + "start Stock S", "Stock\n"},
        {csOn + "register S", "\n"},
        {"velmoctl --hosts " + csFile + " list --host db", "db1 db2\n"},
        {"velmoctl --hosts " + csFile + " --group \"\"", "all ungrouped web\n"},
        {"velmoctl --port " + clManager.csPort() + " --hosts " + csFile + " --host db1 status S", "Stock\n"},
    };
    for (const auto& [csWords, csExpected] : tCases) {
        EXPECT_EQ(csCompletions(csWords), csExpected) << csWords;
    }
}
