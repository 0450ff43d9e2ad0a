// Any name and any path: each is registered, listed, asked, started, registered again, contested and
// uninstalled with its files, or refused with nothing written; everything else on the machine stays as it is,
// byte for byte. Under a real systemd, and with Debian's init scripts. VELMO_LONG set: all of them; otherwise
// a fixed sample.

#include "PipeAndWire.h"

#include <algorithm>
#include <map>
#include <memory>
#include <vector>

namespace {
namespace fs = std::filesystem;
using CWorld = std::map<std::string, std::string>;
constexpr int s_nPort = 4911;
constexpr char s_szInvalid[] = "Invalid argument";
constexpr char s_szNone[] = "ERROR\t1No such file or directory\r\n";
constexpr char s_szCompleted[] = "ERROR\t12\t\r\n";

bool bSystemd()
{
    return fs::exists("/run/systemd/system");
}

/// Content of a file, or the target of a link.
std::string csContent(const fs::path& clFile)
{
    if (fs::is_symlink(clFile)) {
        return "-> " + fs::read_symlink(clFile).string();
    }
    std::string csBytes(fs::file_size(clFile), '\0');
    std::ifstream(clFile).read(csBytes.data(), static_cast<std::streamsize>(csBytes.size()));
    return csBytes;
}

/// A link of a run level: insserv numbers all of them anew.
std::string csWithoutNumber(const fs::path& clFile)
{
    const bool bNumbered = clFile.parent_path().string().find("/rc") != std::string::npos;
    return bNumbered ? (clFile.parent_path() / clFile.filename().string().substr(3)).string()
                     : clFile.string();
}

/// All files and links that the registration of a server may touch.
CWorld tLook()
{
    CWorld tWorld;
    for (const char* pszRoot : {"/opt/srv", "/lib/systemd/system", "/etc/systemd/system", "/etc/init.d",
                                "/etc/rc0.d", "/etc/rc2.d", "/etc/rc3.d", "/etc/rc5.d"}) {
        std::error_code clNone;
        for (const auto& clEntry : fs::recursive_directory_iterator(pszRoot, clNone)) {
            if ((clEntry.is_symlink() || clEntry.is_regular_file()) &&
                !clEntry.path().filename().string().starts_with(".depend")) {
                tWorld[csWithoutNumber(clEntry.path())] = csContent(clEntry.path());
            }
        }
    }
    return tWorld;
}

/// The paths in which two worlds differ, for a message.
std::string csDifference(const CWorld& tBefore, const CWorld& tAfter)
{
    std::string csResult;
    for (const auto& [csPath, csText] : tBefore) {
        const auto pAfter = tAfter.find(csPath);
        csResult += pAfter == tAfter.end()     ? "gone: " + csPath + "\n"
                    : pAfter->second != csText ? "changed: " + csPath + "\n"
                                               : "";
    }
    for (const auto& [csPath, csText] : tAfter) {
        csResult += tBefore.count(csPath) == 0 ? "new: " + csPath + "\n" : "";
    }
    return csResult;
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
    if (std::getenv("VELMO_LONG") != nullptr || tAll.size() <= nSample) {
        return tAll;
    }
    std::vector<T> tPart;
    for (std::size_t n = 0; n < nSample; ++n) { // the odd ones are at the end
        tPart.push_back(tAll[n % 2 == 0 ? n * 7 % tAll.size() : tAll.size() - 1 - n]);
    }
    return tPart;
}

} // namespace

