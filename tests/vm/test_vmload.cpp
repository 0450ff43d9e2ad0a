#include "support/Conversion.h"
#include "tools/TempDir.h"
#include "vm/DLLExecution.h"
#include "vm/Proxy.h"
#include "vm/vmload.h"

#include <dlfcn.h>
#include <filesystem>
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

/// Ends whatever a test left initialised, as the owner of the library does.
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
        EXPECT_FALSE(m_clDll.bLoaded());
        EXPECT_THAT(csText(m_clError), AllOf(HasSubstr("\"" + clPath.string() + "\""), HasSubstr(pszReason)));
    }
}

TEST_F(LanguageRuntime, WhatIsIncompleteOrRefusesIsEndedOnlyAsFarAsItWasStarted)
{
    const std::tuple<const char*, const char*, const char*> tCases[] = {
        // and the calls that were made
        {"lacks-path", "bCheminDLL", ""}, // found out before any code of the library ran
        {"refuses", "no licence for café", "I"},
        {"execution-refuses", "bInitialiseMoiMeme", "IET"},
    };
    for (const auto& [pszVariant, pszReason, pszCalls] : tCases) {
        SCOPED_TRACE(pszVariant);
        ASSERT_TRUE(bLoad(clVariant(pszVariant))) << csText(m_clError);
        EXPECT_FALSE(bInitVM(m_clDll.hGetHandle(), &m_clError) &&
                     CBaseExecutionDLL::s_bInitialiseMoiMeme(m_clDll.hGetHandle(), &m_clError));
        EXPECT_THAT(csText(m_clError), HasSubstr(pszReason));
        EndAll();
        EXPECT_EQ(csJournal(), pszCalls);
    }
}
