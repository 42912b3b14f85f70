#include "tests/tasks/task_files.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace corvi::test {

void WriteBytes(const std::wstring& path, const std::string& bytes) {
    std::ofstream(std::filesystem::path(path), std::ios::binary) << bytes;
}

std::string ReadBytes(const std::wstring& path) {
    std::ifstream file(std::filesystem::path(path), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::string Utf16(const std::wstring& text, bool withMark) {
    const std::wstring marked = withMark ? L'\xFEFF' + text : text;
    std::string bytes(marked.size() * sizeof(wchar_t), '\0');
    std::memcpy(bytes.data(), marked.data(), bytes.size());
    return bytes;
}

std::wstring ReadUtf16(const std::wstring& path) {
    const std::string bytes = ReadBytes(path);
    std::wstring text(bytes.size() / sizeof(wchar_t), L'\0');
    std::memcpy(text.data(), bytes.data(), text.size() * sizeof(wchar_t));
    return !text.empty() && text.front() == L'\xFEFF' ? text.substr(1) : text;
}

}  // namespace corvi::test
