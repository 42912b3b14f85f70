#include "tests/support/installer_session.h"

#include <msiquery.h>

#include <stdexcept>

namespace corvi::test {

InstallerSession::InstallerSession() {
    MsiSetInternalUI(INSTALLUILEVEL_NONE, nullptr);
    const UINT opened =
        MsiOpenPackageExW(L"C:\\corvi\\session.msi", MSIOPENPACKAGEFLAGS_IGNOREMACHINESTATE, &handle_);
    if (opened != ERROR_SUCCESS) {
        throw std::runtime_error("cannot open session.msi: " + std::to_string(opened));
    }
    INSTALLUI_HANDLER_RECORD previous = nullptr;
    MsiSetExternalUIRecord(&InstallerSession::Record, INSTALLLOGMODE_INFO | INSTALLLOGMODE_USER, this,
                           &previous);
}

InstallerSession::~InstallerSession() {
    INSTALLUI_HANDLER_RECORD previous = nullptr;
    MsiSetExternalUIRecord(nullptr, 0, nullptr, &previous);
    MsiCloseHandle(handle_);
}

void InstallerSession::SetProperty(const std::wstring& name, const std::wstring& value) const {
    const UINT result = MsiSetPropertyW(handle_, name.c_str(), value.c_str());
    if (result != ERROR_SUCCESS) {
        throw std::runtime_error("cannot set a property: " + std::to_string(result));
    }
}

std::vector<std::wstring> InstallerSession::LogLines() const {
    std::vector<std::wstring> lines;
    for (const InstallerMessage& message : messages_) {
        if (message.type == INSTALLMESSAGE_INFO) {
            lines.push_back(message.text);
        }
    }
    return lines;
}

int CALLBACK InstallerSession::Record(LPVOID context, UINT messageType, MSIHANDLE record) {
    auto* session = static_cast<InstallerSession*>(context);
    wchar_t none[] = L"";
    DWORD length = 0;
    MsiRecordGetStringW(record, 0, none, &length);
    std::wstring text(++length, L'\0');
    MsiRecordGetStringW(record, 0, text.data(), &length);
    text.resize(length);
    session->messages_.push_back({messageType & 0xFF000000U, MsiRecordGetFieldCount(record), text});
    return IDOK;
}

}  // namespace corvi::test
