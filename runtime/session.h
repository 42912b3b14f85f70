#pragma once

#include <windows.h>

#include <msi.h>

namespace corvi {

/// The installer session of the action that runs now, for helpers that log and have no handle parameter.
/// Many actions store their handle here first thing; none of today's helpers reads it, for all that log
/// take a handle or use one of those below. Windows Installer runs one action at a time, so there is no
/// lock.
extern MSIHANDLE currentSession;

/// Three session handles that nothing ever sets: they stay 0, and the installer drops every line that
/// is logged on handle 0. Kept: what logs there shows nothing in the installer log.

/// Read by LaunchApplication only.
extern const MSIHANDLE launchSession;
/// Read by RegisterTaskDefinition only.
extern const MSIHANDLE taskRegistrationSession;
/// Read by DeleteFolder's error handler, DeleteFirewallRule and DeleteServiceInDirectory only.
extern const MSIHANDLE cleanupSession;

}  // namespace corvi
