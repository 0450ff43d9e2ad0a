// Any name and any path: each is registered, listed, asked, started, registered again, contested and
// uninstalled with its files, or refused with nothing written; everything else on the machine stays as it is,
// byte for byte. Under a real systemd, and with Debian's init scripts. VELMO_LONG set: all of them; otherwise
// a fixed sample.

#include "Paths.h"

#include <algorithm>
#include <map>
#include <vector>

namespace {
constexpr int s_nPort = 4911;
constexpr char s_szInvalid[] = "Invalid argument";
constexpr char s_szCompleted[] = "ERROR\t12\t\r\n";

/// All files and links that the registration of a server may touch, a line for each with what it holds.
/// insserv numbers all links of the run levels anew: their numbers are left out.
std::string csLook()
{
    return csOutput("find /opt/srv /lib/systemd/system /etc/systemd/system /etc/init.d /etc/rc[0235].d "
                    "! -name '.depend*' '(' -type f -exec md5sum {} + -o -type l -printf '%p -> %l\\n' ')' "
                    "2>/dev/null | sed 's:\\(/rc.[.]d/[SK]\\)[0-9][0-9]:\\1:' | LC_ALL=C sort");
}

bool bHasOneOf(const std::string& csText, std::string_view csSet)
{
    return csText.find_first_of(csSet) != std::string::npos;
}

bool bControl(const std::string& csText)
{
    return std::any_of(csText.begin(), csText.end(),
                       [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 0x7F; });
}

/// What is to be accepted, told apart from the manager's own rules.
bool bGoodName(const std::string& csName)
{
    const std::string csWhole = "DXCS-" + csName;
    const bool bWord =
        csWhole.find(" -") == std::string::npos && csName.front() != ' ' && csName.back() != ' ';
    const bool bType = csWhole.ends_with(".service") || csWhole.ends_with(".timer");
    if (!bWord || bType || bControl(csName)) {
        return false;
    }
    if (bSystemd()) {
        std::size_t nEscaped = csWhole.size();
        for (const char c : csWhole) {
            nEscaped +=
                std::isalnum(static_cast<unsigned char>(c)) != 0 || bHasOneOf(std::string(1, c), ":_-.@ ")
                    ? 0u
                    : 3u;
        }
        return !bHasOneOf(csName, "*?[\"/\\%$';|") && nEscaped <= 247;
    }
    return !bHasOneOf(csName, "*?[\"\\$';|!#&()<>]^`{}~") && csWhole.size() <= 251;
}

std::vector<std::string> tNames()
{
    std::vector<std::string> tAll;
    for (char c = '!'; c <= '~'; ++c) {
        for (const char* pszForm : {"?fi", "mi?dd", "la?"}) { // in the place of the "?"
            std::string csName(pszForm);
            csName[csName.find('?')] = c;
            tAll.push_back(csName);
        }
    }
    std::string csEuros;
    for (int n = 0; n < 67; ++n) {
        csEuros += "€";
    }
    for (const char* psz :
         {"Two words 2",  "two  spaces", " front",  "back ",      "a - b",       "a -b",
          "tab\tbed",     "line\nfeed",  "\x01",    "..",         "...",         "a.b",
          "a..b",         "--",          "a--b",    "a-",         "Ä",           "äöüß",
          "Donn\u00e9es", "𝄞",           "a𝄞b",     "𝄞 €",        "Pla",         "Plain1",
          "Plain Plain",  "plain",       "R#D",     "R&d",        "R+D",         "R x26D",
          "R\\x26D",      "R&D&",        "a@b@c",   "@",          "@@",          "a.service",
          "b.timer",      "x.socket2",   "Plain;x", "Plain|",     "a=b=c",       "ActiveState=active",
          "%n",           "_",           "0",       "x.serviced", "v.service.1", "a.service b",
          "x.service-1",  "a b  c d"}) {
        tAll.emplace_back(psz);
    }
    tAll.push_back(csEuros);
    for (const std::size_t n : {200u, 242u, 243u, 246u, 247u}) {
        tAll.emplace_back(n, 'x');
    }
    return tAll;
}

/// Whether a test does the whole work, or a sample of at most so many parts of it, spread over all.
template <class T>
std::vector<T> tSample(std::vector<T> tAll, std::size_t nSample)
{
    if (bLong() || tAll.size() <= nSample) {
        return tAll;
    }
    std::vector<T> tPart;
    for (std::size_t n = 0; n < nSample; ++n) { // the odd ones are at the end
        tPart.push_back(tAll[n % 2 == 0 ? n * 7 % tAll.size() : tAll.size() - 1 - n]);
    }
    return tPart;
}

} // namespace

