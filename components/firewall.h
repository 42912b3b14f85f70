#pragma once

#include <string>

namespace corvi {

/// Deletes the Windows Firewall rules of that display name through netsh. Gives netsh's exit code, or
/// the platform error of a failed start. The command is cut after 259 characters: a longer rule name
/// loses its end and the closing quotation mark. The line "DeleteFirewallRule - %s" is logged on
/// cleanupSession, which drops it. Stands on GetSystemDirectoryW and RunCommandline.
int DeleteFirewallRule(const std::wstring& ruleName);

}  // namespace corvi
