#pragma once

#include <windows.h>

#include <msi.h>

#include <string>

namespace corvi {

/// The value of one entry of the action data, a flat text "Key=Value;Key=Value" without escaping,
/// quoting or trimming. key: the search text, its "=" included ("InstallDir="). The first occurrence
/// counts, wherever it stands, even inside a longer key; the value ends before the next ";" or at the
/// end of the text.
/// Kept: an absent key does not give an empty value but the text from index (length of key - 1) on. Throws
/// std::out_of_range when that index lies beyond the end.
std::wstring GetActionDataValue(const std::wstring& actionData, const std::wstring& key);

/// What one read of a property gave.
struct ShortProperty {
    bool isRead = false;
    /// The property; after a failed read what it left, which may be the beginning of a text that did not fit.
    std::wstring text;
};

/// Reads a short installer property in one MsiGetPropertyW call with room for capacity characters, the
/// terminator included. Not read when the platform refuses or the property does not fit; one that is not
/// set reads as an empty text.
ShortProperty ReadShortProperty(MSIHANDLE session, const wchar_t* name, size_t capacity = 260);

/// Reads the whole property "CustomActionData", of any length, and logs it as "CustomActionData: %s".
/// A property that cannot be read gives an empty text. Stands on MsiGetPropertyW.
std::wstring ReadActionData(MSIHANDLE session);

}  // namespace corvi
