#include "Settings.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <strings.h>

namespace {
struct NoCase
{
    bool operator()(const std::string& a, const std::string& b) const
    {
        return ::strcasecmp(a.c_str(), b.c_str()) < 0;
    }
};
using Values = std::map<std::string, std::string, NoCase>; // "section/key" to text

std::string trimmed(const std::string& text)
{
    const auto first = text.find_first_not_of(" \t\r");
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

Values readIni(const std::filesystem::path& path)
{
    Values values;
    std::ifstream file(path);
    std::string section;
    for (std::string line; std::getline(file, line);) {
        line = trimmed(line); // also of the CR of a file from Windows
        if (line.size() > 1 && line.front() == '[' && line.back() == ']') {
            section = line.substr(1, line.size() - 2);
        } else if (const auto equal = line.find('='); equal != std::string::npos) {
            // emplace keeps what is there: the first of equal keys counts.
            values.emplace(section + "/" + trimmed(line.substr(0, equal)), trimmed(line.substr(equal + 1)));
        }
    }

    return values;
}

int number(const Values& values, const std::string& key, int fallback)
{
    const auto it = values.find(key);
    return it == values.end() || it->second.empty() ? fallback : std::atoi(it->second.c_str());
}
} // namespace

Settings readSettings()
{
    const std::filesystem::path executable = std::filesystem::read_symlink("/proc/self/exe");
    const Values values = readIni(executable.parent_path() / "DXConf.ini");
    const auto name = values.find("INIT/Name");
    return Settings{
        .executable = executable.string(),
        .name = name == values.end() ? "" : name->second,
        .port = static_cast<unsigned short>(number(values, "INIT/AccessPort", 4900)),
        .failAtStart = number(values, "DEMO/FailAtStart", 0) != 0,
        .ignoreTerm = number(values, "DEMO/IgnoreTerm", 0) != 0,
        .registers = number(values, "DEMO/Register", 0) != 0,
        .changesArguments = number(values, "DEMO/ChangeArguments", 0) != 0,
        .startDelay = number(values, "DEMO/StartDelay", 0),
        .crashAfter = number(values, "DEMO/CrashAfter", -1),
    };
}
