// An upload when each allocation in turn finds no memory: a whole file that is listed, or none.

#include "Conversation.h"
#include "tools/FailingNew.h"
#include "tools/PrivateWorld.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <iterator>
#include <new>
#include <string>

TEST(OutOfMemory, AnUploadLeavesNoFileThatNobodyKnows)
{
    REQUIRE_PRIVATE_WORLD();
    const std::wstring csName(100, L'n'); // needs memory of its own
    const auto nFiles = [] {
        const std::filesystem::directory_iterator clAll("/tmp");
        return std::distance(begin(clAll), end(clAll));
    };
    const auto nBefore = nFiles();
    bool bWhole = false;
    for (int nAllocations = 0; nAllocations < 100 && !bWhole; ++nAllocations) {
        SCOPED_TRACE(nAllocations);
        STConversation st;
        st.Send(std::string(1000, 'x'));
        CInstallInfo clInfo;
        g_nAllocationsLeft = nAllocations;
        try {
            st.clDialog.xGetFile(csName, 1000, &clInfo);
            bWhole = true;
        } catch (const std::bad_alloc&) {
            // as it may
        }
        g_nAllocationsLeft = -1;
        EXPECT_EQ(clInfo.tNames.size(), bWhole ? 1u : 0u);
        EXPECT_EQ(clInfo.tTemporaryFiles.size(), bWhole ? 1u : 0u);
        EXPECT_EQ(nFiles() - nBefore, bWhole ? 1 : 0);
    }
    EXPECT_TRUE(bWhole);
}
