#include "tasks/schtasks.h"

#include "runtime/process.h"
#include "runtime/text.h"

namespace corvi {
namespace {

constexpr size_t kCommandCapacity = 260;

bool RunTool(std::wstring commandLine, const std::wstring& directory, bool wait) {
    return RunProcessAndWait(commandLine.data(), directory, wait);
}

}  // namespace

void CreateTaskFromFile(const std::wstring& taskName, const std::wstring& taskFile,
                        const std::wstring& directory) {
    RunTool(FormatBounded(kCommandCapacity, LR"(schtasks /Create /TN "%ls" /XML "%ls")", taskName.c_str(),
                          taskFile.c_str()),
            directory, true);
}

void ChangeTaskProgram(const std::wstring& taskName, const std::wstring& program,
                       const std::wstring& arguments, const std::wstring& directory) {
    RunTool(FormatBounded(kCommandCapacity, LR"(schtasks /change /TN "%ls" /TR "\"%ls\" %ls")",
                          taskName.c_str(), program.c_str(), arguments.c_str()),
            directory, false);
}

bool DeleteTask(const std::wstring& taskName) {
    return RunTool(FormatBounded(kCommandCapacity, LR"(schtasks /delete /TN "%ls" /F)", taskName.c_str()),
                   std::wstring(), true);
}

bool RunTask(const std::wstring& taskName) {
    return RunTool(FormatBounded(kCommandCapacity, LR"(schtasks /run /TN "%ls")", taskName.c_str()),
                   std::wstring(), true);
}

}  // namespace corvi
