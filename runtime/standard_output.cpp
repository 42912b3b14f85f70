#include "runtime/standard_output.h"

#include <windows.h>

#include <cstdio>

#include "runtime/text.h"

namespace corvi {

void WriteStandardOutput(const std::wstring& text) {
    // Converted here, since the C runtime's wide output stops at the first character beyond Latin-1.
    std::fputs(Narrow(text, GetConsoleOutputCP()).c_str(), stdout);
    std::fflush(stdout);
}

}  // namespace corvi
