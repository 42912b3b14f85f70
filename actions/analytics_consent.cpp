#include "actions/analytics_consent.h"

#include <msi.h>

#include <string>

#include "msiregistry/client_register.h"
#include "runtime/action_data.h"
#include "runtime/action_policy.h"
#include "runtime/installer_log.h"
#include "runtime/registry.h"
#include "runtime/session.h"
#include "runtime/text.h"

namespace corvi {
namespace {

constexpr wchar_t kInstallKey[] = L"SOFTWARE\\TAVO\\Install";
constexpr wchar_t kInstallTuepValue[] = L"TUEP";
constexpr DWORD kTuepEnabled = 0;

// The consent lives beside the name of the client that claimed TUEP last; it is created under this
// spelling, with its trailing backslash.
constexpr wchar_t kAnalyticsKeyToCreate[] = L"SOFTWARE\\TAVO\\TAVOAnalytics\\";
constexpr wchar_t kConsentValue[] = L"AnalyticsAccepted";
constexpr wchar_t kAccepted[] = L"true";
constexpr wchar_t kRefused[] = L"false";

constexpr wchar_t kDisableProperty[] = L"DISABLEANALYTICS";
constexpr wchar_t kDisableAnswer[] = L"yes";

UINT AcceptAnalytics() {
    SetInstallTuepFlag(kTuepEnabled);
    RegKey key = OpenAnalyticsKey();
    if (!key) {
        RegKey::Create(HKEY_LOCAL_MACHINE, kAnalyticsKeyToCreate, KEY_READ | KEY_WRITE);
        key = OpenAnalyticsKey();
    }
    if (key) {
        key.SetString(kConsentValue, kAccepted);
    }
    return ERROR_SUCCESS;
}

/// The user refuses with any value that begins with "yes" in any case ("YES1"), and with no other.
bool IsRefusalRequested(MSIHANDLE session) {
    const auto value = ReadShortProperty(session, kDisableProperty);
    return value.isRead && ToLower(value.text).find(kDisableAnswer) == 0;
}

UINT RefuseAnalytics(MSIHANDLE session) {
    if (!IsRefusalRequested(session)) {
        return ERROR_SUCCESS;
    }
    if (const RegKey key = OpenAnalyticsKey()) {
        key.SetString(kConsentValue, kRefused);
    }
    return ERROR_SUCCESS;
}

UINT ForgetAnalytics(MSIHANDLE session) {
    const RegKey key = OpenAnalyticsKey();
    if (!key) {
        WriteInstallerLog(session, L"Could not access PPC Key");
        return ERROR_SUCCESS;
    }
    // Not the whole tree: a key that still has subkeys stays.
    const bool deleted = RegDeleteKeyW(HKEY_LOCAL_MACHINE, kAnalyticsKey) == ERROR_SUCCESS;
    WriteInstallerLog(session, deleted ? L"PPC Key deleted" : L"PPC Key not deleted");
    return ERROR_SUCCESS;
}

}  // namespace

bool SetInstallTuepFlag(DWORD value) {
    const RegKey key = RegKey::OpenOrCreate(HKEY_LOCAL_MACHINE, kInstallKey);
    return key && key.SetDword(kInstallTuepValue, value) == ERROR_SUCCESS;
}

}  // namespace corvi

extern "C" {

UINT __stdcall EnableAnalyticsKey(MSIHANDLE /*session*/) {
    return corvi::LetRegistryErrorThrough([] { return corvi::AcceptAnalytics(); });
}

// The misspelled name is the one that packages call.
UINT __stdcall DisabelAnalyticsKey(MSIHANDLE session) {
    return corvi::BestEffort([&] { return corvi::RefuseAnalytics(session); });
}

UINT __stdcall DeleteAnalyticsKey(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::BestEffort([&] { return corvi::ForgetAnalytics(session); });
}

}  // extern "C"
