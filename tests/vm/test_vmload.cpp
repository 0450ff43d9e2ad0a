#include "support/Conversion.h"
#include "tools/TempDir.h"
#include "vm/DLLExecution.h"
#include "vm/Proxy.h"
#include "vm/vmload.h"

#include <dlfcn.h>
#include <gmock/gmock.h>

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;

namespace {
fs::path clBin()
{
    return fs::read_symlink("/proc/self/exe").parent_path();
}

class LanguageRuntime : public testing::Test
{
protected:
    bool bLoad(const fs::path& clPath) { return m_clDll.bLoad(csFromUTF8(clPath.string()), &m_clError); }
    std::string csError() const { return csToUTF8(m_clError.csGetMessage()); }

    CProxyDll m_clDll;
    CXError m_clError;
};
} // namespace

TEST_F(LanguageRuntime, IsStartedInOrderAndEndedOnceAsFarAsItWasStarted)
{
    const std::tuple<const char*, const char*, const char*> tCases[] = {
        // variant, the reason why it is not used, the calls that were made
        {"obedient", "", "IPpEeT"},
        {"lacks-path", "bCheminDLL", ""}, // found out before any code of the library ran
        {"refuses", "no licence for café", "I"},
        {"execution-refuses", "bInitialiseMoiMeme", "IPpET"},
    };
    for (const auto& [pszVariant, pszReason, pszCalls] : tCases) {
        SCOPED_TRACE(pszVariant);
        ASSERT_TRUE(bLoad(clBin() / "test-runtimes" / pszVariant / "zt240vm64.so")) << csError();
        void* const hLibrary = m_clDll.hGetHandle();
        EXPECT_FALSE(bCheminDLL(nullptr)) << "before bInitVM nothing is called";
        const bool bStarted = bInitVM(hLibrary, &m_clError) && bCheminDLL(L"") &&
                              bCheminDLL(L"/opt/runtime/") &&
                              CBaseExecutionDLL::s_bInitialiseMoiMeme(hLibrary, &m_clError);
        EXPECT_EQ(bStarted, *pszReason == 0);
        EXPECT_THAT(csError(), HasSubstr(pszReason));
        for (int nTimes = 0; nTimes < 2; ++nTimes) {
            CBaseExecutionDLL::s_TermineMoiMeme(hLibrary);
            TermVM(0);
        }
        EXPECT_STREQ(reinterpret_cast<const char* (*)()>(::dlsym(hLibrary, "pszJournal"))(), pszCalls);
    }
}

TEST_F(LanguageRuntime, LibraryThatCannotBeLoadedIsRefusedWithItsPath)
{
    const CTempDir clDirectory;
    const fs::path clFolder = clDirectory.csPath();
    fs::copy_file(clBin() / "zt240vm64.so", clFolder / "zt240vm64.so");
    clDirectory.csWrite("text.so", "no library");
    fs::current_path(clBin()); // where everything lies: nothing may be found because of that
    const std::pair<fs::path, const char*> tCases[] = {
        {clFolder / "absent.so", "No such file"},
        {clFolder / "text.so", "too short"},
        {clFolder / "zt240vm64.so", "zt240obj.so"},     // its companion is not beside it
        {"zt240vm64.so", "the directory is not known"}, // never searched for elsewhere
    };
    for (const auto& [clPath, pszReason] : tCases) {
        SCOPED_TRACE(clPath);
        EXPECT_FALSE(bLoad(clPath));
        EXPECT_THAT(csError(), AllOf(HasSubstr("\"" + clPath.string() + "\""), HasSubstr(pszReason)));
    }
}
