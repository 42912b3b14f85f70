#pragma once

#include <string>

namespace corvi::test {

/// One run of C:\corvi\corvi.exe as a process of its own.
struct ToolRun {
    unsigned exitCode = 0;
    std::string output;  ///< standard output: UTF-8, line ends as written
    std::string error;   ///< standard error, likewise
};

/// Runs `corvi.exe <arguments>` with C:\corvi as current directory, standard output and error going to
/// files, and waits for it. Throws std::runtime_error when it cannot be started or does not end within
/// the limit.
ToolRun RunTool(const std::wstring& arguments, unsigned limitMilliseconds = 120000);

/// The same with the rights of another token.
ToolRun RunToolAs(void* token, const std::wstring& arguments);

/// The length of the longest line in characters (not bytes).
size_t LongestLine(const std::string& utf8);

/// How many lines the text has.
size_t LineCount(const std::string& text);

/// Writes bytes to a file of that name, replacing it; missing folders are made.
void WriteBytes(const std::wstring& path, const std::string& bytes);

}  // namespace corvi::test
