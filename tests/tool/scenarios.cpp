#include "tests/tool/scenarios.h"

#include <windows.h>

#include <setupapi.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "tests/components/registry_values.h"
#include "tests/msiregistry/installer_products.h"
#include "tests/support/running_program.h"
#include "tests/support/scheduled_tasks.h"
#include "tests/support/test_service.h"
#include "tests/tool/tool_run.h"

namespace corvi::test {
namespace {

namespace fs = std::filesystem;

constexpr wchar_t kHXNext[] = L"SOFTWARE\\QEL Technologies\\Install\\HXNext";
constexpr wchar_t kFolder[] = L"C:\\Program Files\\TAVO\\HX";
constexpr wchar_t kClient[] = L"C:\\Program Files\\TAVO\\Performance Profile Client";
constexpr wchar_t kClientX86[] = L"C:\\Program Files (x86)\\TAVO\\Performance Profile Client";
constexpr wchar_t kManager[] = L"C:\\Program Files\\TAVO\\Install Manager";
constexpr wchar_t kCamera[] = L"C:\\Program Files\\TAVO\\Camera";
constexpr wchar_t kVR[] = L"C:\\Program Files\\TAVO\\Recording\\";
constexpr wchar_t kSteamVR[] = L"C:\\Program Files\\TAVO\\SteamVR";
constexpr wchar_t kAnalytics[] = L"SOFTWARE\\TAVO\\TAVOAnalytics";
constexpr wchar_t kPerformance[] = L"SYSTEM\\CurrentControlSet\\Services\\PerfOS\\Performance";
constexpr wchar_t kDeviceClass[] =
    L"SYSTEM\\CurrentControlSet\\Control\\DeviceClasses\\{e5323777-f976-4f5b-9b55-b94699c46e44}";
constexpr wchar_t kLastDeviceClass[] =
    L"SYSTEM\\CurrentControlSet\\Control\\DeviceClasses\\{6994ad05-93ef-11d0-a3cc-00a0c9223196}";
constexpr wchar_t kSuiteIdentifier[] = L"{55E09F33-D6B5-4A6D-99ED-87DC666C6710}";
constexpr wchar_t kEnvironment[] = L"System\\CurrentControlSet\\Control\\Session Manager\\Environment";
constexpr wchar_t kServices[] = L"SYSTEM\\CurrentControlSet\\Services\\";
constexpr GUID kDisplayClass = {0x4d36e968, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}};
constexpr wchar_t kDriverKey[] =
    L"SYSTEM\\CurrentControlSet\\Control\\Class\\{4D36E968-E325-11CE-BFC1-08002BE10318}\\0801";

constexpr const wchar_t* kKeysToClear[] = {
    L"SOFTWARE\\QEL",
    L"SOFTWARE\\QEL Technologies",
    L"SOFTWARE\\TAVO",
    L"SOFTWARE\\TUEP",
    L"SOFTWARE\\TAVODVR",
    L"SOFTWARE\\TAVOBranding",
    L"SOFTWARE\\Wow6432Node\\QEL",
    L"SOFTWARE\\Wow6432Node\\TAVO",
    L"SYSTEM\\CurrentControlSet\\Services\\PerfOS",
    L"SYSTEM\\CurrentControlSet\\Services\\tavofendr",
    kDeviceClass,
    kLastDeviceClass,
    kDriverKey,
    L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\Steam App 250820",
};
constexpr const wchar_t* kFoldersToClear[] = {
    L"C:\\Program Files\\TAVO",
    L"C:\\Program Files (x86)\\TAVO",
    L"C:\\ProgramData\\TAVO",
    L"C:\\Program Files\\ContextMenuDemo",
};

using Nothing = std::shared_ptr<void>;

void PutFile(const std::wstring& path, DWORD attributes = FILE_ATTRIBUTE_NORMAL) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(fs::path(path)) << "x";
    SetFileAttributesW(path.c_str(), attributes);
}

