#pragma once

#include <windows.h>

#include <objbase.h>

namespace corvi::tool::plan {

/// Stands in for CoCreateInstance: gives a task scheduler that notes what is registered and deleted, and
/// whose root folder knows no task. Any other class ends the plan.
HRESULT WINAPI CreateComObject(REFCLSID classId, LPUNKNOWN outer, DWORD context, REFIID interfaceId,
                               LPVOID* object);

}  // namespace corvi::tool::plan
