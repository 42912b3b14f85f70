#pragma once

#include <windows.h>

#include <msi.h>

namespace corvi {

/// The installer session of the action that runs now. Every action that logs through a helper without
/// a handle parameter stores its handle here first. Windows Installer runs one action at a time, so
/// there is no lock.
extern MSIHANDLE currentSession;

/// Three session handles that nothing ever sets: they stay 0, and the installer drops every line that
/// is logged on handle 0. The helpers named below have always logged there and so are silent in
/// practice; support engineers rely on the log not growing by these lines.

/// Read by LaunchApplication only.
extern const MSIHANDLE launchSession;
/// Read by RegisterTaskDefinition only.
extern const MSIHANDLE taskRegistrationSession;
/// Read by DeleteFolder's error handler, DeleteFirewallRule and DeleteServiceInDirectory only.
extern const MSIHANDLE cleanupSession;

}  // namespace corvi