class AnyServer : public CMachineTest
{
protected:
    void SetUp() override
    {
        fs::remove_all("/opt/srv");
        StartManager("CheckPeriod=1\n");
    }
    void TearDown() override
    {
        CMachineTest::TearDown();
        fs::remove_all("/opt/srv");
    }
    static void AddServerAt(const std::string& csName, const std::string& csProgram, int nPort)
    {
        PutProgram(csProgram, nPort);
        ASSERT_EQ(csRegister(csName, csProgram, nPort), "") << csName;
    }
    /// One name from its registration to its end.
    void Live(const std::string& csName)
    {
        SCOPED_TRACE(::testing::PrintToString(csName));
        const std::string csOwn = "/opt/srv/own/dxdemo";
        const std::string csOther = "/opt/srv/other/dxdemo";
        const std::string csBefore = csLook();
        PutProgram(csOwn, s_nPort);
        PutProgram(csOther, s_nPort + 1);
        const std::string csPut = csLook();
        const std::string csAnswer = csRegister(csName, csOwn, s_nPort);
        const bool bForm0 = csAnswer == "UNKNOWN";
        EXPECT_TRUE(bForm0 || csAnswer == (bGoodName(csName) ? "" : s_szInvalid)) << csAnswer;
        if (bGoodName(csName)) {
            Contest(csName, csOwn, csOther, bForm0);
            EXPECT_EQ(csUTF8Reply("UNINSTALL\t" + csName + "\t1"), s_szCompleted);
            EXPECT_FALSE(fs::exists("/opt/srv/own"));
            EXPECT_EQ(csUTF8Reply("UNINSTALL\t" + csName + "\t0"), "OK\r\n");
            ++m_nLived;
        } else {
            if (!bControl(csName)) {
                EXPECT_EQ(csUTF8Reply("UNINSTALL\t" + csName + "\t1"), "ERROR\t11\r\n");
                // In a lookup a ";" or "|" at the end is a space that is not there: it finds the name
                // without.
                EXPECT_TRUE(csName.find_last_of(";|") == csName.size() - 1 ||
                            csUTF8Reply("STATUS\t" + csName) == g_szNone);
            }
            EXPECT_EQ(csPut, csLook()) << "it was refused, and nothing has that name";
            ++m_nRefused;
        }
        fs::remove_all("/opt/srv/own");
        fs::remove_all("/opt/srv/other");
        EXPECT_EQ(csBefore, csLook()) << "at its end";
    }
    static void Contest(const std::string& csName, const std::string& csOwn, const std::string& csOther,
                        bool bForm0)
    {
        const auto csState = [] { return csLook() + csOutput("cat /run/DXCS-*.pid"); };
        const std::string csRegistered = csState();
        EXPECT_TRUE(bListed(csName, s_nPort));
        EXPECT_EQ(csUTF8Reply("STATUS\t" + csName), "STATUS\tRUNNING\r\n");
        EXPECT_EQ(csUTF8Reply("START\t" + csName), "OK\r\n");
        EXPECT_EQ(csRegister(csName, csOwn, s_nPort), bForm0 ? "UNKNOWN" : "");
        const std::string csRefusal = csRegister(csName, csOther, s_nPort + 1);
        EXPECT_TRUE(bForm0 ||
                    csRefusal.find("its name is already registered for " + csOwn) != std::string::npos)
            << csRefusal;
        EXPECT_EQ(csRegistered, csState()) << "registered again, and by another program";
    }
    int m_nLived = 0;
    int m_nRefused = 0;
};

