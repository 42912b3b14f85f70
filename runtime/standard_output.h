#pragma once

#include <string>

namespace corvi {

/// Writes text to the process's standard output through the C runtime and flushes it. Characters that
/// the console's code page (the system's, where there is no console) lacks become its default
/// character. Nothing is reported when there is no standard output. Neither the installer log nor the
/// debugger output sees the text.
void WriteStandardOutput(const std::wstring& text);

}  // namespace corvi
