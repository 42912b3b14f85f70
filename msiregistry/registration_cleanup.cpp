#include "msiregistry/registration_cleanup.h"

#include <windows.h>

#include <algorithm>
#include <optional>
#include <vector>

#include "runtime/known_paths.h"
#include "runtime/registry.h"
#include "runtime/text.h"

namespace corvi {
namespace {

// The keys of Windows Installer, below HKEY_LOCAL_MACHINE.
constexpr wchar_t kUninstallKey[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall";
constexpr wchar_t kUserDataKey[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Installer\\UserData";
constexpr wchar_t kFoldersKey[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Installer\\Folders";
constexpr wchar_t kMachineUpgradeCodesKey[] =
    L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Installer\\UpgradeCodes";
constexpr wchar_t kMachineAdvertisementKey[] = L"Software\\Classes\\Installer";
// Below HKEY_CLASSES_ROOT, and below each user's key.
constexpr wchar_t kClassesAdvertisementKey[] = L"Installer";
constexpr wchar_t kUserAdvertisementKey[] = L"\\Software\\Microsoft\\Installer";

constexpr wchar_t kProductsSubkey[] = L"\\Products";
constexpr wchar_t kComponentsSubkey[] = L"\\Components";
constexpr wchar_t kUpgradeCodesSubkey[] = L"\\UpgradeCodes";
constexpr wchar_t kFeaturesSubkey[] = L"\\Features";
constexpr wchar_t kInstallPropertiesSubkey[] = L"\\InstallProperties";

constexpr wchar_t kCachedInstallers[] = L"\\Installer\\";
/// What the name of a security identifier's key contains, in lower case.
constexpr wchar_t kSecurityIdentifierMark[] = L"s-1-5";

/// Opens a key. Empty when it does not exist: no key of the installer is one that every machine has.
/// Throws when it exists and cannot be opened.
RegKey OpenIfPresent(HKEY root, const std::wstring& path) {
    return RegKey::OpenIfPresent(root, path, kReadWriteAccess);
}

/// The subkeys, listed before anything is deleted, so that no deletion shifts the enumeration.
std::vector<std::wstring> SubkeysOf(const RegKey& key) {
    return key ? key.EnumSubkeys() : std::vector<std::wstring>();
}

bool ContainsIgnoringCase(const std::wstring& text, const std::wstring& part) {
    return ToLower(text).find(ToLower(part)) != std::wstring::npos;
}

/// Deletes one subkey with everything below it from the key at root\path, if that key exists.
void DeleteSubkeyTree(HKEY root, const std::wstring& path, const std::wstring& subkey) {
    const RegKey key = OpenIfPresent(root, path);
    if (key) {
        RegDeleteTreeW(key.Get(), subkey.c_str());
    }
}

/// One upgrade-code or component key holds one value for each product that uses it, named by the packed
/// product code. Takes the product out: the value goes or, when it is the only one, the key.
void RemoveUser(const RegKey& parent, const std::wstring& subkey, const std::wstring& packedCode) {
    RegKey key = OpenIfPresent(parent.Get(), subkey);
    if (!key) {
        return;
    }
    const std::vector<std::wstring> users = key.EnumValues();
    const bool isUser = std::any_of(users.begin(), users.end(), [&](const std::wstring& user) {
        return EqualsIgnoringCase(user, packedCode);
    });
    if (!isUser) {
        return;
    }
    if (users.size() > 1) {
        RegDeleteValueW(key.Get(), packedCode.c_str());
        return;
    }
    key.Close();
    RegDeleteTreeW(parent.Get(), subkey.c_str());
}

/// Takes the product out of every subkey of root\path.
void RemoveUserFromSubkeys(HKEY root, const std::wstring& path, const std::wstring& packedCode) {
    const RegKey parent = OpenIfPresent(root, path);
    for (const std::wstring& subkey : SubkeysOf(parent)) {
        RemoveUser(parent, subkey, packedCode);
    }
}

/// The braced product code inside a text ("MsiExec.exe /I{...}"): from the first "{" to the first "}".
/// Nothing when the text has no such pair.
std::optional<std::wstring> CutProductCode(const std::wstring& text) {
    const size_t open = text.find(L'{');
    const size_t close = text.find(L'}');
    if (open == std::wstring::npos || close == std::wstring::npos || close < open) {
        return std::nullopt;
    }
    return text.substr(open, close - open + 1);
}

/// Deletes the installer's notes of the folders that lie in the product's cache folder. source: a text
/// with the braced product code; without one, or without the Windows directory, no folder is known to be
/// the product's, and all stay.
void RemoveCachedFolders(const std::wstring& source) {
    const std::optional<std::wstring> productCode = CutProductCode(source);
    const std::wstring windows = GetWindowsFolder();
    if (!productCode || windows.empty()) {
        return;
    }
    const std::wstring cacheFolder = windows + kCachedInstallers + *productCode;
    const RegKey folders = OpenIfPresent(HKEY_LOCAL_MACHINE, kFoldersKey);
    if (!folders) {
        return;
    }
    for (const std::wstring& folder : folders.EnumValues()) {
        if (ContainsIgnoringCase(folder, cacheFolder)) {
            RegDeleteValueW(folders.Get(), folder.c_str());
        }
    }
}

void RemoveUninstallEntries(const std::wstring& productName) {
    const RegKey uninstall = OpenIfPresent(HKEY_LOCAL_MACHINE, kUninstallKey);
    for (const std::wstring& entry : SubkeysOf(uninstall)) {
        if (EqualsIgnoringCase(uninstall.GetString(entry, L"DisplayName", Unreadable::IsEmpty),
                               productName)) {
            RegDeleteTreeW(uninstall.Get(), entry.c_str());
        }
    }
}

/// Removes one installed product from the data of one user (or of the machine, S-1-5-18). userKey: the
/// path of that data; products: its opened Products key.
void RemoveInstalledProduct(const std::wstring& userKey, const RegKey& products,
                            const std::wstring& packedCode) {
    const std::wstring properties = packedCode + kInstallPropertiesSubkey;
    RemoveCachedFolders(products.GetString(properties, L"UninstallString", Unreadable::IsEmpty));
    RemoveUserFromSubkeys(HKEY_LOCAL_MACHINE, kMachineUpgradeCodesKey, packedCode);
    RemoveUserFromSubkeys(HKEY_LOCAL_MACHINE, userKey + kComponentsSubkey, packedCode);
    DeleteFileW(products.GetString(properties, L"LocalPackage", Unreadable::Throws).c_str());
    RegDeleteTreeW(products.Get(), packedCode.c_str());
}

void RemoveFromUserData(const std::wstring& userKey, const std::wstring& productName) {
    const RegKey products = OpenIfPresent(HKEY_LOCAL_MACHINE, userKey + kProductsSubkey);
    for (const std::wstring& packedCode : SubkeysOf(products)) {
        const std::wstring displayName =
            products.GetString(packedCode + kInstallPropertiesSubkey, L"DisplayName", Unreadable::IsEmpty);
        if (EqualsIgnoringCase(displayName, productName)) {
            RemoveInstalledProduct(userKey, products, packedCode);
        }
    }
}

void RemoveInstallerData(const std::wstring& productName) {
    const RegKey userData = OpenIfPresent(HKEY_LOCAL_MACHINE, kUserDataKey);
    for (const std::wstring& user : SubkeysOf(userData)) {
        if (ContainsIgnoringCase(user, kSecurityIdentifierMark)) {
            RemoveFromUserData(std::wstring(kUserDataKey) + L"\\" + user, productName);
        }
    }
}

/// A place where the installer keeps advertisement data: the key with the subkeys Products, UpgradeCodes
/// and Features.
struct AdvertisementPlace {
    HKEY root;
    std::wstring path;
    /// What becomes of a product whose name cannot be read.
    Unreadable unreadableName;
    /// Whether the product's icon tells of its cache folder.
    bool iconNamesCacheFolder;
};

void RemoveAdvertisedProduct(const AdvertisementPlace& place, const RegKey& products,
                             const std::wstring& packedCode) {
    if (place.iconNamesCacheFolder) {
        RemoveCachedFolders(products.GetString(packedCode, L"ProductIcon", Unreadable::IsEmpty));
    }
    RemoveUserFromSubkeys(place.root, place.path + kUpgradeCodesSubkey, packedCode);
    DeleteSubkeyTree(place.root, place.path + kFeaturesSubkey, packedCode);
    RegDeleteTreeW(products.Get(), packedCode.c_str());
}

void RemoveAdvertisement(const AdvertisementPlace& place, const std::wstring& productName) {
    const RegKey products = OpenIfPresent(place.root, place.path + kProductsSubkey);
    for (const std::wstring& packedCode : SubkeysOf(products)) {
        const std::wstring name = products.GetString(packedCode, L"ProductName", place.unreadableName);
        if (EqualsIgnoringCase(name, productName)) {
            RemoveAdvertisedProduct(place, products, packedCode);
        }
    }
}

void RemoveUsersAdvertisements(const std::wstring& productName) {
    const RegKey users = RegKey::Open(HKEY_USERS, L"", kReadWriteAccess);
    for (const std::wstring& user : users.EnumSubkeys()) {
        RemoveAdvertisement({HKEY_USERS, user + kUserAdvertisementKey, Unreadable::Throws, false},
                            productName);
    }
}

}  // namespace

void RemoveProductRegistration(const std::wstring& productName) {
    RemoveUninstallEntries(productName);
    RemoveInstallerData(productName);
    RemoveAdvertisement({HKEY_CLASSES_ROOT, kClassesAdvertisementKey, Unreadable::IsEmpty, true},
                        productName);
    RemoveAdvertisement({HKEY_LOCAL_MACHINE, kMachineAdvertisementKey, Unreadable::Throws, false},
                        productName);
    RemoveUsersAdvertisements(productName);
}

}  // namespace corvi
