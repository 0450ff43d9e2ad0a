#pragma once

#include "config/ProfileFile.h"

#include <optional>
#include <string>
#include <string_view>

/// The search and the edit of a profile file, the same for both encodings (TUnit: CAnsiUnit or CUnicodeUnit).
/// Reader and writer do not follow the same syntax, which is intended:
///
///                        reader                                     writer
///   leading white space  skipped                                    never: names start in the first column
///   a section ends       at a line "[...]"                          at a line that starts with "[", LF or CR
///   a key line           name, then "=", space or tab, and a "="    name, then "=", space or tab
///   a comment            a line that starts with ":"                unknown
///
/// Names are compared without regard to case, in the current locale. For the reader a NUL ends the text of
/// its line. The functions are named after the operations of the store's two classic halves.

template <class TUnit>
using CUnitsView = std::basic_string_view<TUnit>;
template <class TUnit>
using CUnits = std::basic_string<TUnit>;

/// What a search yields; none when the key is absent. An empty section name asks for the names of the
/// sections, no key for the names of the section's keys: each followed by "\r\n", none when there are none.
template <class TUnit>
std::optional<CUnits<TUnit>> __GetPrivateProfileStringInterne(CProfileFile& clFile,
                                                              CUnitsView<TUnit> csSection,
                                                              std::optional<CUnitsView<TUnit>> csKey);

/// Sets a key, deletes it (no value) or its whole section (no key). What is not there to be deleted leaves
/// the file unchanged and counts as done. A new section goes to the end of the file without any line end
/// before it, even when the last line has none: intended. False with errno when a read or a write failed.
template <class TUnit>
bool __WritePrivateProfileString(CProfileFile& clFile, CUnitsView<TUnit> csSection,
                                 std::optional<CUnitsView<TUnit>> csKey,
                                 std::optional<CUnitsView<TUnit>> csValue);
