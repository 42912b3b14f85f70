#include "tool/plan_files.h"

#include <sddl.h>
#include <shlwapi.h>
#include <tlhelp32.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "tool/plan_machine.h"
#include "tool/plan_processes.h"

namespace corvi::tool::plan {
namespace {

/// A deletion is tried out on as many files and folders of each plan, by opening them for it: somebody may
/// hold them. More would make the plan of a large folder many times as slow as listing it. Programs and
/// libraries in use are found among any number of files.
constexpr unsigned kTriedOut = 200;

enum class Presence {
    Real,     ///< as the machine has it
    Gone,     ///< deleted or moved away
    Created,  ///< there is nothing on the machine
    Moved,    ///< what the machine has under another path
};

/// What is written to a file that is not there.
struct Content {
    std::vector<char> bytes;
    std::size_t note = 0;  ///< the number of its change
};

struct Entry {
    std::wstring name;
    DWORD attributes = 0;
    Presence presence = Presence::Real;
    std::wstring realPath;  ///< of what was moved here
    std::shared_ptr<Content> content;
};

/// What is known and noted about the entries of one folder.
struct Folder {
    std::unordered_map<std::wstring, Entry> entries;  ///< by their names in lower case
    bool complete = false;                            ///< every entry of the machine's is among them
    std::size_t present = 0;                          ///< of a complete one: how many are there now
    bool changed = false;
};

std::unordered_map<std::wstring, Folder> folders;  ///< by their paths in lower case
/// How often a folder was deleted, moved or created: after the first time, what is below a path cannot be
/// taken as it is on the machine.
unsigned folderChanges = 0;

struct OpenFolder {
    std::wstring id;
    bool realEnds = false;
    std::vector<const Entry*> createdLeft;
    bool createdListed = false;
};
struct OpenContent {
    std::shared_ptr<Content> content;
    std::size_t position = 0;
    DWORD access = 0;
};
struct OpenSearch {
    HANDLE real = INVALID_HANDLE_VALUE;
    std::wstring folder;
    std::wstring pattern;
    std::vector<WIN32_FIND_DATAW> created;
};

std::unordered_map<HANDLE, OpenFolder> openFolders;    ///< real handles, and stand-ins for created folders
std::unordered_map<HANDLE, OpenContent> openContents;  ///< stand-ins
std::unordered_map<HANDLE, OpenSearch> openSearches;   ///< stand-ins

std::wstring Lower(std::wstring text) {
    bool plain = true;
    for (wchar_t& character : text) {
        plain = plain && character < 128;
        if (character >= L'A' && character <= L'Z') {
            character = static_cast<wchar_t>(character | 0x20);
        }
    }
    if (!plain) {
        CharLowerBuffW(text.data(), static_cast<DWORD>(text.size()));
    }
    return text;
}

bool IsSeparator(wchar_t character) { return character == L'\\' || character == L'/'; }

/// True for "C:\a\b" without anything that the platform would read otherwise.
bool IsPlainPath(const std::wstring& path) {
    if (path.size() < 3 || path[1] != L':' || path[2] != L'\\') {
        return false;
    }
    for (std::size_t index = 3; index < path.size(); ++index) {
        const wchar_t character = path[index];
        const bool endsName = index + 1 == path.size() || path[index + 1] == L'\\';
        if (character == L'/' || (character == L'\\' && endsName) ||
            ((character == L'.' || character == L' ') && endsName)) {
            return false;
        }
    }
    return true;
}

/// The absolute path without trailing separator, its names as they stand.
std::wstring Absolute(const std::wstring& path) {
    if (IsPlainPath(path)) {
        return path;
    }
    std::wstring shown = ShownPath(path);
    if (shown.size() == path.size()) {
        std::wstring full(path.size() + MAX_PATH, L'\0');
        DWORD length = GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
        if (length > full.size()) {
            full.resize(length);
            length = GetFullPathNameW(path.c_str(), length, full.data(), nullptr);
        }
        full.resize(length);
        shown = full;
    }
    while (shown.size() > 3 && IsSeparator(shown.back())) {
        shown.pop_back();
    }
    return shown;
}

struct Place {
    std::wstring path;    ///< absolute, as it stands
    std::wstring folder;  ///< the lower-case path of the folder above; empty for a root
    std::wstring name;    ///< in lower case
    std::wstring Id() const { return folder.empty() ? name : folder + L'\\' + name; }
};

Place PlaceOf(const std::wstring& path) {
    Place place;
    place.path = Absolute(path);
    std::wstring id = Lower(place.path);
    const std::size_t separator = id.rfind(L'\\');
    if (separator == std::wstring::npos || separator + 1 == id.size()) {
        if (!id.empty() && id.back() == L'\\') {
            id.pop_back();
        }
        place.name = id;
        return place;
    }
    place.name = id.substr(separator + 1);
    id.resize(separator);
    place.folder = std::move(id);
    return place;
}

std::wstring NameIn(const std::wstring& path) { return path.substr(path.rfind(L'\\') + 1); }

Entry* KnownEntry(const Place& place) {
    static std::wstring lastFolder;
    static Folder* last = nullptr;
    if (last == nullptr || lastFolder != place.folder) {
        const auto folder = folders.find(place.folder);
        if (folder == folders.end()) {
            return nullptr;
        }
        // The elements of an unordered map stay where they are.
        last = &folder->second;
        lastFolder = place.folder;
    }
    const auto entry = last->entries.find(place.name);
    return entry == last->entries.end() ? nullptr : &entry->second;
}

/// What the action would find under a path.
struct Seen {
    DWORD attributes = INVALID_FILE_ATTRIBUTES;
    DWORD error = ERROR_FILE_NOT_FOUND;
    std::wstring realPath;  ///< empty for what only the notes know
    bool IsThere() const { return attributes != INVALID_FILE_ATTRIBUTES; }
    bool IsFolder() const { return IsThere() && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0; }
};

/// Where a path leads on the machine when a folder above it was deleted, moved or created. Nothing is
/// there: realPath stays empty.
Seen SeeThroughFolders(const Place& place);

Seen See(const Place& place, const std::wstring& asGiven) {
    if (const Entry* known = KnownEntry(place)) {
        switch (known->presence) {
            case Presence::Gone:
                return {};
            case Presence::Created:
                return {known->attributes, ERROR_SUCCESS, {}};
            case Presence::Moved:
                return {known->attributes, ERROR_SUCCESS, known->realPath};
            case Presence::Real:
                if (folderChanges == 0) {
                    return {known->attributes, ERROR_SUCCESS, asGiven};
                }
                break;
        }
    }
    if (folderChanges > 0 && !place.folder.empty()) {
        return SeeThroughFolders(place);
    }
    Seen seen;
    seen.attributes = GetFileAttributesW(asGiven.c_str());
    seen.error = seen.IsThere() ? ERROR_SUCCESS : GetLastError();
    seen.realPath = asGiven;
    return seen;
}

Seen SeeFolderOf(const Place& place) {
    struct Last {
        std::wstring id;
        unsigned changes = 0;
        Seen seen;
    };
    static Last last;
    if (last.changes != folderChanges || last.id != place.folder) {
        const std::wstring above = place.path.substr(0, place.path.rfind(L'\\'));
        const Place folder = PlaceOf(above.size() == 2 ? above + L'\\' : above);
        Seen seen = See(folder, folder.path);
        last = {place.folder, folderChanges, std::move(seen)};
    }
    return last.seen;
}

Seen SeeThroughFolders(const Place& place) {
    const Seen parent = SeeFolderOf(place);
    Seen seen;
    if (!parent.IsFolder()) {
        seen.error = ERROR_PATH_NOT_FOUND;
        return seen;
    }
    const Entry* known = KnownEntry(place);
    if (parent.realPath.empty()) {
        return seen;
    }
    seen.realPath =
        parent.realPath + (IsSeparator(parent.realPath.back()) ? L"" : L"\\") + NameIn(place.path);
    seen.attributes = known != nullptr ? known->attributes : GetFileAttributesW(seen.realPath.c_str());
    seen.error = seen.IsThere() ? ERROR_SUCCESS : GetLastError();
    return seen;
}

Seen See(const std::wstring& path) { return See(PlaceOf(path), path); }

/// The notes on a path, made when there are none. The entry's folder counts as changed.
Entry& EntryAt(const Place& place, DWORD attributes) {
    Folder& folder = folders[place.folder];
    folder.changed = true;
    Entry& entry = folder.entries[place.name];
    if (entry.name.empty()) {
        entry.name = NameIn(place.path);
        entry.attributes = attributes;
    }
    return entry;
}

void NoteGone(const Place& place, DWORD attributes) {
    Entry& entry = EntryAt(place, attributes);
    Folder& folder = folders[place.folder];
    if (folder.complete) {
        --folder.present;
    }
    entry.presence = Presence::Gone;
    entry.content.reset();
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        ++folderChanges;
    }
}

void NoteThere(const Place& place, DWORD attributes, Presence presence) {
    Entry& entry = EntryAt(place, attributes);
    Folder& folder = folders[place.folder];
    if (folder.complete) {
        ++folder.present;
    }
    entry.name = NameIn(place.path);
    entry.attributes = attributes;
    entry.presence = presence;
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        ++folderChanges;
        if (presence == Presence::Created) {
            folders[place.Id()] = Folder{{}, true, 0, true};
        }
    }
}

