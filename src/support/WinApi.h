#pragma once

#include <cstdarg>
#include <string>

/// Full path of the running executable, cut to at most nMax characters (the callers' classic limit is 260).
/// Empty when the system does not tell.
std::wstring GetModuleFileNameW(std::size_t nMax = 260);

/// Flags of FormatMessageW: the buffer is always allocated by the formatter; the text comes from the caller
/// or from the system.
enum EFormatMessage : unsigned int
{
    FORMAT_MESSAGE_ALLOCATE_BUFFER = 0x100,
    FORMAT_MESSAGE_FROM_STRING = 0x400,
    FORMAT_MESSAGE_FROM_SYSTEM = 0x1000,
};

/// Windows-style message formatter. From a string: %1 to %99 take the arguments in the order of their
/// numbers, each with the type in "!...!" behind the number (default "s", wide text), in any order and as
/// often as wanted;
/// %%, %n, %r, %t, %b, %., %! and %0 (ends the text without a line end) as usual. From the system: the C
/// library's text of error nMessageId. The result is empty on failure. Never reads an argument that no insert
/// names, except those that must be walked over to reach a later one (taken as pointers where no insert tells
/// their type).
std::wstring FormatMessageW(unsigned int nFlags, const wchar_t* pszSource, unsigned int nMessageId,
                            va_list* pArgs);

/// The C library's text for an error number. Any thread.
std::wstring csSystemMessage(int nErrno);
/// The same as the C library gives it.
std::string csSystemText(int nErrno);

/// Outside text made safe for a place where it will be read as a format: every "%" doubled.
std::wstring csEscapePercent(std::wstring_view csText);
