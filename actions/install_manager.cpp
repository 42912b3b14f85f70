#include <windows.h>

#include <msi.h>
#include <setupapi.h>
#include <shlobj.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "runtime/action_policy.h"
#include "runtime/filesystem.h"
#include "runtime/installer_log.h"
#include "runtime/known_paths.h"
#include "runtime/process.h"
#include "runtime/registry.h"
#include "runtime/session.h"
#include "runtime/text.h"
#include "runtime/unique_handle.h"
#include "services/service_control.h"
#include "services/service_registration.h"

namespace corvi {
namespace {

// Paths of the display driver's diagnostic log, behind the temporary folder; all of these texts live in
// buffers of this many characters.
constexpr size_t kLogPathCapacity = 1024;
constexpr wchar_t kLogFolderFormat[] = L"%lsTAVO\\HX\\Analytics";
constexpr wchar_t kLogFileFormat[] = L"%lsTAVO\\HX\\Analytics\\qelkmdag_dce.log";

// {4D36E968-E325-11CE-BFC1-08002BE10318}: display adapters.
constexpr GUID kDisplayAdapters = {
    0x4d36e968, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}};
constexpr wchar_t kMakerAnywhere[] = L"Tavo Corporation";
constexpr const wchar_t* kMakerPrefixes[] = {L"TAVO", L"QEL"};
constexpr size_t kDriverKeyCapacity = 256;
constexpr wchar_t kDriverKeys[] = L"SYSTEM\\CurrentControlSet\\Control\\Class\\";
constexpr wchar_t kLogPathValue[] = L"DalDCELogFilePath";
constexpr wchar_t kPathSizeValue[] = L"DalDCEFilePathSize";
constexpr wchar_t kPathSize[] = L"260";
constexpr wchar_t kDriverVersionValue[] = L"DriverVersion";

// No V21, V23 or V25 exists, and the driver of V26 is not stale.
constexpr const wchar_t* kTuningServices[] = {L"TAVOKyrnMasterDriver",    L"TAVOKyrnMasterDriverV18",
                                              L"TAVOKyrnMasterDriverV19", L"TAVOKyrnMasterDriverV20",
                                              L"TAVOKyrnMasterDriverV22", L"TAVOKyrnMasterDriverV24"};
constexpr wchar_t kStaleTuningDriver[] = L"system32\\tavokyrnmasterdriver.sys";

// What the tool is told: every process of that name ends, without being asked.
constexpr wchar_t kManagerImage[] = L"TAVOInstallManager.exe /F";
constexpr wchar_t kManagerKey[] = L"SOFTWARE\\TAVO\\TAVOInstallManager";
constexpr wchar_t kManagerLocation[] = L"InstallLocation";
constexpr const wchar_t* kManagerTasks[] = {
    L"TAVO Install Manager - Check For Updates", L"TAVO Install Manager Self Update",
    L"TAVO Install Manager - Install Updates", L"TAVO Install Manager - Install Updates - Manual Update"};
constexpr wchar_t kInterpreter[] = L"cmd.exe";
constexpr wchar_t kTaskDeletion[] = L"/C %SYSTEMROOT%\\System32\\schtasks /delete /TN \"";

struct DeviceListTraits {
    using Handle = HDEVINFO;
    static Handle None() noexcept { return INVALID_HANDLE_VALUE; }
    static void Close(Handle handle) noexcept { SetupDiDestroyDeviceInfoList(handle); }
};
using DeviceList = UniqueHandle<DeviceListTraits>;

// Makes the folder of the diagnostic log and gives the path of the file; empty, with nothing made, when the
// platform names no temporary folder: built on nothing, the path is one of the current folder.
std::wstring PrepareLogFile() {
    const std::wstring temporary = GetTemporaryDirectory(kLogPathCapacity);
    if (temporary.empty()) {
        return {};
    }
    const std::wstring folder = FormatBounded(kLogPathCapacity, kLogFolderFormat, temporary.c_str());
    SHCreateDirectoryExW(nullptr, folder.c_str(), nullptr);
    return FormatBounded(kLogPathCapacity, kLogFileFormat, temporary.c_str());
}

// A text property of a device; nothing when it has none.
std::optional<std::wstring> ReadDeviceText(const DeviceList& devices, SP_DEVINFO_DATA& device,
                                           DWORD property) {
    std::vector<wchar_t> text(256, L'\0');
    for (;;) {
        // One character is kept back for the terminator that the stored text may lack.
        const auto size = static_cast<DWORD>((text.size() - 1) * sizeof(wchar_t));
        DWORD needed = 0;
        if (SetupDiGetDeviceRegistryPropertyW(devices.Get(), &device, property, nullptr,
                                              reinterpret_cast<BYTE*>(text.data()), size, &needed) != FALSE) {
            return std::wstring(text.data());
        }
        if (needed <= size) {
            return std::nullopt;
        }
        text.assign(needed / sizeof(wchar_t) + 2, L'\0');
    }
}

bool IsMakerOfTheSuite(const std::wstring& manufacturer) {
    return manufacturer.find(kMakerAnywhere) != std::wstring::npos ||
           std::any_of(std::begin(kMakerPrefixes), std::end(kMakerPrefixes),
                       [&](const wchar_t* prefix) { return manufacturer.starts_with(prefix); });
}

// The number is stored with as many bytes as the path has, zeros behind its text: the driver reads it so.
void SetPathSize(const RegKey& driverKey, const std::wstring& logFile) {
    std::wstring data = kPathSize;
    data.resize(std::max(logFile.size(), data.size()), L'\0');
    driverKey.SetString(kPathSizeValue, data);
}

void PointDriverAtLogFile(const std::wstring& driverKeyName, const std::wstring& logFile) {
    const std::wstring path = kDriverKeys + driverKeyName;
    // Cut to its buffer, or without a name, the path is another key's.
    if (driverKeyName.empty() || path.size() >= kDriverKeyCapacity) {
        return;
    }
    const RegKey key = RegKey::TryOpen(HKEY_LOCAL_MACHINE, path, KEY_ALL_ACCESS);
    if (!key) {
        return;
    }
    key.SetString(kLogPathValue, logFile);
    SetPathSize(key, logFile);
    // Read and not used further.
    wchar_t version[256] = {};
    DWORD size = sizeof(version);
    RegQueryValueExW(key.Get(), kDriverVersionValue, nullptr, nullptr, reinterpret_cast<BYTE*>(version),
                     &size);
}

UINT PointDriversAtLogFile() {
    const std::wstring logFile = PrepareLogFile();
    if (logFile.empty()) {
        return ERROR_SUCCESS;
    }
    const DeviceList devices(SetupDiGetClassDevsW(&kDisplayAdapters, nullptr, nullptr, DIGCF_PRESENT));
    if (!devices) {
        return ERROR_SUCCESS;
    }
    SP_DEVINFO_DATA device{};
    device.cbSize = sizeof(device);
    for (DWORD index = 0; SetupDiEnumDeviceInfo(devices.Get(), index, &device) != FALSE; ++index) {
        const auto manufacturer = ReadDeviceText(devices, device, SPDRP_MFG);
        if (!manufacturer || !IsMakerOfTheSuite(*manufacturer)) {
            continue;
        }
        if (const auto driverKeyName = ReadDeviceText(devices, device, SPDRP_DRIVER)) {
            PointDriverAtLogFile(*driverKeyName, logFile);
        }
    }
    return ERROR_SUCCESS;
}

UINT RemoveStaleTuningServices(MSIHANDLE session) {
    for (const wchar_t* service : kTuningServices) {
        const std::wstring imagePath = GetServiceImagePath(service);
        if (ToLower(imagePath).find(kStaleTuningDriver) == std::wstring::npos) {
            continue;
        }
        WriteInstallerLog(session, L"PreInstallKMSDK() Service location - %s", imagePath.c_str());
        StopAndDeleteService(session, service);
    }
    return ERROR_SUCCESS;
}

void DeleteManagerTasks(MSIHANDLE session) {
    for (const wchar_t* task : kManagerTasks) {
        const int exitCode =
            ShellExecuteAndWait(kInterpreter, std::wstring(kTaskDeletion) + task + L"\" /F", INFINITE);
        WriteInstallerLog(session, L"PostUnInstallKITE: Exit code for %s Scheduled task deletion: %d \n",
                          task, exitCode);
    }
}

void DeleteManagerFolder() {
    const RegKey key = RegKey::Open(HKEY_LOCAL_MACHINE, kManagerKey, KEY_READ);
    DeleteFolder(key.GetString(L"", kManagerLocation, Unreadable::Throws));
}

UINT RemoveInstallManager(MSIHANDLE session) {
    KillProcessByName(kManagerImage);
    DeleteManagerTasks(session);
    try {
        DeleteManagerFolder();
    } catch (const RegKeyError&) {
        // A manager that does not tell its folder still loses its key.
    }
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kManagerKey);
    return ERROR_SUCCESS;
}

}  // namespace
}  // namespace corvi

extern "C" {

UINT __stdcall SetDCLogFileRegistry(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::BestEffort([] { return corvi::PointDriversAtLogFile(); });
}

UINT __stdcall PreInstallKMSDK(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::BestEffort([&] { return corvi::RemoveStaleTuningServices(session); });
}

UINT __stdcall PostUnInstallKITE(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::BestEffort([&] { return corvi::RemoveInstallManager(session); });
}

}  // extern "C"