void PutProgram(const std::wstring& path) {
    fs::create_directories(fs::path(path).parent_path());
    fs::copy_file(L"C:\\corvi\\recorder.exe", path, fs::copy_options::overwrite_existing);
}

/// A folder with subfolders, a read-only file, a foreign name and an empty folder.
void PutTree(const std::wstring& folder) {
    PutFile(folder + L"\\a.txt");
    PutFile(folder + L"\\sub\\b.txt", FILE_ATTRIBUTE_READONLY);
    PutFile(folder + L"\\sub\\deeper\\\u00fcb\u65e5.txt");
    fs::create_directories(folder + L"\\empty");
}

void PutSettingsApplication(const std::wstring& location = kFolder) {
    StoreText(kHXNext, L"Location", location);
    PutTree(location);
    PutProgram(location + L"\\hxcmd.exe");
}

/// As much of a task definition as the platform's tool wants, in UTF-16 with a mark.
std::wstring TaskDocument() {
    return L"<Task version=\"1.2\" xmlns=\"http://schemas.microsoft.com/windows/2004/02/mit/task\">"
           L"<Triggers><TimeTrigger><StartBoundary>2020-01-01T00:00:00</StartBoundary></TimeTrigger></"
           L"Triggers>"
           L"<Actions><Exec><Command>x.exe</Command><WorkingDirectory>old</WorkingDirectory></Exec></Actions>"
           L"</Task>";
}

/// The same as a file: UTF-16 with its mark.
std::string TaskDefinition() {
    const std::wstring text = L"\xFEFF" + TaskDocument();
    return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)};
}

std::wstring TemporaryDirectory() { return fs::temp_directory_path().wstring(); }

/// A display adapter of the suite's maker.
class Adapter {
public:
    Adapter() : devices_(SetupDiCreateDeviceInfoList(&kDisplayClass, nullptr)) {
        device_.cbSize = sizeof(device_);
        if (SetupDiCreateDeviceInfoW(devices_, L"ROOT\\CORVI\\0001", &kDisplayClass, nullptr, nullptr, 0,
                                     &device_) == FALSE ||
            !Set(SPDRP_MFG, L"TAVO Corporation") ||
            !Set(SPDRP_DRIVER, L"{4D36E968-E325-11CE-BFC1-08002BE10318}\\0801") ||
            SetupDiRegisterDeviceInfo(devices_, &device_, 0, nullptr, nullptr, nullptr) == FALSE) {
            throw std::runtime_error("cannot add an adapter: " + std::to_string(GetLastError()));
        }
        StoreText(kDriverKey, L"DriverDesc", L"adapter");
    }
    ~Adapter() {
        SetupDiRemoveDevice(devices_, &device_);
        SetupDiDestroyDeviceInfoList(devices_);
    }
    Adapter(const Adapter&) = delete;
    Adapter& operator=(const Adapter&) = delete;

private:
    bool Set(DWORD property, const std::wstring& text) {
        return SetupDiSetDeviceRegistryPropertyW(
                   devices_, &device_, property, reinterpret_cast<const BYTE*>(text.c_str()),
                   static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t))) != FALSE;
    }
    HDEVINFO devices_;
    SP_DEVINFO_DATA device_ = {};
};

// The machines

Nothing Bare() { return {}; }

Nothing RunningManager() { return std::make_shared<RunningProgram>(L"TAVOInstallManager.exe"); }

Nothing OldKeys() {
    StoreText(L"SOFTWARE\\QEL\\ACE\\Packages", L"a", L"b");
    StoreText(L"SOFTWARE\\QEL", L"c", L"d");
    StoreText(L"SOFTWARE\\Wow6432Node\\QEL", L"stays", L"x");
    return {};
}

Nothing RunningService() {
    auto service = std::make_shared<TestService>(L"TAVOTuningService", L"plain");
    service->Start();
    return service;
}

