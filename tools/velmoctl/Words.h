#pragma once

#include <string>
#include <string_view>
#include <vector>

/// Words of a line typed at the prompt: separated by blanks; quotation marks of either kind keep blanks in a
/// word, a backslash any character outside of single ones. Throws CFailure (USAGE) for a line that ends
/// inside a quotation.
std::vector<std::string> tWordsOf(std::string_view csLine);
