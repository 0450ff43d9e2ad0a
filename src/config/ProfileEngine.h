#pragma once

#include "config/ProfileFile.h"

#include <optional>
#include <string>
#include <string_view>

/// Searches and edits a profile file, in the same way for both encodings (TUnit: CAnsiUnit or CUnicodeUnit).
/// Reader and writer do not follow the same syntax; files and clients rely on the difference:
///
///                        reader                                     writer
///   leading whitespace   skipped                                    not allowed: names start in column 1
///   a section ends       at a line "[...]"                          at a line that starts with "[", LF or
///                                                                   CR; to delete it: with "[" only
///   a key line           name, then "=", space or tab, and a "="    name, then "=", space or tab
///   a comment            a line that starts with ":"                unknown
///
/// Names are compared without regard to case, in the current locale. For the reader a NUL ends the text of
/// its line. The functions have the names that the store's two halves have always had.

template <class TUnit>
using CUnitsView = std::basic_string_view<TUnit>;
template <class TUnit>
using CUnits = std::basic_string<TUnit>;

/// Searches the value of a key; none when the key is absent. With an empty section name, lists the names of
/// all sections; without a key, those of the section's keys. Each listed name is followed by "\r\n", and a
/// list without names is none. The file is read from its current position; a failed read looks like the end
/// of the file.
template <class TUnit>
std::optional<CUnits<TUnit>> __GetPrivateProfileStringInterne(CProfileFile& clFile,
                                                              CUnitsView<TUnit> csSection,
                                                              std::optional<CUnitsView<TUnit>> csKey);

/// Sets a key, deletes it (no value) or deletes its whole section (no key). To delete what is not there
/// succeeds and leaves the file unchanged. A missing section is appended to the file together with its key,
/// without a newline before it even when the last line has none: files have always been written so. False
/// with errno when a read or a write fails.
template <class TUnit>
bool __WritePrivateProfileString(CProfileFile& clFile, CUnitsView<TUnit> csSection,
                                 std::optional<CUnitsView<TUnit>> csKey,
                                 std::optional<CUnitsView<TUnit>> csValue);
