#include "tests/tool/machine_state.h"

#include <windows.h>

#include <sddl.h>
#include <tlhelp32.h>

#include <algorithm>
#include <cwchar>
#include <iterator>
#include <utility>

namespace corvi::test {
namespace {

/// What the tests' own programs write while they look on.
constexpr const wchar_t* kOwnFiles[] = {
    L"C:\\corvi\\tool-output.txt",
    L"C:\\corvi\\tool-error.txt",
    L"C:\\corvi\\recorded.txt",
    L"C:\\corvi\\components.txt",
};
/// Programs that come and go by themselves: the tool, its console, the platform's helpers; and the
/// scheduler's tool, which some actions do not wait for.
constexpr const wchar_t* kOwnProcesses[] = {L"corvi.exe",           L"conhost.exe",  L"plugplay.exe",
                                            L"winemenubuilder.exe", L"schtasks.exe", L"rpcss.exe"};
/// Starts with the first program that has a window, in its own time.
constexpr wchar_t kOwnService[] = L"RpcSs";

constexpr const wchar_t* kBulkNotRead[] = {
    L"HKLM\\Software\\Classes\\Interface",
    L"HKLM\\Software\\Classes\\MIME",
    L"HKLM\\Software\\Classes\\Typelib",
    L"HKLM\\Software\\Classes\\Wow6432Node",
    L"HKLM\\Software\\Microsoft\\Windows\\CurrentVersion\\Telephony",
    L"HKLM\\Software\\Microsoft\\Windows NT\\CurrentVersion\\Time Zones",
};
/// Where Wine counts the starts of services.
constexpr wchar_t kServiceCount[] = L"HKLM\\System\\CurrentControlSet\\Control\\ServiceCurrent";
/// What the command interpreter of newer releases of Wine keeps of a pipe: "CMD" and a number of up to four
/// digits, without leading zeros, in a folder of temporary files.
bool IsPipeFile(const std::wstring& folder, const std::wstring& name) {
    constexpr wchar_t kTemporary[] = L"\\Temp";
    constexpr std::size_t kLength = std::size(kTemporary) - 1;
    if (folder.size() <= kLength || _wcsicmp(folder.c_str() + folder.size() - kLength, kTemporary) != 0 ||
        name.size() < 8 || name.size() > 11) {
        return false;
    }
    const std::wstring number = name.substr(3, name.size() - 7);
    return name == L"CMD" + number + L".tmp" &&
           number.find_first_not_of(L"0123456789abcdefABCDEF") == std::wstring::npos;
}

/// The same keys once more: CurrentControlSet is a link to it, except on older releases of Wine.
constexpr wchar_t kControlSet[] = L"HKLM\\System\\ControlSet001";
/// Only the names below it.
constexpr wchar_t kClassIds[] = L"HKLM\\Software\\Classes\\CLSID";

bool EqualsAny(const std::wstring& text, const wchar_t* const* first, const wchar_t* const* last) {
    return std::any_of(first, last, [&](const wchar_t* one) { return _wcsicmp(text.c_str(), one) == 0; });
}

std::wstring Hex(const std::vector<BYTE>& bytes, std::size_t size) {
    constexpr wchar_t kDigits[] = L"0123456789abcdef";
    std::wstring text;
    for (std::size_t index = 0; index < size; ++index) {
        text += kDigits[bytes[index] >> 4U];
        text += kDigits[bytes[index] & 15U];
    }
    return text;
}

/// What a key held when it was last written, and when that was.
struct KeyContent {
    FILETIME written = {};
    std::vector<std::pair<std::wstring, std::wstring>> values;  ///< items of a machine's state
    std::vector<std::wstring> subkeys;
};

class RegistryReader {
public:
    RegistryReader(MachineState& state, Depth depth) : state_(state), depth_(depth) {}

    void Read(HKEY root, const std::wstring& shown) { ReadBelow(root, shown); }

private:
    bool IsSkipped(const std::wstring& shown) const {
        if (_wcsicmp(shown.c_str(), kServiceCount) == 0 || _wcsicmp(shown.c_str(), kControlSet) == 0) {
            return true;
        }
        return depth_ == Depth::WithoutBulk &&
               EqualsAny(shown, std::begin(kBulkNotRead), std::end(kBulkNotRead));
    }

    void ReadBelow(HKEY key, const std::wstring& shown) {
        state_[L"key " + shown] = L"there";
        if (IsSkipped(shown)) {
            return;
        }
        const KeyContent& content = ContentOf(key, shown);
        state_.insert(content.values.begin(), content.values.end());
        const bool namesOnly = depth_ == Depth::WithoutBulk && _wcsicmp(shown.c_str(), kClassIds) == 0;
        for (const std::wstring& subkey : content.subkeys) {
            const std::wstring path = shown + L'\\' + subkey;
            HKEY opened = nullptr;
            if (namesOnly) {
                state_[L"key " + path] = L"there";
            } else if (RegOpenKeyExW(key, subkey.c_str(), 0, KEY_READ, &opened) == ERROR_SUCCESS) {
                ReadBelow(opened, path);
                RegCloseKey(opened);
            } else {
                state_[L"key " + path] = L"closed";
            }
        }
    }

    /// Reads a key that was written since the last time, or is met first: most are not, and reading them all
    /// again and again takes longer than everything that the tests do.
    static const KeyContent& ContentOf(HKEY key, const std::wstring& shown) {
        static std::map<std::wstring, KeyContent> known;
        FILETIME written = {};
        RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                         nullptr, &written);
        const auto [place, isNew] = known.try_emplace(shown);
        KeyContent& content = place->second;
        if (isNew || CompareFileTime(&written, &content.written) != 0) {
            content = {written, Values(key, shown), Subkeys(key)};
        }
        return content;
    }