class AnyServer : public ::testing::Test
{
protected:
    void SetUp() override
    {
        fs::remove_all("/opt/srv");
        m_pclManager = pclStartManager("CheckPeriod=1\n");
    }
    void TearDown() override
    {
        m_pclManager.reset();
        RemoveServices();
        fs::remove_all("/opt/srv");
    }
    static void AddNeighbour(const std::string& csName, const std::string& csProgram, int nPort)
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
        const CWorld tBefore = tLook();
        PutProgram(csOwn, s_nPort);
        PutProgram(csOther, s_nPort + 1);
        const CWorld tPut = tLook();
        const std::string csAnswer = csRegister(csName, csOwn, s_nPort);
        const bool bForm0 = csAnswer == "UNKNOWN";
        EXPECT_TRUE(bForm0 || csAnswer == (bGoodName(csName) ? "" : s_szInvalid)) << csAnswer;
        if (!bGoodName(csName)) {
            EXPECT_EQ(csDifference(tPut, tLook()), "") << "it was refused";
            if (!bControl(csName)) {
                EXPECT_EQ(csUTF8Reply("UNINSTALL\t" + csName + "\t1"), "ERROR\t11\r\n");
                // In a lookup a ";" or "|" at the end is a space that is not there: it finds the name
                // without.
                EXPECT_TRUE(csName.find_last_of(";|") == csName.size() - 1 ||
                            csUTF8Reply("STATUS\t" + csName) == s_szNone);
            }
            EXPECT_EQ(csDifference(tPut, tLook()), "") << "nothing has that name";
            ++m_nRefused;
        } else {
            Contest(csName, csOwn, csOther, bForm0);
            EXPECT_EQ(csUTF8Reply("UNINSTALL\t" + csName + "\t1"), s_szCompleted);
            EXPECT_FALSE(fs::exists("/opt/srv/own"));
            EXPECT_EQ(csUTF8Reply("UNINSTALL\t" + csName + "\t0"), "OK\r\n");
            ++m_nLived;
        }
        fs::remove_all("/opt/srv/own");
        fs::remove_all("/opt/srv/other");
        EXPECT_EQ(csDifference(tBefore, tLook()), "") << "at its end";
    }
    static void Contest(const std::string& csName, const std::string& csOwn, const std::string& csOther,
                        bool bForm0)
    {
        const CWorld tRegistered = tLook();
        EXPECT_TRUE(bListed(csName, s_nPort));
        EXPECT_EQ(csUTF8Reply("STATUS\t" + csName), "STATUS\tRUNNING\r\n");
        EXPECT_EQ(csUTF8Reply("START\t" + csName), "OK\r\n");
        EXPECT_EQ(csRegister(csName, csOwn, s_nPort), bForm0 ? "UNKNOWN" : "");
        const std::string csRefusal = csRegister(csName, csOther, s_nPort + 1);
        EXPECT_TRUE(bForm0 ||
                    csRefusal.find("its name is already registered for " + csOwn) != std::string::npos)
            << csRefusal;
        EXPECT_EQ(csDifference(tRegistered, tLook()), "") << "registered again, and by another program";
    }
    std::unique_ptr<CManagerProcess> m_pclManager;
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
    for (const STPath& st : std::initializer_list<STPath>{
             {"/opt/srv/sp ace/dxdemo", D, D},
             {"\"/opt/srv/in quotes/dx\"", D, D},
             {"/opt/srv/end /dx", D, D},
             {"/opt/srv/(a) & b/dx", D, D},
             {"/opt/srv/a --b/dx", D, R},
             {"/opt/srv/a/dx --b", D, R},
             {"/opt/srv/a/dx ", D, R},
             {"/opt/srv//double/dx", D, D},
             {"/opt/srv//semi;colon/dx", R, D},
             {"/opt/srv/./dot/dx", D, D},
             {"/opt/srv/slash/dx/", R, R},
             {"/opt/srv/slash/dx/.", R, R},
             {"opt/srv/relative/dx", R, R},
             {"/opt/srv/x ; argv[]=/opt/srv/x /dx", R, D},
             {csLong + "/" + std::string(25, 'm') + "/d", D, D},
             {csLong + "/" + std::string(26, 'm') + "/d", D, R},
             {"/opt/srv/link/dx", K, K, "mkdir -p /opt/srv/real; ln -s real /opt/srv/link"},
             {"/opt/srv/dxdemo", K, K},
             {"/opt/srv/plain/inner/dx", D, D},
             {"/opt/srv/outer/dx", K, K},
             {"/opt/srv/pair/second", K, K, "systemctl stop DXCS-pair || /etc/init.d/DXCS-pair stop"},
         }) {
        tAll.push_back(st);
    }
    return tAll;
}
} // namespace

TEST_F(AnyServer, LivesUnderAnyNameOrIsRefused)
{
    AddNeighbour("Plain", "/opt/srv/plain/dxdemo", 4921);
    AddNeighbour("Two words", "/opt/srv/two/dxdemo", 4922);
    AddNeighbour(bSystemd() ? "R&D" : "R_D", "/opt/srv/rnd/dxdemo", 4923);
    const auto tChosen = tSample(tNames(), 40);
    for (const std::string& csName : tChosen) {
        Live(csName);
    }
    // Of one form with a neighbour's name.
    PutProgram("/opt/srv/own/dxdemo", s_nPort);
    EXPECT_NE(
        csRegister("Two_words", "/opt/srv/own/dxdemo", s_nPort).find("its name is already registered for"),
        std::string::npos);
    std::printf("| names, %s | %zu | %d registered and uninstalled | %d refused |\n",
                bSystemd() ? "systemd" : "SysV", tChosen.size(), m_nLived, m_nRefused);
}

