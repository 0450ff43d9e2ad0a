#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

/// Names of machines, from lists on the command line and from hosts files. Pure functions, no I/O.

/// A machine whose manager is asked.
struct STHost
{
    std::string csName;      ///< as the user calls it; empty: this machine
    std::string csAddress;   ///< where it is asked, usually the name again; empty: this machine
    std::uint16_t wPort = 0; ///< 0: none of its own, so that of the options
};

/// More machines than this are taken for a typing error (db[1-1000000]).
inline constexpr std::size_t g_nMostHosts = 10'000;

/// The names that a list stands for, such as "db1,db2", "db[01-40].example.org" or "[a-c][1-3]", in the order
/// of counting. Brackets at the start with several colons inside hold an IPv6 address instead. Throws
/// CFailure (USAGE).
std::vector<std::string> tExpandList(std::string_view csList);

/// A hosts file: one machine a line, comments after "#" (at the start of a line also ";"), groups as
/// "[name]". Of an Ansible inventory in INI form "[name:children]", ranges ("db[01:40]") and "ansible_host"
/// count; "velmo_port" gives a machine another port than 4999. Other variables are ignored, and so is
/// "[name:vars]".
class CHostsFile
{
public:
    CHostsFile() = default;
    /// The name is for messages. Throws CFailure (USAGE) with the number of the line that cannot be read.
    CHostsFile(std::string_view csText, const std::string& csFileName);

    /// All machines, each once, in the order of the file.
    std::vector<STHost> tAll() const;
    /// Those of a group and of the groups in it, each once. "all" and "ungrouped" are groups, too. Throws
    /// CFailure (USAGE) for a group that the file does not have.
    std::vector<STHost> tGroup(const std::string& csGroup) const;
    /// The machine of that name in the file; when the file has none, a machine with the name as its address.
    STHost stFind(const std::string& csName) const;
    /// "all", then the file's groups by name, "ungrouped" included.
    std::vector<std::string> tGroupNames() const;

private:
    struct STGroup
    {
        std::vector<std::string> tHosts;
        std::vector<std::string> tChildren;
    };
    enum class ESection
    {
        HOSTS,
        CHILDREN,
        VARIABLES,
    };

    void _Line(std::string_view csLine);
    void _Section(std::string_view csHeader);
    void _Hosts(const std::vector<std::string>& tWords);
    void _Variable(const std::string& csWord, STHost* pstHost) const;
    void _Collect(const std::string& csGroup, std::vector<std::string>* ptSeen,
                  std::vector<std::string>* ptHosts) const;
    std::vector<STHost> _tHosts(const std::vector<std::string>& tNames) const;

    std::string m_csFile;
    std::vector<std::string> m_tOrder; ///< names of all machines
    std::map<std::string, STHost> m_tHosts;
    std::map<std::string, STGroup> m_tGroups;
    std::string m_csGroup = "ungrouped"; ///< the section being read, and its kind
    ESection m_eSection = ESection::HOSTS;
};
