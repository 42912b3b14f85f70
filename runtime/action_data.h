#pragma once

#include <windows.h>

#include <msi.h>

#include <optional>
#include <string>

namespace corvi {

/// The value of one entry of the action data, a flat text "Key=Value;Key=Value" without escaping,
/// quoting or trimming. key: the search text, its "=" included ("InstallDir="). The first occurrence
/// counts, wherever it stands, even inside a longer key; the value ends before the next ";" or at the
/// end of the text.
/// An absent key does not give an empty value but the text from index (length of key - 1) on: packages
/// were written against that. Throws std::out_of_range when that index lies beyond the end.
std::wstring GetActionDataValue(const std::wstring& actionData, const std::wstring& key);

/// Reads a short installer property in one MsiGetPropertyW call with room for 259 characters and the
/// terminator. Nothing when the property cannot be read or does not fit; a property that is not set
/// reads as an empty text.
std::optional<std::wstring> ReadShortProperty(MSIHANDLE session, const wchar_t* name);

/// Reads the whole property "CustomActionData", of any length, and logs it as "CustomActionData: %s".
/// A property that cannot be read gives an empty text. Stands on MsiGetPropertyW.
std::wstring ReadActionData(MSIHANDLE session);

}  // namespace corvi
