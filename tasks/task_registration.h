#pragma once

#include <string>

namespace corvi {

/// Registers a task from its XML text in the root folder of the task scheduler, replacing one of the
/// same name; logon type interactive token. 0 on success, 1 on any failure. The outcome is logged on
/// taskRegistrationSession, which drops it. Stands on ITaskFolder::RegisterTask.
unsigned RegisterTaskDefinition(const std::wstring& taskName, const std::wstring& xml,
                                const std::wstring& userName);

/// Registers the data uploader's logon task with the given command. Result as above.
unsigned BuildDataUploaderLogonTask(const std::wstring& taskName, const std::wstring& command,
                                    const std::wstring& userName);

}  // namespace corvi
