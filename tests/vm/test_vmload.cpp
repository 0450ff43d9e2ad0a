#include "support/Conversion.h"
#include "tools/TempDir.h"
#include "vm/DLLExecution.h"
#include "vm/Proxy.h"
#include "vm/vmload.h"

#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <string>

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;

namespace {
fs::path clBin()
{
    return fs::read_symlink("/proc/self/exe").parent_path();
}

fs::path clVariant(const std::string& csName)
{
    return clBin() / "test-runtimes" / csName / "zt240vm64.so";
}

std::string csText(const CXError& clError)
{
    return csToUTF8(clError.csGetMessage());
}

bool bMapped(const fs::path& clPath)
{
    std::ifstream clMaps("/proc/self/maps");
    const std::string csMaps((std::istreambuf_iterator<char>(clMaps)), {});
    return csMaps.find(clPath.string()) != std::string::npos;
}

/// Ends whatever a test left initialised, as the owner of the library does, and hands the journal over
/// before.
class LanguageRuntime : public testing::Test
{
protected:
    ~LanguageRuntime() override { EndAll(); }

    bool bLoad(const fs::path& clPath) { return m_clDll.bLoad(csFromUTF8(clPath.string()), &m_clError); }
    std::string csJournal() const
    {
        const auto pfn = reinterpret_cast<const char* (*)()>(::dlsym(m_clDll.hGetHandle(), "pszJournal"));
        return pfn != nullptr ? pfn() : "no journal";
    }
    void EndAll()
    {
        CBaseExecutionDLL::s_TermineMoiMeme(m_clDll.hGetHandle());
        TermVM(0);
    }

    CProxyDll m_clDll;
    CXError m_clError;
};
} // namespace

TEST_F(LanguageRuntime, TheStandInLoadsInitialisesEndsAndLeavesMemory)
{
    ASSERT_TRUE(bLoad(clBin() / "zt240vm64.so")) << csText(m_clError);
    EXPECT_TRUE(bMapped(clBin() / "zt240obj.so"));
    EXPECT_TRUE(bInitVM(m_clDll.hGetHandle(), &m_clError)) << csText(m_clError);
    EXPECT_TRUE(bCheminDLL(nullptr));
    EXPECT_TRUE(CBaseExecutionDLL::s_bInitialiseMoiMeme(m_clDll.hGetHandle(), &m_clError));
    EndAll();
    m_clDll.Unload();
    EXPECT_FALSE(m_clDll.bLoaded());
    EXPECT_FALSE(bMapped(clBin() / "zt240vm64.so"));
}

TEST_F(LanguageRuntime, EntryPointsAreCalledInOrderAndOnce)
{
    ASSERT_TRUE(bLoad(clVariant("obedient"))) << csText(m_clError);
    EXPECT_FALSE(bCheminDLL(nullptr)) << "before bInitVM nothing is called";
    ASSERT_TRUE(bInitVM(m_clDll.hGetHandle(), nullptr));
    EXPECT_TRUE(bCheminDLL(L""));
    EXPECT_TRUE(bCheminDLL(L"/opt/runtime/"));
    ASSERT_TRUE(CBaseExecutionDLL::s_bInitialiseMoiMeme(m_clDll.hGetHandle()));
    EndAll();
    EndAll();
    EXPECT_EQ(csJournal(), "IPpEeT");
}

TEST_F(LanguageRuntime, LibraryThatCannotBeLoadedIsRefusedWithItsPath)
{
    const CTempDir clDirectory;
    const fs::path clFolder = clDirectory.csPath();
    fs::copy_file(clBin() / "zt240vm64.so", clFolder / "zt240vm64.so");
    clDirectory.csWrite("text.so", "no library");
    const std::pair<fs::path, const char*> tCases[] = {
        {clFolder / "absent.so", "No such file"},
        {clFolder / "text.so", "too short"},
        {clFolder / "zt240vm64.so", "zt240obj.so"}, // its companion is not beside it
        {clVariant("unbound"), "bNowhereDefined"},
        {"zt240vm64.so", "directory"}, // never searched for elsewhere
        {"", "directory"},
    };
    for (const auto& [clPath, pszReason] : tCases) {
        SCOPED_TRACE(clPath);
        EXPECT_FALSE(bLoad(clPath));
        EXPECT_FALSE(m_clDll.bLoaded());
        EXPECT_THAT(csText(m_clError), AllOf(HasSubstr("\"" + clPath.string() + "\""), HasSubstr(pszReason)));
    }
}

TEST_F(LanguageRuntime, RuntimeThatIsIncompleteOrRefusesIsNeverEnded)
{
    const std::tuple<const char*, const char*, const char*> tCases[] = {
        // and the calls that were made
        {"lacks-path", "bCheminDLL", ""}, // found out before any code of the library ran
        {"lacks-self-term", "TermineMoiMeme", ""},
        {"refuses", "no licence for café", "I"},
        {"refuses-without-end", "xxxx", "I"},
    };
    for (const auto& [pszVariant, pszReason, pszCalls] : tCases) {
        SCOPED_TRACE(pszVariant);
        ASSERT_TRUE(bLoad(clVariant(pszVariant))) << csText(m_clError);
        EXPECT_FALSE(bInitVM(m_clDll.hGetHandle(), &m_clError));
        EXPECT_FALSE(bCheminDLL(nullptr));
        EXPECT_THAT(csText(m_clError), HasSubstr(pszReason));
        EndAll();
        EXPECT_EQ(csJournal(), pszCalls);
    }
    EXPECT_FALSE(bInitVM(nullptr, &m_clError));
}

TEST_F(LanguageRuntime, ExecutionPartThatRefusesLeavesOnlyTheMachineToEnd)
{
    ASSERT_TRUE(bLoad(clVariant("execution-refuses"))) << csText(m_clError);
    ASSERT_TRUE(bInitVM(m_clDll.hGetHandle(), &m_clError));
    EXPECT_FALSE(CBaseExecutionDLL::s_bInitialiseMoiMeme(m_clDll.hGetHandle(), &m_clError));
    EXPECT_THAT(csText(m_clError), HasSubstr("bInitialiseMoiMeme"));
    EndAll();
    EXPECT_EQ(csJournal(), "IET");
}
