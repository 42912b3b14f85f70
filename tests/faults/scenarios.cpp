#include "tests/faults/scenarios.h"

#include <windows.h>

#include <setupapi.h>

#include <memory>

#include "tests/faults/machine.h"
#include "tests/faults/stand_ins.h"
#include "tests/support/running_program.h"

namespace corvi::test {
namespace {

// ---- The suite as it lies on a machine

constexpr wchar_t kSettingsInstallKey[] = L"SOFTWARE\\QEL Technologies\\Install\\HXNext";
constexpr wchar_t kServices[] = L"SYSTEM\\CurrentControlSet\\Services\\";
constexpr wchar_t kProfileFolder[] = L"C:\\Program Files\\TAVO\\Performance Profile Client";
constexpr wchar_t kProfileFolderX86[] = L"C:\\Program Files (x86)\\TAVO\\Performance Profile Client";
constexpr wchar_t kCommonAppData[] = L"C:\\ProgramData";
constexpr wchar_t kDeviceClasses[] = L"SYSTEM\\CurrentControlSet\\Control\\DeviceClasses\\";
constexpr wchar_t kSuiteIdentifier[] = L"{55E09F33-D6B5-4A6D-99ED-87DC666C6710}";
constexpr wchar_t kOtherIdentifier[] = L"{11111111-2222-3333-4444-555555555555}";
constexpr wchar_t kThirdIdentifier[] = L"{AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEEE}";
constexpr wchar_t kEnvironment[] = L"System\\CurrentControlSet\\Control\\Session Manager\\Environment";

/// A folder with a file, a read-only file, a folder below and an empty one.
void MakeTree(const std::wstring& folder) {
    DropFolder(folder);
    MakeFile(folder + L"\\sub\\deep.txt");
    MakeFile(folder + L"\\file.txt");
    MakeFile(folder + L"\\locked.txt", FILE_ATTRIBUTE_READONLY);
    MakeFolder(folder + L"\\empty");
}

void RegisterSettingsApplication(const std::wstring& location) {
    SetText(kSettingsInstallKey, L"Location", location);
}

void InstallSettingsApplication() {
    MakeTree(Below(L"hx"));
    MakeFile(L"hx\\hxcmd.exe");
    RegisterSettingsApplication(Below(L"hx"));
}

/// Keeps one file of the registered folder open: it can be renamed, but not deleted.
HANDLE& OpenedFile() {
    static HANDLE file = INVALID_HANDLE_VALUE;
    return file;
}

void CloseFile() {
    if (OpenedFile() != INVALID_HANDLE_VALUE) {
        CloseHandle(OpenedFile());
        OpenedFile() = INVALID_HANDLE_VALUE;
    }
}

void InstallSettingsApplicationInUse() {
    CloseFile();
    InstallSettingsApplication();
    OpenedFile() = CreateFileW(Below(L"hx\\sub\\deep.txt").c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                               OPEN_EXISTING, 0, nullptr);
}

HMODULE& LoadedModule() {
    static HMODULE module = nullptr;
    return module;
}

void UnloadModule() {
    if (LoadedModule() != nullptr) {
        FreeLibrary(LoadedModule());
        LoadedModule() = nullptr;
    }
}

/// With a DLL that a program has loaded: what the platform deletes only at the restart.
void InstallSettingsApplicationLoaded() {
    UnloadModule();
    InstallSettingsApplication();
    const std::wstring module = Below(L"hx\\sub\\loaded.dll");
    CopyFileW(L"C:\\corvi\\com_server.dll", module.c_str(), FALSE);
    LoadedModule() = LoadLibraryW(module.c_str());
}

// ---- The settings application

const std::vector<Scenario> kSettings = {
    {.name = "DeleteHXFolder, the registered folder",
     .action = "DeleteHXFolder",
     .result = 0,
     .actionData = L"C:\\faults\\elsewhere",
     .setUp =
         [] {
             InstallSettingsApplication();
             MakeFile(L"elsewhere\\kept.txt");
         }},
    {.name = "DeleteHXFolder, the folder of the action data",
     .action = "DeleteHXFolder",
     .result = 0,
     .actionData = L"C:\\faults\\elsewhere\\",
     .setUp =
         [] {
             DropKey(L"SOFTWARE\\QEL Technologies");
             MakeTree(Below(L"elsewhere"));
         }},
    {.name = "DeleteHXFolder, a file is in use",
     .action = "DeleteHXFolder",
     .result = 0,
     .setUp = InstallSettingsApplicationInUse,
     .wholeFolder = L"C:\\FAULTS\\HX",
     .leave = CloseFile},
    {.name = "DeleteHXFolder, a DLL is loaded",
     .action = "DeleteHXFolder",
     .result = 0,
     .setUp = InstallSettingsApplicationLoaded,
     .leave = UnloadModule},
    {.name = "DeleteHXFolder, nothing is registered",
     .action = "DeleteHXFolder",
     .result = 1,
     .setUp = [] { DropKey(L"SOFTWARE\\QEL Technologies"); }},
    {.name = "DeleteHXINSTALLDIRFolder",
     .action = "DeleteHXINSTALLDIRFolder",
     .result = 0,
     .setUp = InstallSettingsApplication},
    {.name = "DeleteHXNoUpgrade",
     .action = "DeleteHXNoUpgrade",
     .result = 0,
     .setUp =
         [] {
             SetText(L"SOFTWARE\\TAVO\\Install\\A", L"x", L"x");
             SetText(L"SOFTWARE\\TAVO\\HX\\B", L"x", L"x");
             SetText(L"SOFTWARE\\TAVO\\Kept", L"x", L"x");
         }},
    {.name = "DeleteHXSlimINSTALLDIRFolder",
     .action = "DeleteHXSlimINSTALLDIRFolder",
     .result = 0,
     .setUp =
         [] {
             MakeTree(Below(L"slim"));
             SetText(L"SOFTWARE\\Wow6432Node\\QEL\\ACE\\Packages\\Core-Static", L"Location", Below(L"slim"));
         }},
    {.name = "DeleteHXSparsePackageAssets",
     .action = "DeleteHXSparsePackageAssets",
     .result = 0,
     .setUp =
         [] {
             InstallSettingsApplication();
             MakeTree(Below(L"hx\\Assets"));
             MakeTree(Below(L"hx\\Strings"));
             MakeFile(L"hx\\resources.pri", FILE_ATTRIBUTE_READONLY);
         }},
    {.name = "DeleteDMFTDirectory",
     .action = "DeleteDMFTDirectory",
     .result = 0,
     .actionData = L"InstallDir=C:\\faults\\dmft\\;Other=C:\\faults\\kept",
     .setUp =
         [] {
             MakeTree(Below(L"dmft"));
             MakeFile(L"kept\\file.txt");
         }},
    {.name = "DeleteandRetainValues",
     .action = "DeleteandRetainValues",
     .result = 0,
     .setUp =
         [] {
             DropKey(L"SOFTWARE\\TAVOBranding");
             MakeKey(L"SOFTWARE\\TAVOBranding\\Skins");
             MakeKey(L"SOFTWARE\\TAVOBranding\\Logo");
             SetText(L"SOFTWARE\\TAVOBranding", L"first", Below(L"branding\\kept.txt"));
             SetText(L"SOFTWARE\\TAVOBranding", L"second", Below(L"branding\\kept folder"));
             SetNumber(L"SOFTWARE\\TAVOBranding", L"number", 1);
             SetText(L"SOFTWARE\\TAVO\\HX", L"HXBrandingInstallDir", Below(L"branding"));
             MakeTree(Below(L"branding\\gone folder"));
             MakeTree(Below(L"branding\\kept folder"));
             MakeFile(L"branding\\kept.txt");
             MakeFile(L"branding\\gone.txt");
             MakeFile(L"branding\\Skins of ours.txt");
         }},
    {.name = "DeleteandRetainValues, without a branding key",
     .action = "DeleteandRetainValues",
     .result = 0,
     .setUp =
         [] {
             DropKey(L"SOFTWARE\\TAVOBranding");
             SetText(L"SOFTWARE\\TAVO\\HX", L"HXBrandingInstallDir", Below(L"branding"));
             MakeTree(Below(L"branding\\gone folder"));
             MakeFile(L"branding\\gone.txt");
         }},
    {.name = "UninstallTAVOChat",
     .action = "UninstallTAVOChat",
     .result = 0,
     .setUp =
         [] {
             InstallSettingsApplication();
             MakeTree(Below(L"chat"));
             MakeTree(Below(L"chat data"));
             SetText(L"SOFTWARE\\TAVO\\HX\\Chat", L"InstallPath", Below(L"chat"));
             SetText(L"SOFTWARE\\TAVO\\HX\\Chat", L"DataPath", Below(L"chat data"));
         }},
    {.name = "DeleteWVRFolder",
     .action = "DeleteWVRFolder",
     .result = 0,
     .setUp =
         [] {
             InstallSettingsApplication();
             MakeTree(Below(L"vr\\suite\\WVR"));
             SetText(L"SOFTWARE\\QEL Technologies\\Install\\WVR64", L"InstallDir", Below(L"vr\\suite\\"));
         }},
};

// ---- The profile client and the install manager

void AddDriverServices() {
    for (const wchar_t* name :
         {L"TAVOKyrnMasterDriver", L"TAVOKyrnMasterDriverV19", L"TAVOKyrnMasterDriverV26"}) {
        SetText(std::wstring(kServices) + name, L"ImagePath",
                L"\\??\\" + std::wstring(kProfileFolder) + L"\\" + name + L".sys", REG_EXPAND_SZ);
        AddService(name, L"driver");
    }
    SetText(std::wstring(kServices) + L"TAVOKyrnMasterDriverV22", L"ImagePath",
            L"system32\\drivers\\TAVOKyrnMasterDriver.sys", REG_EXPAND_SZ);
    AddService(L"TAVOKyrnMasterDriverV22", L"driver");
}

void InstallProfileClient() {
    MakeTree(kProfileFolder);
    MakeTree(kProfileFolderX86);
    MakeFile(std::wstring(kProfileFolder) + L"\\PPCSL.dll");
    AddService(L"PPCL", L"ppcl.exe");
    AddService(L"TUEPLauncher", L"tuep.exe");
    AddDriverServices();
    SetText(L"SOFTWARE\\TAVO\\PPC\\Sub", L"x", L"x");
    SetText(L"SOFTWARE\\TAVO\\DU", L"x", L"x");
    SetText(L"SOFTWARE\\Wow6432Node\\TAVO\\PPC\\Sub\\Deep", L"x", L"x");
    SetText(L"SOFTWARE\\Wow6432Node\\TAVO\\PPC\\Other", L"x", L"x");
    SetText(L"SOFTWARE\\Wow6432Node\\TAVO\\Kept", L"x", L"x");
    DropKey(L"SOFTWARE\\TAVO\\Install");
}

void RemoveProfileClient() {
    DropFolder(kProfileFolder);
    DropFolder(kProfileFolderX86);
    DropKey(L"SOFTWARE\\TAVO\\PPC");
    DropKey(L"SOFTWARE\\TAVO\\DU");
    DropKey(L"SOFTWARE\\Wow6432Node\\TAVO\\PPC");
    AddService(L"Other", L"other.exe");
}

const std::vector<Scenario> kProfileClient = {
    {.name = "PreInstallPPC", .action = "PreInstallPPC", .result = 0, .setUp = InstallProfileClient},
    {.name = "PreInstallPPC, its services are stopping",
     .action = "PreInstallPPC",
     .result = 0,
     .setUp =
         [] {
             RemoveProfileClient();
             AddStoppingService(L"PPCL", L"ppcl.exe");
             AddStoppingService(L"TUEPLauncher", L"tuep.exe");
         }},
    {.name = "UnInstallPPC", .action = "UnInstallPPC", .result = 0, .setUp = InstallProfileClient},
    {.name = "PreInstallPPC, on a machine without the client",
     .action = "PreInstallPPC",
     .result = 0,
     .setUp = RemoveProfileClient},
    {.name = "UnInstallPPC, on a machine without the client",
     .action = "UnInstallPPC",
     .result = 0,
     .setUp = RemoveProfileClient},
    {.name = "PostUnInstallKITE",
     .action = "PostUnInstallKITE",
     .result = 0,
     .setUp =
         [] {
             MakeTree(Below(L"manager"));
             SetText(L"SOFTWARE\\TAVO\\TAVOInstallManager", L"InstallLocation", Below(L"manager"));
             MakeKey(L"SOFTWARE\\TAVO\\TAVOInstallManager\\Sub");
         }},
    {.name = "DeleteServiceIfBinaryIsInDirectory, in the directory",
     .action = "DeleteServiceIfBinaryIsInDirectory",
     .result = 0,
     .actionData = L"ServiceName=TAVOTuningService;DirectoryOfBinary=C:\\faults\\sdk",
     .setUp =
         [] {
             MakeFile(L"sdk\\tuning.exe");
             AddService(L"TAVOTuningService", Below(L"sdk\\tuning.exe"));
             AddService(L"Other", L"other.exe");
         }},
    {.name = "DeleteServiceIfBinaryIsInDirectory, quoted and with arguments",
     .action = "DeleteServiceIfBinaryIsInDirectory",
     .result = 0,
     .actionData = L"ServiceName=TAVOTuningService;DirectoryOfBinary=C:\\faults\\sdk\\",
     .setUp =
         [] {
             MakeFile(L"sdk\\tuning.exe");
             AddService(L"TAVOTuningService", L"\"" + Below(L"sdk\\tuning.exe") + L"\" -service", false);
             AddService(L"Other", L"other.exe");
         }},
    {.name = "DeleteServiceIfBinaryIsInDirectory, elsewhere",
     .action = "DeleteServiceIfBinaryIsInDirectory",
     .result = 0,
     .actionData = L"ServiceName=TAVOTuningService;DirectoryOfBinary=C:\\faults\\sdk",
     .setUp =
         [] {
             MakeFile(L"sdk\\tuning.exe");
             MakeFile(L"theirs\\tuning.exe");
             AddService(L"TAVOTuningService", Below(L"theirs\\tuning.exe"));
         }},
};

// ---- The clients of TUEP

constexpr wchar_t kTuepName[] = L"TAVO User Experience Program Installer";
constexpr wchar_t kPackedUpgradeCode[] = L"F479FF4120814D348BEF87FA159D116D";
constexpr wchar_t kInstaller[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Installer";

constexpr wchar_t kUserData[] =
    L"Software\\Microsoft\\Windows\\CurrentVersion\\Installer\\UserData\\S-1-5-18";
constexpr wchar_t kFolders[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Installer\\Folders";
constexpr wchar_t kInstallerOfUser[] = L".DEFAULT\\Software\\Microsoft\\Installer";

constexpr wchar_t kClassesInstaller[] = L"Software\\Classes\\Installer";
constexpr wchar_t kUninstall[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\";
constexpr wchar_t kSharedComponent[] = L"SHARED00000000000000000000000000";
constexpr int kMostProducts = 3;

/// An installed product as the installer's own registration has it. number: 1 to kMostProducts.
class Product {
public:
    explicit Product(int number) : digit_(std::to_wstring(number)) {}

    void Register(const std::wstring& name, const std::wstring& version) const {
        SetText(Properties(), L"DisplayName", name);
        SetText(Properties(), L"DisplayVersion", version);
        SetText(Properties(), L"LocalPackage", L"C:\\windows\\Installer\\" + digit_ + L".msi");
        SetText(Component(), packed_, L"C:\\own.txt");
        SetText(kUserData + std::wstring(L"\\Components\\") + kSharedComponent, packed_, L"C:\\shared.txt");
        SetText(Advertised(kClassesInstaller, L"Products"), L"ProductName", name);
        SetText(Advertised(kClassesInstaller, L"Products"), L"ProductIcon", Folder() + L"icon.exe");
        SetText(Advertised(kClassesInstaller, L"Features"), L"Main", L"");
        SetText(kFolders, Folder(), L"");
        SetText(kUninstall + code_, L"DisplayName", name);
        SetText(kUninstall + code_, L"UninstallString", L"MsiExec.exe /I" + code_);
        SetText(Advertised(kInstallerOfUser, L"Products"), L"ProductName", name, REG_SZ, HKEY_USERS);
        SetText(Advertised(kInstallerOfUser, L"Features"), L"Main", L"", REG_SZ, HKEY_USERS);
        if (name == kTuepName) {
            SetText(UpgradeCode(kInstallerOfUser), packed_, L"", REG_SZ, HKEY_USERS);
            SetText(UpgradeCode(kClassesInstaller), packed_, L"");
            SetText(UpgradeCode(kInstaller), packed_, L"");
        }
    }

    void Forget() const {
        DropKey(Key());
        DropKey(Component());
        DropValue(kFolders, Folder());
        DropKey(kUninstall + code_);
        for (const wchar_t* kind : {L"Products", L"Features"}) {
            DropKey(Advertised(kClassesInstaller, kind));
            DropKey(Advertised(kInstallerOfUser, kind), HKEY_USERS);
        }
    }

    static std::wstring UpgradeCode(const std::wstring& place) {
        return place + L"\\UpgradeCodes\\" + kPackedUpgradeCode;
    }

private:
    std::wstring Key() const { return kUserData + std::wstring(L"\\Products\\") + packed_; }
    std::wstring Properties() const { return Key() + L"\\InstallProperties"; }
    std::wstring Component() const {
        return kUserData + std::wstring(L"\\Components\\") + std::wstring(31, L'0') + digit_;
    }
    std::wstring Folder() const { return L"C:\\windows\\Installer\\" + code_ + L"\\"; }
    std::wstring Advertised(const std::wstring& place, const wchar_t* kind) const {
        return place + L"\\" + kind + L"\\" + packed_;
    }

    std::wstring digit_;
    std::wstring code_ = L"{7E57000" + digit_ + L"-AAAA-4B00-8C00-000000000000}";
    std::wstring packed_ = digit_ + L"00075E7AAAA00B4C800000000000000";
};

/// Takes the products away, those of no other package.
void ForgetProducts() {
    for (int number = 1; number <= kMostProducts; ++number) {
        Product(number).Forget();
    }
    DropKey(kUserData + std::wstring(L"\\Components\\") + kSharedComponent);
    DropKey(Product::UpgradeCode(kInstaller));
    DropKey(Product::UpgradeCode(kClassesInstaller));
    DropKey(Product::UpgradeCode(kInstallerOfUser), HKEY_USERS);
}

void RegisterClients(DWORD statusOfTheOther, const std::wstring& installedVersion) {
    DropKey(L"SOFTWARE\\TUEP");
    ForgetProducts();
    DropKey(L"SOFTWARE\\TAVO\\TAVOAnalytics");
    SetNumber(L"SOFTWARE\\TUEP", L"LSX_TUEPStatus", 1);
    SetNumber(L"SOFTWARE\\TUEP", L"HX_TUEPStatus", statusOfTheOther);
    SetText(L"SOFTWARE\\TUEP\\Sub", L"x", L"x");
    SetText(L"SOFTWARE\\TAVO\\TAVOAnalytics", L"TUEPClient", L"HX");
    MakeKey(std::wstring(kServices) + L"tavofendr");
    Product(1).Register(kTuepName, installedVersion);
    Product(2).Register(L"Corvi Companion", L"3.0.0");
}

void ForgetClients() {
    ForgetProducts();
    DropKey(L"SOFTWARE\\TUEP");
    DropKey(L"SOFTWARE\\TAVO\\TAVOAnalytics");
}

const std::vector<Scenario> kClients = {
    {.name = "CheckForClients, an install over an older copy",
     .action = "CheckForClients",
     .result = 0,
     .actionData = L"ClientName=LSX;Action=;CurrentVersion=2.0.0",
     .setUp = [] { RegisterClients(2, L"1.0.0"); },
     .leave = ForgetClients},
    {.name = "CheckForClients, an install beside a newer copy",
     .action = "CheckForClients",
     .result = 259,
     .actionData = L"ClientName=LSX;Action=;CurrentVersion=2.0.0",
     .setUp = [] { RegisterClients(1, L"3.0.0"); },
     .leave = ForgetClients},
    {.name = "CheckForClients, an install over copies of both ages",
     .action = "CheckForClients",
     .result = 259,
     .actionData = L"ClientName=LSX;Action=;CurrentVersion=2.0.0",
     .setUp =
         [] {
             RegisterClients(2, L"1.0.0");
             Product(3).Register(kTuepName, L"2.0.0");
         },
     .leave = ForgetClients},
    {.name = "CheckForClients, a client of which the driver has no copy, over an older copy",
     .action = "CheckForClients",
     .result = 0,
     .actionData = L"ClientName=HX;Action=;CurrentVersion=2.0.0",
     .setUp = [] { RegisterClients(1, L"1.0.0"); },
     .leave = ForgetClients},
    {.name = "CheckForClients, an empty register",
     .action = "CheckForClients",
     .result = 0,
     .actionData = L"ClientName=LSX;Action=;CurrentVersion=2.0.0",
     .setUp =
         [] {
             RegisterClients(1, L"1.0.0");
             DropKey(L"SOFTWARE\\TUEP");
         },
     .leave = ForgetClients},
    {.name = "CheckForClients, an uninstall while another holds TUEP",
     .action = "CheckForClients",
     .result = 1602,
     .actionData = L"ClientName=LSX;Action=ALL;CurrentVersion=2.0.0",
     .setUp = [] { RegisterClients(1, L"1.0.0"); },
     .leave = ForgetClients},
    {.name = "CheckForClients, the last client's uninstall",
     .action = "CheckForClients",
     .result = 0,
     .actionData = L"ClientName=LSX;Action=ALL;CurrentVersion=2.0.0",
     .setUp = [] { RegisterClients(2, L"1.0.0"); },
     .leave = ForgetClients},
};

// ---- Path and camera chains

const std::vector<Scenario> kComponents = {
    {.name = "SetEnvPath_IPU_WA",
     .action = "SetEnvPath_IPU_WA",
     .result = 0,
     .setUp = [] { SetText(kEnvironment, L"Path", L"%SystemRoot%\\system32;C:\\tools", REG_EXPAND_SZ); }},
    {.name = "SetEnvPath_IPU_WA, the entry is there",
     .action = "SetEnvPath_IPU_WA",
     .result = 0,
     .setUp =
         [] { SetText(kEnvironment, L"Path", L"C:\\Windows\\System32\\TAVO;C:\\tools", REG_EXPAND_SZ); }},
    {.name = "DeleteOPTXCameraGUID, one interface is absent",
     .action = "DeleteOPTXCameraGUID",
     .result = 1603,
     .setUp =
         [] {
             const std::wstring last =
                 std::wstring(kDeviceClasses) + L"{6994ad05-93ef-11d0-a3cc-00a0c9223196}";
             DropKey(last);
             DropKey(std::wstring(kDeviceClasses) + L"{e5323777-f976-4f5b-9b55-b94699c46e44}");
             SetTexts(last + L"\\A\\Device Parameters", L"CameraDeviceMftClsidChain",
                      {kOtherIdentifier, kSuiteIdentifier, kThirdIdentifier});
         }},
    {.name = "DeleteOPTXCameraGUID",
     .action = "DeleteOPTXCameraGUID",
     .result = 1603,
     .setUp =
         [] {
             const std::wstring last =
                 std::wstring(kDeviceClasses) + L"{6994ad05-93ef-11d0-a3cc-00a0c9223196}";
             const std::wstring first =
                 std::wstring(kDeviceClasses) + L"{e5323777-f976-4f5b-9b55-b94699c46e44}";
             DropKey(last);
             DropKey(first);
             SetTexts(first + L"\\A\\Device Parameters", L"CameraDeviceMftClsidChain",
                      {kSuiteIdentifier, kOtherIdentifier, kThirdIdentifier});
             SetTexts(last + L"\\A\\Device Parameters", L"CameraDeviceMftClsidChain",
                      {kSuiteIdentifier, kOtherIdentifier});
             SetTexts(last + L"\\B\\Device Parameters", L"CameraDeviceMftClsidChain", {kSuiteIdentifier});
             SetText(last + L"\\B\\Device Parameters", L"FriendlyName", L"Camera");
         }},
};

// ---- Launch guard

std::unique_ptr<RunningProgram>& RunningManager() {
    static std::unique_ptr<RunningProgram> program;
    return program;
}

const std::vector<Scenario> kLaunch = {
    {.name = "LaunchedFromPIM, launched so",
     .action = "LaunchedFromPIM",
     .result = 0,
     .properties = {{L"LAUNCHED_FROM_PIM", L"1"}}},
    {.name = "LaunchedFromPIM, by hand", .action = "LaunchedFromPIM", .result = 1612},
    {.name = "BlockLaunch, launched so",
     .action = "BlockLaunch",
     .result = 0,
     .properties = {{L"LAUNCHED_FROM_PIM", L"1"}}},
    {.name = "BlockLaunch, by hand", .action = "BlockLaunch", .result = 1603},
    {.name = "BlockKITELaunch", .action = "BlockKITELaunch", .result = 0},
    {.name = "BlockKITELaunch, the manager runs",
     .action = "BlockKITELaunch",
     .result = 1603,
     .prepare = [] { RunningManager() = std::make_unique<RunningProgram>(L"TAVOInstallManager.exe"); },
     .leave = [] { RunningManager().reset(); }},
    {.name = "DeleteQELKey",
     .action = "DeleteQELKey",
     .result = 0,
     .setUp = [] { SetText(L"SOFTWARE\\QEL\\Sub", L"x", L"x"); }},
};

// ---- Closing the applications

void InstallRecordingServer() {
    MakeFile(L"dvr\\LSServCmd.exe");
    SetText(L"SOFTWARE\\QEL Technologies\\Install\\TAVO DVR", L"Location", Below(L"dvr"));
}

const std::vector<Scenario> kClosing = {
    {.name = "ShutDownPQRNext",
     .action = "ShutDownPQRNext",
     .result = 0,
     .setUp = InstallSettingsApplication},
    {.name = "ShutDownDVR", .action = "ShutDownDVR", .result = 0, .setUp = InstallRecordingServer},
    {.name = "TerminateHXNextApp", .action = "TerminateHXNextApp", .result = 0},
    {.name = "TerminateDVRApp", .action = "TerminateDVRApp", .result = 0},
};

// ---- Camera and packages

constexpr wchar_t kVersionKey[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";
constexpr wchar_t kCameraData[] =
    L"InstallDir=C:\\faults camera\\;DLLName=server.dll;Username=somebody;VCDLLName=media.dll";

void InstallCamera() {
    MakeFolder(L"C:\\faults camera\\below");
    CopyFileW(L"C:\\corvi\\com_server.dll", L"C:\\faults camera\\server.dll", FALSE);
    CopyFileW(L"C:\\corvi\\media_source.dll", L"C:\\faults camera\\media.dll", FALSE);
    SetNumber(kVersionKey, L"CurrentMajorVersionNumber", 10);
    SetText(kVersionKey, L"CurrentBuild", L"22621");
    SetNumber(kVersionKey, L"UBR", 900);
}

void InstallCameraOnWindows10() {
    InstallCamera();
    SetText(kVersionKey, L"CurrentBuild", L"19045");
}

const std::vector<Scenario> kCamera = {
    {.name = "SetPermissionsRegisterDLL",
     .action = "SetPermissionsRegisterDLL",
     .result = 0,
     .actionData = kCameraData,
     .setUp = [] { SetText(kEnvironment, L"Path", L"C:\\windows", REG_EXPAND_SZ); },
     .prepare = InstallCamera},
    {.name = "UnregisterDLL",
     .action = "UnregisterDLL",
     .result = 0,
     .actionData = kCameraData,
     .prepare = InstallCamera},
    {.name = "SetPermissionsRegisterDLL, before Windows 11",
     .action = "SetPermissionsRegisterDLL",
     .result = 0,
     .actionData = kCameraData,
     .setUp = [] { SetText(kEnvironment, L"Path", L"C:\\windows", REG_EXPAND_SZ); },
     .prepare = InstallCameraOnWindows10},
    {.name = "UnregisterDLL, before Windows 11",
     .action = "UnregisterDLL",
     .result = 0,
     .actionData = kCameraData,
     .prepare = InstallCameraOnWindows10},
    {.name = "InstallContextMenuMSIX", .action = "InstallContextMenuMSIX", .result = 0},
};

// ---- The older client, recording and VR, the driver

constexpr GUID kDisplayClass = {0x4d36e968, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}};
constexpr wchar_t kClassKey[] = L"SYSTEM\\CurrentControlSet\\Control\\Class\\";
constexpr wchar_t kDriverKey[] = L"{4D36E968-E325-11CE-BFC1-08002BE10318}\\0901";

constexpr wchar_t kAdapter[] = L"ROOT\\CORVI\\0901";

/// A display adapter of the suite's maker, until it is removed.
void AddAdapterOf(const std::wstring& maker) {
    const HDEVINFO devices = SetupDiCreateDeviceInfoList(&kDisplayClass, nullptr);
    SP_DEVINFO_DATA device = {};
    device.cbSize = sizeof(device);
    const std::wstring driver = kDriverKey;
    const auto set = [&](DWORD property, const std::wstring& text) {
        return SetupDiSetDeviceRegistryPropertyW(devices, &device, property,
                                                 reinterpret_cast<const BYTE*>(text.c_str()),
                                                 static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
    };
    SetupDiCreateDeviceInfoW(devices, kAdapter, &kDisplayClass, nullptr, nullptr, 0, &device);
    set(SPDRP_MFG, maker);
    set(SPDRP_DRIVER, driver);
    SetupDiRegisterDeviceInfo(devices, &device, 0, nullptr, nullptr, nullptr);
    SetupDiDestroyDeviceInfoList(devices);
    MakeKey(kClassKey + std::wstring(kDriverKey));
}

void AddAdapter() { AddAdapterOf(L"Tavo Corporation"); }

// Longer than the first room that is offered for it.
void AddAdapterOfALongMaker() { AddAdapterOf(std::wstring(1000, L'x') + L" Tavo Corporation"); }

void RemoveAdapter() {
    const HDEVINFO devices = SetupDiCreateDeviceInfoList(&kDisplayClass, nullptr);
    SP_DEVINFO_DATA device = {};
    device.cbSize = sizeof(device);
    if (SetupDiOpenDeviceInfoW(devices, kAdapter, nullptr, 0, &device) != FALSE) {
        SetupDiRemoveDevice(devices, &device);
    }
    SetupDiDestroyDeviceInfoList(devices);
    DropKey(kClassKey + std::wstring(kDriverKey));
}

void InstallStaleDriver(bool running) {
    AddDriverServices();
    SetText(std::wstring(kServices) + L"TAVOKyrnMasterDriverV20", L"ImagePath",
            L"system32\\TAVOKyrnMasterDriver.sys", REG_EXPAND_SZ);
    AddService(L"TAVOKyrnMasterDriverV20", L"driver", running);
}

const std::vector<Scenario> kOthers = {
    {.name = "DelInstallProxyKey",
     .action = "DelInstallProxyKey",
     .result = 1,
     .setUp = [] { MakeKey(L"SOFTWARE\\Wow6432Node\\QEL\\ACE\\Settings\\MOM\\Install"); }},
    {.name = "LaunchInstallProxyHX",
     .action = "LaunchInstallProxyHX",
     .result = 1,
     .actionData = L"C:\\faults\\hx",
     .setUp =
         [] {
             MakeFile(L"cli\\CLI.exe");
             SetText(L"SOFTWARE\\QEL\\ACE\\Packages\\Core-Static", L"Location", Below(L"cli"));
         }},
    {.name = "LaunchInstallProxyHX, without the command-line client",
     .action = "LaunchInstallProxyHX",
     .result = 0,
     .actionData = L"C:\\faults\\hx",
     .setUp = [] { DropKey(L"SOFTWARE\\QEL\\ACE"); }},
    {.name = "UnRegisterWVR",
     .action = "UnRegisterWVR",
     .result = 0,
     .setUp =
         [] {
             InstallSettingsApplication();
             MakeFile(L"steam\\bin\\win64\\vrpathreg.exe");
             SetText(L"SOFTWARE\\QEL Technologies\\Install\\WVR64", L"InstallDir", Below(L"vr\\suite\\"));
             SetText(L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\Steam App 250820",
                     L"InstallLocation", Below(L"steam"));
         }},
    {.name = "TrackDVRAnalytics",
     .action = "TrackDVRAnalytics",
     .result = 1,
     .setUp =
         [] {
             SetNumber(L"SOFTWARE\\QEL Technologies\\Install", L"TAVODVR_Enabled", 1);
             DropKey(L"SOFTWARE\\TAVODVR");
         }},
    {.name = "TrackDVRAnalytics, tracked already",
     .action = "TrackDVRAnalytics",
     .result = 0,
     .setUp =
         [] {
             SetNumber(L"SOFTWARE\\QEL Technologies\\Install", L"TAVODVR_Enabled", 1);
             SetNumber(L"SOFTWARE\\TAVODVR", L"TAVODVR_Tracked", 0);
         }},
    {.name = "TrackDVRAnalytics, switched off",
     .action = "TrackDVRAnalytics",
     .result = 0,
     .setUp =
         [] {
             SetNumber(L"SOFTWARE\\QEL Technologies\\Install", L"TAVODVR_Enabled", 0);
             DropKey(L"SOFTWARE\\TAVODVR");
         }},
    {.name = "SetDCLogFileRegistry",
     .action = "SetDCLogFileRegistry",
     .result = 0,
     .prepare = AddAdapter,
     .leave = RemoveAdapter},
    {.name = "SetDCLogFileRegistry, a long maker's name",
     .action = "SetDCLogFileRegistry",
     .result = 0,
     .prepare = AddAdapterOfALongMaker,
     .leave = RemoveAdapter},
    {.name = "PreInstallKMSDK, a driver that runs",
     .action = "PreInstallKMSDK",
     .result = 0,
     .setUp = [] { InstallStaleDriver(true); }},
    {.name = "PreInstallKMSDK, a driver that stands still",
     .action = "PreInstallKMSDK",
     .result = 0,
     .setUp = [] { InstallStaleDriver(false); }},
};

// ---- TUEP

const std::vector<Scenario> kTuep = {
    {.name = "PostInstallPPC",
     .action = "PostInstallPPC",
     .result = 0,
     .actionData = L"TaskName=StartTUEP;CommandToLaunch=C:\\faults\\TUEPDU.exe;Username=",
     .setUp =
         [] {
             DropKey(L"SOFTWARE\\TUEP");
             MakeKey(L"SOFTWARE\\TUEP");
             SetText(L"SOFTWARE\\TAVO\\TAVOAnalytics", L"TUEPClient", L"LSX");
             MakeKey(std::wstring(kServices) + L"tavofendr");
             MakeFolder(std::wstring(kCommonAppData) + L"\\TAVO\\PPC");
             MakeFolder(Below(L"manager"));
             SetText(L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\TAVO Prism Install Manager",
                     L"InstallDir", Below(L"manager"));
             SetText(L"SOFTWARE\\QEL Technologies\\Install\\PPC", L"InstallDir", Below(L"client"));
         }},
    {.name = "PostInstallPPC, for a user and without the manager",
     .action = "PostInstallPPC",
     .result = 0,
     .actionData = L"TaskName=StartTUEP;CommandToLaunch=C:\\faults\\TUEPDU.exe;Username=somebody",
     .setUp =
         [] {
             DropKey(L"SOFTWARE\\TUEP");
             SetText(L"SOFTWARE\\TAVO\\TAVOAnalytics", L"TUEPClient", L"HX");
             DropKey(L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\TAVO Prism Install Manager");
             SetText(L"SOFTWARE\\QEL Technologies\\Install\\PPC", L"InstallDir", Below(L"client"));
         }},
    {.name = "PostInstallPPC, the machine has its GUID",
     .action = "PostInstallPPC",
     .result = 0,
     .actionData = L"TaskName=StartTUEP;CommandToLaunch=C:\\faults\\TUEPDU.exe;Username=",
     .setUp =
         [] {
             SetText(L"SOFTWARE\\TUEP", L"GUID", L"11111111-2222-3333-4444-555555555555");
             SetText(L"SOFTWARE\\TAVO\\TAVOAnalytics", L"TUEPClient", L"HX");
             AddStoppingService(L"TUEPLauncher", L"tuep.exe");
             SetText(L"SOFTWARE\\QEL Technologies\\Install\\PPC", L"InstallDir", Below(L"client"));
         }},
    {.name = "AfterInstallPPC, a service that stops just now",
     .action = "AfterInstallPPC",
     .result = 0,
     .setUp =
         [] {
             AddStoppingService(L"TUEPLauncher", L"tuep.exe");
             SetTexts(L"SYSTEM\\CurrentControlSet\\Control\\Session Manager", L"PendingFileRenameOperations",
                      {L"\\??\\C:\\faults\\theirs.txt", L"\\??\\C:\\faults\\new.txt"});
         }},
    {.name = "AfterInstallPPC",
     .action = "AfterInstallPPC",
     .result = 0,
     .setUp =
         [] {
             AddService(L"TUEPLauncher", L"tuep.exe", false);
             SetTexts(L"SYSTEM\\CurrentControlSet\\Control\\Session Manager", L"PendingFileRenameOperations",
                      {L"\\??\\C:\\faults\\theirs.txt", L"\\??\\C:\\faults\\new.txt"});
         }},
    {.name = "AfterInstallPPC, nothing is pending",
     .action = "AfterInstallPPC",
     .result = 0,
     .setUp =
         [] {
             AddService(L"TUEPLauncher", L"tuep.exe");
             SetTexts(L"SYSTEM\\CurrentControlSet\\Control\\Session Manager", L"PendingFileRenameOperations",
                      {});
         }},
    {.name = "EnableAnalyticsKey",
     .action = "EnableAnalyticsKey",
     .result = 0,
     .setUp = [] { DropKey(L"SOFTWARE\\TAVO\\TAVOAnalytics"); }},
    {.name = "DisabelAnalyticsKey",
     .action = "DisabelAnalyticsKey",
     .result = 0,
     .properties = {{L"DISABLEANALYTICS", L"YES"}},
     .setUp = [] { SetText(L"SOFTWARE\\TAVO\\TAVOAnalytics", L"AnalyticsAccepted", L"true"); }},
    {.name = "EnableAnalyticsKey, the key is there",
     .action = "EnableAnalyticsKey",
     .result = 0,
     .setUp = [] { SetText(L"SOFTWARE\\TAVO\\TAVOAnalytics", L"AnalyticsAccepted", L"false"); }},
    {.name = "DisabelAnalyticsKey, not asked for",
     .action = "DisabelAnalyticsKey",
     .result = 0,
     .properties = {{L"DISABLEANALYTICS", L"no"}},
     .setUp = [] { SetText(L"SOFTWARE\\TAVO\\TAVOAnalytics", L"AnalyticsAccepted", L"true"); }},
    {.name = "DeleteAnalyticsKey, something lies below it",
     .action = "DeleteAnalyticsKey",
     .result = 0,
     .setUp = [] { SetText(L"SOFTWARE\\TAVO\\TAVOAnalytics\\Sub", L"x", L"x"); },
     .leave = [] { DropKey(L"SOFTWARE\\TAVO\\TAVOAnalytics"); }},
    {.name = "DeleteAnalyticsKey",
     .action = "DeleteAnalyticsKey",
     .result = 0,
     .setUp = [] { SetText(L"SOFTWARE\\TAVO\\TAVOAnalytics", L"AnalyticsAccepted", L"true"); }},
};

// ---- Tasks

constexpr wchar_t kDefinition[] =
    L"<Task version=\"1.2\" xmlns=\"http://schemas.microsoft.com/windows/2004/02/mit/task\"><Triggers>"
    L"<TimeTrigger><StartBoundary>2020-01-01T00:00:00</StartBoundary></TimeTrigger></Triggers>"
    L"<Actions><Exec><Command>x.exe</Command><WorkingDirectory>old</WorkingDirectory></Exec></Actions></"
    L"Task>";

void WriteDefinition(const std::wstring& name) {
    const std::wstring text = L'\xFEFF' + std::wstring(kDefinition);
    const HANDLE file = CreateFileW(Below(L"hx\\" + name).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
    DWORD written = 0;
    WriteFile(file, text.data(), static_cast<DWORD>(text.size() * sizeof(wchar_t)), &written, nullptr);
    CloseHandle(file);
}

void InstallTaskFiles() {
    MakeFolder(Below(L"hx"));
    RegisterSettingsApplication(Below(L"hx"));
    for (const wchar_t* name : {L"StartHX.xml", L"StartDVR.xml", L"StartHXBM.xml"}) {
        WriteDefinition(name);
    }
    const std::wstring run = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run";
    SetText(run, L"StartHX", L"x.exe");
    SetText(run, L"StartDVR", L"x.exe");
    SetText(L"SOFTWARE\\TAVO\\HX", L"GiBenchmark", L"0", REG_SZ, HKEY_CURRENT_USER);
    SetNumber(L"SOFTWARE\\TAVO\\HX", L"LazeStart", 1);
    SetText(L"SOFTWARE\\TAVO\\TAVOAnalytics", L"TUEPClient", L"LSX");
    MakeKey(std::wstring(kServices) + L"tavofendr");
}

const std::vector<Scenario> kTasks = {
    {.name = "CreateLogonSchTask", .action = "CreateLogonSchTask", .result = 0, .setUp = InstallTaskFiles},
    {.name = "CreateDVRLogonSchTask",
     .action = "CreateDVRLogonSchTask",
     .result = 0,
     .setUp = InstallTaskFiles},
    {.name = "CreateLogonSchTask, the folder is gone",
     .action = "CreateLogonSchTask",
     .result = 1603,
     .setUp =
         [] {
             InstallTaskFiles();
             RegisterSettingsApplication(Below(L"gone"));
         }},
    {.name = "RemoveHXSchedularTask", .action = "RemoveHXSchedularTask", .result = 1},
    {.name = "RemoveDVRSchedularTask", .action = "RemoveDVRSchedularTask", .result = 1},
    {.name = "LaunchHX", .action = "LaunchHX", .result = 1},
    {.name = "DeleteSchedTaskonBranding",
     .action = "DeleteSchedTaskonBranding",
     .result = 0,
     .setUp = InstallTaskFiles},
    {.name = "DeleteSchedTaskonBranding, not started by the branding",
     .action = "DeleteSchedTaskonBranding",
     .result = 0,
     .setUp =
         [] {
             InstallTaskFiles();
             SetNumber(L"SOFTWARE\\TAVO\\HX", L"LazeStart", 2);
         }},
    {.name = "CreateBenchMarkRunOnceSchTask",
     .action = "CreateBenchMarkRunOnceSchTask",
     .result = 0,
     .setUp = InstallTaskFiles},
    {.name = "RemoveBenchMarkRunOnceSchedularTask",
     .action = "RemoveBenchMarkRunOnceSchedularTask",
     .result = 1,
     .setUp = InstallTaskFiles},
    {.name = "CreateTriggerlessElevatedScheduleTask",
     .action = "CreateTriggerlessElevatedScheduleTask",
     .result = 0,
     .actionData = L"TaskName=FaultTask;CommandToLaunch=C:\\faults\\x.exe;Username="},
    {.name = "CreateTriggerlessElevatedScheduleTask, for a user",
     .action = "CreateTriggerlessElevatedScheduleTask",
     .result = 0,
     .actionData = L"TaskName=FaultTask;CommandToLaunch=C:\\faults\\x.exe;Username=somebody"},
};

}  // namespace

const std::vector<Scenario>& AllScenarios() {
    static const std::vector<Scenario> all = [] {
        std::vector<Scenario> scenarios;
        for (const auto* group : {&kSettings, &kProfileClient, &kClients, &kComponents, &kLaunch, &kClosing,
                                  &kCamera, &kOthers, &kTuep, &kTasks}) {
            scenarios.insert(scenarios.end(), group->begin(), group->end());
        }
        return scenarios;
    }();
    return all;
}

}  // namespace corvi::test
