#include "tool/encoding.h"

#include <windows.h>

#include <algorithm>

#include "tool/console.h"

namespace corvi::tool {
namespace {

bool IsAscii(std::string_view bytes) {
    return std::all_of(bytes.begin(), bytes.end(),
                       [](char byte) { return static_cast<unsigned char>(byte) < 0x80U; });
}

bool IsUtf8(std::string_view bytes) {
    return MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, bytes.data(), static_cast<int>(bytes.size()),
                               nullptr, 0) > 0;
}

std::wstring FromSystemCodePage(std::string_view bytes) {
    const auto size = static_cast<int>(bytes.size());
    const int needed = MultiByteToWideChar(CP_ACP, 0, bytes.data(), size, nullptr, 0);
    std::wstring text(static_cast<std::size_t>(std::max(needed, 0)), L'\0');
    MultiByteToWideChar(CP_ACP, 0, bytes.data(), size, text.data(), needed);
    return text;
}

}  // namespace

std::string Utf8FromBytes(std::string_view bytes) {
    return IsAscii(bytes) || IsUtf8(bytes) ? std::string(bytes) : ToUtf8(FromSystemCodePage(bytes));
}

}  // namespace corvi::tool
