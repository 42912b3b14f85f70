#pragma once

#include <windows.h>

#include <msi.h>

#include <string>

namespace corvi::test {

/// Runs the system's msiexec with the given arguments (" /i ... /qn") to its end and gives its exit code.
DWORD RunMsiexec(const std::wstring& arguments);

/// Whom an installed product belongs to.
enum class Scope { Machine, User };

/// A package of the test folder, installed by the real msiexec; taken off the machine, registration and
/// files, when this goes out of scope.
class InstalledProduct {
public:
    /// package: the name of a package without folder and extension. id: the last two digits of its GUIDs.
    InstalledProduct(const std::wstring& package, const std::wstring& id, Scope scope = Scope::Machine);
    ~InstalledProduct();
    InstalledProduct(const InstalledProduct&) = delete;
    InstalledProduct& operator=(const InstalledProduct&) = delete;

    const std::wstring& Code() const { return code_; }
    /// The name of the product's keys in the installer's own registration.
    const std::wstring& PackedCode() const { return packedCode_; }
    /// The file that only this product installs.
    std::wstring OwnFile() const;
    /// The key of the product below HKEY_LOCAL_MACHINE, for the user it was installed for.
    std::wstring UserDataKey() const;
    std::wstring InstallPropertiesKey() const { return UserDataKey() + L"\\InstallProperties"; }

    bool IsKnown() const;
    std::wstring CachedPackage() const;

    /// Moves the cached package to the installer folder under another name, so that the order of several is
    /// known.
    void MoveCachedPackage(const std::wstring& fileName) const;
    /// Makes the installer report another version.
    void PretendVersion(const std::wstring& version) const;

    /// Reinstalls everything from the cached package. (Wine's msiexec has no /fa for a product code.)
    DWORD Repair() const { return RunMsiexec(L" /i " + code_ + L" REINSTALL=ALL REINSTALLMODE=a /qn"); }
    DWORD Uninstall() const { return RunMsiexec(L" /x " + code_ + L" /qn"); }

private:
    std::wstring package_;
    std::wstring code_;
    std::wstring packedCode_;
};

/// Removes everything that Windows Installer keeps in the registry, as on a machine on which nothing was
/// ever installed.
void ForgetAllInstallations();

}  // namespace corvi::test
