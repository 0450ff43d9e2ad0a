// An upload that comes to a whole file that is listed, or to none: when bytes are missing, and when each
// allocation in turn finds no memory.

#include "Conversation.h"
#include "tools/FailingNew.h"
#include "tools/PrivateWorld.h"

#include <gtest/gtest.h>
#include <new>
#include <string>

namespace {
/// True when the upload, of which so many bytes are missing, comes to a whole file with so many allocations.
bool bUpload(unsigned int nMissing, int nAllocations)
{
    const std::wstring csName(100, L'n'); // needs memory of its own
    constexpr unsigned int nBytes = 100'000;
    const int nBefore = nEntries("/tmp");
    STConversation st;
    st.Send(std::string(nBytes, 'x'));
    st.clTool.Close();
    CInstallInfo clInfo;
    bool bWhole = false;
    g_nAllocationsLeft = nAllocations;
    try {
        st.clDialog.xGetFile(csName, nBytes + nMissing, &clInfo);
        bWhole = true;
    } catch (const CXError&) {
        EXPECT_EQ(nMissing, 1u);
    } catch (const std::bad_alloc&) {
        EXPECT_GE(nAllocations, 0);
    }
    g_nAllocationsLeft = -1;

    EXPECT_EQ(clInfo.tNames.size(), bWhole ? 1u : 0u);
    EXPECT_EQ(clInfo.tTemporaryFiles.size(), bWhole ? 1u : 0u);
    EXPECT_EQ(nEntries("/tmp") - nBefore, bWhole ? 1 : 0);
    for (const std::filesystem::path clFile : clInfo.tTemporaryFiles) {
        EXPECT_EQ(std::filesystem::file_size(clFile), nBytes);
    }
    return bWhole;
}
} // namespace

TEST(OutOfMemory, AnUploadComesToAWholeFileOrLeavesNone)
{
    REQUIRE_PRIVATE_WORLD();
    EXPECT_FALSE(bUpload(1, -1));
    int nAllocations = 0;
    while (nAllocations < 100 && !bUpload(0, nAllocations)) {
        ++nAllocations;
    }
    EXPECT_TRUE(nAllocations > 0 && nAllocations < 100) << nAllocations;
}
