#pragma once

#include <string>

namespace corvi {

// Command lines for the task scheduler's tool "schtasks", each cut after 259 characters. The tool runs
// without a window; its exit code is not read.

/// Creates a task from its definition file and waits for the tool. A task of that name that is there
/// already stays as it is. directory: the tool's current directory.
void CreateTaskFromFile(const std::wstring& taskName, const std::wstring& taskFile,
                        const std::wstring& directory);

/// Points a task's action at a program with arguments (may be empty), without waiting for the tool.
/// directory: the tool's current directory.
void ChangeTaskProgram(const std::wstring& taskName, const std::wstring& program,
                       const std::wstring& arguments, const std::wstring& directory);

/// Deletes a task and waits for the tool. True when the tool could be started.
bool DeleteTask(const std::wstring& taskName);

/// Starts a task on demand and waits for the tool. True when the tool could be started.
bool RunTask(const std::wstring& taskName);

}  // namespace corvi
