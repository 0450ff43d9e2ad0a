#pragma once

#include <cstdarg>
#include <string>

/// Full path of the running executable, cut to at most nMax characters (260 is the limit on Windows). Empty
/// when /proc does not say.
std::wstring GetModuleFileNameW(std::size_t nMax = 260);

/// Flags of FormatMessageW. One of the last two says where the text comes from; FROM_STRING goes first.
enum EFormatMessage : unsigned int
{
    FORMAT_MESSAGE_ALLOCATE_BUFFER = 0x100, ///< accepted, changes nothing
    FORMAT_MESSAGE_FROM_STRING = 0x400,     ///< pszSource
    FORMAT_MESSAGE_FROM_SYSTEM = 0x1000,    ///< the C library's text of error nMessageId
};

/// Windows-style message formatter; the result is empty on failure. In a string %1 to %99 insert arguments,
/// in any order and any number of times; the type stands in "!...!" after the number (default "s", wide
/// text).
/// %%, %n, %r, %t, %b, %., %! and %0 (ends the text without a newline) mean what they mean on Windows.
///
/// Takes no argument after the one of the highest number that an insert has. An argument before it that no
/// insert names is passed over as a pointer.
std::wstring FormatMessageW(unsigned int nFlags, const wchar_t* pszSource, unsigned int nMessageId,
                            va_list* pArgs);

/// The C library's text for an error number. Any thread.
std::wstring csSystemMessage(int nErrno);
/// The same text as the bytes that the C library has, without a conversion.
std::string csSystemText(int nErrno);

/// Doubles every "%" of a foreign text, which makes it safe where it will be read as a format.
std::wstring csEscapePercent(std::wstring_view csText);
