#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Readers of what systemctl prints: bytes in, records out, no I/O.

/// What "show" tells of one unit.
struct STUnitShown
{
    bool bExists = false;                     ///< a "Type" with a value was seen
    std::optional<std::string> csDescription; ///< UTF-8
    std::optional<std::string> csBinaryPath;  ///< the command line of "ExecStart"; keeps the blank behind it
    std::optional<std::string> csExecutable;  ///< its "path=", where the command line begins with that
    bool bOneProgram = true;                  ///< false: several command lines, of which the last one counts
};
STUnitShown stReadShow(std::string_view csOutput);

/// The first line that gives the property, its newline included: what systemctl reports of a failure stands
/// among the lines of its answer. Empty when there is no such line, or the output ends in the middle of it.
std::string_view csPropertyLine(std::string_view csOutput, std::string_view csProperty);

/// Value of the one property that was asked for: all behind the first "=", less the line end. Empty when
/// there is none.
std::string_view csReadProperty(std::string_view csOutput);

/// Unit names without ".service", in the order of the listing. The marks that current versions put before the
/// name (two blanks, or a bullet and a blank) are passed over.
std::vector<std::string_view> tReadListing(std::string_view csOutput);

/// What "show" prints of several units: one block of lines for each, with an empty line between two. An
/// output of nothing is no block; one that begins or ends with an empty line has an empty block there.
std::vector<std::string_view> tReadBlocks(std::string_view csOutput);

/// The "Id" of a block; empty when it does not give exactly one.
std::string_view csReadId(std::string_view csBlock);