// What is in use

/// The libraries and programs that are loaded in any process, in lower case; those of processes that the
/// plan has ended are not.
std::unordered_set<std::wstring> LoadedImages() {
    std::unordered_set<std::wstring> images;
    const HANDLE processes = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    PROCESSENTRY32W process = {};
    process.dwSize = sizeof(process);
    for (BOOL more = Process32FirstW(processes, &process); more != FALSE;
         more = Process32NextW(processes, &process)) {
        if (process.th32ProcessID == 0 || IsEnded(process.szExeFile)) {
            continue;
        }
        const HANDLE modules = CreateToolhelp32Snapshot(TH32CS_SNAPMODULE, process.th32ProcessID);
        if (modules == INVALID_HANDLE_VALUE) {
            continue;
        }
        MODULEENTRY32W module = {};
        module.dwSize = sizeof(module);
        for (BOOL next = Module32FirstW(modules, &module); next != FALSE;
             next = Module32NextW(modules, &module)) {
            images.insert(Lower(module.szExePath));
        }
        CloseHandle(modules);
    }
    CloseHandle(processes);
    return images;
}

bool MayBeImage(const std::wstring& lowerName) {
    static const wchar_t* const kExtensions[] = {L".exe", L".dll", L".ocx", L".cpl",
                                                 L".drv", L".sys", L".ax",  L".scr"};
    const std::size_t dot = lowerName.rfind(L'.');
    return dot != std::wstring::npos &&
           std::any_of(std::begin(kExtensions), std::end(kExtensions), [&](const wchar_t* extension) {
               return lowerName.compare(dot, std::wstring::npos, extension) == 0;
           });
}

