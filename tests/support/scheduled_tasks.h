#pragma once

#include <string>

namespace corvi::test {

// The tasks in the root folder of the platform's own scheduler, through ITaskFolder: its store is no test's
// business, for the platform keeps more of a task than a file.

/// True when the scheduler holds a task of that name. Throws std::runtime_error when it cannot be asked.
bool TaskExists(const std::wstring& name);

/// Has the scheduler take a task, or another definition for one that it holds. definition: a whole task
/// document. Throws std::runtime_error when it refuses.
void PutTask(const std::wstring& name, const std::wstring& definition);

/// Has the scheduler drop a task; none of that name is fine. Throws std::runtime_error when it stays.
void RemoveTask(const std::wstring& name);

/// The same where an error has nowhere to go, in a destructor: a task that stays fails the test.
void RemoveTaskAtEnd(const std::wstring& name) noexcept;

}  // namespace corvi::test
