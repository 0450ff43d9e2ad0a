#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Readers of what systemctl prints: bytes in, records out, no I/O. The views returned are parts of the text
/// passed in.

/// What "show" prints about one unit.
struct STUnitShown
{
    bool bExists = false;                     ///< a "Type" with a value was seen
    std::optional<std::string> csDescription; ///< UTF-8, like the next two
    std::optional<std::string> csBinaryPath;  ///< command line of "ExecStart", with the space that follows it
    std::optional<std::string> csExecutable;  ///< its "path=", if csBinaryPath begins with that path
    bool bOneProgram = true;                  ///< false: several "ExecStart", of which the last one counts
};
/// Case does not count in the names of properties.
STUnitShown stReadShow(std::string_view csOutput);

/// The first line that gives the property (case does not count in its name), newline included: systemctl
/// prints its complaints between the lines of an answer. Empty when there is no such line, or the output ends
/// before its newline.
std::string_view csPropertyLine(std::string_view csOutput, std::string_view csProperty);

/// Value of the one property that was asked for: all after the first "=" but the last byte, which is the
/// newline. Empty when there is no "=".
std::string_view csReadProperty(std::string_view csOutput);

/// Unit names without ".service", in the order of the listing. Skips what current versions print before the
/// name: two spaces, or a bullet and a space.
std::vector<std::string_view> tReadListing(std::string_view csOutput);

/// The blocks of what "show" prints about several units: one for each, with an empty line between two. No
/// output is no block; an empty line at the beginning or end has an empty block there.
std::vector<std::string_view> tReadBlocks(std::string_view csOutput);

/// The "Id" of a block; empty when the block does not have exactly one.
std::string_view csReadId(std::string_view csBlock);