bool IsLoaded(const Place& place, const std::wstring& realPath) {
    static std::size_t endedAtListing = 0;
    static bool listed = false;
    static std::unordered_set<std::wstring> images;
    if (!MayBeImage(place.name)) {
        return false;
    }
    if (!listed || endedAtListing != EndedNames()) {
        images = LoadedImages();
        listed = true;
        endedAtListing = EndedNames();
    }
    return images.count(Lower(ShownPath(realPath))) != 0;
}

/// What the platform would answer to the deletion of a file or folder that somebody holds open.
DWORD TryOut(const std::wstring& realPath) {
    const HANDLE file =
        CreateFileW(realPath.c_str(), DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                    OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return GetLastError();
    }
    CloseHandle(file);
    return ERROR_SUCCESS;
}

DWORD DeletionError(const Place& place, const Seen& seen) {
    static unsigned tried = 0;
    if (seen.realPath.empty()) {
        return ERROR_SUCCESS;
    }
    if (IsLoaded(place, seen.realPath)) {
        return ERROR_ACCESS_DENIED;
    }
    return tried++ < kTriedOut ? TryOut(seen.realPath) : ERROR_SUCCESS;
}

// The entries of a folder

std::vector<const Entry*> CreatedIn(const std::wstring& folderId) {
    std::vector<const Entry*> created;
    const auto folder = folders.find(folderId);
    if (folder != folders.end() && folder->second.changed) {
        for (const auto& [name, entry] : folder->second.entries) {
            if (entry.presence == Presence::Created || entry.presence == Presence::Moved) {
                created.push_back(&entry);
            }
        }
    }
    std::sort(created.begin(), created.end(),
              [](const Entry* left, const Entry* right) { return left->name < right->name; });
    return created;
}

bool IsDots(const wchar_t* name) { return wcscmp(name, L".") == 0 || wcscmp(name, L"..") == 0; }

/// True when the machine's entry of that name shows.
bool Shows(const Folder* folder, const std::wstring& lowerName) {
    if (folder == nullptr || !folder->changed) {
        return true;
    }
    const auto entry = folder->entries.find(lowerName);
    return entry == folder->entries.end() || entry->second.presence == Presence::Real;
}

const Folder* NotedFolder(const std::wstring& id) {
    const auto folder = folders.find(id);
    return folder == folders.end() ? nullptr : &folder->second;
}

/// How many entries a folder has as it would be now.
std::size_t CountEntries(const Place& place, const Seen& seen) {
    const std::wstring id = place.Id();
    const Folder* noted = NotedFolder(id);
    if (noted != nullptr && noted->complete) {
        return noted->present;
    }
    std::size_t count = CreatedIn(id).size();
    WIN32_FIND_DATAW data = {};
    const std::wstring pattern = seen.realPath + (IsSeparator(seen.realPath.back()) ? L"*" : L"\\*");
    const HANDLE find = FindFirstFileW(pattern.c_str(), &data);
    if (find == INVALID_HANDLE_VALUE) {
        return count;
    }
    do {
        if (!IsDots(data.cFileName) && Shows(noted, Lower(data.cFileName))) {
            ++count;
        }
    } while (FindNextFileW(find, &data) != FALSE);
    ::FindClose(find);
    return count;
}

/// Takes what a listing shows into the notes, and out of the listing what is gone. False when nothing of
/// the buffer is left.
bool TakeListing(OpenFolder& open, BYTE* buffer) {
    Folder& folder = folders[open.id];
    FILE_FULL_DIR_INFO* kept = nullptr;
    BYTE* keptEnd = buffer;
    for (BYTE* position = buffer;;) {
        auto* found = reinterpret_cast<FILE_FULL_DIR_INFO*>(position);
        const ULONG step = found->NextEntryOffset;
        const std::size_t size =
            step != 0 ? step : offsetof(FILE_FULL_DIR_INFO, FileName) + found->FileNameLength;
        std::wstring name(found->FileName, found->FileNameLength / sizeof(wchar_t));
        bool shows = true;
        if (name != L"." && name != L"..") {
            std::wstring lower = Lower(name);
            if (folder.complete) {
                shows = Shows(&folder, lower);
            } else {
                Entry& entry = folder.entries[std::move(lower)];
                if (entry.name.empty()) {
                    entry.name = std::move(name);
                    entry.attributes = found->FileAttributes;
                    ++folder.present;
                } else {
                    shows = entry.presence == Presence::Real;
                    folder.present += shows ? 1 : 0;
                }
                found->FileAttributes =
                    entry.presence == Presence::Real ? entry.attributes : found->FileAttributes;
            }
        }
        if (shows) {
            auto* target = reinterpret_cast<FILE_FULL_DIR_INFO*>(keptEnd);
            if (keptEnd != position) {
                std::memmove(keptEnd, position, size);
            }
            if (kept != nullptr) {
                kept->NextEntryOffset = static_cast<ULONG>(keptEnd - reinterpret_cast<BYTE*>(kept));
            }
            kept = target;
            kept->NextEntryOffset = 0;
            // The next one begins where the platform would have put it.
            keptEnd += (size + 7) & ~std::size_t{7};
            keptEnd = std::min(keptEnd, position + (step != 0 ? step : size));
        }
        if (step == 0) {
            return kept != nullptr;
        }
        position += step;
    }
}

