#pragma once

#include <windows.h>

#include <optional>
#include <string>

#include "runtime/registry.h"

namespace corvi {

/// The register of the products that carry the user-experience program (TUEP), below
/// HKEY_LOCAL_MACHINE: one REG_DWORD a client, named by the client's name and kStatusSuffix.
inline constexpr wchar_t kClientRegisterKey[] = L"SOFTWARE\\TUEP";
inline constexpr wchar_t kStatusSuffix[] = L"_TUEPStatus";
/// The one status that is copied to the display driver's service key.
inline constexpr wchar_t kDriverStatusName[] = L"LSX_TUEPStatus";
/// The key that names the client which claimed TUEP last, and the name of that REG_SZ value.
inline constexpr wchar_t kAnalyticsKey[] = L"SOFTWARE\\TAVO\\TAVOAnalytics";
inline constexpr wchar_t kLastClaimantValue[] = L"TUEPClient";

inline constexpr DWORD kClientHoldsTuep = 1;
inline constexpr DWORD kClientUninstalled = 2;

/// Writes one status value (full value name) of the client register, creating the key if needed. False
/// only when the key could neither be opened nor created.
bool SetClientStatus(const std::wstring& valueName, DWORD status);

/// Writes "LSX_TUEPStatus" below the driver service's "State\TUEP" key, creating that subkey but never
/// the service's key. True when the value was written.
bool SetDriverTuepStatus(DWORD status);

/// Writes the status of the client named clientName and, for the client "LSX", its driver-side copy.
/// True when the register could be opened or created.
bool MarkTuepClient(const std::wstring& clientName, DWORD status);

/// The key of the last claimant, opened with all access; empty when that fails. *status, if given, receives
/// the platform's result.
RegKey OpenAnalyticsKey(LSTATUS* status = nullptr);

/// Marks the client that claimed TUEP last with the given status and deletes its claim, which goes even
/// when it cannot be read. analyticsKey: as OpenAnalyticsKey gives it. The client's name; nothing when
/// there is no claim of at most 520 bytes.
std::optional<std::wstring> SettleLastClaim(const RegKey& analyticsKey, DWORD status);

}  // namespace corvi
