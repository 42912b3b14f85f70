#pragma once

#include <string>

namespace corvi {

/// Deletes the Windows Firewall rules of that display name through netsh. Gives netsh's exit code, or
/// the platform error of a failed start. The line "DeleteFirewallRule - %s" is logged on cleanupSession,
/// which drops it.
int DeleteFirewallRule(const std::wstring& ruleName);

}  // namespace corvi
