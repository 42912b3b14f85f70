#include "tests/runtime/file_tree.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "runtime/registry.h"
#include "tests/support/folders.h"

namespace corvi::test {
namespace {

constexpr wchar_t kRoot[] = L"C:\\corvi\\tree";
constexpr wchar_t kVerbatimRoot[] = L"\\\\?\\C:\\corvi\\tree";
constexpr wchar_t kSessionManagerKey[] = L"SYSTEM\\CurrentControlSet\\Control\\Session Manager";
constexpr wchar_t kRestartList[] = L"PendingFileRenameOperations";

std::wstring Verbatim(const std::wstring& name) {
    return name.empty() ? kVerbatimRoot : kVerbatimRoot + (L"\\" + name);
}

bool HasAttributes(const std::wstring& path) {
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

void List(const std::wstring& folder, std::vector<std::wstring>& paths) {
    ForEachEntry(folder, [&](const std::wstring& path, DWORD attributes) {
        paths.push_back(path);
        if ((attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) ==
            FILE_ATTRIBUTE_DIRECTORY) {
            List(path, paths);
        }
    });
}

std::vector<BYTE> RestartList() {
    DWORD size = 0;
    RegGetValueW(HKEY_LOCAL_MACHINE, kSessionManagerKey, kRestartList, RRF_RT_REG_MULTI_SZ, nullptr, nullptr,
                 &size);
    std::vector<BYTE> data(size);
    if (size > 0) {
        RegGetValueW(HKEY_LOCAL_MACHINE, kSessionManagerKey, kRestartList, RRF_RT_REG_MULTI_SZ, nullptr,
                     data.data(), &size);
    }
    return data;
}

void SetRestartList(const std::vector<BYTE>& data) {
    const RegKey key = RegKey::Open(HKEY_LOCAL_MACHINE, kSessionManagerKey, KEY_SET_VALUE);
    if (data.empty()) {
        RegDeleteValueW(key.Get(), kRestartList);
    } else {
        RegSetValueExW(key.Get(), kRestartList, 0, REG_MULTI_SZ, data.data(),
                       static_cast<DWORD>(data.size()));
    }
}

}  // namespace

FileTree::FileTree() {
    if (CreateDirectoryW(kRoot, nullptr) == FALSE) {
        throw std::runtime_error("the folder of the last test is still there");
    }
}

FileTree::~FileTree() {
    try {
        RemoveFolder(kRoot);
    } catch (const std::exception&) {
        // The next test does not start then.
    }
}

std::wstring FileTree::Path(const std::wstring& name) const {
    return name.empty() ? kRoot : kRoot + (L"\\" + name);
}

std::wstring FileTree::Folder(const std::wstring& name) const {
    for (size_t end = name.find(L'\\'); end != std::wstring::npos; end = name.find(L'\\', end + 1)) {
        CreateDirectoryW(Verbatim(name.substr(0, end)).c_str(), nullptr);
    }
    if (CreateDirectoryW(Verbatim(name).c_str(), nullptr) == FALSE &&
        GetLastError() != ERROR_ALREADY_EXISTS) {
        throw std::runtime_error("cannot make a folder");
    }
    return Path(name);
}

std::wstring FileTree::File(const std::wstring& name) const {
    if (const size_t end = name.rfind(L'\\'); end != std::wstring::npos) {
        Folder(name.substr(0, end));
    }
    const FileHandle file(CreateFileW(Verbatim(name).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                      FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    if (!file || WriteFile(file.Get(), "test", 4, &written, nullptr) == FALSE) {
        throw std::runtime_error("cannot make a file");
    }
    return Path(name);
}

std::wstring FileTree::Link(const std::wstring& name, const std::string& target) const {
    const std::wstring link = Path(name);
    std::wstring path(target.begin(), target.end());
    std::replace(path.begin(), path.end(), L'/', L'\\');
    MakeLink(link, path);
    return link;
}

bool FileTree::Exists(const std::wstring& name) const { return HasAttributes(Verbatim(name)); }

std::vector<std::wstring> FileTree::All() const {
    std::vector<std::wstring> paths;
    List(kRoot, paths);
    return paths;
}

void ShowAsReparsePoint(ImportHooks& hooks, std::wstring name, DWORD tag) {
    CORVI_HOOK(hooks, GetFileInformationByHandleEx,
               [&hooks, name = std::move(name), tag](HANDLE handle, FILE_INFO_BY_HANDLE_CLASS kind,
                                                     LPVOID buffer, DWORD size) -> BOOL {
                   const BOOL done =
                       CORVI_ORIGINAL(hooks, GetFileInformationByHandleEx)(handle, kind, buffer, size);
                   if (done == FALSE || kind != FileFullDirectoryInfo) {
                       return done;
                   }
                   auto* entry = static_cast<FILE_FULL_DIR_INFO*>(buffer);
                   for (ULONG step = 1; step != 0;) {
                       if (std::wstring(entry->FileName, entry->FileNameLength / sizeof(wchar_t)) == name) {
                           entry->FileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
                           entry->EaSize = tag;
                       }
                       step = entry->NextEntryOffset;
                       entry = reinterpret_cast<FILE_FULL_DIR_INFO*>(reinterpret_cast<char*>(entry) + step);
                   }
                   return done;
               });
}

FileHandle Hold(const std::wstring& path, DWORD sharing) {
    FileHandle file(CreateFileW(path.c_str(), GENERIC_READ, sharing, nullptr, OPEN_EXISTING,
                                FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    if (!file) {
        throw std::runtime_error("cannot hold a file");
    }
    return file;
}

std::vector<std::wstring> ScheduledDeletes() {
    const std::vector<BYTE> data = RestartList();
    const std::wstring text(reinterpret_cast<const wchar_t*>(data.data()), data.size() / sizeof(wchar_t));
    std::vector<std::wstring> paths;
    for (size_t start = 0; start < text.size() && text[start] != L'\0';) {
        const size_t end = text.find(L'\0', start);
        paths.push_back(text.substr(start, end - start));
        start = end + 2;  // each path is followed by an empty text: no new name
    }
    return paths;
}

KeptRestartList::KeptRestartList() : kept_(RestartList()) { SetRestartList({}); }

KeptRestartList::~KeptRestartList() { SetRestartList(kept_); }

void KeptRestartList::Replace(const std::vector<std::wstring>& paths) {
    std::wstring text;
    for (const std::wstring& path : paths) {
        text.append(path).append(2, L'\0');
    }
    text.append(1, L'\0');
    const auto* bytes = reinterpret_cast<const BYTE*>(text.data());
    SetRestartList(std::vector<BYTE>(bytes, bytes + text.size() * sizeof(wchar_t)));
}

}  // namespace corvi::test
