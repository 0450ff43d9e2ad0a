#pragma once

#include "velmoctl/Failure.h"

#include <nlohmann/json.hpp>
#include <string>

/// Objects keep the order of their members.
using Json = nlohmann::ordered_json;

/// A value in one line. Never throws; what a terminal might obey is escaped, since people look at this, too.
std::string csJsonLine(const Json& clValue);

/// A number when the text is one without any doubt, a text otherwise.
Json clJsonPort(const std::string& csText);

/// A failure: its kind in one word, the exit status of that kind, and the words.
Json clJsonFailure(const CFailure& clFailure);
