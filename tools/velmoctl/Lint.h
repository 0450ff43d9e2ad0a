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

/// All of it, in the order of the lines: unknown sections and keys, values that do not read as their type,
/// lines that the programs do not read or would not find when they change a setting. What it finds nothing in
/// is read, and replaced, line by line as it stands. The bytes are a whole file, in either encoding.
std::vector<STFinding> tLint(std::string_view csBytes);

/// How a setting's value is to read.
enum class EValue
{
    SIGNED,
    UNSIGNED,
    YES_NO,
    PORT,
    PERIOD,    ///< at most 65535
    MEGABYTES, ///< below 4096
    SECONDS,   ///< at most what a wait in milliseconds can hold
    NODE,      ///< only 0 and 1 mean something
    TEXT,
    PATH,
    LOG_MODE,
    FAMILIES,
};

/// A setting of DXConf.ini, as far as the check is concerned.
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

/// What is wrong with a value, as it stands behind "=" and its blanks; empty: nothing.
std::string csValueFault(const STSetting& stSetting, const std::wstring& csValue);
/// Comparison of names as the programs do it, for the letters that known names are made of.
bool bSameName(std::wstring_view cs1, std::wstring_view cs2);
