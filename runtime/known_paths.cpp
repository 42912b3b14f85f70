#include "runtime/known_paths.h"

#include <windows.h>

#include <shlobj.h>
#include <wrl/client.h>

#include <vector>

#include "runtime/unique_handle.h"

namespace corvi {
namespace {

struct ItemListTraits {
    using Handle = PIDLIST_ABSOLUTE;
    static Handle None() noexcept { return nullptr; }
    static void Close(Handle itemList) noexcept {
        Microsoft::WRL::ComPtr<IMalloc> allocator;
        if (SUCCEEDED(SHGetMalloc(&allocator)) && allocator) {
            allocator->Free(itemList);
        }
    }
};
using ItemList = UniqueHandle<ItemListTraits>;

}  // namespace

int GetKnownFolderPath(int csidl, std::wstring& path) {
    ItemList itemList;
    const int result = SHGetFolderLocation(nullptr, csidl, nullptr, 0, itemList.Put()) == S_OK ? 1 : 0;
    if (!itemList) {
        return result;
    }
    wchar_t text[MAX_PATH] = {};
    if (SHGetPathFromIDListW(itemList.Get(), text) != FALSE) {
        path = text;
    }
    return result;
}

std::wstring KnownFolder(int csidl) {
    std::wstring path;
    GetKnownFolderPath(csidl, path);
    return path;
}

std::wstring GetWindowsFolder() {
    wchar_t directory[MAX_PATH] = {};
    const UINT length = GetWindowsDirectoryW(directory, MAX_PATH);
    return length == 0 || length >= MAX_PATH ? std::wstring() : std::wstring(directory);
}

std::wstring GetWindowsDriveRoot() {
    const std::wstring directory = GetWindowsFolder();
    const size_t separator = directory.find(L'\\');
    return separator == std::wstring::npos ? directory : directory.substr(0, separator + 1);
}

std::wstring GetTemporaryDirectory(size_t capacity) {
    std::vector<wchar_t> directory(capacity, L'\0');
    const DWORD length = GetTempPathW(static_cast<DWORD>(capacity), directory.data());
    return length == 0 || length >= capacity ? std::wstring() : std::wstring(directory.data());
}

}  // namespace corvi
