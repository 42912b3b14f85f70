// The least that a library of custom actions can be: one action that does nothing.

#include <windows.h>

extern "C" __declspec(dllexport) UINT WINAPI DeleteSchedTaskonBranding(ULONG) { return 0; }

BOOL WINAPI DllMain(HINSTANCE, DWORD, LPVOID) { return TRUE; }
