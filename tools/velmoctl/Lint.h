#pragma once

#include "config/Settings.h"

#include <string>
#include <string_view>
#include <vector>

/// Something in a DXConf.ini that is not what its author may have meant.
struct STFinding
{
    unsigned int nLine; ///< counted from 1
    std::string csText; ///< UTF-8
};

/// Finds unknown sections and keys, values that do not read as their type, and lines that the programs do not
/// read or would not find when they change a setting, in the order of the lines. A file without findings is
/// read and edited exactly as written. The bytes are a whole file, in either encoding: Windows-1252, or
/// UTF-16 little-endian with a byte order mark.
std::vector<STFinding> tLint(std::string_view csBytes);

/// The type of a setting's value. The programs read every number modulo 2^32.
enum class EValue
{
    SIGNED,
    UNSIGNED,
    YES_NO, ///< a number: 0 is no, every other yes
    PORT,
    PERIOD,    ///< at most 65535
    MEGABYTES, ///< below 4096
    SECONDS,   ///< at most what a wait in milliseconds can hold, in 32 bits
    NODE,      ///< only 0 and 1 mean something
    TEXT,
    PATH,
    LOG_MODE, ///< SYSTEM or FILE
    FAMILIES, ///< words for IPv4, IPv6 and their order, separated by commas
};

/// What the check knows of a setting.
struct STSetting
{
    const wchar_t* pszSection;
    const wchar_t* pszKey;
    unsigned int nSize; ///< characters of a text, terminator included; 0: a number
    int nDefault;       ///< of a number
    EValue eValue;
};

/// The setting of that name, in any case of letters; null when there is none.
const STSetting* pstSetting(std::wstring_view csSection, std::wstring_view csKey);
/// A section in which the setting of that name is known; null when there is none.
const wchar_t* pszSectionOf(std::wstring_view csKey);
bool bKnownSection(std::wstring_view csSection);

/// What is wrong with a value, given without the whitespace after "=" and without its newline; empty:
/// nothing.
std::string csValueFault(const STSetting& stSetting, const std::wstring& csValue);
/// Compares names without regard to case, as the programs do; only ASCII letters fold, which is all that
/// known names have.
bool bSameName(std::wstring_view cs1, std::wstring_view cs2);
