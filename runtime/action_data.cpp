#include "runtime/action_data.h"

#include <msiquery.h>

#include <stdexcept>
#include <vector>

#include "runtime/installer_log.h"

namespace corvi {

std::wstring GetActionDataValue(const std::wstring& actionData, const std::wstring& key) {
    // "Not found" is -1 in this arithmetic, so an absent key starts one character before its length.
    const int found = static_cast<int>(actionData.find(key));
    const int keyLength = static_cast<int>(key.size());
    const int start = found + keyLength;
    const auto position = static_cast<size_t>(start);
    if (position > actionData.size()) {
        throw std::out_of_range("invalid string position");
    }
    return actionData.substr(position, actionData.find(L';', position) - position);
}

ShortProperty ReadShortProperty(MSIHANDLE session, const wchar_t* name, size_t capacity) {
    std::vector<wchar_t> value(capacity, L'\0');
    auto size = static_cast<DWORD>(capacity);
    const UINT status = MsiGetPropertyW(session, name, value.data(), &size);
    value.back() = L'\0';
    return {status == ERROR_SUCCESS, std::wstring(value.data())};
}

std::wstring ReadActionData(MSIHANDLE session) {
    wchar_t none[] = L"";
    DWORD length = 0;
    MsiGetPropertyW(session, L"CustomActionData", none, &length);
    DWORD size = length + 1;
    std::vector<wchar_t> text(size, L'\0');
    MsiGetPropertyW(session, L"CustomActionData", text.data(), &size);
    text.back() = L'\0';
    WriteInstallerLog(session, L"CustomActionData: %s", text.data());
    return text.data();
}

}  // namespace corvi
