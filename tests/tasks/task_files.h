#pragma once

#include <string>

namespace corvi::test {

void WriteBytes(const std::wstring& path, const std::string& bytes);
std::string ReadBytes(const std::wstring& path);

/// The bytes of a text in UTF-16, little end first, with or without byte-order mark.
std::string Utf16(const std::wstring& text, bool withMark = true);

/// The text of a UTF-16 file, without byte-order mark.
std::wstring ReadUtf16(const std::wstring& path);

}  // namespace corvi::test