namespace {
/// What becomes of a path.
enum class EPath
{
    DELETED, ///< registered; uninstalled with its folder
    KEPT,    ///< registered; its folder stays, as it may be another's
    REFUSED,
};

struct STPath
{
    std::string csPath; ///< of the executable
    EPath eSystemd;
    EPath eSysV;
    const char* pszMake = ":"; ///< shell commands, before
};

std::vector<STPath> tPaths()
{
    constexpr EPath D = EPath::DELETED, K = EPath::KEPT, R = EPath::REFUSED;
    std::vector<STPath> tAll;
    for (const std::string cs :
         {" ",  "  ", ";", " ; ", "%",   "$",  "\"",  "'", "\\", "\n", "\t",          "&",
          "()", "#",  "*", "?",   "[x]", "{}", "~",   "!", "|",  "<>", "^",           "=",
          ",",  ":",  "@", "+",   "-",   ".",  "`x`", "é", "€",  "𝄞",  "$(touch ran)"}) {
        const EPath eSystemd = bControl(cs) || bHasOneOf(cs, "%$\"'\\") ? R : D;
        const EPath eSysV = bControl(cs) || bHasOneOf(cs, "\"\\") ? R : D;
        tAll.push_back({"/opt/srv/x" + cs + "y/dx", eSystemd, eSysV});
        tAll.push_back({"/opt/srv/pp/d" + cs + "x", eSystemd, eSysV});
    }
    const std::string csLong = "/opt/srv/" + std::string(100, 'l');
    std::ifstream clFile(VELMO_FOLDER "paths.txt");
    const std::map<std::string, EPath> tWords = {{"deleted", D}, {"kept", K}, {"refused", R}};
    for (std::string csSystemd, csSysV, csPath; clFile >> csSystemd >> csSysV && clFile.ignore();) {
        std::getline(clFile, csPath);
        tAll.push_back({csPath, tWords.at(csSystemd), tWords.at(csSysV)});
    }
    tAll.push_back({"/opt/srv/a/dx ", D, R});
    tAll.push_back({csLong + "/" + std::string(25, 'm') + "/d", D, D});
    tAll.push_back({csLong + "/" + std::string(26, 'm') + "/d", D, R});
    tAll.push_back({"/opt/srv/link/dx", K, K, "mkdir -p /opt/srv/real; ln -s real /opt/srv/link"});
    tAll.push_back({"/opt/srv/pair/second", K, K, "systemctl stop DXCS-pair || /etc/init.d/DXCS-pair stop"});
    return tAll;
}

/// A server at one path, from its registration to its end.
void LiveAt(const std::string& csPath, EPath eExpected)
{
    const std::string csFile = csPath.front() == '"' ? csPath.substr(1, csPath.size() - 2) : csPath;
    if (csFile.front() == '/' && csFile.back() != '/' && csFile.back() != '.') {
        PutProgram(csFile, s_nPort);
    }
    const std::string csPut = csLook();
    EXPECT_EQ(csRegister("path", csPath, s_nPort), eExpected == EPath::REFUSED ? s_szInvalid : "");
    if (eExpected == EPath::REFUSED) {
        EXPECT_EQ(csPut, csLook());
        EXPECT_EQ(csAsk("STATUS\tpath"), g_szNone);
        return;
    }

    EXPECT_EQ(csAsk("STATUS\tpath"), "STATUS\tRUNNING\r\n");
    const bool bShared = csFile == "/opt/srv/pair/second";
    EXPECT_TRUE(bListed("path", bShared ? 4923 : s_nPort)) << "with the port of its own settings";
    EXPECT_EQ(csRegister("path", csPath, s_nPort), "") << "again";
    const bool bKept = eExpected == EPath::KEPT;
    EXPECT_EQ(csAsk("UNINSTALL\tpath\t1"), bKept ? "OK\r\n" : s_szCompleted);
    EXPECT_EQ(fs::exists(csFile), bKept);
    if (bKept) {
        EXPECT_EQ(csPut, csLook()) << "the folder may be another's";
    } else {
        EXPECT_EQ(csAsk("UNINSTALL\tpath\t0"), "OK\r\n");
    }
}
} // namespace

TEST_F(AnyServer, LivesUnderAnyNameOrIsRefused)
{
    AddServerAt("Plain", "/opt/srv/plain/dxdemo", 4921);
    AddServerAt("Two words", "/opt/srv/two/dxdemo", 4922);
    AddServerAt(bSystemd() ? "R&D" : "R_D", "/opt/srv/rnd/dxdemo", 4923);
    const auto tChosen = tSample(tNames(), 40);
    for (const std::string& csName : tChosen) {
        Live(csName);
    }
    // Of one form with a neighbour's name.
    PutProgram("/opt/srv/own/dxdemo", s_nPort);
    EXPECT_THAT(csRegister("Two_words", "/opt/srv/own/dxdemo", s_nPort),
                HasSubstr("its name is already registered for"));
    std::printf("| names, %s | %zu | %d registered and uninstalled | %d refused |\n",
                bSystemd() ? "systemd" : "SysV", tChosen.size(), m_nLived, m_nRefused);
}

