#pragma once

#include <windows.h>

#include <msi.h>

#include <string>
#include <vector>

namespace corvi::test {

/// One message that an action sent to the installer: its type bits (INSTALLMESSAGE_INFO, ...), the
/// number of fields of its record, and field 0 as it was set.
struct InstallerMessage {
    UINT type;
    UINT fields;
    std::wstring text;
};

/// A real installer session (an opened package without products or files) whose messages are kept.
/// Only one may live at a time.
class InstallerSession {
public:
    InstallerSession();
    ~InstallerSession();
    InstallerSession(const InstallerSession&) = delete;
    InstallerSession& operator=(const InstallerSession&) = delete;

    MSIHANDLE Handle() const { return handle_; }

    void SetProperty(const std::wstring& name, const std::wstring& value) const;
    void SetActionData(const std::wstring& value) const { SetProperty(L"CustomActionData", value); }

    /// Every message so far.
    const std::vector<InstallerMessage>& Messages() const { return messages_; }

    /// The texts of the information messages so far: the lines of a verbose log.
    std::vector<std::wstring> LogLines() const;

    void ClearMessages() { messages_.clear(); }

private:
    static int CALLBACK Record(LPVOID context, UINT messageType, MSIHANDLE record);

    MSIHANDLE handle_ = 0;
    std::vector<InstallerMessage> messages_;
};

}  // namespace corvi::test
