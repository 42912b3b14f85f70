#include "runtime/text.h"

#include <algorithm>
#include <cstdarg>
#include <cwchar>
#include <cwctype>
#include <vector>

namespace corvi {

std::wstring ToLower(std::wstring text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](wchar_t character) { return static_cast<wchar_t>(std::towlower(character)); });
    return text;
}

bool EqualsIgnoringCase(const std::wstring& left, const std::wstring& right) {
    return _wcsicmp(left.c_str(), right.c_str()) == 0;
}

std::wstring WithTrailingSeparator(std::wstring directory) {
    if (directory.empty() || (directory.back() != L'\\' && directory.back() != L'/')) {
        directory += L'\\';
    }
    return directory;
}

std::wstring FormatBounded(size_t capacity, const wchar_t* format, ...) {
    std::vector<wchar_t> buffer(capacity, L'\0');
    va_list arguments;
    va_start(arguments, format);
    // The last character stays the terminator.
    _vsnwprintf(buffer.data(), capacity - 1, format, arguments);
    va_end(arguments);
    return buffer.data();
}

std::wstring Widen(std::string_view text, UINT codePage) {
    const auto length = static_cast<int>(text.size());
    const int size = MultiByteToWideChar(codePage, 0, text.data(), length, nullptr, 0);
    std::wstring wide(static_cast<size_t>(std::max(size, 0)), L'\0');
    wide.resize(static_cast<size_t>(
        std::max(MultiByteToWideChar(codePage, 0, text.data(), length, wide.data(), size), 0)));
    return wide;
}

std::string Narrow(std::wstring_view text, UINT codePage) {
    const auto length = static_cast<int>(text.size());
    const int size = WideCharToMultiByte(codePage, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
    std::string narrow(static_cast<size_t>(std::max(size, 0)), '\0');
    narrow.resize(static_cast<size_t>(std::max(
        WideCharToMultiByte(codePage, 0, text.data(), length, narrow.data(), size, nullptr, nullptr), 0)));
    return narrow;
}

std::wstring Bounded(const std::wstring& text, size_t capacity) { return text.substr(0, capacity - 1); }

}  // namespace corvi
