#include "manager/PingEcho.h"
#include "manager/SetupManager.h"
#include "service/LanceProcessus.h"
#include "tools/PingClient.h"
#include "tools/PrivateWorld.h"

#include <chrono>
#include <gtest/gtest.h>
#include <memory>

using namespace std::string_literals;

TEST(PingEcho, ADatagramIsAQuestionWhenAQuestionBeginsWithIt)
{
    const struct
    {
        std::string csDatagram;
        EPingForm eForm;
    } tCases[] = {
        {"ARE YOU A DEXARO SERVER SETUP?\r\n", EPingForm::SYSTEM},
        {"ARE YOU A DEXARO SERVER SETUP?\r\n\0"s, EPingForm::SYSTEM},
        {"ARE YOU A DEXARO SERVER SETUP?\r\n\0\0"s, EPingForm::NONE},
        {"ARE YOU A DEXARO SERVER SETUP?\r\nx", EPingForm::NONE},
        {"ARE YOU A DEXARO S", EPingForm::SYSTEM},
        {"ARE YOU A DEXARO MANAGER UTF-8?\r\n", EPingForm::UTF8},
        {"ARE YOU A DEXARO MANAGER UTF-8?\r\n\0"s, EPingForm::UTF8},
        {"ARE YOU A DEXARO MANAGER UTF-8?\r\n!", EPingForm::NONE},
        {"ARE YOU A DEXARO ", EPingForm::UTF8},
        {"ARE", EPingForm::UTF8},
        {"", EPingForm::UTF8},
        {"are you a dexaro", EPingForm::NONE},
        {"ARE YOU A DEXARO SERVER SETUP?\r\n    ", EPingForm::NONE},
        {"\0"s, EPingForm::NONE},
    };
    for (const auto& st : tCases) {
        EXPECT_EQ(eReadPing(st.csDatagram), st.eForm) << st.csDatagram;
    }
}

TEST(PingEcho, AListThatIsTooLongLosesWholeServers)
{
    const struct
    {
        const char* pszServers;
        std::size_t nMax;
        const char* pszFitting;
    } tCases[] = {
        {"", 0, ""},
        {"\tA\t1\tBB\t22", 100, "\tA\t1\tBB\t22"},
        {"\tA\t1\tBB\t22", 10, "\tA\t1\tBB\t22"},
        {"\tA\t1\tBB\t22", 9, "\tA\t1"},
        {"\tA\t1\tBB\t22", 4, "\tA\t1"},
        {"\tA\t1\tBB\t22", 3, ""},
        {"\tA\t1\tBB\t22", 0, ""},
        {"\t\t1\t\t2", 5, "\t\t1"}, // empty names
        {"\tA\t1\tB", 5, "\tA\t1"}, // no list of ours
        {"ABCDEF", 3, ""},
    };
    for (const auto& st : tCases) {
        EXPECT_EQ(csFittingServers(st.pszServers, st.nMax), st.pszFitting) << st.pszServers << st.nMax;
    }
}

namespace {
/// A responder on a port of its own, for a manager whose one server is DXCS-Données.
class PingEchoWire : public ::testing::Test
{
protected:
    static constexpr std::uint16_t s_wPort = 5999;

    void SetUp() override
    {
        REQUIRE_PRIVATE_WORLD();
        CLanceProcessus::sInit();
        CServiceManager::ms_eDistri = DISTRI_SYSTEMD;
        m_pclTool = std::make_unique<CFakeTool>("/bin/systemctl", R"(case "$*" in
list-units*) printf '  DXCS-Donn\\xc3\\xa9es.service l a r D\n' ;;
*show\ DXCS*) printf 'Type=forking\nExecStart={ argv[]=/none/dx --SERVICE x ; }\nDescription=%s\n' "$3" ;;
*) echo Type= ;;
esac)");
        m_pclManager = std::make_unique<CSetupManager>();
        gpclSetupManager = m_pclManager.get();
        m_pclPing = std::make_unique<CPingEcho>();
        ASSERT_TRUE(m_pclPing->bInit(s_wPort));
        ASSERT_TRUE(m_pclPing->bStart());
    }
    void TearDown() override
    {
        m_pclPing.reset();
        gpclSetupManager = nullptr;
        m_pclManager.reset();
        CLanceProcessus::sTerm();
        CServiceManager::ms_eDistri = DISTRI_UNKNOWN;
    }
    std::unique_ptr<CFakeTool> m_pclTool;
    std::unique_ptr<CSetupManager> m_pclManager;
    std::unique_ptr<CPingEcho> m_pclPing;
};
} // namespace

TEST_F(PingEchoWire, TwoDatagramsAnswerFromTheAddressThatWasAsked)
{
    for (const char* pszAddress : {"127.0.0.1", "127.1.2.3", "::1"}) { // the system's own choice is 127.0.0.1
        SCOPED_TRACE(pszAddress);
        CPingClient clTool;
        clTool.Ask(pszAddress, s_wPort, "ARE YOU A DEXARO SERVER SETUP?\r\n");
        EXPECT_EQ(clTool.csAnswer(), std::string(pszAddress) + " YES\t\tDonn\xE9"
                                                               "es\t4900");
        EXPECT_EQ(clTool.csAnswer(), std::string(pszAddress) + " \r\n");
        for (const std::string& csQuestion : {"ARE YOU A DEXARO MANAGER UTF-8?\r\n\0"s, "ARE"s, ""s}) {
            clTool.Ask(pszAddress, s_wPort, csQuestion);
            EXPECT_EQ(clTool.csAnswer(), std::string(pszAddress) + " YES\t\tDonn\xC3\xA9"
                                                                   "es\t4900");
            EXPECT_EQ(clTool.csAnswer(), std::string(pszAddress) + " \r\n");
        }
        clTool.Ask(pszAddress, s_wPort, "ARE YOU A DEXARO SERVER SETUP?\r\n\0\0"s);
        clTool.Ask(pszAddress, s_wPort, std::string(60000, 'A'));
        EXPECT_EQ(clTool.csAnswer(100), "<nothing in time>");
    }
}

TEST_F(PingEchoWire, AStopReturnsWithoutADatagramAndAnswersNothing)
{
    const auto clStart = std::chrono::steady_clock::now();
    m_pclPing->Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - clStart, std::chrono::seconds(1));
    EXPECT_EQ(m_pclTool->csTakeJournal(), "") << "the shutdown was taken for a question";
    CPingEcho clNever;
    clNever.Stop();
}
