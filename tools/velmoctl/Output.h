#pragma once

#include "velmoctl/Terminal.h"

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// One cell of a table; the text is made harmless when it is written.
struct STCell
{
    std::string csText;
    EColour eColour = EColour::PLAIN;
};

/// Rows in columns two blanks apart, under a header; the last column has no blanks behind it. The result ends
/// with a line end.
std::string csTable(const std::vector<std::string>& tHeader, const std::vector<std::vector<STCell>>& tRows);

/// JSON values as text. Objects keep the order of their members.
std::string csJsonText(std::string_view csText);
std::string csJsonFlag(bool bFlag);
/// A number when the text is one without any doubt, a text otherwise.
std::string csJsonNumber(const std::string& csText);
std::string csJsonObject(std::initializer_list<std::pair<const char*, std::string>> tMembers);
std::string csJsonArray(const std::vector<std::string>& tValues);