/// Writes the entries that only the notes know, as many as fit.
BOOL ListCreated(OpenFolder& open, BYTE* buffer, DWORD size) {
    if (!open.createdListed) {
        open.createdLeft = CreatedIn(open.id);
        open.createdListed = true;
    }
    FILE_FULL_DIR_INFO* last = nullptr;
    std::size_t used = 0;
    while (!open.createdLeft.empty()) {
        const Entry& entry = *open.createdLeft.front();
        const std::size_t bytes =
            offsetof(FILE_FULL_DIR_INFO, FileName) + entry.name.size() * sizeof(wchar_t);
        if (used + bytes > size) {
            break;
        }
        auto* info = reinterpret_cast<FILE_FULL_DIR_INFO*>(buffer + used);
        std::memset(info, 0, bytes);
        info->FileAttributes = entry.attributes;
        info->FileNameLength = static_cast<ULONG>(entry.name.size() * sizeof(wchar_t));
        std::memcpy(info->FileName, entry.name.data(), info->FileNameLength);
        if (last != nullptr) {
            last->NextEntryOffset =
                static_cast<ULONG>(reinterpret_cast<BYTE*>(info) - reinterpret_cast<BYTE*>(last));
        }
        last = info;
        used += (bytes + 7) & ~std::size_t{7};
        open.createdLeft.erase(open.createdLeft.begin());
    }
    return last != nullptr ? TRUE : Refuse(ERROR_NO_MORE_FILES, FALSE);
}

// Opening

bool WantsToWrite(DWORD access, DWORD creation, DWORD flags) {
    constexpr DWORD kWriting = GENERIC_WRITE | GENERIC_ALL | FILE_WRITE_DATA | FILE_APPEND_DATA;
    return creation != OPEN_EXISTING || (access & kWriting) != 0 || (flags & FILE_FLAG_DELETE_ON_CLOSE) != 0;
}

/// What the platform would refuse a new file for: asked for without making one.
DWORD CreationError(const Place& place) {
    if (place.folder.empty()) {
        return ERROR_PATH_NOT_FOUND;
    }
    const std::wstring above = place.path.substr(0, place.path.rfind(L'\\'));
    const Seen parent = See(above.size() == 2 ? above + L'\\' : above);
    if (!parent.IsFolder()) {
        return ERROR_PATH_NOT_FOUND;
    }
    if (parent.realPath.empty()) {
        return ERROR_SUCCESS;
    }
    const HANDLE folder = CreateFileW(parent.realPath.c_str(), FILE_ADD_FILE,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                      OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (folder == INVALID_HANDLE_VALUE) {
        return GetLastError();
    }
    CloseHandle(folder);
    return ERROR_SUCCESS;
}

/// What the platform would refuse an overwriting for.
DWORD OverwriteError(const Seen& seen, DWORD access, DWORD sharing) {
    if (seen.realPath.empty()) {
        return ERROR_SUCCESS;
    }
    const HANDLE file =
        CreateFileW(seen.realPath.c_str(), access, sharing, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return GetLastError();
    }
    CloseHandle(file);
    return ERROR_SUCCESS;
}

bool ReadWhole(const std::wstring& realPath, std::vector<char>& bytes) {
    const HANDLE file = CreateFileW(realPath.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                    nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return false;
    }
    LARGE_INTEGER size = {};
    GetFileSizeEx(file, &size);
    bytes.resize(static_cast<std::size_t>(size.QuadPart));
    DWORD read = 0;
    const BOOL done = ReadFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr);
    CloseHandle(file);
    bytes.resize(read);
    return done != FALSE;
}

HANDLE RegisterContent(std::shared_ptr<Content> content, DWORD access) {
    const HANDLE handle = NewStandInHandle();
    openContents[handle] = {std::move(content), 0, access};
    return handle;
}

