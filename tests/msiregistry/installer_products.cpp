#include "tests/msiregistry/installer_products.h"

#include <cstdio>
#include <filesystem>
#include <stdexcept>

#include "tests/msiregistry/registry_tools.h"

namespace corvi::test {
namespace {

constexpr wchar_t kInstallerKey[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Installer";
constexpr wchar_t kUninstallKey[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall";
constexpr wchar_t kProductFolder[] = L"C:\\Program Files\\CorviTuep\\";

/// The installer's short form of a GUID: the groups reversed, the last two pairwise.
std::wstring Packed(const std::wstring& guid) {
    std::wstring packed;
    const auto appendReversed = [&](size_t start, size_t count) {
        const std::wstring piece = guid.substr(start, count);
        packed.append(piece.rbegin(), piece.rend());
    };
    appendReversed(1, 8);
    appendReversed(10, 4);
    appendReversed(15, 4);
    for (const size_t start : {20, 22, 25, 27, 29, 31, 33, 35}) {
        appendReversed(start, 2);
    }
    return packed;
}

}  // namespace

DWORD RunMsiexec(const std::wstring& arguments) {
    std::wstring commandLine = L"C:\\windows\\system32\\msiexec.exe" + arguments;
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process = {};
    if (CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                       &process) == FALSE) {
        throw std::runtime_error("cannot start msiexec: " + std::to_string(GetLastError()));
    }
    WaitForSingleObject(process.hProcess, INFINITE);
    DWORD exitCode = 0;
    GetExitCodeProcess(process.hProcess, &exitCode);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    return exitCode;
}

InstalledProduct::InstalledProduct(const std::wstring& package, const std::wstring& id, Scope scope)
    : package_(package),
      code_(L"{7E570000-AAAA-4B00-8C00-0000000000" + id + L"}"),
      packedCode_(Packed(code_)) {
    const std::wstring arguments =
        L" /i C:\\corvi\\" + package + L".msi /qn" + (scope == Scope::Machine ? L" ALLUSERS=1" : L"");
    const DWORD result = RunMsiexec(arguments);
    if (result != ERROR_SUCCESS || !IsKnown()) {
        throw std::runtime_error("msiexec did not install a test product: " + std::to_string(result));
    }
}

InstalledProduct::~InstalledProduct() {
    try {
        if (IsKnown()) {
            Uninstall();
        }
        std::filesystem::remove(OwnFile());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "a test product stays behind: %s\n", error.what());
    }
}

std::wstring InstalledProduct::OwnFile() const { return kProductFolder + package_ + L".txt"; }

std::wstring InstalledProduct::UserDataKey() const {
    const std::wstring userData = std::wstring(kInstallerKey) + L"\\UserData";
    for (const std::wstring& user : SubkeyNames(HKEY_LOCAL_MACHINE, userData)) {
        std::wstring product = userData;
        product.append(L"\\").append(user).append(L"\\Products\\").append(packedCode_);
        if (KeyExists(HKEY_LOCAL_MACHINE, product)) {
            return product;
        }
    }
    return {};
}

bool InstalledProduct::IsKnown() const {
    return MsiQueryProductStateW(code_.c_str()) == INSTALLSTATE_DEFAULT;
}

std::wstring InstalledProduct::CachedPackage() const {
    return ReadText(HKEY_LOCAL_MACHINE, InstallPropertiesKey(), L"LocalPackage").value_or(L"");
}

void InstalledProduct::MoveCachedPackage(const std::wstring& fileName) const {
    const std::wstring path = L"C:\\windows\\Installer\\" + fileName;
    if (MoveFileW(CachedPackage().c_str(), path.c_str()) == FALSE) {
        throw std::runtime_error("cannot move a cached package: " + std::to_string(GetLastError()));
    }
    WriteText(HKEY_LOCAL_MACHINE, InstallPropertiesKey(), L"LocalPackage", path);
}

void InstalledProduct::PretendVersion(const std::wstring& version) const {
    WriteText(HKEY_LOCAL_MACHINE, InstallPropertiesKey(), L"DisplayVersion", version);
}

void ForgetAllInstallations() {
    DropKey(HKEY_LOCAL_MACHINE, kInstallerKey);
    DropKey(HKEY_LOCAL_MACHINE, L"Software\\Classes\\Installer");
    for (const std::wstring& user : SubkeyNames(HKEY_USERS, L"")) {
        DropKey(HKEY_USERS, user + L"\\Software\\Microsoft\\Installer");
    }
    for (const std::wstring& entry : SubkeyNames(HKEY_LOCAL_MACHINE, kUninstallKey)) {
        if (entry.rfind(L"{7E570000-", 0) == 0 || entry.rfind(L"Corvi test", 0) == 0) {
            DropKey(HKEY_LOCAL_MACHINE, std::wstring(kUninstallKey) + L"\\" + entry);
        }
    }
}

}  // namespace corvi::test