Nothing SettingsApplication() {
    PutSettingsApplication();
    return {};
}

Nothing RecordingServer() {
    StoreText(L"SOFTWARE\\QEL Technologies\\Install\\TAVO DVR", L"Location", kFolder);
    PutProgram(std::wstring(kFolder) + L"\\LSServCmd.exe");
    return {};
}

Nothing RunningRecordingServer() { return std::make_shared<RunningProgram>(L"TAVOLSServ.exe"); }

Nothing OlderProduct() {
    StoreNumber(L"SOFTWARE\\TUEP", L"DVR_TUEPStatus", 1);
    StoreText(kAnalytics, L"TUEPClient", L"DVR");
    return std::make_shared<InstalledProduct>(L"tuep_1", L"01");
}

Nothing CameraComponents() {
    PutFile(std::wstring(kCamera) + L"\\readme.txt");
    fs::copy_file(L"C:\\corvi\\com_server.dll", std::wstring(kCamera) + L"\\OptxServer.dll");
    fs::copy_file(L"C:\\corvi\\media_source.dll", std::wstring(kCamera) + L"\\OptxMedia.dll");
    return std::make_shared<KeptValue>(kEnvironment, L"Path");
}

Nothing CameraChains() {
    Store(std::wstring(kDeviceClass) + L"\\one", L"CameraDeviceMftClsidChain", REG_MULTI_SZ,
          MultiString({kSuiteIdentifier, L"{other}", L"{third}"}));
    // In the last of the interface keys: a value that is deleted is looked for again with each further one.
    Store(std::wstring(kLastDeviceClass) + L"\\two", L"CameraDeviceMftClsidChain", REG_MULTI_SZ,
          MultiString({kSuiteIdentifier}));
    return {};
}

Nothing ContextMenu() {
    PutFile(L"C:\\Program Files\\ContextMenuDemo\\MyKey.cer");
    PutFile(L"C:\\Program Files\\ContextMenuDemo\\PhotoStoreDemoPkg.msix");
    return {};
}

Nothing Chat() {
    StoreText(L"SOFTWARE\\TAVO\\HX\\Chat", L"InstallPath", L"C:\\Program Files\\TAVO\\Chat");
    StoreText(L"SOFTWARE\\TAVO\\HX\\Chat", L"DataPath", L"C:\\ProgramData\\TAVO\\Chat");
    PutTree(L"C:\\Program Files\\TAVO\\Chat");
    PutTree(L"C:\\ProgramData\\TAVO\\Chat");
    return {};
}

Nothing ShortPath() { return std::make_shared<KeptValue>(kEnvironment, L"Path"); }

Nothing SettingsKeys() {
    StoreText(L"SOFTWARE\\TAVO\\Install\\a", L"b", L"c");
    StoreText(L"SOFTWARE\\TAVO\\HX", L"b", L"c");
    StoreText(L"SOFTWARE\\TAVO\\Other", L"b", L"stays");
    return {};
}

Nothing SlimEdition() {
    StoreText(L"SOFTWARE\\Wow6432Node\\QEL\\ACE\\Packages\\Core-Static", L"Location", kFolder);
    PutTree(kFolder);
    return {};
}

Nothing SparsePackage() {
    PutSettingsApplication();
    PutTree(std::wstring(kFolder) + L"\\Assets");
    PutTree(std::wstring(kFolder) + L"\\Strings");
    PutFile(std::wstring(kFolder) + L"\\resources.pri", FILE_ATTRIBUTE_READONLY);
    return {};
}

Nothing CameraFolder() {
    PutTree(kCamera);
    return {};
}

Nothing ProxyKey() {
    StoreText(L"SOFTWARE\\Wow6432Node\\QEL\\ACE\\Settings\\MOM\\Install", L"a", L"b");
    return {};
}