HANDLE OpenForWriting(const Place& place, const Seen& seen, DWORD access, DWORD sharing, DWORD creation) {
    const bool mustExist = creation == OPEN_EXISTING || creation == TRUNCATE_EXISTING;
    if (seen.IsFolder()) {
        return Refuse(ERROR_ACCESS_DENIED, INVALID_HANDLE_VALUE);
    }
    if (!seen.IsThere() && mustExist) {
        return Refuse(seen.error, INVALID_HANDLE_VALUE);
    }
    if (seen.IsThere() && creation == CREATE_NEW) {
        return Refuse(ERROR_FILE_EXISTS, INVALID_HANDLE_VALUE);
    }
    const DWORD error = seen.IsThere() ? OverwriteError(seen, access, sharing) : CreationError(place);
    if (error != ERROR_SUCCESS) {
        return Refuse(error, INVALID_HANDLE_VALUE);
    }
    auto content = std::make_shared<Content>();
    if (seen.IsThere() && (creation == OPEN_EXISTING || creation == OPEN_ALWAYS) && !seen.realPath.empty()) {
        ReadWhole(seen.realPath, content->bytes);
    }
    Journal().Add({Deed::WriteFile, ShownPath(place.path)});
    content->note = Journal().LastNumber();
    if (seen.IsThere()) {
        NoteGone(place, seen.attributes);
    }
    NoteThere(place, FILE_ATTRIBUTE_ARCHIVE, Presence::Created);
    KnownEntry(place)->content = content;
    SetLastError(seen.IsThere() && creation == CREATE_ALWAYS ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
    return RegisterContent(std::move(content), access);
}

HANDLE OpenNoted(const Place& place, const Seen& seen, DWORD access) {
    if (seen.IsFolder()) {
        const HANDLE handle = NewStandInHandle();
        openFolders[handle] = {place.Id(), true, {}, false};
        return handle;
    }
    const Entry* entry = KnownEntry(place);
    return RegisterContent(entry != nullptr && entry->content ? entry->content : std::make_shared<Content>(),
                           access);
}

bool IsStandIn(HANDLE folder) {
    const auto open = openFolders.find(folder);
    return openContents.count(folder) != 0 || (open != openFolders.end() && open->second.realEnds);
}

// Moving

/// On Wine the restart's list also takes what is not there; Windows refuses that.
bool RestartTakesMissingPaths() {
    return GetProcAddress(GetModuleHandleW(L"ntdll"), "wine_get_version") != nullptr;
}

BOOL ScheduleForRestart(LPCWSTR from, LPCWSTR to, const Seen& source) {
    const bool taken = source.IsThere() || (RestartTakesMissingPaths() && *from != L'\0');
    if (!taken) {
        return Refuse(*from == L'\0' ? ERROR_PATH_NOT_FOUND : source.error, FALSE);
    }
    const std::wstring path = ShownPath(Absolute(from));
    Journal().Add(to == nullptr ? Change{Deed::DeleteAtRestart, path}
                                : Change{Deed::MoveAtRestart, path, ShownPath(Absolute(to))});
    return TRUE;
}

BOOL MoveNow(const Place& from, const Seen& source, const Place& to, DWORD flags) {
    const Seen target = See(to, to.path);
    if (target.IsThere() && ((flags & MOVEFILE_REPLACE_EXISTING) == 0 || target.IsFolder())) {
        return Refuse(target.IsFolder() && (flags & MOVEFILE_REPLACE_EXISTING) != 0 ? ERROR_ACCESS_DENIED
                                                                                    : ERROR_ALREADY_EXISTS,
                      FALSE);
    }
    DWORD error = target.IsThere() ? ERROR_SUCCESS : CreationError(to);
    if (error == ERROR_SUCCESS) {
        error = DeletionError(from, source);
    }
    if (error != ERROR_SUCCESS) {
        return Refuse(error, FALSE);
    }
    const Entry* known = KnownEntry(from);
    const auto content = known != nullptr ? known->content : nullptr;
    const bool isNoted = source.realPath.empty();
    NoteGone(from, source.attributes);
    if (target.IsThere()) {
        NoteGone(to, target.attributes);
    }
    NoteThere(to, source.attributes, isNoted ? Presence::Created : Presence::Moved);
    Entry* moved = KnownEntry(to);
    moved->realPath = source.realPath;
    moved->content = content;
    Journal().Add({Deed::Move, ShownPath(from.path), ShownPath(to.path)});
    return TRUE;
}

// Searching

WIN32_FIND_DATAW FindDataOf(const Entry& entry) {
    WIN32_FIND_DATAW data = {};
    data.dwFileAttributes = entry.attributes;
    std::copy_n(entry.name.c_str(), std::min<std::size_t>(entry.name.size(), MAX_PATH - 1), data.cFileName);
    return data;
}

bool Advance(OpenSearch& search, WIN32_FIND_DATAW* data, bool haveOne) {
    const Folder* noted = NotedFolder(search.folder);
    while (search.real != INVALID_HANDLE_VALUE &&
           (std::exchange(haveOne, false) || FindNextFileW(search.real, data) != FALSE)) {
        if (IsDots(data->cFileName) || Shows(noted, Lower(data->cFileName))) {
            return true;
        }
    }
    if (search.created.empty()) {
        SetLastError(ERROR_NO_MORE_FILES);
        return false;
    }
    *data = search.created.front();
    search.created.erase(search.created.begin());
    return true;
}

// Access lists

std::wstring AccountName(PSID account) {
    wchar_t name[256] = {};
    wchar_t domain[256] = {};
    DWORD nameSize = ARRAYSIZE(name);
    DWORD domainSize = ARRAYSIZE(domain);
    SID_NAME_USE use = SidTypeUnknown;
    if (LookupAccountSidW(nullptr, account, name, &nameSize, domain, &domainSize, &use) != FALSE) {
        return name;
    }
    LPWSTR text = nullptr;
    if (ConvertSidToStringSidW(account, &text) == FALSE) {
        return L"an account";
    }
    std::wstring copy = text;
    LocalFree(text);
    return copy;
}

std::wstring ListInWords(PACL list) {
    std::wstring accounts;
    for (DWORD index = 0; list != nullptr && index < list->AceCount; ++index) {
        void* entry = nullptr;
        if (GetAce(list, index, &entry) == FALSE ||
            static_cast<const ACE_HEADER*>(entry)->AceType != ACCESS_ALLOWED_ACE_TYPE) {
            continue;
        }
        auto* allowed = static_cast<ACCESS_ALLOWED_ACE*>(entry);
        if ((allowed->Mask & GENERIC_ALL) != 0 || (allowed->Mask & FILE_ALL_ACCESS) == FILE_ALL_ACCESS) {
            accounts += (accounts.empty() ? L"" : L", ") + AccountName(&allowed->SidStart);
        }
    }
    return accounts.empty() ? L"an access list without full control for anybody"
                            : L"full control for " + accounts;
}

}  // namespace