    static std::vector<std::wstring> Subkeys(HKEY key) {
        std::vector<std::wstring> names;
        wchar_t name[256];
        for (DWORD index = 0;; ++index) {
            auto length = static_cast<DWORD>(std::size(name));
            if (RegEnumKeyExW(key, index, name, &length, nullptr, nullptr, nullptr, nullptr) !=
                ERROR_SUCCESS) {
                return names;
            }
            names.emplace_back(name, length);
        }
    }

    static std::vector<std::pair<std::wstring, std::wstring>> Values(HKEY key, const std::wstring& shown) {
        static std::vector<wchar_t> name(32768);
        static std::vector<BYTE> data(65536);
        std::vector<std::pair<std::wstring, std::wstring>> values;
        for (DWORD index = 0;; ++index) {
            auto length = static_cast<DWORD>(name.size());
            auto size = static_cast<DWORD>(data.size());
            DWORD type = 0;
            if (RegEnumValueW(key, index, name.data(), &length, nullptr, &type, data.data(), &size) !=
                ERROR_SUCCESS) {
                return values;
            }
            values.emplace_back(L"value " + shown + L'|' + std::wstring(name.data(), length),
                                std::to_wstring(type) + L':' + Hex(data, size));
        }
    }

    MachineState& state_;
    Depth depth_;
};

void ReadFiles(MachineState& state, const std::wstring& folder) {
    WIN32_FIND_DATAW data = {};
    const HANDLE find = FindFirstFileW((folder + L"\\*").c_str(), &data);
    if (find == INVALID_HANDLE_VALUE) {
        return;
    }
    do {
        const std::wstring name = data.cFileName;
        const std::wstring path = folder + L'\\' + name;
        if (name == L"." || name == L".." || IsPipeFile(folder, name) ||
            EqualsAny(path, std::begin(kOwnFiles), std::end(kOwnFiles))) {
            continue;
        }
        const bool isLink = (data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
        if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
            state[L"folder " + path] = std::to_wstring(data.dwFileAttributes);
            if (!isLink) {
                ReadFiles(state, path);
            }
        } else {
            state[L"file " + path] = std::to_wstring(data.dwFileAttributes) + L' ' +
                                     std::to_wstring(data.nFileSizeLow) + L' ' +
                                     std::to_wstring(data.ftLastWriteTime.dwLowDateTime);
        }
    } while (FindNextFileW(find, &data) != FALSE);
    FindClose(find);
}

void ReadServices(MachineState& state) {
    const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ENUMERATE_SERVICE);
    std::vector<BYTE> buffer(262144);
    DWORD needed = 0;
    DWORD count = 0;
    DWORD resume = 0;
    EnumServicesStatusExW(manager, SC_ENUM_PROCESS_INFO, SERVICE_WIN32 | SERVICE_DRIVER, SERVICE_STATE_ALL,
                          buffer.data(), static_cast<DWORD>(buffer.size()), &needed, &count, &resume,
                          nullptr);
    const auto* services = reinterpret_cast<const ENUM_SERVICE_STATUS_PROCESSW*>(buffer.data());
    for (DWORD index = 0; index < count; ++index) {
        if (_wcsicmp(services[index].lpServiceName, kOwnService) != 0) {
            state[std::wstring(L"service ") + services[index].lpServiceName] =
                L"state " + std::to_wstring(services[index].ServiceStatusProcess.dwCurrentState);
        }
    }
    CloseServiceHandle(manager);
}

void ReadProcesses(MachineState& state) {
    const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    std::map<std::wstring, unsigned> counts;
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof(entry);
    for (BOOL more = Process32FirstW(snapshot, &entry); more != FALSE;
         more = Process32NextW(snapshot, &entry)) {
        if (!EqualsAny(entry.szExeFile, std::begin(kOwnProcesses), std::end(kOwnProcesses))) {
            ++counts[entry.szExeFile];
        }
    }
    CloseHandle(snapshot);
    for (const auto& [name, count] : counts) {
        state[L"process " + name] = std::to_wstring(count);
    }
}

std::string Utf8(const std::wstring& text) {
    const int size = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0,
                                         nullptr, nullptr);
    std::string narrow(static_cast<std::size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), narrow.data(), size, nullptr,
                        nullptr);
    return narrow;
}

}  // namespace

MachineState ReadMachine(Depth depth) {
    MachineState state;
    ReadServices(state);
    ReadProcesses(state);
    if (depth == Depth::Programs) {
        return state;
    }
    RegistryReader registry(state, depth);
    registry.Read(HKEY_LOCAL_MACHINE, L"HKLM");
    registry.Read(HKEY_USERS, L"HKU");
    ReadFiles(state, L"C:");
    return state;
}

std::vector<Difference> Differences(const MachineState& before, const MachineState& after) {
    std::vector<Difference> differences;
    for (const auto& [item, value] : before) {
        const auto now = after.find(item);
        if (now == after.end() || now->second != value) {
            differences.push_back({item, value, now == after.end() ? std::wstring() : now->second});
        }
    }
    for (const auto& [item, value] : after) {
        if (before.count(item) == 0) {
            differences.push_back({item, {}, value});
        }
    }
    return differences;
}

std::string Describe(const std::vector<Difference>& differences) {
    std::string text;
    for (const Difference& difference : differences) {
        text += "  " + Utf8(difference.item) + ": " + (difference.Came() ? "-" : Utf8(difference.before)) +
                " -> " + (difference.Went() ? "-" : Utf8(difference.after)) + "\n";
    }
    return text;
}

}  // namespace corvi::test