Nothing InstallProxy() {
    StoreText(L"SOFTWARE\\QEL\\ACE\\Packages\\Core-Static", L"Location", kFolder);
    PutProgram(std::wstring(kFolder) + L"\\MOM-InstallProxy-Net4\\MOM.InstallProxy.exe");
    return {};
}

Nothing Branding() {
    StoreText(L"SOFTWARE\\TAVO\\HX", L"HXBrandingInstallDir", kFolder);
    StoreText(L"SOFTWARE\\TAVOBranding\\Skins", L"a", L"b");
    StoreText(L"SOFTWARE\\TAVOBranding", L"kept", std::wstring(kFolder) + L"\\kept.txt");
    PutTree(kFolder);
    PutFile(std::wstring(kFolder) + L"\\kept.txt");
    PutFile(std::wstring(kFolder) + L"\\Skins\\skin.txt");
    PutFile(std::wstring(kFolder) + L"\\readonly.txt", FILE_ATTRIBUTE_READONLY);
    return {};
}

Nothing VRComponent() {
    PutSettingsApplication();
    StoreText(L"SOFTWARE\\QEL Technologies\\Install\\WVR64", L"InstallDir", kVR);
    PutTree(std::wstring(kVR) + L"WVR");
    return {};
}

Nothing VRDriver() {
    VRComponent();
    StoreText(L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\Steam App 250820",
              L"InstallLocation", kSteamVR);
    PutProgram(std::wstring(kSteamVR) + L"\\bin\\win64\\vrpathreg.exe");
    return {};
}

Nothing EnabledRecording() {
    StoreNumber(L"SOFTWARE\\QEL Technologies\\Install", L"TAVODVR_Enabled", 1);
    return {};
}

Nothing DisplayAdapter() { return std::make_shared<Adapter>(); }

Nothing StaleDriver() {
    return std::make_shared<TestService>(L"TAVOKyrnMasterDriverV20",
                                         L"C:\\windows\\system32\\TavoKyrnMasterDriver.sys", L"");
}

Nothing InstallManager() {
    StoreText(L"SOFTWARE\\TAVO\\TAVOInstallManager", L"InstallLocation", std::wstring(kManager) + L"\\");
    PutTree(kManager);
    return {};
}

/// Both clients of the profile suite with their services, one of which runs.
struct ProfileClients {
    ProfileClients() {
        PutTree(kClient);
        PutFile(std::wstring(kClient) + L"\\PPCSL.dll");
        PutTree(kClientX86);
        StoreText(L"SOFTWARE\\TAVO\\PPC\\a", L"b", L"c");
        StoreText(L"SOFTWARE\\TAVO\\DU", L"b", L"c");
        StoreText(L"SOFTWARE\\Wow6432Node\\TAVO\\PPC\\deep\\er", L"b", L"c");
        StoreText(std::wstring(kServices) + L"tavofendr\\State\\TUEP", L"b", L"c");
        launcher.Start();
    }
    TestService client{L"PPCL", L"plain"};
    TestService launcher{L"TUEPLauncher", L"plain"};
    TestService driver{L"TAVOKyrnMasterDriverV19", std::wstring(kClient) + L"\\driver.sys", L""};
};

Nothing BothClients() { return std::make_shared<ProfileClients>(); }

/// A service that the action creates, ended and deleted afterwards.
struct LeftService {
    ~LeftService() {
        const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
        const SC_HANDLE service = OpenServiceW(manager, L"TUEPLauncher", SERVICE_ALL_ACCESS);
        SERVICE_STATUS status = {};
        ControlService(service, SERVICE_CONTROL_STOP, &status);
        DeleteService(service);
        CloseServiceHandle(service);
        CloseServiceHandle(manager);
    }
};

Nothing NewProfileClient() {
    StoreText(L"SOFTWARE\\QEL Technologies\\Install\\PPC", L"InstallDir", kClient);
    StoreText(kAnalytics, L"TUEPClient", L"LSX");
    StoreText(std::wstring(kServices) + L"tavofendr", L"a", L"b");
    fs::create_directories(kClient);
    fs::copy_file(L"C:\\corvi\\service.exe", std::wstring(kClient) + L"\\TUEPDU.exe");
    fs::create_directories(L"C:\\ProgramData\\TAVO\\PPC");
    return std::make_shared<LeftService>();
}