DWORD WINAPI FileAttributes(LPCWSTR path) {
    if (folders.empty()) {
        return GetFileAttributesW(path);
    }
    const Seen seen = See(path);
    return seen.IsThere() ? seen.attributes : Refuse(seen.error, INVALID_FILE_ATTRIBUTES);
}

BOOL WINAPI SetAttributes(LPCWSTR path, DWORD attributes) {
    const Place place = PlaceOf(path);
    const Seen seen = See(place, path);
    if (!seen.IsThere()) {
        return Refuse(seen.error, FALSE);
    }
    const DWORD kept = seen.attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT);
    Entry& entry = EntryAt(place, seen.attributes);
    entry.attributes = (attributes & ~static_cast<DWORD>(FILE_ATTRIBUTE_NORMAL)) | kept;
    Journal().Add({Deed::SetAttributes, ShownPath(place.path),
                   (attributes & FILE_ATTRIBUTE_READONLY) != 0 ? L"read-only" : L"not read-only"});
    return TRUE;
}

HANDLE WINAPI OpenFile(LPCWSTR path, DWORD access, DWORD sharing, LPSECURITY_ATTRIBUTES security,
                       DWORD creation, DWORD flags, HANDLE model) {
    const Place place = PlaceOf(path);
    const bool writes = WantsToWrite(access, creation, flags);
    if (writes && *path == L'\0') {
        return Refuse(ERROR_PATH_NOT_FOUND, INVALID_HANDLE_VALUE);
    }
    if (!writes && folders.empty()) {
        const HANDLE file = CreateFileW(path, access, sharing, security, creation, flags, model);
        if (file != INVALID_HANDLE_VALUE && (flags & FILE_FLAG_BACKUP_SEMANTICS) != 0) {
            openFolders[file] = {place.Id(), false, {}, false};
        }
        return file;
    }
    const Seen seen = See(place, path);
    if (writes) {
        return OpenForWriting(place, seen, access, sharing, creation);
    }
    if (!seen.IsThere()) {
        return Refuse(seen.error, INVALID_HANDLE_VALUE);
    }
    if (seen.realPath.empty()) {
        return OpenNoted(place, seen, access);
    }
    const HANDLE file = CreateFileW(seen.realPath.c_str(), access, sharing, security, creation, flags, model);
    if (file != INVALID_HANDLE_VALUE && (flags & FILE_FLAG_BACKUP_SEMANTICS) != 0) {
        openFolders[file] = {place.Id(), false, {}, false};
    }
    return file;
}

BOOL WINAPI ReadFromFile(HANDLE file, LPVOID buffer, DWORD size, LPDWORD read, LPOVERLAPPED overlapped) {
    const auto open = openContents.find(file);
    if (open == openContents.end()) {
        return ReadFile(file, buffer, size, read, overlapped);
    }
    OpenContent& content = open->second;
    if ((content.access & (GENERIC_READ | GENERIC_ALL | FILE_READ_DATA)) == 0) {
        return Refuse(ERROR_ACCESS_DENIED, FALSE);
    }
    const auto& bytes = content.content->bytes;
    const std::size_t count =
        content.position >= bytes.size() ? 0 : std::min<std::size_t>(size, bytes.size() - content.position);
    std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(std::min(content.position, bytes.size())), count,
                static_cast<char*>(buffer));
    content.position += count;
    if (read != nullptr) {
        *read = static_cast<DWORD>(count);
    }
    return TRUE;
}

BOOL WINAPI WriteToFile(HANDLE file, LPCVOID buffer, DWORD size, LPDWORD written,
                        LPOVERLAPPED /*overlapped*/) {
    const auto open = openContents.find(file);
    if (open == openContents.end()) {
        EndPlan(End::NotTrusted, 0, L"it writes to a handle of which the plan does not know what it is");
    }
    OpenContent& content = open->second;
    auto& bytes = content.content->bytes;
    if (bytes.size() < content.position + size) {
        bytes.resize(content.position + size);
    }
    std::copy_n(static_cast<const char*>(buffer), size,
                bytes.begin() + static_cast<std::ptrdiff_t>(content.position));
    content.position += size;
    Journal().At(content.content->note).files = bytes.size();
    if (written != nullptr) {
        *written = size;
    }
    return TRUE;
}

BOOL WINAPI MoveFilePointer(HANDLE file, LARGE_INTEGER distance, PLARGE_INTEGER position, DWORD method) {
    const auto open = openContents.find(file);
    if (open == openContents.end()) {
        return SetFilePointerEx(file, distance, position, method);
    }
    OpenContent& content = open->second;
    LONGLONG start = 0;
    if (method == FILE_CURRENT) {
        start = static_cast<LONGLONG>(content.position);
    } else if (method == FILE_END) {
        start = static_cast<LONGLONG>(content.content->bytes.size());
    }
    if (start + distance.QuadPart < 0) {
        return Refuse(ERROR_NEGATIVE_SEEK, FALSE);
    }
    content.position = static_cast<std::size_t>(start + distance.QuadPart);
    if (position != nullptr) {
        position->QuadPart = start + distance.QuadPart;
    }
    return TRUE;
}

