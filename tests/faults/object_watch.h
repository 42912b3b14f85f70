#pragma once

#include <windows.h>

#include <taskschd.h>
#include <xmllite.h>

namespace corvi::test {

// The platform's objects have their methods in tables that all objects of a class share. A gate for each
// method that can fail takes its place in the table: it notes the call and may make it fail, as the gates of
// the imports do. What the platform's objects call among each other goes through unnoticed.

/// Puts gates into the table of an object that the library was just given. Again: nothing happens.
void WatchMethods(ITaskService& service);
void WatchMethods(IXmlReader& reader);
void WatchMethods(IXmlWriter& writer);

/// Takes all gates out again.
void ForgetMethods();

}  // namespace corvi::test
