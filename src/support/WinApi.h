#pragma once

#include <cstdarg>
#include <string>

/// Full path of the running executable, cut to at most nMax characters (260 is the limit on Windows). Empty
/// when /proc does not say.
std::wstring GetModuleFileNameW(std::size_t nMax = 260);

/// Flags of FormatMessageW. They say whether the text comes from the caller or from the C library; the first
/// is accepted and changes nothing.
enum EFormatMessage : unsigned int
{
    FORMAT_MESSAGE_ALLOCATE_BUFFER = 0x100,
    FORMAT_MESSAGE_FROM_STRING = 0x400,
    FORMAT_MESSAGE_FROM_SYSTEM = 0x1000,
};

/// Windows-style message formatter; the result is empty on failure. From a string: %1 to %99 insert
/// arguments, in any order and any number of times; the type stands in "!...!" after the number (default "s",
/// wide text).
/// %%, %n, %r, %t, %b, %., %! and %0 (ends the text without a newline) mean what they mean on Windows. From
/// the system: the C library's text of error nMessageId.
///
/// Takes no argument after the one of the highest number. An argument below it that no insert names is passed
/// over as a pointer.
std::wstring FormatMessageW(unsigned int nFlags, const wchar_t* pszSource, unsigned int nMessageId,
                            va_list* pArgs);

/// The C library's text for an error number. Any thread.
std::wstring csSystemMessage(int nErrno);
/// The same text as the bytes that the C library has, without a conversion.
std::string csSystemText(int nErrno);

/// Doubles every "%" of a foreign text, which makes it safe where it will be read as a format.
std::wstring csEscapePercent(std::wstring_view csText);
