#pragma once

#include <windows.h>

#include <msi.h>

#include <functional>
#include <string>

namespace corvi::tool {

/// A real installer session for one action: an opened package that installs nothing, made for the purpose
/// in the folder for temporary files and gone afterwards, with everything that the installer made for it.
/// Windows allows one a process.
class InstallerSession {
public:
    /// kind: the message's type bits (INSTALLMESSAGE_INFO, ...); text: as a verbose log shows it.
    using Receiver = std::function<void(UINT kind, const std::wstring& text)>;

    /// Throws std::runtime_error when the installer cannot open a session.
    explicit InstallerSession(Receiver receiver);
    ~InstallerSession() { Close(); }
    InstallerSession(const InstallerSession&) = delete;
    InstallerSession& operator=(const InstallerSession&) = delete;

    MSIHANDLE Handle() const { return session_; }

    /// Its package, and whether the installer's folder for copies of packages was made for it.
    const std::wstring& Package() const { return package_; }
    bool MadeInstallerFolder() const { return !installerFolder_.empty(); }

    /// False when the installer takes no property of that name.
    bool SetProperty(const std::wstring& name, const std::wstring& value) const;

    /// Ends the session and removes its package. Messages are no longer received.
    void Close();

private:
    void Open();
    static int CALLBACK Receive(LPVOID context, UINT messageType, MSIHANDLE record);

    Receiver receiver_;
    std::wstring package_;
    /// The installer's folder for its own copies, when it was not there before.
    std::wstring installerFolder_;
    MSIHANDLE session_ = 0;
};

/// Removes what a session leaves whose process has ended without closing it: its package, the installer's
/// copy of that, and the folder of copies when it was made for it.
void RemoveLeftPackage(const std::wstring& package, bool madeInstallerFolder);

/// True when this process may change the machine: it has the administrators' rights in full.
bool IsElevated();

}  // namespace corvi::tool
