#include "services/service_registration.h"

#include <system_error>
#include <vector>

#include "runtime/filesystem.h"
#include "runtime/registry.h"
#include "runtime/standard_output.h"
#include "runtime/text.h"
#include "services/service_control.h"

namespace corvi {
namespace {

constexpr wchar_t kTuepDisplayName[] = L"TAVO User Experience Program Data Uploader";
constexpr wchar_t kInstallManagerKey[] =
    L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\TAVO Prism Install Manager";
constexpr wchar_t kProfileClientKey[] = L"SOFTWARE\\QEL Technologies\\Install\\PPC";
constexpr wchar_t kInstallDirValue[] = L"InstallDir";
constexpr wchar_t kServicesKey[] = L"SYSTEM\\CurrentControlSet\\Services\\";
constexpr wchar_t kImagePathValue[] = L"ImagePath";

// The command line of the data uploader's service, terminator included.
constexpr size_t kCommandLineCapacity = 1024;
// No more than this of "InstallDir" is asked for. A longer value does not count.
constexpr DWORD kInstallDirBytes = 260;
// Where the buffer for a service's configuration starts.
constexpr size_t kFirstConfigBytes = 64;

// The "InstallDir" of a key of the machine, at most kInstallDirBytes of it, or an empty text.
std::wstring ReadInstallDir(const wchar_t* keyPath) {
    const RegKey key = RegKey::TryOpen(HKEY_LOCAL_MACHINE, keyPath, KEY_READ);
    return key ? key.QueryText(kInstallDirValue, kInstallDirBytes).value_or(L"") : L"";
}

std::wstring UploaderCommandLine() {
    const std::wstring directory = ReadInstallDir(kInstallManagerKey);
    if (PathExists(directory)) {
        return FormatBounded(kCommandLineCapacity, L"\"%ls\\..\\Performance Profile Client\\TUEPDU.exe\"",
                             directory.c_str());
    }
    return FormatBounded(kCommandLineCapacity, L"\"%ls\\TUEPDU.exe\"",
                         ReadInstallDir(kProfileClientKey).c_str());
}

}  // namespace

void InstallDataUploaderService() {
    const std::wstring commandLine = UploaderCommandLine();
    const ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    if (!manager) {
        WriteStandardOutput(L"Error: Failed to open SCM.\n");
        return;
    }
    const ServiceHandle service(CreateServiceW(
        manager.Get(), kTuepService, kTuepDisplayName, SERVICE_ALL_ACCESS,
        SERVICE_WIN32_OWN_PROCESS | SERVICE_INTERACTIVE_PROCESS, SERVICE_AUTO_START, SERVICE_ERROR_NORMAL,
        commandLine.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
    if (service) {
        SERVICE_DELAYED_AUTO_START_INFO delayed = {TRUE};
        ChangeServiceConfig2W(service.Get(), SERVICE_CONFIG_DELAYED_AUTO_START_INFO, &delayed);
    }
}

std::wstring GetServiceBinaryPath(const ServiceHandle& service) {
    std::vector<BYTE> buffer(kFirstConfigBytes);
    DWORD needed = 0;
    while (QueryServiceConfigW(service.Get(), reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data()),
                               static_cast<DWORD>(buffer.size()), &needed) == FALSE) {
        const DWORD error = GetLastError();
        // A demand that does not grow cannot be met and would be repeated for ever.
        if (error != ERROR_INSUFFICIENT_BUFFER || needed <= buffer.size()) {
            throw std::system_error(static_cast<int>(error), std::system_category(),
                                    "Unable to call QueryServiceConfig");
        }
        buffer.resize(needed);
    }
    const wchar_t* path = reinterpret_cast<const QUERY_SERVICE_CONFIGW*>(buffer.data())->lpBinaryPathName;
    return path != nullptr ? path : L"";
}

std::wstring GetServiceImagePath(const std::wstring& serviceName) {
    const RegKey key = RegKey::TryOpen(HKEY_LOCAL_MACHINE, kServicesKey + serviceName, KEY_QUERY_VALUE);
    DWORD type = REG_NONE;
    DWORD size = 0;
    if (!key ||
        RegQueryValueExW(key.Get(), kImagePathValue, nullptr, &type, nullptr, &size) != ERROR_SUCCESS ||
        (type != REG_SZ && type != REG_EXPAND_SZ)) {
        return {};
    }
    // Room for the terminator that the stored text may lack, and for half a character.
    std::vector<wchar_t> text(size / sizeof(wchar_t) + 2, L'\0');
    const LSTATUS status = RegQueryValueExW(key.Get(), kImagePathValue, nullptr, nullptr,
                                            reinterpret_cast<BYTE*>(text.data()), &size);
    return status == ERROR_SUCCESS ? text.data() : L"";
}

}  // namespace corvi