Nothing StoppedLauncher() { return std::make_shared<TestService>(L"TUEPLauncher", L"plain"); }

Nothing AnalyticsKey() {
    StoreText(kAnalytics, L"AnalyticsAccepted", L"true");
    return {};
}

Nothing Benchmark() {
    PutSettingsApplication();
    WriteBytes(std::wstring(kFolder) + L"\\StartHXBM.xml", TaskDefinition());
    RegSetKeyValueW(HKEY_CURRENT_USER, L"SOFTWARE\\TAVO\\HX", L"GiBenchmark", REG_SZ, L"0", 4);
    return {};
}

Nothing LastClaimant() {
    PutTask(L"StartHXBM", TaskDocument());
    StoreText(kAnalytics, L"TUEPClient", L"LSX");
    StoreText(std::wstring(kServices) + L"tavofendr", L"a", L"b");
    return {};
}

Nothing LogonTask() {
    PutSettingsApplication();
    WriteBytes(std::wstring(kFolder) + L"\\StartHX.xml", TaskDefinition());
    WriteBytes(std::wstring(kFolder) + L"\\StartDVR.xml", TaskDefinition());
    StoreText(L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run", L"StartHX", L"x");
    StoreText(L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run", L"StartDVR", L"x");
    return {};
}

Nothing RegisteredTasks() {
    PutTask(L"StartHX", TaskDocument());
    PutTask(L"StartDVR", TaskDocument());
    return {};
}

Nothing StartedByBranding() {
    PutTask(L"StartHX", TaskDocument());
    StoreNumber(L"SOFTWARE\\TAVO\\HX", L"LazeStart", 1);
    return {};
}

const std::wstring kCameraData = L" --data \"InstallDir=" + std::wstring(kCamera) +
                                 L"\\;DLLName=OptxServer.dll;Username=root;VCDLLName=OptxMedia.dll\"";
constexpr wchar_t kTaskData[] = L" --data \"TaskName=StartTUEP;CommandToLaunch=C:\\x\\TUEPDU.exe;Username=\"";

std::vector<Scenario> MakeScenarios() {
    return {
        {"LaunchedFromPIM", L" --set LAUNCHED_FROM_PIM=1", Bare, 0},
        {"BlockLaunch", L"", Bare, 1603},
        {"BlockKITELaunch", L"", RunningManager, 1603},
        {"DeleteQELKey", L"", OldKeys, 0},
        {"DeleteServiceIfBinaryIsInDirectory",
         L" --data \"ServiceName=TAVOTuningService;DirectoryOfBinary=C:\\corvi\"", RunningService, 0},
        {"ShutDownPQRNext", L"", SettingsApplication, 0},
        {"TerminateHXNextApp", L"", SettingsApplication, 0},
        {"ShutDownDVR", L"", RecordingServer, 0},
        {"TerminateDVRApp", L"", RunningRecordingServer, 0},
        {"CheckForClients", L" --data \"ClientName=PPC;Action=;CurrentVersion=900.0.0\"", OlderProduct, 0},
        {"SetPermissionsRegisterDLL", kCameraData, CameraComponents, 0},
        {"UnregisterDLL", kCameraData, CameraComponents, 0},
        {"DeleteOPTXCameraGUID", L"", CameraChains, 1603},
        {"InstallContextMenuMSIX", L"", ContextMenu, 0},
        {"UninstallTAVOChat", L"", Chat, 0},
        {"SetEnvPath_IPU_WA", L"", ShortPath, 0},
        {"DeleteHXFolder", L"", SettingsApplication, 0},
        {"DeleteHXINSTALLDIRFolder", L"", SettingsApplication, 0},
        {"DeleteHXNoUpgrade", L"", SettingsKeys, 0},
        {"DeleteHXSlimINSTALLDIRFolder", L"", SlimEdition, 0},
        {"DeleteHXSparsePackageAssets", L"", SparsePackage, 0},
        {"DeleteDMFTDirectory", L" --data \"InstallDir=" + std::wstring(kCamera) + L"\\\\\"", CameraFolder,
         0},
        {"DelInstallProxyKey", L"", ProxyKey, 1},
        {"LaunchInstallProxyHX", L" --data \"" + std::wstring(kFolder) + L"\"", InstallProxy, 1},
        {"DeleteandRetainValues", L"", Branding, 0},
        {"DeleteWVRFolder", L"", VRComponent, 0},
        {"UnRegisterWVR", L"", VRDriver, 0},
        {"TrackDVRAnalytics", L"", EnabledRecording, 1},
        {"CreateTriggerlessElevatedScheduleTask", kTaskData, Bare, 0},
        {"SetDCLogFileRegistry", L"", DisplayAdapter, 0},
        {"PreInstallKMSDK", L"", StaleDriver, 0},
        {"PostUnInstallKITE", L"", InstallManager, 0},
        {"PreInstallPPC", L"", BothClients, 0},
        {"PostInstallPPC", kTaskData, NewProfileClient, 0},
        {"UnInstallPPC", L"", BothClients, 0},
        {"AfterInstallPPC", L"", StoppedLauncher, 0},
        {"DisabelAnalyticsKey", L" --set DISABLEANALYTICS=yes", AnalyticsKey, 0},
        {"EnableAnalyticsKey", L"", Bare, 0},
        {"DeleteAnalyticsKey", L"", AnalyticsKey, 0},
        {"CreateBenchMarkRunOnceSchTask", L"", Benchmark, 0},
        {"RemoveBenchMarkRunOnceSchedularTask", L"", LastClaimant, 1},
        {"CreateLogonSchTask", L"", LogonTask, 0},
        {"CreateDVRLogonSchTask", L"", LogonTask, 0},
        {"RemoveHXSchedularTask", L"", RegisteredTasks, 1},
        {"RemoveDVRSchedularTask", L"", RegisteredTasks, 1},
        {"LaunchHX", L"", RegisteredTasks, 1},
        {"DeleteSchedTaskonBranding", L"", StartedByBranding, 0},
    };
}

void ClearFolder(const fs::path& folder) {
    std::error_code ignored;
    if (!fs::exists(folder, ignored)) {
        return;
    }
    for (const auto& entry : fs::recursive_directory_iterator(folder, ignored)) {
        SetFileAttributesW(entry.path().c_str(), FILE_ATTRIBUTE_NORMAL);
    }
    fs::remove_all(folder, ignored);
}

}  // namespace

const std::vector<Scenario>& Scenarios() {
    static const std::vector<Scenario> scenarios = MakeScenarios();
    return scenarios;
}

void ClearMachine() {
    for (const wchar_t* key : kKeysToClear) {
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, key);
    }
    RegDeleteTreeW(HKEY_CURRENT_USER, L"SOFTWARE\\TAVO");
    for (const wchar_t* folder : kFoldersToClear) {
        ClearFolder(folder);
    }
    // The folder itself stays: the scheduler keeps its tasks there.
    std::error_code ignored;
    for (const auto& task : fs::directory_iterator(L"C:\\windows\\system32\\tasks", ignored)) {
        fs::remove_all(task.path(), ignored);
    }
    ClearFolder(TemporaryDirectory() + L"TAVO");
    for (const wchar_t* copy : {L"StartHX.xml", L"StartDVR.xml", L"StartHXBM.xml"}) {
        DeleteFileW((TemporaryDirectory() + copy).c_str());
    }
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Control\\Session Manager",
                       L"PendingFileRenameOperations");
}

}  // namespace corvi::test
