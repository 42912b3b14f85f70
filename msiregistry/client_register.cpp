#include "msiregistry/client_register.h"

namespace corvi {
namespace {

constexpr wchar_t kDriverServiceKey[] = L"System\\CurrentControlSet\\Services\\tavofendr";
constexpr wchar_t kDriverStateSubkey[] = L"State\\TUEP";

// No more than this of the last claimant's name is asked for. A longer one does not count.
constexpr DWORD kClaimantBytes = 520;

}  // namespace

bool SetClientStatus(const std::wstring& valueName, DWORD status) {
    const RegKey key = RegKey::OpenOrCreate(HKEY_LOCAL_MACHINE, kClientRegisterKey);
    if (!key) {
        return false;
    }
    // Kept: a refused write counts as done.
    key.SetDword(valueName, status);
    return true;
}

bool SetDriverTuepStatus(DWORD status) {
    const RegKey service = RegKey::TryOpen(HKEY_LOCAL_MACHINE, kDriverServiceKey, KEY_ALL_ACCESS);
    if (!service) {
        return false;
    }
    const RegKey state = RegKey::TryCreate(service.Get(), kDriverStateSubkey, KEY_ALL_ACCESS);
    return state && state.SetDword(kDriverStatusName, status) == ERROR_SUCCESS;
}

bool MarkTuepClient(const std::wstring& clientName, DWORD status) {
    const std::wstring valueName = clientName + kStatusSuffix;
    if (!SetClientStatus(valueName, status)) {
        return false;
    }
    if (valueName == kDriverStatusName) {
        SetDriverTuepStatus(status);
    }
    return true;
}

RegKey OpenAnalyticsKey(LSTATUS* status) {
    return RegKey::TryOpen(HKEY_LOCAL_MACHINE, kAnalyticsKey, KEY_ALL_ACCESS, status);
}

std::optional<std::wstring> SettleLastClaim(const RegKey& analyticsKey, DWORD status) {
    auto client = analyticsKey.QueryText(kLastClaimantValue, kClaimantBytes);
    if (client) {
        MarkTuepClient(*client, status);
    }
    RegDeleteValueW(analyticsKey.Get(), kLastClaimantValue);
    return client;
}

}  // namespace corvi
