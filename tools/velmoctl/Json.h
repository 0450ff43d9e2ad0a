#pragma once

#include "velmoctl/Failure.h"

#include <nlohmann/json.hpp>
#include <string>

/// Objects keep the order of their members.
using Json = nlohmann::ordered_json;

/// A value in one line with its newline. Bytes that are not UTF-8 become U+FFFD instead of an exception, and
/// what a terminal might obey is escaped: people read JSON, too.
std::string csJsonLine(const Json& clValue);

/// A number (a port, a PID) when the text can be nothing else, otherwise the text: "007" and "auto" stay
/// texts.
Json clJsonPort(const std::string& csText);

/// A failure: its kind in one word, the exit status of that kind, and the words.
Json clJsonFailure(const CFailure& clFailure);
