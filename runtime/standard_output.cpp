#include "runtime/standard_output.h"

#include <windows.h>

#include <cstdio>

namespace corvi {

void WriteStandardOutput(const std::wstring& text) {
    // Converted here, since the C runtime's wide output stops at the first character beyond Latin-1.
    const UINT codePage = GetConsoleOutputCP();
    const auto length = static_cast<int>(text.size());
    std::string narrow(static_cast<size_t>(WideCharToMultiByte(codePage, 0, text.c_str(), length, nullptr, 0,
                                                               nullptr, nullptr)),
                       '\0');
    WideCharToMultiByte(codePage, 0, text.c_str(), length, narrow.data(), static_cast<int>(narrow.size()),
                        nullptr, nullptr);
    std::fputs(narrow.c_str(), stdout);
    std::fflush(stdout);
}

}  // namespace corvi
