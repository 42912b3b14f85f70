#include <windows.h>

#include <msi.h>

#include <algorithm>
#include <string>
#include <vector>

#include "msiregistry/client_register.h"
#include "msiregistry/product_version.h"
#include "msiregistry/registration_cleanup.h"
#include "msiregistry/related_products.h"
#include "runtime/action_data.h"
#include "runtime/action_policy.h"
#include "runtime/installer_log.h"
#include "runtime/process.h"
#include "runtime/registry.h"
#include "runtime/registry_walk.h"
#include "runtime/session.h"
#include "runtime/text.h"

namespace corvi {
namespace {

constexpr wchar_t kTuepUpgradeCode[] = L"{14FF974F-1802-43D4-B8FE-78AF51D911D6}";
constexpr wchar_t kTuepProductName[] = L"TAVO User Experience Program Installer";
constexpr wchar_t kRunTuepTask[] = L" /run /TN StartTUEP";
/// What makes a name of the register a status value's.
constexpr wchar_t kStatusMark[] = L"TUEPStatus";
/// How the "Action" of an uninstall begins, in lower case: the value of the installer's REMOVE property.
constexpr wchar_t kRemoveAll[] = L"all";

/// What the action answers to the package.
constexpr UINT kGoOn = ERROR_SUCCESS;
constexpr UINT kKeepInstalledCopy = ERROR_NO_MORE_ITEMS;
constexpr UINT kKeepTuepForOthers = ERROR_INSTALL_USEREXIT;

struct ArbitrationRequest {
    std::wstring clientName;
    std::wstring currentVersion;
    bool isUninstall;
};

/// What one status value of the client register says about its client.
struct ClientStatusEntry {
    bool isActive;
    bool isOwn;
};

struct ClientRegister {
    std::vector<ClientStatusEntry> entries;
    /// The full name of this client's status value.
    std::wstring ownName;
};

ArbitrationRequest ReadRequest(MSIHANDLE session, const std::wstring& clientName,
                               const std::wstring& actionData) {
    const std::wstring action = GetActionDataValue(actionData, L"Action=");
    const std::wstring currentVersion = GetActionDataValue(actionData, L"CurrentVersion=");
    WriteInstallerLog(session, L"Client Name %s", clientName.c_str());
    WriteInstallerLog(session, L"Action %s", action.c_str());
    WriteInstallerLog(session, L"Current Version %s", currentVersion.c_str());

    const bool isUninstall = ToLower(action).find(kRemoveAll) == 0;
    if (isUninstall) {
        WriteInstallerLog(session, L"Client Name (Uninstall) %s", clientName.c_str());
    }
    return {clientName, currentVersion, isUninstall};
}

ClientStatusEntry ReadEntry(const std::wstring& name, const std::wstring& ownClient) {
    DWORD status = 0;
    DWORD size = sizeof(status);
    const LSTATUS read = RegGetValueW(HKEY_LOCAL_MACHINE, kClientRegisterKey, name.c_str(), RRF_RT_REG_DWORD,
                                      nullptr, &status, &size);
    const std::wstring client = name.substr(0, name.find(L'_'));
    return {read == ERROR_SUCCESS && status == kClientHoldsTuep, client == ownClient};
}

/// Lists the register's names, those below its subkeys included: a client may have a key of its own
/// there. The number itself always stands in the register's key.
std::vector<std::wstring> ListRegisterNames() {
    std::vector<std::wstring> paths;
    const RegKey key = RegKey::TryOpen(HKEY_LOCAL_MACHINE, kClientRegisterKey, KEY_READ);
    if (key) {
        ListKeyPaths(HKEY_LOCAL_MACHINE, key.Get(), kClientRegisterKey, paths);
    }
    for (std::wstring& path : paths) {
        path.erase(0, path.rfind(L'\\') + 1);
    }
    return paths;
}

ClientRegister ReadRegister(const std::wstring& clientName) {
    ClientRegister clients;
    clients.ownName = clientName + kStatusSuffix;
    for (const std::wstring& name : ListRegisterNames()) {
        if (name.find(kStatusMark) == std::wstring::npos) {
            continue;
        }
        clients.entries.push_back(ReadEntry(name, clientName));
        if (clients.entries.back().isOwn) {
            clients.ownName = name;
        }
    }
    return clients;
}

bool IsHeldByAnother(const ClientRegister& clients) {
    return std::any_of(clients.entries.begin(), clients.entries.end(),
                       [](const ClientStatusEntry& entry) { return entry.isActive && !entry.isOwn; });
}

void ForgetLastClaimant() {
    if (const RegKey key = OpenAnalyticsKey()) {
        RegDeleteValueW(key.Get(), kLastClaimantValue);
    }
}

/// Writes this client's status, and the driver's copy of it for the one client that has a copy.
void WriteOwnStatus(const std::wstring& ownName, DWORD status) {
    SetClientStatus(ownName, status);
    if (ownName == kDriverStatusName) {
        SetDriverTuepStatus(status);
    }
}

void StartTuep() { LaunchApplication(kRunTuepTask); }

UINT LeaveTuepToOthers(const ClientRegister& clients) {
    ForgetLastClaimant();
    WriteOwnStatus(clients.ownName, kClientUninstalled);
    StartTuep();
    return kKeepTuepForOthers;
}

UINT JoinOthers(const ClientRegister& clients) {
    ForgetLastClaimant();
    WriteOwnStatus(clients.ownName, kClientHoldsTuep);
    return kKeepInstalledCopy;
}

/// Unregisters the installed copies, all of them: they have one name. How far it gets is not asked. What
/// an incomplete registration leaves behind must neither fail the install nor hide the copies that are
/// still to be compared.
void UnregisterCopies() {
    try {
        RemoveProductRegistration(kTuepProductName);
    } catch (...) {
        return;
    }
}

/// Compares the installed copies with the package's: older ones lose their registration, one that is not
/// older ends the search. result: what was decided before, and what is decided here; an error on the way
/// leaves it as far as it got.
void CompareInstalledCopies(MSIHANDLE session, const ArbitrationRequest& request, const std::wstring& ownName,
                            UINT& result) {
    const ProductVersion current = ParseProductVersion(request.currentVersion);
    for (const auto& [package, version] : GetRelatedMSIVersions(session, kTuepUpgradeCode)) {
        WriteInstallerLog(session, L"Previous installed - Version %s - Path - %s", version.c_str(),
                          package.c_str());
        if (IsNotOlder(ParseProductVersion(version), current)) {
            WriteInstallerLog(session, L"Skipping install as - %s installed", version.c_str());
            SetClientStatus(ownName, kClientHoldsTuep);
            StartTuep();
            result = kKeepInstalledCopy;
            return;
        }
        UnregisterCopies();
        WriteInstallerLog(session, L"Uninstall %s as it is older", package.c_str());
        result = kGoOn;
    }
}

void Arbitrate(MSIHANDLE session, const ArbitrationRequest& request, UINT& result) {
    const ClientRegister clients = ReadRegister(request.clientName);
    if (clients.entries.empty()) {
        return;
    }
    const bool isHeldByAnother = IsHeldByAnother(clients);
    if (request.isUninstall) {
        result = isHeldByAnother ? LeaveTuepToOthers(clients) : kGoOn;
        return;
    }
    result = isHeldByAnother ? JoinOthers(clients) : kGoOn;
    CompareInstalledCopies(session, request, clients.ownName, result);
}

UINT AnswerPackage(MSIHANDLE session) {
    const std::wstring actionData = ReadActionData(session);
    const std::wstring clientName = GetActionDataValue(actionData, L"ClientName=");
    UINT result = kGoOn;
    try {
        Arbitrate(session, ReadRequest(session, clientName, actionData), result);
    } catch (...) {
        // What is decided by then stands, and the claimant is recorded in every outcome.
    }
    WriteMachineString(kAnalyticsKey, kLastClaimantValue, clientName);
    return result;
}

}  // namespace
}  // namespace corvi

extern "C" UINT __stdcall CheckForClients(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::BestEffort([&] { return corvi::AnswerPackage(session); });
}
