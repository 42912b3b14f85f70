#include <windows.h>

#include <msiquery.h>
#include <tlhelp32.h>

#include <cwchar>

#include "actions/vendor_site.h"
#include "runtime/action_data.h"
#include "runtime/action_policy.h"
#include "runtime/installer_log.h"
#include "runtime/kernel_handle.h"
#include "runtime/session.h"
#include "runtime/text.h"

namespace corvi {
namespace {

constexpr wchar_t kLaunchProperty[] = L"LAUNCHED_FROM_PIM";
constexpr wchar_t kLaunchedValue[] = L"1";
constexpr wchar_t kLaunchBlockMessage[] =
    L"This package requires TAVO Installer Setup.\n"
    L"Please obtain and install TAVO Installer from " CORVI_VENDOR_SITE
    L" to continue installing this package.\n"
    L"This application will now abort.";
constexpr wchar_t kInstallManagerImage[] = L"TAVOInstallManager.exe";
constexpr wchar_t kQelKey[] = L"SOFTWARE\\QEL";

bool IsProcessRunning(const wchar_t* imageName) {
    // Held as a handle whose "none" is null: the snapshot is closed in every case, a failed one included.
    const KernelHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof(entry);
    for (BOOL more = Process32FirstW(snapshot.Get(), &entry); more != FALSE;
         more = Process32NextW(snapshot.Get(), &entry)) {
        if (_wcsicmp(entry.szExeFile, imageName) == 0) {
            return true;
        }
    }
    return false;
}

UINT RequireLaunchByInstallManager(MSIHANDLE session) {
    const auto value = ReadShortProperty(session, kLaunchProperty);
    if (value.isRead && ToLower(value.text) == kLaunchedValue) {
        WriteInstallerLog(session, L"SABLE_CA Launched from PIM: %s \n", value.text.c_str());
        return ERROR_SUCCESS;
    }
    WriteInstallerLog(session, L"SABLE_CA Not Launched from PIM and unable to get property");
    SendInstallerMessage(session, INSTALLMESSAGE_USER, 2, kLaunchBlockMessage);
    return ERROR_INSTALL_SOURCE_ABSENT;
}

}  // namespace
}  // namespace corvi

extern "C" {

UINT __stdcall LaunchedFromPIM(MSIHANDLE session) {
    return corvi::BestEffort([&] { return corvi::RequireLaunchByInstallManager(session); },
                             ERROR_INSTALL_SOURCE_ABSENT);
}

UINT __stdcall BlockLaunch(MSIHANDLE session) {
    corvi::currentSession = session;
    return LaunchedFromPIM(session) == ERROR_SUCCESS ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
}

UINT __stdcall BlockKITELaunch(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::IsProcessRunning(corvi::kInstallManagerImage) ? ERROR_INSTALL_FAILURE : ERROR_SUCCESS;
}

UINT __stdcall DeleteQELKey(MSIHANDLE /*session*/) {
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, corvi::kQelKey);
    return ERROR_SUCCESS;
}

}  // extern "C"