TEST_F(AnyServer, LivesAtAnyPathOrIsRefusedAndNothingButItsFolderGoes)
{
    AddServerAt("Plain", "/opt/srv/plain/dxdemo", 4921);
    AddServerAt("inside", "/opt/srv/outer/inner/dxdemo", 4922);
    AddServerAt("pair", "/opt/srv/pair/dxdemo", 4923);
    int tCount[3] = {};
    const auto tChosen = tSample(tPaths(), 10);
    for (const STPath& st : tChosen) {
        SCOPED_TRACE(::testing::PrintToString(st.csPath));
        const EPath eExpected = bSystemd() ? st.eSystemd : st.eSysV;
        const std::string csBefore = csLook();
        stRun("find /opt/srv -print0 | sort -z >/run/before");
        stRun(st.pszMake);
        LiveAt(st.csPath, eExpected);
        ++tCount[static_cast<int>(eExpected)];
        // What this test itself has put there.
        stRun("find /opt/srv -print0 | sort -z | comm -z -13 /run/before - | xargs -0 -r rm -rf");
        EXPECT_EQ(csBefore, csLook()) << "at its end";
    }
    EXPECT_EQ(csRan(), "");
    std::printf(
        "| paths, %s | %zu | %d registered, uninstalled with their folder; %d registered, folder kept | %d "
        "refused |\n",
        bSystemd() ? "systemd" : "SysV", tChosen.size(), tCount[0], tCount[1], tCount[2]);
}

namespace {
/// The server "own" of "/opt/srv/own/dxdemo", and what makes it uncertain whose the folder is.
struct STOthers
{
    const char* pszWhat;
    const char* pszMake; ///< a case of the script "uncertain"
    bool bDeleted;
    const char* pszOther = nullptr; ///< another server that is registered before, with its program
    const char* pszProgram = "/opt/srv/own/in/dxdemo";
    const char* pszUninstall = "own"; ///< with files
};

const std::vector<STOthers> s_tOnSystemd = {
    {"a name with the type inside", "nothing", false, "in.service.1"},
    {"a masked unit", "masked", false, "in"},
    {"a program that is seen through a bind mount", "bound", false, "in"},
    {"a unit with a path that systemd cuts at its space", "cut", false},
    {"another one whose path goes on in the folder", "goes-on", false, "in", "/opt/srv/x/dxdemo"},
    {"several programs", "several", false},
    {"an instance of a template", "instance", false, nullptr, nullptr, "T@x"},
    {"what wants a unit that is not there", "wanted", true},
};
const std::vector<STOthers> s_tOnSysV = {
    {"a script without its marker line", "no-marker", false, "in"},
    {"a script with a path that its shell cuts at a space", "cut-by-shell", false},
    {"a process that no PID file names", "no-pid-file", true},
};
} // namespace

TEST_F(AnyServer, KeepsItsFilesUnlessItIsCertainWhoseTheyAre)
{
    for (const STOthers& st : bSystemd() ? s_tOnSystemd : s_tOnSysV) {
        SCOPED_TRACE(st.pszWhat);
        AddServerAt("own", "/opt/srv/own/dxdemo", 4921);
        if (st.pszOther != nullptr) {
            AddServerAt(st.pszOther, st.pszProgram, 4922);
        }
        stRun("'" VELMO_FOLDER "uncertain' " + std::string(st.pszMake));
        const auto csFiles = [] { return csOutput("find /opt/srv/o* -type f | sort"); };
        const std::string csBefore = csFiles();
        EXPECT_EQ(csUTF8Reply(std::string("UNINSTALL\t") + st.pszUninstall + "\t1"),
                  st.bDeleted ? s_szCompleted : "OK\r\n");
        EXPECT_EQ(csFiles() != csBefore, st.bDeleted) << csFiles();
        EXPECT_EQ(fs::exists("/lib/systemd/system/DXCS-T@.service"), st.pszUninstall == std::string("T@x"))
            << "all instances have that file";
        EXPECT_EQ(stRun("pgrep -f '/dxdemo .*DXCS-own$'").csOutput.empty(),
                  st.pszUninstall == std::string("own") || st.bDeleted)
            << "it is ended before it goes";
        stRun("'" VELMO_FOLDER "uncertain' undo");
        for (const std::string cs : {"own", "in", "in.service.1"}) {
            csUTF8Reply("UNINSTALL\t" + cs + "\t0");
        }
        fs::remove_all("/opt/srv");
    }
}

TEST_F(AnyServer, AndItsManagerLiveAtPathsWithASpace)
{
    if (bSystemd()) { // without it the families of init scripts are tried by themselves
        LiveAtAPathWithASpace(true);
    }
    m_pclManager.reset();
    Play("names-manager.txt");
}