BOOL WINAPI FileSize(HANDLE file, PLARGE_INTEGER size) {
    const auto open = openContents.find(file);
    if (open == openContents.end()) {
        return GetFileSizeEx(file, size);
    }
    size->QuadPart = static_cast<LONGLONG>(open->second.content->bytes.size());
    return TRUE;
}

BOOL WINAPI FileInformation(HANDLE file, LPBY_HANDLE_FILE_INFORMATION information) {
    if (!IsStandIn(file)) {
        return GetFileInformationByHandle(file, information);
    }
    *information = {};
    const auto content = openContents.find(file);
    information->dwFileAttributes =
        content == openContents.end() ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_ARCHIVE;
    if (content != openContents.end()) {
        information->nFileSizeLow = static_cast<DWORD>(content->second.content->bytes.size());
    }
    // Nothing else has the handle's number for its own.
    information->nFileIndexLow = static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(file));
    information->dwVolumeSerialNumber = 0xFFFFFFFF;
    information->nNumberOfLinks = 1;
    return TRUE;
}

BOOL WINAPI FileInformationOfClass(HANDLE file, FILE_INFO_BY_HANDLE_CLASS wanted, LPVOID buffer, DWORD size) {
    const auto open = openFolders.find(file);
    if (wanted != FileFullDirectoryInfo || open == openFolders.end()) {
        return IsStandIn(file) ? Refuse(ERROR_INVALID_PARAMETER, FALSE)
                               : GetFileInformationByHandleEx(file, wanted, buffer, size);
    }
    OpenFolder& folder = open->second;
    while (!folder.realEnds) {
        if (GetFileInformationByHandleEx(file, wanted, buffer, size) == FALSE) {
            const DWORD error = GetLastError();
            if (error != ERROR_NO_MORE_FILES && error != ERROR_FILE_NOT_FOUND) {
                return Refuse(error, FALSE);
            }
            Folder& noted = folders[folder.id];
            if (!noted.complete) {
                noted.complete = true;
                noted.present += CreatedIn(folder.id).size();
            }
            break;
        }
        if (TakeListing(folder, static_cast<BYTE*>(buffer))) {
            return TRUE;
        }
    }
    return ListCreated(folder, static_cast<BYTE*>(buffer), size);
}

DWORD WINAPI FinalPath(HANDLE file, LPWSTR path, DWORD size, DWORD flags) {
    if (!IsStandIn(file)) {
        return GetFinalPathNameByHandleW(file, path, size, flags);
    }
    const auto open = openFolders.find(file);
    const std::wstring text = open == openFolders.end() ? std::wstring() : L"\\\\?\\" + open->second.id;
    if (text.size() >= size) {
        return static_cast<DWORD>(text.size() + 1);
    }
    std::copy(text.begin(), text.end(), path);
    path[text.size()] = L'\0';
    return static_cast<DWORD>(text.size());
}

BOOL WINAPI DeleteOneFile(LPCWSTR path) {
    const Place place = PlaceOf(path);
    const Seen seen = See(place, path);
    if (!seen.IsThere()) {
        return Refuse(seen.error, FALSE);
    }
    if (seen.IsFolder() || (seen.attributes & FILE_ATTRIBUTE_READONLY) != 0) {
        return Refuse(ERROR_ACCESS_DENIED, FALSE);
    }
    if (const DWORD error = DeletionError(place, seen); error != ERROR_SUCCESS) {
        return Refuse(error, FALSE);
    }
    NoteGone(place, seen.attributes);
    Journal().Add({Deed::DeleteFile, ShownPath(place.path)});
    return TRUE;
}

