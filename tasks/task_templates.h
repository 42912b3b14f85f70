#pragma once

#include <string>

namespace corvi {

/// The XML of a task without trigger that runs a command with the highest available rights when it is
/// started on demand. taskName and command are inserted as given, without escaping: what is no valid
/// XML text is for the task scheduler to refuse. command: the program alone, no arguments.
std::wstring TriggerlessElevatedTaskXml(const std::wstring& taskName, const std::wstring& command);

/// The XML of the task that starts the data uploader when any user logs on. Both texts are inserted as
/// given, as above.
std::wstring DataUploaderLogonTaskXml(const std::wstring& taskName, const std::wstring& command);

}  // namespace corvi
