#include "components/camera_chain.h"

#include <algorithm>
#include <string>
#include <vector>

#include "runtime/action_policy.h"
#include "runtime/installer_log.h"
#include "runtime/registry.h"
#include "runtime/registry_walk.h"
#include "runtime/session.h"

namespace corvi {
namespace {

constexpr wchar_t kSuiteIdentifier[] = L"{55E09F33-D6B5-4A6D-99ED-87DC666C6710}";
constexpr wchar_t kChainValue[] = L"CameraDeviceMftClsidChain";
constexpr wchar_t kClassValue[] = L"CLSID";

// The camera, capture and video kernel-streaming interface categories.
constexpr const wchar_t* kDeviceInterfaceKeys[] = {
    L"SYSTEM\\CurrentControlSet\\Control\\DeviceClasses\\{e5323777-f976-4f5b-9b55-b94699c46e44}",
    L"SYSTEM\\CurrentControlSet\\Control\\DeviceClasses\\{65e8773d-8f56-11d0-a3b9-00a0c9223196}",
    L"SYSTEM\\CurrentControlSet\\Control\\DeviceClasses\\{6994ad05-93ef-11d0-a3cc-00a0c9223196}",
};

// One value below HKEY_LOCAL_MACHINE.
struct MachineValue {
    std::wstring subkey;
    std::wstring name;
};

// fullPath: "HKEY_LOCAL_MACHINE\key\name".
MachineValue SplitValuePath(const std::wstring& fullPath) {
    const size_t rootEnd = fullPath.find(L'\\') + 1;
    const size_t keyEnd = fullPath.rfind(L'\\');
    return {fullPath.substr(rootEnd, keyEnd - rootEnd), fullPath.substr(keyEnd + 1)};
}

bool DeleteChain(MSIHANDLE session, const MachineValue& value) {
    if (RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, value.subkey.c_str(), value.name.c_str()) == ERROR_SUCCESS) {
        return true;
    }
    WriteInstallerLog(session, L"Failed to delete registry key");
    return false;
}

// Kept: the chain value is written even where the identifiers were read from the other one.
bool RewriteChain(MSIHANDLE session, const RegKey& key, std::vector<std::wstring> entries) {
    entries.erase(std::remove(entries.begin(), entries.end(), kSuiteIdentifier), entries.end());
    if (key.SetMultiString(kChainValue, entries)) {
        return true;
    }
    WriteInstallerLog(session, L"Failed to set multistring value");
    return false;
}

// The reader counts the list's own terminator as one more, empty entry: no entry or two entries mean
// that at most one identifier is there. Whose it is does not matter.
bool HoldsAtMostOneIdentifier(const std::vector<std::wstring>& entries) {
    return entries.empty() || entries.size() == 2;
}

bool RemoveSuiteFromChain(MSIHANDLE session, const MachineValue& value) {
    const RegKey key = RegKey::Open(HKEY_LOCAL_MACHINE, value.subkey, kReadWriteAccess);
    auto entries = key.GetMultiString(value.name);
    return HoldsAtMostOneIdentifier(entries) ? DeleteChain(session, value)
                                             : RewriteChain(session, key, std::move(entries));
}

// An interface key that is not there adds nothing.
void ListChainValues(const wchar_t* path, std::vector<std::wstring>& valuePaths) {
    const RegKey interfaceKey = RegKey::TryOpen(HKEY_LOCAL_MACHINE, path, KEY_READ);
    if (!interfaceKey) {
        return;
    }
    std::vector<std::wstring> keyPaths;
    ListKeyAndValuePaths(HKEY_LOCAL_MACHINE, interfaceKey.Get(), path, keyPaths, valuePaths,
                         {kClassValue, kChainValue});
}

}  // namespace

UINT RemoveDmftFromCameraChains(MSIHANDLE session) {
    UINT result = ERROR_SUCCESS;
    // Never emptied between the interface keys: what an earlier one held is worked on again, and a value
    // that was deleted then cannot be read now, which ends the action. Kept, both.
    std::vector<std::wstring> valuePaths;
    for (const wchar_t* path : kDeviceInterfaceKeys) {
        ListChainValues(path, valuePaths);
        for (const std::wstring& valuePath : valuePaths) {
            if (!RemoveSuiteFromChain(session, SplitValuePath(valuePath))) {
                result = ERROR_INSTALL_FAILURE;
            }
        }
    }
    return result;
}

}  // namespace corvi

extern "C" UINT __stdcall DeleteOPTXCameraGUID(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::LetRegistryErrorThrough([&] {
        // Kept: the result is inverted.
        return corvi::RemoveDmftFromCameraChains(session) == ERROR_SUCCESS
                   ? static_cast<UINT>(ERROR_INSTALL_FAILURE)
                   : static_cast<UINT>(ERROR_SUCCESS);
    });
}
