#pragma once

#include <string_view>

/// The init-script templates: the files scripts/*.in, byte for byte, embedded by the build.
extern const std::string_view g_csDebianScript;
extern const std::string_view g_csRedHatScript;
extern const std::string_view g_csSuSEScript;
extern const std::string_view g_csGentooScript;
extern const std::string_view g_csSlackwareScript;
