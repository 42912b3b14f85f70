#include "tests/faults/machine.h"

#include <stdexcept>
#include <utility>

namespace corvi::test {
namespace {

void SetValue(HKEY root, const std::wstring& key, const std::wstring& name, DWORD type, const void* data,
              size_t size) {
    const LSTATUS status =
        RegSetKeyValueW(root, key.c_str(), name.c_str(), type, data, static_cast<DWORD>(size));
    if (status != ERROR_SUCCESS) {
        throw std::runtime_error("cannot set a value: " + std::to_string(status));
    }
}

struct ValueName {
    const wchar_t* key;
    const wchar_t* name;
};

constexpr ValueName kKeptValues[] = {
    {L"System\\CurrentControlSet\\Control\\Session Manager\\Environment", L"Path"},
    {L"System\\CurrentControlSet\\Control\\Session Manager", L"PendingFileRenameOperations"},
    {L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", L"CurrentMajorVersionNumber"},
    {L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", L"CurrentBuild"},
    {L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", L"UBR"}};

}  // namespace

KeptValues::KeptValues() {
    for (const ValueName& name : kKeptValues) {
        Value value;
        DWORD size = 0;
        constexpr DWORD kAnyUnexpanded = RRF_RT_ANY | RRF_NOEXPAND;
        if (RegGetValueW(HKEY_LOCAL_MACHINE, name.key, name.name, kAnyUnexpanded, nullptr, nullptr, &size) ==
            ERROR_SUCCESS) {
            value.data.resize(size);
            value.isThere = RegGetValueW(HKEY_LOCAL_MACHINE, name.key, name.name, kAnyUnexpanded, &value.type,
                                         value.data.data(), &size) == ERROR_SUCCESS;
            value.data.resize(size);
        }
        values_.push_back(std::move(value));
    }
}

KeptValues::~KeptValues() {
    for (size_t index = 0; index < values_.size(); ++index) {
        const ValueName& name = kKeptValues[index];
        const Value& value = values_[index];
        if (value.isThere) {
            RegSetKeyValueW(HKEY_LOCAL_MACHINE, name.key, name.name, value.type, value.data.data(),
                            static_cast<DWORD>(value.data.size()));
        } else {
            RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, name.key, name.name);
        }
    }
}

void DropKey(const std::wstring& key, HKEY root) {
    RegDeleteTreeW(root, key.c_str());
    RegDeleteKeyW(root, key.c_str());
}

void DropValue(const std::wstring& key, const std::wstring& name) {
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), name.c_str());
}

void MakeKey(const std::wstring& key, HKEY root) {
    HKEY made = nullptr;
    if (RegCreateKeyExW(root, key.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &made, nullptr) !=
        ERROR_SUCCESS) {
        throw std::runtime_error("cannot make a key");
    }
    RegCloseKey(made);
}

void SetText(const std::wstring& key, const std::wstring& name, const std::wstring& text, DWORD type,
             HKEY root) {
    SetValue(root, key, name, type, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
}

void SetNumber(const std::wstring& key, const std::wstring& name, DWORD number, HKEY root) {
    SetValue(root, key, name, REG_DWORD, &number, sizeof(number));
}

void SetTexts(const std::wstring& key, const std::wstring& name, const std::vector<std::wstring>& texts) {
    std::wstring data;
    for (const std::wstring& text : texts) {
        data += text + L'\0';
    }
    data += L'\0';
    SetValue(HKEY_LOCAL_MACHINE, key, name, REG_MULTI_SZ, data.data(), data.size() * sizeof(wchar_t));
}

void DropFolder(const std::wstring& path) {
    WIN32_FIND_DATAW data = {};
    const HANDLE find = FindFirstFileW((path + L"\\*").c_str(), &data);
    if (find != INVALID_HANDLE_VALUE) {
        do {
            const std::wstring name = data.cFileName;
            const std::wstring entry = path + L'\\' + name;
            if (name == L"." || name == L"..") {
                continue;
            }
            if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
                DropFolder(entry);
            } else {
                if ((data.dwFileAttributes & FILE_ATTRIBUTE_READONLY) != 0) {
                    SetFileAttributesW(entry.c_str(), FILE_ATTRIBUTE_NORMAL);
                }
                DeleteFileW(entry.c_str());
            }
        } while (FindNextFileW(find, &data) != FALSE);
        FindClose(find);
    }
    RemoveDirectoryW(path.c_str());
}

void MakeFolder(const std::wstring& path) {
    if (CreateDirectoryW(path.c_str(), nullptr) == FALSE && GetLastError() == ERROR_PATH_NOT_FOUND) {
        MakeFolder(path.substr(0, path.rfind(L'\\')));
        CreateDirectoryW(path.c_str(), nullptr);
    }
}

void MakeFile(const std::wstring& path, DWORD attributes) {
    const std::wstring absolute = path.find(L':') == std::wstring::npos ? Below(path) : path;
    HANDLE file =
        CreateFileW(absolute.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, attributes, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        MakeFolder(absolute.substr(0, absolute.rfind(L'\\')));
        file = CreateFileW(absolute.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, attributes, nullptr);
    }
    if (file == INVALID_HANDLE_VALUE) {
        throw std::runtime_error("cannot make a file: " + std::to_string(GetLastError()));
    }
    DWORD written = 0;
    WriteFile(file, "content", 7, &written, nullptr);
    CloseHandle(file);
}

std::wstring Below(const std::wstring& relative) { return std::wstring(kFolder) + L'\\' + relative; }

}  // namespace corvi::test
