#pragma once

#include <windows.h>

#include <string>
#include <string_view>

namespace corvi {

/// The text with every character lowered by the C runtime's towlower, one by one.
std::wstring ToLower(std::wstring text);

/// True when both texts are equal as whole strings without regard to case (_wcsicmp).
bool EqualsIgnoringCase(const std::wstring& left, const std::wstring& right);

/// The directory with one more "\" at its end unless it already ends in "\" or "/". An empty text ends
/// in neither and becomes "\".
std::wstring WithTrailingSeparator(std::wstring directory);

/// A bounded wide print: the formatted text, cut to at most capacity - 1 characters (capacity counts
/// the terminator). Wide strings are "%ls" in format, never "%s". Stands on _vsnwprintf.
std::wstring FormatBounded(size_t capacity, const wchar_t* format, ...);

/// The text in a code page as a wide text, the whole of it, zero characters included. Empty when the platform
/// cannot convert it. Stands on MultiByteToWideChar.
std::wstring Widen(std::string_view text, UINT codePage);

/// The wide text in a code page, the whole of it; what the code page lacks becomes its default character.
/// Empty when the platform cannot convert it. Stands on WideCharToMultiByte.
std::string Narrow(std::wstring_view text, UINT codePage);

/// The text cut to at most capacity - 1 characters, as a copy into a buffer of capacity characters
/// keeps it.
std::wstring Bounded(const std::wstring& text, size_t capacity);

}  // namespace corvi
