#include <windows.h>

#include <aclapi.h>
#include <msi.h>
#include <objbase.h>
#include <shlobj.h>

#include <algorithm>
#include <cwchar>
#include <optional>
#include <string>
#include <vector>

#include "actions/analytics_consent.h"
#include "msiregistry/client_register.h"
#include "runtime/action_data.h"
#include "runtime/action_policy.h"
#include "runtime/filesystem.h"
#include "runtime/installer_log.h"
#include "runtime/kernel_handle.h"
#include "runtime/known_paths.h"
#include "runtime/local_memory.h"
#include "runtime/process.h"
#include "runtime/registry.h"
#include "runtime/registry_walk.h"
#include "runtime/session.h"
#include "runtime/text.h"
#include "runtime/tree_walk.h"
#include "services/service_control.h"
#include "services/service_registration.h"
#include "tasks/task_registration.h"

namespace corvi {
namespace {

// The older performance profile client (PPC).
constexpr wchar_t kPpcService[] = L"PPCL";
constexpr wchar_t kPpcUserFeedbackImage[] = L"TAVOPPCUF.exe";
constexpr const wchar_t* kPpcImages[] = {L"TAVOPPCM.exe", L"TAVOPPCDU.exe", kPpcUserFeedbackImage};
constexpr wchar_t kPpcServiceLibrary[] = L"PPCSL.dll";
constexpr wchar_t kPpcFolderFormat[] = L"%ls\\TAVO\\Performance Profile Client";
constexpr wchar_t kPpcDataSubfolder[] = L"\\TAVO\\PPC";
constexpr size_t kFolderCapacity = 1024;
constexpr size_t kPpcFileCapacity = 256;

// The user-experience program (TUEP) that replaces it.
constexpr wchar_t kTuepServiceImage[] = L"TUEPLauncher.exe";
constexpr const wchar_t* kTuepImages[] = {L"TUEPMaster.exe", L"TUEPUF.exe", L"TUEPDU.exe", L"TUEPAC.exe",
                                          L"TUEPUC.exe"};
constexpr wchar_t kDeleteTuepTask[] = L" /delete /TN StartTUEP /F";
constexpr wchar_t kRunTask[] = L" /run /TN ";
constexpr wchar_t kGuidValue[] = L"GUID";
constexpr DWORD kGuidBytes = 520;
constexpr DWORD kTuepRemoved = 1;

// Kept: the preparation of an install stops before the last of these; only the removal goes on to it.
constexpr const wchar_t* kDriverServices[] = {L"TAVOKyrnMasterDriver",    L"TAVOKyrnMasterDriverV18",
                                              L"TAVOKyrnMasterDriverV19", L"TAVOKyrnMasterDriverV20",
                                              L"TAVOKyrnMasterDriverV22", L"TAVOKyrnMasterDriverV24",
                                              L"TAVOKyrnMasterDriverV26"};
constexpr size_t kDriverServicesBeforeInstall = 6;
constexpr wchar_t kPpcPathPart[] = L"performance profile client";

// A text, not a number: the suite reads it as such.
constexpr wchar_t kPerformanceKey[] = L"SYSTEM\\CurrentControlSet\\Services\\PerfOS\\Performance\\";
constexpr wchar_t kDisableCountersValue[] = L"Disable Performance Counters";
constexpr wchar_t kCountersEnabled[] = L"0";

constexpr wchar_t kEventSource[] = L"Application";

constexpr wchar_t kSessionManagerKey[] = L"SYSTEM\\CurrentControlSet\\Control\\Session Manager";
constexpr wchar_t kPendingRenamesValue[] = L"PendingFileRenameOperations";
constexpr wchar_t kPpcPendingPart[] = L"\\Performance Profile Client";

constexpr const wchar_t* kNativeTrees[] = {L"SOFTWARE\\TAVO\\PPC\\", L"SOFTWARE\\TAVO\\DU\\",
                                           L"SYSTEM\\CurrentControlSet\\Services\\tavofendr\\State\\DU\\",
                                           L"SYSTEM\\CurrentControlSet\\Services\\tavofendr\\State\\TUEP\\",
                                           L"SOFTWARE\\TAVO\\DUTrack\\"};
constexpr const wchar_t* kTreesOf32BitView[] = {
    L"SOFTWARE\\TAVO\\PPC", L"SOFTWARE\\TAVO\\DU", L"SOFTWARE\\TAVO\\DUTrack",
    L"SYSTEM\\CurrentControlSet\\Services\\tavofendr\\State\\DU",
    L"SYSTEM\\CurrentControlSet\\Services\\tavofendr\\State\\TUEP"};

/// The client's folder; empty when the platform cannot name the folder that it lies in. What is deleted or
/// moved asks for that first: built on nothing, a path names something else.
std::wstring PpcFolder(int programFilesCsidl) {
    const std::wstring programFiles = KnownFolder(programFilesCsidl);
    return programFiles.empty() ? L""
                                : FormatBounded(kFolderCapacity, kPpcFolderFormat, programFiles.c_str());
}

void DeleteFolderIfPresent(const std::wstring& folder) {
    if (PathExists(folder)) {
        DeleteFolder(folder);
    }
}

void StopPpc() {
    for (const wchar_t* image : kPpcImages) {
        KillProcessByName(image);
    }
    StopServiceAndWait(kPpcService);
    DeleteServiceByName(kPpcService);
    // The service may have started it again before it stopped.
    KillProcessByName(kPpcUserFeedbackImage);
}

/// A path that does not fit its buffer is left alone: cut, it names another file.
void DeletePpcFiles(const std::wstring& folder) {
    for (const wchar_t* file : {kPpcUserFeedbackImage, kPpcServiceLibrary}) {
        const std::wstring path = folder + L"\\" + file;
        if (!folder.empty() && path.size() < kPpcFileCapacity) {
            DeleteFileW(path.c_str());
        }
    }
}

void StopAndKillPpc(const std::wstring& folder) {
    StopPpc();
    DeletePpcFiles(folder);
}

void StopAndKillTuep() {
    for (const wchar_t* image : kTuepImages) {
        KillProcessByName(image);
    }
    StopServiceAndWait(kTuepService);
    KillProcessByName(kTuepServiceImage);
    DeleteServiceByName(kTuepService);
}

/// Removes the first serviceCount driver services whose image lies in the profile client's folder; the
/// others belong to somebody else.
void RemovePpcDriverServices(MSIHANDLE session, size_t serviceCount) {
    std::for_each_n(kDriverServices, serviceCount, [session](const wchar_t* service) {
        const std::wstring imagePath = ToLower(GetServiceImagePath(service));
        if (imagePath.find(kPpcPathPart) != std::wstring::npos) {
            // The removal's name stands in the line of the preparation too.
            WriteInstallerLog(session, L"UnInstallPPC() Service location - %s", imagePath.c_str());
            StopAndDeleteService(session, service);
        }
    });
}

// Before the install

UINT MakeRoomForInstall(MSIHANDLE session) {
    const std::wstring folder = PpcFolder(CSIDL_PROGRAM_FILES);
    StopPpc();
    DeleteFolderIfPresent(folder);
    DeletePpcFiles(folder);
    DeleteFolderIfPresent(folder);
    StopAndKillTuep();
    DeleteFolderIfPresent(folder);
    RemovePpcDriverServices(session, kDriverServicesBeforeInstall);
    return ERROR_SUCCESS;
}

// The install

struct TaskOrder {
    std::wstring name;
    std::wstring command;
    std::wstring userName;
};

TaskOrder ReadTaskOrder(MSIHANDLE session) {
    const std::wstring actionData = ReadActionData(session);
    TaskOrder order{GetActionDataValue(actionData, L"TaskName="),
                    GetActionDataValue(actionData, L"CommandToLaunch="),
                    GetActionDataValue(actionData, L"Username=")};
    WriteInstallerLog(session, L"Task Name %s", order.name.c_str());
    WriteInstallerLog(session, L"Command to launch %s", order.command.c_str());
    WriteInstallerLog(session, L"Username %s", order.userName.c_str());
    return order;
}

/// The event log is what TUEP reports to; without it nothing is installed.
bool IsEventSourceAvailable() {
    const HANDLE source = RegisterEventSourceW(nullptr, kEventSource);
    if (source == nullptr) {
        return false;
    }
    DeregisterEventSource(source);
    return true;
}

/// A new GUID in registry form without its braces ("01234567-89AB-..."); empty when none can be had.
std::wstring NewGuidText() {
    GUID guid = {};
    wchar_t text[39] = {};
    if (FAILED(CoCreateGuid(&guid)) || StringFromGUID2(guid, text, ARRAYSIZE(text)) == 0) {
        return {};
    }
    std::wstring bare = text;
    bare.erase(std::remove_if(bare.begin(), bare.end(), [](wchar_t c) { return c == L'{' || c == L'}'; }),
               bare.end());
    return bare;
}

/// Gives the machine its GUID; one that is there is never replaced.
void EnsureMachineGuid() {
    const std::wstring newGuid = NewGuidText();
    const RegKey key = RegKey::TryOpen(HKEY_LOCAL_MACHINE, kClientRegisterKey, KEY_READ);
    const bool hasGuid = key && key.CanQuery(kGuidValue, kGuidBytes);
    if (!hasGuid && !newGuid.empty()) {
        WriteMachineString(kClientRegisterKey, kGuidValue, newGuid);
    }
}

/// The path under which the platform knows an open directory, all links resolved; empty on failure.
std::wstring FinalPath(const FileHandle& directory) {
    std::vector<wchar_t> path(32768, L'\0');
    const DWORD length =
        GetFinalPathNameByHandleW(directory.Get(), path.data(), static_cast<DWORD>(path.size()), 0);
    return length < path.size() ? std::wstring(path.data(), length) : std::wstring();
}

/// True when the opened object is the directory at base\subfolder itself, reached through no link below
/// base: any user may have planted one there, to have another folder opened to all users.
bool IsReachedWithoutLink(const FileHandle& directory, const std::wstring& base,
                          const std::wstring& subfolder) {
    if (!IsRealFolder(KindOf(directory))) {
        return false;
    }
    const FileHandle baseDirectory(CreateFileW(base.c_str(), 0,
                                               FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                               nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    std::wstring basePath = FinalPath(baseDirectory);
    // A drive's root ends in a separator, any other directory does not.
    if (basePath.ends_with(L'\\')) {
        basePath.pop_back();
    }
    return !basePath.empty() && EqualsIgnoringCase(FinalPath(directory), basePath + subfolder);
}

EXPLICIT_ACCESSW FullControlFor(PSID group) {
    EXPLICIT_ACCESSW entry = {};
    entry.grfAccessPermissions = GENERIC_ALL;
    entry.grfAccessMode = GRANT_ACCESS;
    entry.grfInheritance = SUB_CONTAINERS_AND_OBJECTS_INHERIT;
    entry.Trustee.TrusteeForm = TRUSTEE_IS_SID;
    entry.Trustee.TrusteeType = TRUSTEE_IS_GROUP;
    entry.Trustee.ptstrName = static_cast<LPWSTR>(group);
    return entry;
}

/// Adds full control for the local Users group to a directory's access list, inherited by what is below
/// it. A list that cannot be read is not replaced; a directory without a list is open to all already.
void GrantFullControlToUsers(const FileHandle& directory) {
    PACL oldList = nullptr;
    LocalMemory<PSECURITY_DESCRIPTOR> descriptor;
    if (GetSecurityInfo(directory.Get(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr,
                        &oldList, nullptr, descriptor.Put()) != ERROR_SUCCESS ||
        oldList == nullptr) {
        return;
    }
    BYTE users[SECURITY_MAX_SID_SIZE];
    DWORD size = sizeof(users);
    if (CreateWellKnownSid(WinBuiltinUsersSid, nullptr, users, &size) == FALSE) {
        return;
    }
    EXPLICIT_ACCESSW entry = FullControlFor(users);
    LocalMemory<PACL> newList;
    if (SetEntriesInAclW(1, &entry, oldList, newList.Put()) == ERROR_SUCCESS) {
        SetSecurityInfo(directory.Get(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr,
                        newList.Get(), nullptr);
    }
}

/// Opens the client's data folder to all users of the machine; one that is missing or whose place cannot
/// be named is skipped.
void OpenDataFolderToUsers() {
    const std::wstring base = KnownFolder(CSIDL_COMMON_APPDATA);
    if (base.empty()) {
        return;
    }
    const std::wstring folder = FormatBounded(kFolderCapacity, L"%ls%ls", base.c_str(), kPpcDataSubfolder);
    const FileHandle directory(CreateFileW(folder.c_str(), READ_CONTROL | WRITE_DAC, 0, nullptr,
                                           OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    // Through a link the open reaches the link's target; its final path gives that away.
    if (directory && IsReachedWithoutLink(directory, base, kPpcDataSubfolder)) {
        GrantFullControlToUsers(directory);
    }
}

/// Records the client that claimed TUEP last as one that holds it, and clears the claim.
void TakeOverLastClaimant(MSIHANDLE session) {
    LSTATUS status = ERROR_SUCCESS;
    const RegKey key = OpenAnalyticsKey(&status);
    // Kept: these two lines carry the later action's name.
    WriteInstallerLog(session, L"AfterInstallPPC::Registry status %d", static_cast<int>(status));
    if (!key) {
        return;
    }
    if (const auto client = SettleLastClaim(key, kClientHoldsTuep)) {
        WriteInstallerLog(session, L"AfterInstallPPC::Client Name %s", client->c_str());
    }
}

UINT SetUpTuep(MSIHANDLE session) {
    const TaskOrder order = ReadTaskOrder(session);
    if (!IsEventSourceAvailable()) {
        return ERROR_INSTALL_FAILURE;
    }
    WriteMachineString(kPerformanceKey, kDisableCountersValue, kCountersEnabled);
    EnsureMachineGuid();
    OpenDataFolderToUsers();
    InstallDataUploaderService();
    StartServiceAndWait();
    BuildDataUploaderLogonTask(order.name, order.command, order.userName);
    LaunchApplication((kRunTask + order.name).c_str());
    TakeOverLastClaimant(session);
    return ERROR_SUCCESS;
}

// After the install

/// The machine's pending renames; none when it has no such list, as a healthy machine has not, or when the
/// list cannot be read: then there is nothing to prune.
std::vector<std::wstring> ReadPendingRenames(const RegKey& sessionManager) {
    try {
        return sessionManager.GetMultiString(kPendingRenamesValue);
    } catch (const RegKeyError&) {
        return {};
    }
}

/// Wants to take the client's folder out of the pending renames. Kept: the key is opened for reading only,
/// also for the write, which is therefore refused, and the machine's list stays as it is.
void PrunePendingRenames() {
    const auto entries = ReadPendingRenames(RegKey::Open(HKEY_LOCAL_MACHINE, kSessionManagerKey, KEY_READ));
    std::vector<std::wstring> kept;
    std::copy_if(entries.begin(), entries.end(), std::back_inserter(kept), [](const std::wstring& entry) {
        return !entry.empty() && entry.find(kPpcPendingPart) == std::wstring::npos;
    });
    if (kept.size() != entries.size()) {
        RegKey::Open(HKEY_LOCAL_MACHINE, kSessionManagerKey, KEY_READ)
            .SetMultiString(kPendingRenamesValue, kept);
    }
}

UINT FinishInstall() {
    PrunePendingRenames();
    StartServiceAndWait();
    return ERROR_SUCCESS;
}

// The uninstall

/// Logs the path of a move that failed.
void Move(MSIHANDLE session, const std::wstring& from, const wchar_t* to, DWORD flags) {
    if (MoveFileExW(from.c_str(), to, flags) == FALSE) {
        WriteInstallerLog(session, L"Sable_CA Failed to MoveFile UnInstallPPC() - %s", from.c_str());
    }
}

/// What could not be deleted goes to the temporary directory, and from there with the next restart. Nothing
/// is moved from a folder or to a directory that the platform does not tell.
void MoveOutOfTheWay(MSIHANDLE session, const std::wstring& folder, const std::wstring& temporary,
                     const wchar_t* name) {
    if (folder.empty() || temporary.empty()) {
        return;
    }
    const std::wstring temporaryFolder = temporary + name;
    Move(session, folder, temporaryFolder.c_str(), MOVEFILE_COPY_ALLOWED);
    Move(session, temporaryFolder, nullptr, MOVEFILE_DELAY_UNTIL_REBOOT);
}

void DeleteRegistryTrees() {
    for (const wchar_t* tree : kNativeTrees) {
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, tree);
    }
    for (const wchar_t* tree : kTreesOf32BitView) {
        std::wstring path = tree;
        path.resize(kKeyTreePathCapacity, L'\0');
        DeleteKeyTree(path.data());
    }
}

UINT RemoveEverything(MSIHANDLE session) {
    const std::wstring folder = PpcFolder(CSIDL_PROGRAM_FILES);
    const std::wstring folderX86 = PpcFolder(CSIDL_PROGRAM_FILESX86);
    const std::wstring temporary = GetTemporaryDirectory();
    LaunchApplication(kDeleteTuepTask);
    StopAndKillPpc(folder);
    StopAndKillTuep();
    DeleteFolderIfPresent(folder);
    DeleteFolderIfPresent(folderX86);
    MoveOutOfTheWay(session, folder, temporary, L"PPCtemp");
    MoveOutOfTheWay(session, folderX86, temporary, L"PPCx86");
    DeleteRegistryTrees();
    SetInstallTuepFlag(kTuepRemoved);
    RemovePpcDriverServices(session, ARRAYSIZE(kDriverServices));
    return ERROR_SUCCESS;
}

}  // namespace
}  // namespace corvi

extern "C" {

UINT __stdcall PreInstallPPC(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::BestEffort([&] { return corvi::MakeRoomForInstall(session); });
}

UINT __stdcall PostInstallPPC(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::BestEffort([&] { return corvi::SetUpTuep(session); });
}

UINT __stdcall AfterInstallPPC(MSIHANDLE /*session*/) {
    return corvi::LetRegistryErrorThrough([] { return corvi::FinishInstall(); });
}

UINT __stdcall UnInstallPPC(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::BestEffort([&] { return corvi::RemoveEverything(session); });
}

}  // extern "C"