BOOL WINAPI RemoveFolder(LPCWSTR path) {
    const Place place = PlaceOf(path);
    const Seen seen = See(place, path);
    if (!seen.IsThere()) {
        return Refuse(seen.error, FALSE);
    }
    if (!seen.IsFolder()) {
        return Refuse(ERROR_DIRECTORY, FALSE);
    }
    const bool isLink = (seen.attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
    if (!isLink && CountEntries(place, seen) != 0) {
        return Refuse(ERROR_DIR_NOT_EMPTY, FALSE);
    }
    if (const DWORD error = DeletionError(place, seen); error != ERROR_SUCCESS) {
        return Refuse(error, FALSE);
    }
    NoteGone(place, seen.attributes);
    Journal().AddFolderDeletion(ShownPath(place.path));
    return TRUE;
}

BOOL WINAPI MoveOne(LPCWSTR from, LPCWSTR to, DWORD flags) {
    const Place source = PlaceOf(from);
    const Seen seen = See(source, from);
    if ((flags & MOVEFILE_DELAY_UNTIL_REBOOT) != 0) {
        return ScheduleForRestart(from, to, seen);
    }
    if (!seen.IsThere() || to == nullptr) {
        return Refuse(seen.IsThere() ? ERROR_INVALID_PARAMETER : seen.error, FALSE);
    }
    return MoveNow(source, seen, PlaceOf(to), flags);
}

HANDLE WINAPI FindFirst(LPCWSTR pattern, LPWIN32_FIND_DATAW data) {
    if (folders.empty()) {
        return FindFirstFileW(pattern, data);
    }
    const std::wstring text = pattern;
    const std::size_t separator = text.find_last_of(L"\\/");
    const std::wstring above = separator == std::wstring::npos ? L"." : text.substr(0, separator + 1);
    const std::wstring last = separator == std::wstring::npos ? text : text.substr(separator + 1);
    const Place folder = PlaceOf(above);
    const Seen seen = See(folder, folder.path);
    if (!seen.IsFolder()) {
        return Refuse(ERROR_PATH_NOT_FOUND, INVALID_HANDLE_VALUE);
    }
    OpenSearch search;
    search.folder = folder.Id();
    search.pattern = last == L"*.*" ? L"*" : last;
    for (const Entry* entry : CreatedIn(search.folder)) {
        if (PathMatchSpecW(entry->name.c_str(), search.pattern.c_str()) != FALSE) {
            search.created.push_back(FindDataOf(*entry));
        }
    }
    if (!seen.realPath.empty()) {
        const std::wstring real = seen.realPath + (IsSeparator(seen.realPath.back()) ? L"" : L"\\") + last;
        search.real = FindFirstFileW(real.c_str(), data);
    }
    const bool haveOne = search.real != INVALID_HANDLE_VALUE;
    if (!Advance(search, data, haveOne)) {
        if (haveOne) {
            ::FindClose(search.real);
        }
        return Refuse(ERROR_FILE_NOT_FOUND, INVALID_HANDLE_VALUE);
    }
    const HANDLE handle = NewStandInHandle();
    openSearches[handle] = std::move(search);
    return handle;
}

BOOL WINAPI FindNext(HANDLE find, LPWIN32_FIND_DATAW data) {
    const auto search = openSearches.find(find);
    if (search == openSearches.end()) {
        return FindNextFileW(find, data);
    }
    return Advance(search->second, data, false) ? TRUE : FALSE;
}

BOOL WINAPI CloseFind(HANDLE find) {
    const auto search = openSearches.find(find);
    if (search == openSearches.end()) {
        return ::FindClose(find);
    }
    if (search->second.real != INVALID_HANDLE_VALUE) {
        ::FindClose(search->second.real);
    }
    openSearches.erase(search);
    return TRUE;
}

BOOL WINAPI PathExists(LPCWSTR path) {
    return path != nullptr && *path != L'\0' && FileAttributes(path) != INVALID_FILE_ATTRIBUTES ? TRUE
                                                                                                : FALSE;
}

BOOL WINAPI PathIsFolder(LPCWSTR path) {
    const DWORD attributes =
        path == nullptr || *path == L'\0' ? INVALID_FILE_ATTRIBUTES : FileAttributes(path);
    return attributes != INVALID_FILE_ATTRIBUTES ? static_cast<BOOL>(attributes & FILE_ATTRIBUTE_DIRECTORY)
                                                 : FALSE;
}

BOOL WINAPI PathIsEmptyFolder(LPCWSTR path) {
    if (path == nullptr || *path == L'\0') {
        return FALSE;
    }
    const Place place = PlaceOf(path);
    const Seen seen = See(place, path);
    return seen.IsFolder() && CountEntries(place, seen) == 0 ? TRUE : FALSE;
}

int WINAPI CreateFolders(HWND /*window*/, LPCWSTR path, const SECURITY_ATTRIBUTES* /*security*/) {
    if (PathIsRelativeW(path) != FALSE) {
        return ERROR_BAD_PATHNAME;
    }
    const Place place = PlaceOf(path);
    const Seen seen = See(place, path);
    if (seen.IsThere()) {
        return ERROR_ALREADY_EXISTS;
    }
    const std::wstring above = place.path.substr(0, place.path.rfind(L'\\'));
    if (place.folder.empty() || above.size() < 2) {
        return ERROR_PATH_NOT_FOUND;
    }
    const Seen parent = See(above.size() == 2 ? above + L'\\' : above);
    if (!parent.IsThere()) {
        if (const int made = CreateFolders(nullptr, above.c_str(), nullptr); made != ERROR_SUCCESS) {
            return made;
        }
    } else if (!parent.IsFolder()) {
        return ERROR_PATH_NOT_FOUND;
    }
    if (const DWORD error = CreationError(place); error != ERROR_SUCCESS) {
        return static_cast<int>(error);
    }
    NoteThere(place, FILE_ATTRIBUTE_DIRECTORY, Presence::Created);
    Journal().Add({Deed::CreateFolder, ShownPath(place.path)});
    return ERROR_SUCCESS;
}

int RemoveByRuntime(const wchar_t* path) {
    if (DeleteOneFile(path) != FALSE) {
        return 0;
    }
    const DWORD error = GetLastError();
    errno = error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ? ENOENT : EACCES;
    return -1;
}

DWORD WINAPI SetSecurity(HANDLE object, SE_OBJECT_TYPE /*type*/, SECURITY_INFORMATION /*what*/,
                         PSID /*owner*/, PSID /*group*/, PACL list, PACL /*auditList*/) {
    wchar_t path[MAX_PATH * 4] = {};
    FinalPath(object, path, ARRAYSIZE(path), 0);
    Journal().Add({Deed::GrantAccess, ShownPath(path), ListInWords(list)});
    return ERROR_SUCCESS;
}

bool CloseFile(HANDLE file) {
    const auto folder = openFolders.find(file);
    if (folder != openFolders.end()) {
        const bool standIn = folder->second.realEnds;
        openFolders.erase(folder);
        return standIn;
    }
    return openContents.erase(file) > 0;
}

std::wstring RealPath(const std::wstring& path) {
    const Seen seen = See(path);
    return seen.IsThere() ? seen.realPath : std::wstring();
}

}  // namespace corvi::tool::plan
