#include "runtime/system_info.h"

#include <windows.h>

#include <algorithm>
#include <cwctype>

#include "runtime/registry.h"

namespace corvi {
namespace {

using IsWow64ProcessFunction = BOOL(WINAPI*)(HANDLE, PBOOL);

constexpr wchar_t kVersionKey[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";

// Looked up by name once, while the library is loaded; null when the platform lacks the function.
const auto isWow64Process = reinterpret_cast<IsWow64ProcessFunction>(
    reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32"), "IsWow64Process")));

// Each value is read through an open of its own.
RegKey OpenVersionKey() { return RegKey::Open(HKEY_LOCAL_MACHINE, kVersionKey, kReadWriteAccess); }

// The classes of the pattern: "\d" is what the C runtime takes for a digit, "." is anything but these
// ends of a line.
bool IsDigit(wchar_t character) { return std::iswdigit(character) != 0; }

bool IsLineEnd(wchar_t character) {
    return character == L'\n' || character == L'\r' || character == L'\x2028' || character == L'\x2029';
}

using Position = std::wstring::const_iterator;

Position EndOfDigits(Position start, Position end) { return std::find_if_not(start, end, IsDigit); }

}  // namespace

std::wstring GetWindowsVersion() {
    const DWORD major = OpenVersionKey().GetDword(L"CurrentMajorVersionNumber");
    const std::wstring build = OpenVersionKey().GetString(L"", L"CurrentBuild", Unreadable::Throws);
    const DWORD revision = OpenVersionKey().GetDword(L"UBR");
    return std::to_wstring(major) + L"." + build + L"." + std::to_wstring(revision);
}

std::optional<WindowsVersionGroups> MatchWindowsVersion(const std::wstring& text) {
    // No part of the pattern takes the end of a line, not even ".".
    if (std::any_of(text.begin(), text.end(), IsLineEnd)) {
        return std::nullopt;
    }
    const Position end = text.end();
    const Position majorEnd = EndOfDigits(text.begin(), end);
    if (majorEnd == text.begin() || majorEnd == end || *majorEnd != L'.') {
        return std::nullopt;
    }
    const Position buildStart = majorEnd + 1;
    // The build takes all the digits that it can get and gives them back one by one, since the separator
    // behind it may itself be a digit.
    for (Position buildEnd = EndOfDigits(buildStart, end); buildEnd > buildStart; --buildEnd) {
        if (buildEnd == end) {
            continue;
        }
        const Position revisionStart = buildEnd + 1;
        const Position revisionEnd = EndOfDigits(revisionStart, end);
        if (revisionEnd > revisionStart) {
            return WindowsVersionGroups{std::wstring(text.begin(), majorEnd),
                                        std::wstring(buildStart, buildEnd),
                                        std::wstring(revisionStart, revisionEnd)};
        }
    }
    return std::nullopt;
}

int IsRunningUnderWow64() {
    if (isWow64Process == nullptr) {
        return 0;
    }
    BOOL emulated = FALSE;
    isWow64Process(GetCurrentProcess(), &emulated);
    return emulated;
}

}  // namespace corvi
