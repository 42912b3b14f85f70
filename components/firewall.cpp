#include "components/firewall.h"

#include <windows.h>

#include "runtime/installer_log.h"
#include "runtime/process.h"
#include "runtime/session.h"
#include "runtime/text.h"

namespace corvi {
namespace {

// The capacity of each text below, terminator included; what is longer is cut.
constexpr size_t kTextCapacity = 260;

std::wstring GetSystemDirectoryPath() {
    wchar_t directory[kTextCapacity] = {};
    GetSystemDirectoryW(directory, ARRAYSIZE(directory));
    return directory;
}

}  // namespace

int DeleteFirewallRule(const std::wstring& ruleName) {
    const std::wstring systemDirectory = GetSystemDirectoryPath();
    const std::wstring program = FormatBounded(kTextCapacity, L"%ls\\netsh.exe", systemDirectory.c_str());
    const std::wstring command =
        FormatBounded(kTextCapacity, L"%ls advfirewall firewall delete rule name=\"%ls\"", program.c_str(),
                      ruleName.c_str());
    WriteInstallerLog(cleanupSession, L"DeleteFirewallRule - %s", command.c_str());
    return RunCommandline(command, systemDirectory.c_str(), 0);
}

}  // namespace corvi
