#pragma once

#include <filesystem>
#include <fstream>
#include <set>
#include <string>

/// A scripted systemctl with a memory: units are the files of the private /lib/systemd/system, their state is
/// the file DIR/UNIT.state ("inactive" without one); "start" makes a unit active unless it is named DXCS-bad.
inline constexpr char g_szRegistry[] = R"script(for LAST; do :; done
FILE=/lib/systemd/system/$LAST.service
case "$*" in
list-units*) for f in /lib/systemd/system/*.service; do [ -e "$f" ] && echo "  ${f##*/} loaded x y z"; done; exit 0 ;;
*ActiveState*) echo "ActiveState=$(cat "/run/$LAST.state" 2>/dev/null || echo inactive)" ;;
*Description*) [ -e "$FILE" ] || { echo Type=; exit; }
    sed -n 's/^ExecStart=\(.*\)/ExecStart={ path=x ; argv[]=\1 ; }/p; /^Description=/p; /^Type=/p' "$FILE" ;;
"start DXCS-bad") exit 1 ;;
start*) echo active >"/run/$LAST.state" ;;
esac)script";

/// Registers a unit; without a path it has no executable.
inline void AddUnit(const std::string& csUnit, const std::string& csExecutable)
{
    std::ofstream clFile("/lib/systemd/system/" + csUnit + ".service");
    clFile << "Description=" << csUnit << "\nType=forking\n";
    if (!csExecutable.empty()) {
        clFile << "ExecStart=" << csExecutable << " --SERVICE " << csUnit << "\n";
    }
}

/// Puts a server's files in /tmp/<folder>/; returns its executable.
inline std::string csAddProgram(const std::string& csFolder, int nPort)
{
    const std::string csHome = "/tmp/" + csFolder + "/";
    std::filesystem::create_directories(csHome);
    std::ofstream(csHome + "srv") << "program";
    std::ofstream(csHome + "DXConf.ini") << "[INIT]\nAccessPort=" << nPort << "\n";
    return csHome + "srv";
}

inline std::set<std::string> tUnits()
{
    std::set<std::string> tAll;
    for (const auto& clEntry : std::filesystem::directory_iterator("/lib/systemd/system")) {
        tAll.insert(clEntry.path().stem().string());
    }
    return tAll;
}

/// Forgets all of it.
inline void ClearRegistry()
{
    for (const char* pszFolder : {"/lib/systemd/system", "/run"}) {
        for (const auto& clEntry : std::filesystem::directory_iterator(pszFolder)) {
            std::filesystem::remove_all(clEntry.path());
        }
    }
}