TEST_F(AnyServer, LivesAtAnyPathOrIsRefusedAndNothingButItsFolderGoes)
{
    AddNeighbour("Plain", "/opt/srv/plain/dxdemo", 4921);
    AddNeighbour("inside", "/opt/srv/outer/inner/dxdemo", 4922);
    AddNeighbour("pair", "/opt/srv/pair/dxdemo", 4923);
    int tCount[3] = {};
    const auto tChosen = tSample(tPaths(), 10);
    for (const STPath& st : tChosen) {
        SCOPED_TRACE(::testing::PrintToString(st.csPath));
        const std::string csFile =
            st.csPath.front() == '"' ? st.csPath.substr(1, st.csPath.size() - 2) : st.csPath;
        const EPath eExpected = bSystemd() ? st.eSystemd : st.eSysV;
        const fs::path clFolder = fs::path(csFile).parent_path();
        const CWorld tBefore = tLook();
        const bool bNewFolder = !fs::exists(clFolder);
        stRun(st.pszMake);
        if (csFile.front() == '/' && csFile.back() != '/' && csFile.back() != '.') {
            PutProgram(csFile, s_nPort);
        }
        const CWorld tPut = tLook();
        const std::string csAnswer = csRegister("path", st.csPath, s_nPort);
        EXPECT_EQ(csAnswer, eExpected == EPath::REFUSED ? s_szInvalid : "");
        if (eExpected == EPath::REFUSED) {
            EXPECT_EQ(csDifference(tPut, tLook()), "");
            EXPECT_EQ(csUTF8Reply("STATUS\tpath"), s_szNone);
        } else {
            EXPECT_EQ(csUTF8Reply("STATUS\tpath"), "STATUS\tRUNNING\r\n");
            const bool bShared = csFile == "/opt/srv/pair/second";
            EXPECT_TRUE(bListed("path", bShared ? 4923 : s_nPort)) << "with the port of its own settings";
            EXPECT_EQ(csRegister("path", st.csPath, s_nPort), "") << "again";
            EXPECT_EQ(csUTF8Reply("UNINSTALL\tpath\t1"), eExpected == EPath::KEPT ? "OK\r\n" : s_szCompleted);
            EXPECT_EQ(fs::exists(csFile), eExpected == EPath::KEPT);
            if (eExpected == EPath::KEPT) {
                EXPECT_EQ(csDifference(tPut, tLook()), "") << "the folder may be another's";
            } else {
                EXPECT_EQ(csUTF8Reply("UNINSTALL\tpath\t0"), "OK\r\n");
            }
        }
        ++tCount[static_cast<int>(eExpected)];
        if (bNewFolder) {
            fs::remove_all(clFolder);
        }
        for (const auto& [csPath, csText] : tLook()) { // what this test itself has put there
            if (tBefore.count(csPath) == 0 && csPath.starts_with("/opt/srv/")) {
                fs::remove(csPath);
            }
        }
        EXPECT_EQ(csDifference(tBefore, tLook()), "") << "at its end";
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
    const char* pszMake;      ///< shell commands
    const char* pszUninstall; ///< with files
    bool bDeleted;
    const char* pszOther = nullptr; ///< another server that is registered before, with its program
    const char* pszProgram = nullptr;
};

constexpr STOthers s_tOnSystemd[] = {
    {"a name with the type inside", ":", "own", false, "in.service.1", "/opt/srv/own/in/dxdemo"},
    {"a masked unit", "systemctl stop DXCS-in; systemctl mask DXCS-in", "own", false, "in",
     "/opt/srv/own/in/dxdemo"},
    {"a program that is seen through a bind mount",
     "mkdir -p /opt/bound; mount --bind /opt/srv/own /opt/bound; systemctl stop DXCS-in; "
     "sed -i s:/opt/srv/own:/opt/bound: /lib/systemd/system/DXCS-in.service; systemctl daemon-reload",
     "own", false, "in", "/opt/srv/own/in/dxdemo"},
    {"a unit with a path that systemd cuts at its space",
     "sed -i 's:=/opt/srv/own/dx:=/opt/srv/own/sp ace/dx:' /lib/systemd/system/DXCS-own.service; "
     "systemctl daemon-reload",
     "own", false},
    {"another one whose path goes on in the folder",
     "systemctl stop DXCS-in; sed -i 's:=/opt/srv/x:=/opt/srv/o wn/x:' /lib/systemd/system/DXCS-in.service; "
     "mv /opt/srv/own '/opt/srv/o wn'; sed -i 's:=/opt/srv/own/dxdemo:=\"/opt/srv/o wn/dxdemo\":' "
     "/lib/systemd/system/DXCS-own.service; systemctl daemon-reload",
     "own", false, "in", "/opt/srv/x/dxdemo"},
    {"several programs",
     "sed -i 's:^Type=.*:Type=oneshot\\nExecStart=/bin/true:' /lib/systemd/system/DXCS-own.service; "
     "systemctl daemon-reload",
     "own", false},
    {"an instance of a template",
     "printf '[Service]\\nExecStart=/bin/sleep 999\\n' >/lib/systemd/system/DXCS-T@.service; "
     "systemctl daemon-reload; systemctl start DXCS-T@x DXCS-T@y",
     "T@x", false},
    {"what wants a unit that is not there",
     "ln -s /lib/systemd/system/DXCS-no.service /etc/systemd/system/multi-user.target.wants; "
     "systemctl daemon-reload",
     "own", true},
};

constexpr STOthers s_tOnSysV[] = {
    {"a script without its marker line", "sed -i /Program=/d /etc/init.d/DXCS-in", "own", false, "in",
     "/opt/srv/own/in/dxdemo"},
    {"a script with a path that its shell cuts at a space",
     "sed -i 's:/opt/srv/own/dxdemo:/opt/srv/own/sp:; s:-- --SERVICE:-- ace/dx --SERVICE:' "
     "/etc/init.d/DXCS-own",
     "own", false},
    {"a process that no PID file names", "rm /run/DXCS-own.pid", "own", true},
};
} // namespace

