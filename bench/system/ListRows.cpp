// Listings, and what waits for one: INFO, discovery, registration, velmoctl list.

#include "floor.h"
#include "Measure.h"
#include "Rows.h"
#include "Tools.h"
#include "tools/PipeClient.h"

#include <filesystem>
#include <fstream>
#include <memory>
#include <tuple>
#include <vector>

namespace {
std::string csWith(int nServers)
{
    return " with " + std::to_string(nServers) + " servers";
}

double fInfo(const CTalk& clTalk)
{
    return fMicroseconds([&] { std::ignore = clTalk.csAsk("INFO\r\n"); });
}

double fBareInfo(int nServers)
{
    return fMicroseconds([&] { LaunchInfo(nServers); });
}

double fPing(const CPing& clPing)
{
    return fMicroseconds([&] {
        clPing.Ask();
        if (!clPing.bAnswered()) {
            Die("no answer to a question");
        }
    });
}

/// Whatever asks the manager for a listing, next to the bare launches of one. fnOurs returns its
/// microseconds.
template <class F>
void ListingRow(const std::string& csName, int nServers, int nRounds, F fnOurs)
{
    TimeRow(csName + csWith(nServers),
            stTurnByTurn(
                nRounds, [&] { return fBareInfo(nServers); }, fnOurs),
            1.15);
}

void InfoRow(int nServers, int nRounds)
{
    const CTalk clTalk(g_wOurs);
    ListingRow("INFO", nServers, nRounds, [&] { return fInfo(clTalk); });
}

/// How INFO grows with the number of servers; both sides are ours.
void GrowthRow(int nFew, int nMany)
{
    const CTalk clTalk(g_wOurs);
    const auto fMedianWith = [&](int nServers) {
        ProvideServers(nServers);
        CFigures cl;
        for (int n = 0; n < 3; ++n) {
            cl.Add(fInfo(clTalk));
        }
        return cl.fMedian();
    };

    TimeRow("growth of INFO from " + std::to_string(nFew) + " servers (floor) to " + std::to_string(nMany),
            stTurnByTurn(
                5, [&] { return fMedianWith(nFew); }, [&] { return fMedianWith(nMany); }),
            4);
}

void PingRow(int nServers, int nRounds)
{
    const CPing clPing;
    ListingRow("ping", nServers, nRounds, [&] { return fPing(clPing); });
}

/// INFO next to one launch for each server, and next to one plain question to systemd for all of them.
void OtherWaysRows(int nServers, int nRounds)
{
    const CTalk clTalk(g_wOurs);
    const auto fnInfo = [&] { return fInfo(clTalk); };
    ComparisonRow("INFO" + csWith(nServers) + ", next to one launch each (what was before)",
                  stTurnByTurn(
                      nRounds, [&] { return fMicroseconds([&] { LaunchInfoOneByOne(nServers); }); }, fnInfo));

    std::vector<std::string> tShow{"show"};
    for (int n = 0; n < nServers; ++n) {
        tShow.push_back("DXCS-" + csServer(n));
    }
    ComparisonRow("INFO" + csWith(nServers) + ", next to one plain `systemctl show` of them",
                  stTurnByTurn(
                      nRounds, [&] { return fMicroseconds([&] { Launch(tShow); }); }, fnInfo));
}

/// Conversations that ask at the same time share one listing; the floor is one that asks again and again.
void SharedInfoRow(int nServers)
{
    constexpr int nConversations = 16;
    std::vector<std::unique_ptr<CTalk>> tTalks;
    for (int n = 0; n < nConversations; ++n) {
        tTalks.push_back(std::make_unique<CTalk>(g_wOurs));
    }

    const STComparison st = stTurnByTurn(
        5, [&] { return fRateOf(1, [&](int) { LaunchInfo(nServers); }); },
        [&] {
            return fRateOf(nConversations,
                           [&](int n) { std::ignore = fInfo(*tTalks[static_cast<std::size_t>(n)]); });
        });
    RateRow("INFO per second, 16 conversations, " + std::to_string(nServers) + " servers", st, 2);
}

/// Many tools look for managers at the same moment; the floor is a single listing.
void CrowdOfQuestionsRows(int nServers)
{
    constexpr int nAskers = 300;
    int nFewest = nAskers; // answered in any round

    const auto fnOurs = [&] {
        const std::vector<CPing> tAskers(nAskers);
        int nAnswered = 0;
        const double fTook = fMicroseconds([&] {
            for (const CPing& clPing : tAskers) {
                clPing.Ask();
            }
            for (const CPing& clPing : tAskers) {
                nAnswered += clPing.bAnswered() ? 1 : 0;
            }
        });
        nFewest = std::min(nFewest, nAnswered);
        return fTook;
    };

    const STComparison st = stTurnByTurn(
        7, [&] { return fBareInfo(nServers); }, fnOurs);
    TimeRow("300 questions at once" + csWith(nServers) + ", until the last is answered", st, 3);
    Row("the same: answered", std::to_string(nAskers), std::to_string(nFewest), -1, std::to_string(nAskers),
        nFewest == nAskers);
}

/// The server that registers.
constexpr char s_szNewName[] = "Newcomer";
constexpr std::uint16_t s_wNewPort = 5998;
constexpr char s_szNewHome[] = "/opt/velmo/Newcomer";
constexpr char s_szNewService[] = "DXCS-Newcomer";
constexpr char s_szNewUnit[] = "/lib/systemd/system/DXCS-Newcomer.service";

void RemoveNewcomer()
{
    Launch({"disable", "--now", s_szNewService});
    std::filesystem::remove(s_szNewUnit);
    Launch({"daemon-reload"});
}

void Register()
{
    constexpr int nReply = 1;
    constexpr int nFormUTF16 = 1;
    const CReplyPipe clReply(nReply);
    const std::string csProgram = std::string(s_szNewHome) + "/dxdemo";
    const std::string csRecord = csRequest(nReply, nFormUTF16, s_szNewName, csProgram, s_wNewPort);
    if (!bWritePipe("/tmp/__pipe_velmomanager__", csRecord)) {
        Die("the manager does not read its pipe");
    }

    const std::string csReply = clReply.csReply();
    if (!csReply.empty()) {
        Die("the registration was refused: " + csReply);
    }
}

/// The launches of one registration, and the unit file that it writes.
void LaunchRegistration(int nServers)
{
    LaunchList(nServers);
    std::ofstream(s_szNewUnit) << csUnitText(s_szNewHome, s_szNewName);
    Launch({"daemon-reload"});
    Launch({"enable", s_szNewService});
    Launch({"start", s_szNewService});
}

void RegistrationRow(int nServers, int nRounds)
{
    PutServer(s_szNewHome, s_szNewName, s_wNewPort);
    const auto fTimed = [](const std::function<void()>& fnRegister) {
        const double fTook = fMicroseconds(fnRegister);
        RemoveNewcomer();
        return fTook;
    };

    TimeRow("registration of one among " + std::to_string(nServers),
            stTurnByTurn(
                nRounds, [&] { return fTimed([&] { LaunchRegistration(nServers); }); },
                [&] { return fTimed(Register); }),
            1.2);
}

/// The floor asks the manager the same, over as many conversations.
void ClientRow(int nServers, int nRounds)
{
    constexpr int nConversations = 4; // as many as the client has with one host
    std::vector<std::string> tLines{"INFO\r\n"};
    for (int n = 0; n < nServers; ++n) {
        tLines.push_back("STATUS\t" + csServer(n) + "\r\n");
    }

    std::vector<const char*> tAsked;
    for (const std::string& cs : tLines) {
        tAsked.push_back(cs.c_str());
    }

    const auto fnFloor = [&] {
        return fMicroseconds([&] {
            if (floor_ask(g_wOurs, tAsked.data(), static_cast<int>(tAsked.size()), nConversations) != 0) {
                Die("the bare client failed");
            }
        });
    };

    const auto fnOurs = [&] {
        return fMicroseconds([&] {
            if (nLaunchProgram({csBuilt("velmoctl"), "list"}) < nServers * 10L) { // a line has more
                Die("velmoctl lists less than there is");
            }
        });
    };

    TimeRow("`velmoctl list`" + csWith(nServers), stTurnByTurn(nRounds, fnFloor, fnOurs), 1.2);
}
} // namespace

void ListRows()
{
    ProvideServers(10);
    CRunningProgram clManager(tManagerCommand());
    clManager.AwaitPort(g_wOurs);
    InfoRow(10, 20);
    PingRow(10, 20);
    CrowdOfQuestionsRows(10);

    ProvideServers(20);
    SharedInfoRow(20);

    ProvideServers(50);
    InfoRow(50, 15);
    PingRow(50, 15);
    OtherWaysRows(50, 7);
    RegistrationRow(50, 9);
    ClientRow(50, 9);

    ProvideServers(200);
    InfoRow(200, 15);
    GrowthRow(50, 200);
}