TEST_F(AnyServer, KeepsItsFilesUnlessItIsCertainWhoseTheyAre)
{
    const std::string csUndo =
        "systemctl unmask DXCS-in; systemctl stop 'DXCS-T@*'; umount /opt/bound; rm -f "
        "/etc/systemd/system/multi-user.target.wants/DXCS-no.service /lib/systemd/system/DXCS-T@.service; "
        "systemctl daemon-reload";
    const auto tCases = bSystemd() ? std::vector(std::begin(s_tOnSystemd), std::end(s_tOnSystemd))
                                   : std::vector(std::begin(s_tOnSysV), std::end(s_tOnSysV));
    for (const STOthers& st : tCases) {
        SCOPED_TRACE(st.pszWhat);
        AddNeighbour("own", "/opt/srv/own/dxdemo", 4921);
        if (st.pszOther != nullptr) {
            PutProgram(st.pszProgram, 4922);
            std::ofstream(fs::path(st.pszProgram).parent_path() / "DXConf.ini")
                << "[INIT]\nAccessPort=4922\n";
            ASSERT_EQ(csRegister(st.pszOther, st.pszProgram, 4922), "");
        }
        stRun(st.pszMake);
        CWorld tBefore = tLook();
        EXPECT_EQ(csUTF8Reply(std::string("UNINSTALL\t") + st.pszUninstall + "\t1"),
                  st.bDeleted ? s_szCompleted : "OK\r\n");
        const std::string csGone = csDifference(tBefore, tLook());
        EXPECT_EQ(csGone.find("/opt/srv/o") != std::string::npos, st.bDeleted) << csGone;
        EXPECT_EQ(csGone.find("DXCS-T@.service"), std::string::npos) << "all instances have that file";
        EXPECT_EQ(stRun("pgrep -f '/dxdemo .*DXCS-own$'").csOutput.empty(),
                  csGone.find("own") != std::string::npos)
            << "it is ended before it goes";
        stRun(csUndo);
        for (const std::string cs : {"own", "in", "in.service.1"}) {
            csUTF8Reply("UNINSTALL\t" + cs + "\t0");
        }
        fs::remove_all("/opt/srv");
    }
}

TEST_F(AnyServer, AndItsManagerLiveAtPathsWithASpace)
{
    LiveAtAPathWithASpace(true);
    m_pclManager.reset(); // it installs itself
    const std::string csManager = "'/opt/velmo/my manager/VelmoManager'";
    std::ofstream("/opt/my") << "not a folder"; // nor is what its path begins with its own
    EXPECT_EQ(stRun(csManager).nStatus, 0);
    EXPECT_EQ(csUTF8Reply("INFO").substr(0, 4), "YES\t");
    EXPECT_EQ(stRun(csManager).nStatus, 0) << "registered already";
    EXPECT_EQ(stRun(csManager + " --UNINSTALL").nStatus, 0);
    EXPECT_EQ(stRun("pgrep -x VelmoManager; ls /lib/systemd/system /etc/init.d | grep Velmo").csOutput, "");
    EXPECT_FALSE(fs::exists("/opt/velmo/my manager/VelmoManager"));
    fs::remove("/opt/my");
}
