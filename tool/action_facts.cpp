#include "tool/action_facts.h"

#include <algorithm>
#include <iterator>

namespace corvi::tool {
namespace {

// Keys and values that several actions read.
constexpr char kHXNextKey[] = "SOFTWARE\\QEL Technologies\\Install\\HXNext";
constexpr char kRecordingKey[] = "SOFTWARE\\QEL Technologies\\Install\\TAVO DVR";
constexpr char kCoreStaticKey[] = "SOFTWARE\\QEL\\ACE\\Packages\\Core-Static";
constexpr char kVRKey[] = "SOFTWARE\\QEL Technologies\\Install\\WVR64";
constexpr char kHXKey[] = "SOFTWARE\\TAVO\\HX";
constexpr char kAnalyticsKey[] = "SOFTWARE\\TAVO\\TAVOAnalytics";
constexpr char kDriverServiceKey[] = "SYSTEM\\CurrentControlSet\\Services\\TAVOKyrnMasterDriver";
constexpr char kTuepKey[] = "SOFTWARE\\TUEP";
constexpr char kProfileClientKey[] = "SOFTWARE\\QEL Technologies\\Install\\PPC";
constexpr char kSessionManagerKey[] = "SYSTEM\\CurrentControlSet\\Control\\Session Manager";
constexpr char kEnvironmentKey[] = "SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Environment";

const Guard kSettingsGuard = {.property = "CORVI_SETTINGS_LOCATION",
                              .root = "HKLM",
                              .key = kHXNextKey,
                              .value = "Location",
                              .reason = "the settings application is installed"};
const Guard kRecordingGuard = {.property = "CORVI_RECORDING_LOCATION",
                               .root = "HKLM",
                               .key = kRecordingKey,
                               .value = "Location",
                               .reason = "the recording server is installed"};
const Guard kBenchmarkGuard = {.property = "CORVI_BENCHMARK_GATE",
                               .root = "HKCU",
                               .key = kHXKey,
                               .value = "GiBenchmark",
                               .reason = "the installing user has the benchmark's gate"};
const Guard kSlimGuard = {.property = "CORVI_SLIM_LOCATION",
                          .root = "HKLM",
                          .key = kCoreStaticKey,
                          .value = "Location",
                          .view32 = true,
                          .reason = "the slim edition is installed (32-bit registry view)"};
const Guard kSuiteKeyGuard = {.property = "CORVI_SUITE_KEY",
                              .root = "HKLM",
                              .key = kHXKey,
                              .value = "HXBrandingInstallDir",
                              .reason = "a value below SOFTWARE\\TAVO, so that this key is there"};
const Guard kSystemPathGuard = {.property = "CORVI_SYSTEM_PATH",
                                .root = "HKLM",
                                .key = kEnvironmentKey,
                                .value = "Path",
                                .reason = "the session manager's key and the system path can be read"};

// What was there before an install: a rollback must not take it away, a consent must not overwrite it.
const Guard kClaimantSearch = {.property = "CORVI_TUEP_CLAIMANT",
                               .root = "HKLM",
                               .key = kAnalyticsKey,
                               .value = "TUEPClient",
                               .reason = "a client's claim to TUEP that nobody has taken up yet"};
const Guard kConsentSearch = {.property = "CORVI_ANALYTICS_CONSENT",
                              .root = "HKLM",
                              .key = kAnalyticsKey,
                              .value = "AnalyticsAccepted",
                              .reason = "what the user answered about analytics"};
const Guard kTuepSearch = {.property = "CORVI_TUEP_LOCATION",
                           .root = "HKLM",
                           .key = kProfileClientKey,
                           .value = "InstallDir",
                           .reason = "another copy of TUEP is installed, with data of its own"};

// Machine keys that several actions read.
const RegistryRead kSettingsLocationNeeded = {.root = "HKLM",
                                              .key = kHXNextKey,
                                              .value = "Location",
                                              .absenceLetsErrorOut = true,
                                              .meaning = "the settings application's folder"};
const RegistryRead kSettingsLocation = {
    .root = "HKLM", .key = kHXNextKey, .value = "Location", .meaning = "the settings application's folder"};
const RegistryRead kSystemPathRead = {.root = "HKLM",
                                      .key = kEnvironmentKey,
                                      .value = "Path",
                                      .absenceLetsErrorOut = true,
                                      .meaning = "the system path that is extended"};
const RegistryRead kClaimantRead = {.root = "HKLM",
                                    .key = kAnalyticsKey,
                                    .value = "TUEPClient",
                                    .meaning = "the client that claimed TUEP last"};
const RegistryRead kVRLocation = {.root = "HKLM",
                                  .key = kVRKey,
                                  .value = "InstallDir",
                                  .meaning = "the folder above the VR component, with a trailing backslash"};

const RegistryRead kWindowsVersion = {
    .root = "HKLM",
    .key = "SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion",
    .value = "CurrentBuild",
    .meaning = "with CurrentMajorVersionNumber and UBR: which Windows this is"};

// Results that several actions have.
const Result kAlwaysDone = {0, Outcome::Done, "always, whatever its steps did"};
const Result kTaskToolRan = {1, Outcome::Done,
                             "schtasks was started and has ended; its own answer is not read"};
const Result kTaskToolFailed = {0, Outcome::Failed, "schtasks could not be started"};

// Entries of the action data that several actions take.
constexpr char kMissingKey[] =
    "A missing or misspelt key does not give an empty value but another part of the text.";
const DataKey kTaskNameKey = {.name = "TaskName=",
                              .example = "StartTUEP",
                              .meaning = "the task's name in the scheduler's root folder",
                              .misuse = kMissingKey};
const DataKey kCommandKey = {.name = "CommandToLaunch=",
                             .example = "[INSTALLFOLDER]Program.exe",
                             .meaning = "the program that the task starts",
                             .misuse =
                                 "It goes into XML unescaped: & and < make the registration fail. A missing "
                                 "key gives another part of the text."};
const DataKey kUserNameKey = {
    .name = "Username=",
    .mayBeEmpty = true,
    .example = "",
    .meaning = "the task's user; empty leaves the choice to the scheduler",
    .misuse =
        "Write the key also when its value is empty: a missing key gives another part "
        "of the text."};
const DataKey kCameraFolderKey = {.name = "InstallDir=",
                                  .example = "[IMAGINGFOLDER]",
                                  .meaning = "the camera components' folder, with its trailing backslash",
                                  .misuse = kMissingKey};
const DataKey kCameraDllKey = {
    .name = "DLLName=",
    .example = "CameraServer.dll",
    .meaning = "the COM server's file name",
    .misuse =
        "The first match counts, even inside VCDLLName=: it must stand before that "
        "key."};
const DataKey kMediaSourceKey = {
    .name = "VCDLLName=",
    .optional = true,
    .mayBeEmpty = true,
    .example = "CameraSource.dll",
    .meaning = "the media source's file name, used on Windows 11 only; empty when there is none",
    .misuse =
        "It must stand behind DLLName=. Left out, another part of the text is taken for the "
        "name: write it empty instead."};

// Log lines that several actions write.
const LogText kActionDataLine = {"CustomActionData: %s", "the action data as the action got it", {}};
const LogText kTaskNameLine = {"Task Name %s", "the task's name out of the action data", {}};
const LogText kCommandLine = {"Command to launch %s", "the task's command out of the action data", {}};
const LogText kUserNameLine = {
    "Username %s", "the user out of the action data; nothing behind it: none given", {}};
const LogText kDllPathLine = {"DLL Path %s", "the folder out of the action data", {}};
const LogText kDllNameLine = {"DLL Name %s", "the COM server's name out of the action data", {}};
const LogText kVersionLine = {
    "OS Version: %s-%s-%s", "major version, build and revision of this Windows", {}};
const LogText kScanLoadLine = {"load VirtualCameraMediaSource.dll failed: %d",
                               "the media source could not be loaded; the number is the system's error",
                               "The file is named so whatever it is called."};
const LogText kScanEntryLine = {"GetProcAddress(OptxScanCameras) failed: %d",
                                "the media source has no camera scan; the number is the system's error",
                                {}};
const LogText kScanLine = {
    "OptxScanCameras(%d): %d",
    "the camera scan ran: 1 after a registration or 0 before an unregistration, then its answer",
    {}};
const LogText kPackageCommandLine = {"removeAPPXPackage: cmd: %s - cwd:%s",
                                     "the command that is to remove an MSIX package, and its folder",
                                     {}};
const LogText kCommandOutputLine = {
    "RunCommandline: %s - %s", "a command that was run, and what it printed", {}};
constexpr char kPauseTrap[] =
    "It speaks of Windows Update, which is never touched: it means the driver service in the line above.";
const LogText kManagerFailedLine = {
    "Opening SC Manager failed with error code: %d %s", "the service manager could not be reached", {}};
const LogText kServiceFailedLine = {"Opening Windows Update Service failed with error code: %d %s",
                                    "the driver service could not be opened; 1060: there is none",
                                    kPauseTrap};
const LogText kStopFailedLine = {
    "Unable to pause Windows Update Service. Error code: %d %s",
    "the driver service did not take the stop; 1062: it was not running, which is no "
    "failure",
    kPauseTrap};
const LogText kQueryFailedLine = {"getMSIProductInfo::Failed with error ",
                                  "an installed product could not be asked for a property",
                                  "As many characters as the error's number are missing at its front."};

// The table, room by room.

const std::vector<ActionFacts> kLaunchGuard = {
    {.name = "LaunchedFromPIM",
     .room = "Launch guard",
     .purpose = "Tells whether the install manager started the package.",
     .execution = Execution::Immediate,
     .onResult = Return::Check,
     .returnReason = "a refusal must stop the install",
     .schedule = "Immediate, before anything is changed, `NOT Installed`: it reads a property that deferred "
                 "actions cannot see. `Return=\"check\"`: a refusal must stop the install.",
     .condition = "NOT Installed",
     .place = "Before=\"LaunchConditions\"",
     .properties = {"LAUNCHED_FROM_PIM"},
     .changes = "Nothing.",
     .needsElevation = false,
     .takenBackNote = "It changes nothing.",
     .results = {{0, Outcome::Done, "the install manager started the package"},
                 {1612, Outcome::Refused, "it did not: the launch-block message was shown"}},
     .log = {{"SABLE_CA Launched from PIM: %s",
              "the install manager started the package; the property's value",
              {}},
             {"SABLE_CA Not Launched from PIM and unable to get property",
              "LAUNCHED_FROM_PIM is not 1: the package was started by hand",
              "The property may well have been read: any value but 1 gives this line."},
             {"This package requires TAVO Installer Setup.",
              "the launch-block message, sent as a message box",
              {}},
             {"Please obtain and install TAVO Installer from %s to continue installing this package.",
              "the launch-block message",
              {}},
             {"This application will now abort.", "the launch-block message", {}}},
     .onFailure =
         "Start the package through the install manager, or pass LAUNCHED_FROM_PIM=1; in a full-UI install "
         "the property must stand in SecureCustomProperties."},
    {.name = "BlockLaunch",
     .room = "Launch guard",
     .purpose = "Stops a package that the install manager did not start.",
     .execution = Execution::Immediate,
     .onResult = Return::Check,
     .returnReason = "a refusal must stop the install",
     .schedule = "Immediate, early (sequence below 100), `NOT Installed`, `Return=\"check\"`.",
     .condition = "NOT Installed",
     .place = "Before=\"LaunchConditions\"",
     .properties = {"LAUNCHED_FROM_PIM"},
     .changes = "Nothing.",
     .needsElevation = false,
     .takenBackNote = "It changes nothing.",
     .results = {{0, Outcome::Done, "the install manager started the package"},
                 {1603, Outcome::Refused, "it did not: the launch-block message was shown"}},
     .log = {{"SABLE_CA Launched from PIM: %s",
              "the install manager started the package; the property's value",
              {}},
             {"SABLE_CA Not Launched from PIM and unable to get property",
              "LAUNCHED_FROM_PIM is not 1: the package was started by hand",
              "The property may well have been read: any value but 1 gives this line."},
             {"This package requires TAVO Installer Setup.",
              "the launch-block message, sent as a message box",
              {}},
             {"Please obtain and install TAVO Installer from %s to continue installing this package.",
              "the launch-block message",
              {}},
             {"This application will now abort.", "the launch-block message", {}}},
     .onFailure =
         "Start the package through the install manager, or pass LAUNCHED_FROM_PIM=1; in a full-UI install "
         "the property must stand in SecureCustomProperties."},
    {.name = "BlockKITELaunch",
     .room = "Launch guard",
     .purpose = "Stops a package while the install manager's own program runs.",
     .execution = Execution::Immediate,
     .onResult = Return::Check,
     .returnReason = "a refusal must stop the install",
     .schedule = "Immediate, early, `NOT Installed`, `Return=\"check\"`.",
     .condition = "NOT Installed",
     .place = "Before=\"LaunchConditions\"",
     .changes = "Nothing.",
     .needsElevation = false,
     .takenBackNote = "It changes nothing.",
     .results = {{0, Outcome::Done, "no TAVOInstallManager.exe runs"},
                 {1603, Outcome::Refused, "a TAVOInstallManager.exe runs"}},
     .onFailure = "Close TAVOInstallManager.exe, of whatever maker, and start the package again."},
    {.name = "DeleteQELKey",
     .room = "Launch guard",
     .purpose = "Removes what an older driver left in the registry.",
     .onResult = Return::Ignore,
     .returnReason = "its result is always 0",
     .schedule =
         "Deferred, elevated, on a first install only, `NOT Installed AND NOT WIX_UPGRADE_DETECTED`: in an "
         "upgrade the key may be this driver's own. Declared `Return=\"ignore\"`: its result is always 0.",
     .condition = "NOT Installed AND NOT WIX_UPGRADE_DETECTED",
     .place = "After=\"InstallInitialize\"",
     .changes = "Deletes the machine key SOFTWARE\\QEL with everything below it.",
     .deletes = {"the machine key SOFTWARE\\QEL with everything below it", true, false, true},
     .takenBackNote = "Nothing takes it back.",
     .results = {{0, Outcome::Done, "always, whether the key was there or not"}},
     .onFailure = "A key that is refused stays; look at it with an administrator's rights."},
};

const std::vector<ActionFacts> kLogonTasks = {
    {.name = "CreateLogonSchTask",
     .room = "Logon tasks",
     .purpose = "Registers the task StartHX that starts the settings application at logon.",
     .onResult = Return::Check,
     .returnReason = "without an install location there is nothing to start",
     .schedule = "Deferred, elevated, after the files and registry values are written, `NOT REMOVE`. "
                 "`Return=\"check\"`: without an install location there is nothing to start. Its rollback on "
                 "a first install, `NOT Installed`.",
     .condition = "NOT REMOVE",
     .place = "Before=\"InstallFinalize\"",
     .reads = {kSettingsLocationNeeded},
     .guards = {kSettingsGuard},
     .ownPackageWritesKeys = true,
     .changes =
         "Deletes the machine's Run value StartHX; runs schtasks /Create with StartHX.xml of the install "
         "folder, then schtasks /change; leaves a rewritten copy in the temporary folder; tells the shell.",
     .takenBackBy = "RemoveHXSchedularTask",
     .takenBackNote = "The Run value and the copy in the temporary folder stay as they are.",
     .rollback = "RemoveHXSchedularTask",
     .rollbackCondition = "NOT Installed",
     .results = {{0, Outcome::Done, "schtasks was run; what it answered is not read"},
                 {1603, Outcome::Failed, "the registered install folder does not exist"}},
     .log = {{"StartHX Scheduled task creation is successful", "schtasks was run",
              "What schtasks answered is not read: a malformed task file gives this line too."},
             {"StartHX Scheduled task creation failed", "the registered install folder does not exist", {}},
             {"Win 11 only code", "the shell is told that associations changed",
              "It is written, and the shell told, on every version of Windows."}},
     .onFailure =
         "Look at the value Location of SOFTWARE\\QEL Technologies\\Install\\HXNext: the folder must exist "
         "when the action runs."},
    {.name = "CreateDVRLogonSchTask",
     .room = "Logon tasks",
     .purpose = "Registers the task StartDVR that starts the recording server at logon.",
     .onResult = Return::Check,
     .returnReason = "without an install location there is nothing to start",
     .schedule =
         "Deferred, elevated, after the files and registry values, `NOT REMOVE`, `Return=\"check\"`. The "
         "settings application must be installed first: its location is used, and a registry search for it "
         "belongs into the condition. Its rollback on a first install, `NOT Installed`.",
     .condition = "CORVI_SETTINGS_LOCATION AND NOT REMOVE",
     .place = "Before=\"InstallFinalize\"",
     .reads = {kSettingsLocationNeeded},
     .guards = {kSettingsGuard},
     .changes =
         "Deletes the machine's Run value StartDVR; runs schtasks /Create with StartDVR.xml of the settings "
         "application's folder, then schtasks /change; leaves a rewritten copy in the temporary folder.",
     .takenBackBy = "RemoveDVRSchedularTask",
     .takenBackNote = "The Run value and the copy in the temporary folder stay as they are.",
     .rollback = "RemoveDVRSchedularTask",
     .rollbackCondition = "CORVI_SETTINGS_LOCATION AND NOT Installed",
     .results = {{0, Outcome::Done, "schtasks was run; what it answered is not read"},
                 {1603, Outcome::Failed, "the registered install folder does not exist"}},
     .onFailure =
         "Look at the value Location of SOFTWARE\\QEL Technologies\\Install\\HXNext: the folder must exist "
         "when the action runs."},
    {.name = "RemoveHXSchedularTask",
     .room = "Logon tasks",
     .purpose = "Deletes the task StartHX.",
     .onResult = Return::Ignore,
     .returnReason = "it answers 1 for success",
     .schedule =
         "Deferred, elevated, `REMOVE=\"ALL\"`, in an upgrade as well: the newer version registers the task "
         "from its own file, which schtasks does only where no task of that name is. Its rollback brings the "
         "task back when the removal fails. Declared `Return=\"ignore\"`: it answers 1 for success.",
     .condition = "REMOVE=\"ALL\"",
     .place = "After=\"InstallInitialize\"",
     .searches = {kSettingsGuard},
     .changes = "Runs schtasks /delete /TN \"StartHX\" /F and waits for it.",
     .deletes = {"the task StartHX", true, false},
     .takenBackNote = "CreateLogonSchTask registers the task again.",
     .rollback = "CreateLogonSchTask",
     .rollbackCondition = "CORVI_SETTINGS_LOCATION AND REMOVE=\"ALL\"",
     .results = {kTaskToolRan, kTaskToolFailed},
     .onFailure = "schtasks.exe must be in the system folder."},
    {.name = "RemoveDVRSchedularTask",
     .room = "Logon tasks",
     .purpose = "Deletes the task StartDVR.",
     .onResult = Return::Ignore,
     .returnReason = "it answers 1 for success",
     .schedule = "Deferred, elevated, `REMOVE=\"ALL\"`, in an upgrade as well, with its rollback, both as "
                 "`RemoveHXSchedularTask`; declared `Return=\"ignore\"`: it answers 1 for success.",
     .condition = "REMOVE=\"ALL\"",
     .place = "After=\"InstallInitialize\"",
     .searches = {kSettingsGuard},
     .changes = "Runs schtasks /delete /TN \"StartDVR\" /F and waits for it.",
     .deletes = {"the task StartDVR", true, false},
     .takenBackNote = "CreateDVRLogonSchTask registers the task again.",
     .rollback = "CreateDVRLogonSchTask",
     .rollbackCondition = "CORVI_SETTINGS_LOCATION AND REMOVE=\"ALL\"",
     .results = {kTaskToolRan, kTaskToolFailed},
     .onFailure = "schtasks.exe must be in the system folder."},
    {.name = "LaunchHX",
     .room = "Logon tasks",
     .purpose = "Starts the settings application through its task.",
     .execution = Execution::Immediate,
     .onResult = Return::Ignore,
     .returnReason = "its result is always 1",
     .schedule = "Immediate, after `InstallFinalize`, `NOT REMOVE`; declared `Return=\"ignore\"`: its result "
                 "is always 1. It runs with the rights of the user who installs: where that user may not run "
                 "the task, nothing starts.",
     .condition = "NOT REMOVE",
     .place = "After=\"InstallFinalize\"",
     .changes = "Runs schtasks /run /TN \"StartHX\" and waits for it.",
     .takenBackNote = "It starts a program and leaves nothing.",
     .results = {{1, Outcome::Done, "always, whether the application was started or not"}},
     .onFailure = "Without the task StartHX nothing starts, and nothing says so."},
    {.name = "DeleteSchedTaskonBranding",
     .room = "Logon tasks",
     .purpose = "Deletes the task StartHX where the branding asks for a lazy start.",
     .onResult = Return::Ignore,
     .returnReason = "its result is always 0",
     .schedule = "Deferred, elevated, after `CreateLogonSchTask`; declared `Return=\"ignore\"`.",
     .condition = "NOT REMOVE",
     .place = "Before=\"InstallFinalize\"",
     .reads = {{.root = "HKLM",
                .key = kHXKey,
                .value = "LazeStart",
                .meaning = "1: the branding starts the "
                           "application"}},
     .changes = "When LazeStart is 1: runs schtasks /delete /TN \"StartHX\" /F and waits for it.",
     .takenBackNote = "CreateLogonSchTask registers the task again.",
     .results = {{0, Outcome::Done, "always, whether the task was deleted or not"}},
     .onFailure = "Only a 32-bit 1 in LazeStart deletes the task."},
};

const std::vector<ActionFacts> kBenchmarkTask = {
    {.name = "CreateBenchMarkRunOnceSchTask",
     .room = "Benchmark task",
     .purpose = "Registers the task StartHXBM that runs the benchmark once, the next day.",
     .impersonated = true,
     .onResult = Return::Ignore,
     .returnReason = "a convenience task must not roll an install back",
     .schedule =
         "Deferred and impersonated (`Impersonate=\"yes\"`): it reads the installing user's own hive. After "
         "the files, `NOT Installed`. Declared `Return=\"ignore\"`: it works where that user may open the "
         "machine's key for writing, which means an installer that was started elevated (or no user account "
         "control); else an error leaves it, and a convenience must not roll an install back. Its rollback "
         "marks a client with a pending claim as gone: only where the value `TUEPClient` was not found.",
     .condition = "NOT Installed",
     .place = "Before=\"InstallFinalize\"",
     .reads = {{.root = "HKCU",
                .key = kHXKey,
                .value = "GiBenchmark",
                .absenceLetsErrorOut = true,
                .meaning = "the benchmark's gate in the installing user's hive"},
               kSettingsLocationNeeded},
     .guards = {kBenchmarkGuard, kSettingsGuard},
     .searches = {kClaimantSearch},
     .ownPackageWritesKeys = true,
     .changes = "Writes StartHXBM.xml with tomorrow's date into the temporary folder, creates the task from "
                "that copy "
                "and points it at hxcmd.exe benchmark.",
     .takenBackBy = "RemoveBenchMarkRunOnceSchedularTask",
     .takenBackNote = "The copy in the temporary folder stays.",
     .rollback = "RemoveBenchMarkRunOnceSchedularTask",
     .rollbackCondition = "NOT Installed AND NOT CORVI_TUEP_CLAIMANT",
     .results = {{0, Outcome::Done, "always; without any task when the folder or the file is missing"}},
     .onFailure =
         "Both keys are opened for writing: the installing user must be an elevated administrator. The task "
         "file StartHXBM.xml must lie in the install folder, as UTF-16."},
    {.name = "RemoveBenchMarkRunOnceSchedularTask",
     .room = "Benchmark task",
     .purpose = "Deletes the task StartHXBM and records that the last claimant of TUEP is gone.",
     .onResult = Return::Ignore,
     .returnReason = "it answers 1 for success",
     .schedule =
         "Deferred, elevated, `REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE`: in an upgrade the client stays, "
         "and the benchmark still has to run; declared `Return=\"ignore\"`: it answers 1 for success.",
     .condition = "REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE",
     .place = "After=\"InstallInitialize\"",
     .reads = {kClaimantRead},
     .changes =
         "Sets that client's status in SOFTWARE\\TUEP to 2 (and its driver-side copy for the client LSX), "
         "deletes the value TUEPClient, runs schtasks /delete /TN \"StartHXBM\" /F.",
     .deletes = {"the task StartHXBM and the TUEP claim of the last claimant", true, true},
     .takenBackNote =
         "CreateBenchMarkRunOnceSchTask registers the task again; the status stays 2 until the client is "
         "installed again.",
     .results = {kTaskToolRan, kTaskToolFailed},
     .onFailure = "schtasks.exe must be in the system folder."},
};

const std::vector<ActionFacts> kElevatedTask = {
    {.name = "CreateTriggerlessElevatedScheduleTask",
     .room = "Elevated task",
     .purpose = "Registers a task without trigger that runs a command with the highest available rights.",
     .onResult = Return::Check,
     .returnReason = "1 means that there is no task",
     .schedule =
         "Deferred, elevated, after the files, `NOT REMOVE`. `Return=\"check\"`: 1 means that there is no "
         "task. As its rollback a package runs the scheduler's own tool (`package/install_manager.wxs`).",
     .condition = "NOT REMOVE",
     .place = "Before=\"InstallFinalize\"",
     .data = {.keys = {kTaskNameKey, kCommandKey, kUserNameKey}},
     .changes = "Creates or replaces the task in the scheduler's root folder.",
     .takenBackNote =
         "UnInstallPPC deletes StartTUEP, PostUnInstallKITE the four tasks that it names; any other the "
         "package must delete itself with schtasks /delete.",
     .results = {{0, Outcome::Done, "the task is registered"},
                 {1, Outcome::Failed, "the task is not registered"}},
     .log = {kActionDataLine, kTaskNameLine, kCommandLine, kUserNameLine},
     .onFailure =
         "Look at the three lines of the action data: & and < in the command or an unknown user make the "
         "registration fail. Why it failed is not in the installer's log."},
};

const std::vector<ActionFacts> kServices = {
    {.name = "DeleteServiceIfBinaryIsInDirectory",
     .room = "Services",
     .purpose = "Deletes a service, but only when its program lies in a given folder.",
     .onResult = Return::Ignore,
     .returnReason = "its result is always 0",
     .schedule = "Deferred, elevated, `REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE`: in an upgrade the newer "
                 "version goes on using the service; declared `Return=\"ignore\"`.",
     .condition = "REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE",
     .place = "After=\"InstallInitialize\"",
     .data = {.keys = {{.name = "ServiceName=",
                        .example = "TAVOTuningService",
                        .meaning = "the service's key name",
                        .misuse = kMissingKey},
                       {.name = "DirectoryOfBinary=",
                        .example = "[INSTALLFOLDER]",
                        .meaning = "the folder in which its program must lie; * for any folder",
                        .misuse = "A missing key gives another part of the text, and the service is kept."}}},
     .changes = "Stops the service, waits at most about 3 seconds, deletes it.",
     .deletes = {"the service that the action data names, when its program lies in the folder", true, true},
     .takenBackNote = "Nothing takes it back: the package that installs the service registers it again.",
     .results = {{0, Outcome::Done, "always, whether the service was deleted or not"}},
     .log = {kActionDataLine},
     .onFailure = "A binary path with quotes never lies in the folder. A service that does not stop is only "
                  "marked for "
                  "deletion until its last handle is closed."},
};

const std::vector<ActionFacts> kClosing = {
    {.name = "ShutDownPQRNext",
     .room = "Closing the applications",
     .purpose = "Asks the settings application to exit.",
     .onResult = Return::Ignore,
     .returnReason = "a missing tool must not stop an uninstall",
     .schedule = "Deferred, elevated, before files are replaced or removed, `Installed AND (REMOVE=\"ALL\" "
                 "OR REINSTALL)` and a registry search for its key; declared `Return=\"ignore\"`: a missing "
                 "tool must not stop an uninstall.",
     .condition = "CORVI_SETTINGS_LOCATION AND Installed AND (REMOVE=\"ALL\" OR REINSTALL)",
     .place = "After=\"InstallInitialize\"",
     .reads = {kSettingsLocationNeeded},
     .guards = {kSettingsGuard},
     .changes = "Runs hxcmd.exe exit from the install folder without waiting.",
     .takenBackNote = "It closes a program and leaves nothing.",
     .results = {{0, Outcome::Done, "the application was asked to exit, or its folder is gone"},
                 {1603, Outcome::Failed, "the folder is there and hxcmd.exe is not"}},
     .onFailure = "The install folder lacks hxcmd.exe; the application may still run."},
    {.name = "TerminateHXNextApp",
     .room = "Closing the applications",
     .purpose = "Ends the settings application's programs LumenSettings.exe and LumenSoftware.exe.",
     .onResult = Return::Ignore,
     .returnReason = "its result is always 0",
     .schedule = "Deferred, elevated, after `ShutDownPQRNext`; declared `Return=\"ignore\"`.",
     .condition = "Installed AND (REMOVE=\"ALL\" OR REINSTALL)",
     .place = "After=\"InstallInitialize\"",
     .changes = "Starts TaskKill.exe /IM ... /F for each, with the command text as working directory too: "
                "the platform "
                "then refuses to start it.",
     .takenBackNote = "It closes programs and leaves nothing.",
     .results = {{0, Outcome::Done, "always, whether a program was ended or not"}},
     .onFailure = "It never ends anything on a usual machine: schedule ShutDownPQRNext as well."},
    {.name = "ShutDownDVR",
     .room = "Closing the applications",
     .purpose = "Asks the recording server to exit.",
     .onResult = Return::Ignore,
     .returnReason = "a missing tool must not stop an uninstall",
     .schedule = "Deferred, elevated, before files are replaced or removed, `Installed AND (REMOVE=\"ALL\" "
                 "OR REINSTALL)` and a registry search for its key; declared `Return=\"ignore\"`: a missing "
                 "tool must not stop an uninstall.",
     .condition = "CORVI_RECORDING_LOCATION AND Installed AND (REMOVE=\"ALL\" OR REINSTALL)",
     .place = "After=\"InstallInitialize\"",
     .reads = {{.root = "HKLM",
                .key = kRecordingKey,
                .value = "Location",
                .absenceLetsErrorOut = true,
                .meaning = "the recording server's folder"}},
     .guards = {kRecordingGuard},
     .changes = "Runs LSServCmd.exe exit from the install folder without waiting.",
     .takenBackNote = "It closes a program and leaves nothing.",
     .results = {{0, Outcome::Done, "the server was asked to exit, or its folder is gone"},
                 {1603, Outcome::Failed, "the folder is there and LSServCmd.exe is not"}},
     .onFailure = "The install folder lacks LSServCmd.exe; the server may still run."},
    {.name = "TerminateDVRApp",
     .room = "Closing the applications",
     .purpose = "Ends the recording server TAVOLSServ.exe.",
     .onResult = Return::Ignore,
     .returnReason = "a machine without TaskKill must not stop an uninstall",
     .schedule = "Deferred, elevated, after `ShutDownDVR`; declared `Return=\"ignore\"`: a machine without "
                 "TaskKill must not stop an uninstall.",
     .condition = "Installed AND (REMOVE=\"ALL\" OR REINSTALL)",
     .place = "After=\"InstallInitialize\"",
     .changes = "Runs TaskKill.exe /IM TAVOLSServ.exe /F and waits.",
     .takenBackNote = "It closes a program and leaves nothing.",
     .results = {{0, Outcome::Done, "TaskKill was started, whether such a program ran or not"},
                 {1603, Outcome::Failed, "TaskKill could not be started"}},
     .onFailure = "TaskKill.exe must be in the system folder."},
};

const std::vector<ActionFacts> kArbitration = {
    {.name = "CheckForClients",
     .room = "Arbitration of the user-experience program",
     .purpose = "Decides for a client whether the shared TUEP is installed, kept or removed.",
     .onResult = Return::Check,
     .returnReason = "259 and 1602 must reach the installer",
     .schedule = "Deferred, elevated, first of all deferred actions, `NOT Installed OR (REMOVE=\"ALL\" AND "
                 "NOT UPGRADINGPRODUCTCODE)`. On a repair the product would meet itself as an installed copy "
                 "and skip its own repair; in a minor upgrade it would lose its own registration as the "
                 "older copy. `Return=\"check\"`: 259 makes the installer skip the rest successfully, 1602 "
                 "ends it as cancelled before anything is removed.",
     .condition = "NOT Installed OR (REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE)",
     .place = "After=\"InstallInitialize\"",
     .data = {.keys = {{.name = "ClientName=",
                        .example = "[CLIENTNAME]",
                        .meaning = "the client whose package runs; compared with regard to case",
                        .misuse = kMissingKey},
                       {.name = "Action=",
                        .mayBeEmpty = true,
                        .example = "[REMOVE]",
                        .meaning = "a value that begins with ALL means uninstall",
                        .misuse =
                            "Write it also where it is empty: a missing key gives another part of the text."},
                       {.name = "CurrentVersion=",
                        .example = "[ProductVersion]",
                        .meaning = "the version that this package carries",
                        .misuse = kMissingKey}}},
     .reads = {{.root = "HKLM", .key = kTuepKey, .meaning = "the client register"}},
     .changes =
         "Writes the client's status in SOFTWARE\\TUEP (and its driver-side copy for LSX); removes the "
         "registration of older installed copies; starts the task StartTUEP when an installed copy or "
         "another client's uninstall keeps TUEP; writes TUEPClient in SOFTWARE\\TAVO\\TAVOAnalytics.",
     .deletes = {"the registration of older installed copies, the product's own among them", true, false},
     .takenBackNote = "An uninstall beside another client sets the own status to 2; nothing deletes it.",
     .results =
         {{0, Outcome::Done, "go on: install, or remove; also without action data"},
          {259, Outcome::Skip,
           "an installed copy is kept, or another client holds TUEP and no older copy was found: the "
           "installer skips the rest, successfully"},
          {1602, Outcome::Refused,
           "another client still uses TUEP: the uninstall ends as cancelled before anything is removed"}},
     .log = {kActionDataLine,
             {"Client Name %s", "the client out of the action data", {}},
             {"Action %s", "the Action= value; empty: an install", {}},
             {"Current Version %s", "the version that this package carries", {}},
             {"Client Name (Uninstall) %s", "an uninstall for this client", {}},
             {"GetRelatedMSIVersions", "the installed copies of TUEP are being listed", {}},
             {"getRelatedMSIProducts::No Related Products found",
              "the list of installed copies could not be read",
              {}},
             {"getRelatedMSIProducts::Related Products found",
              "the list of installed copies has been asked for",
              "It is written whatever was found, also when nothing was or the list could not be read."},
             kQueryFailedLine,
             {"Unable to obtain MSI infomation. %hs Attempt to uninstall using msiexec",
              "the installed copies could not be asked",
              "The placeholder is part of the line, and no uninstaller is started."},
             {"Previous installed - Version %s - Path - %s", "an installed copy and its cached package", {}},
             {"Skipping install as - %s installed", "that copy is not older: it is kept, result 259", {}},
             {"Uninstall %s as it is older", "that copy is older: its registration is removed",
              "Only its registration goes; its files stay for the new version to replace. A removal that "
              "fails has the same line."}},
     .onFailure = "259 and 1602 are decisions: look at the statuses in SOFTWARE\\TUEP and at the installed "
                  "copies that "
                  "the lines name."},
};

const std::vector<ActionFacts> kCamera = {
    {.name = "SetPermissionsRegisterDLL",
     .room = "Camera components",
     .purpose = "Opens the camera folder to its users, registers the COM server and the virtual camera.",
     .onResult = Return::Check,
     .returnReason = "1603 means that the camera is not registered",
     .schedule = "Deferred, elevated, after the files, `NOT REMOVE`. `Return=\"check\"`: 1603 means that the "
                 "camera is not registered. Its rollback on a first install, with action data of its own. "
                 "The user name goes to a command line as it is: pass it in quotes, "
                 "`Username=\"[LogonUser]\"`, for names with blanks.",
     .condition = "CORVI_SYSTEM_PATH AND NOT REMOVE",
     .place = "Before=\"InstallFinalize\"",
     .data = {.keys = {kCameraFolderKey,
                       kCameraDllKey,
                       {.name = "Username=",
                        .mayBeEmpty = true,
                        .example = "\"[LogonUser]\"",
                        .meaning =
                            "the folder's new owner, in quotes: a name with a blank reaches icacls as two "
                            "arguments otherwise",
                        .misuse = kMissingKey},
                       kMediaSourceKey}},
     .reads = {kWindowsVersion, kSystemPathRead},
     .guards = {kSystemPathGuard},
     .changes =
         "Owner and full control for Users on the folder and everything in it (icacls); runs regsvr32; on "
         "Windows 11 with the media source present also that DLL and its camera scan; puts "
         "Windows\\System32\\TAVO; in front of the system path.",
     .takenBackBy = "UnregisterDLL",
     .takenBackNote = "Owner, permissions and the path entry stay.",
     .rollback = "UnregisterDLL",
     .rollbackTakesData = true,
     .rollbackCondition = "NOT Installed",
     .results = {{0, Outcome::Done, "the deciding registration went well, or there is no action data"},
                 {1603, Outcome::Failed, "the deciding registration failed"}},
     .log = {kActionDataLine,
             kDllPathLine,
             kDllNameLine,
             kUserNameLine,
             {"VC Dll Name %s", "the media source's name out of the action data", {}},
             kVersionLine,
             kScanLoadLine,
             kScanEntryLine,
             kScanLine},
     .onFailure =
         "Run regsvr32 on the DLL by hand: the folder (with its trailing backslash) and the names stand in "
         "the "
         "lines of the action data; a DLL that lacks one of its own libraries cannot be registered."},
    {.name = "UnregisterDLL",
     .room = "Camera components",
     .purpose = "Takes the camera registrations back.",
     .onResult = Return::Ignore,
     .returnReason = "an uninstall goes on when a DLL cannot be unregistered",
     .schedule =
         "Deferred, elevated, `REMOVE=\"ALL\"`, before the files go, in an upgrade as well: these DLLs go, "
         "and the newer version registers its own. Declared `Return=\"ignore\"`: an uninstall goes on when a "
         "DLL cannot be unregistered. Its rollback takes the action data of `SetPermissionsRegisterDLL`.",
     .condition = "REMOVE=\"ALL\"",
     .place = "After=\"InstallInitialize\"",
     .data = {.keys = {kCameraFolderKey, kCameraDllKey, kMediaSourceKey}},
     .reads = {kWindowsVersion},
     .searches = {kSystemPathGuard},
     .changes = "On Windows 11 with the media source present: the camera scan, then that DLL is unregistered "
                "and the "
                "COM server stays registered; otherwise the COM server is unregistered.",
     .deletes = {"the camera registrations", true, false},
     .takenBackNote = "SetPermissionsRegisterDLL registers again.",
     .rollback = "SetPermissionsRegisterDLL",
     .rollbackTakesData = true,
     .rollbackCondition = "CORVI_SYSTEM_PATH AND REMOVE=\"ALL\"",
     .results = {{0, Outcome::Done, "the deciding unregistration went well, or there is no action data"},
                 {1603, Outcome::Failed, "the deciding unregistration failed"}},
     .log = {kActionDataLine,
             kDllPathLine,
             kDllNameLine,
             {"VC DLL Name %s", "the media source's name out of the action data", {}},
             kVersionLine,
             kScanLoadLine,
             kScanEntryLine,
             kScanLine},
     .onFailure =
         "The DLL must still lie in the folder when the action runs: schedule it before RemoveFiles."},
    {.name = "DeleteOPTXCameraGUID",
     .room = "Camera components",
     .purpose = "Takes the suite's transform out of the cameras' chains.",
     .onResult = Return::Ignore,
     .returnReason = "it answers 1603 when it succeeded",
     .schedule =
         "Deferred, elevated, `REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE`: nothing here puts the transform "
         "back for a newer version. Behind all other deferred actions of the package: on many machines it "
         "lets an error out. Declared `Return=\"ignore\"`: it answers 1603 when it succeeded.",
     .condition = "REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE",
     .place = "After=\"InstallInitialize\"",
     .reads =
         {{.root = "HKLM",
           .key = "SYSTEM\\CurrentControlSet\\Control\\DeviceClasses",
           .value = "CameraDeviceMftClsidChain",
           .meaning =
               "the chains, and the values CLSID, below three camera interface classes; a text where a "
               "list is expected lets an error out, which is usual: schedule it behind the other deferred "
               "actions"}},
     .changes =
         "Deletes a chain of one identifier; takes the suite's identifier out of a longer one and writes the "
         "rest to CameraDeviceMftClsidChain.",
     .deletes = {"the suite's identifier in the cameras' chains, and chains of a single identifier", true,
                 true},
     .takenBackNote = "Nothing takes it back.",
     .results = {{1603, Outcome::Done, "nothing failed (the result is inverted)"},
                 {0, Outcome::Failed, "a chain could not be deleted or written (the result is inverted)"}},
     .log = {{"Failed to delete registry key", "a chain of one identifier could not be deleted", {}},
             {"Failed to set multistring value", "a shortened chain could not be written", {}}},
     .onFailure = "0 means failure here: look at the access rights below "
                  "SYSTEM\\CurrentControlSet\\Control\\DeviceClasses."},
};

const std::vector<ActionFacts> kMsix = {
    {.name = "InstallContextMenuMSIX",
     .room = "MSIX packages",
     .purpose = "Installs the context-menu package and the certificate that signed it.",
     .impersonated = true,
     .onResult = Return::Ignore,
     .returnReason = "a certificate that the user may not import must not roll an install back",
     .schedule =
         "Deferred and impersonated (`Impersonate=\"yes\"`), after the files, where the two files are "
         "installed (`&ContextMenu=3` for a feature of that name). Packages cannot be added from the system "
         "account; a user without elevation, in turn, may not import the certificate into the machine's "
         "store: then the action answers 1603, although the package is added where its certificate is "
         "trusted already. Declared `Return=\"ignore\"`: that must not roll an install back.",
     .condition = "NOT REMOVE",
     .place = "Before=\"InstallFinalize\"",
     .changes = "Imports MyKey.cer into the machine's trusted roots and adds PhotoStoreDemoPkg.msix, both "
                "from Program "
                "Files\\ContextMenuDemo of the Windows drive, through Windows PowerShell.",
     .takenBackNote =
         "DeleteHXINSTALLDIRFolder and UninstallTAVOChat try to remove packages of other names; certificate "
         "and package stay.",
     .results = {{0, Outcome::Done, "certificate and package went well"},
                 {1603, Outcome::Failed, "the certificate or the package was refused, or a file is missing"}},
     .onFailure =
         "Run Import-Certificate and Add-AppxPackage by hand as the user: packages cannot be added from the "
         "system account (0x80073CF9), and the import needs an administrator."},
    {.name = "UninstallTAVOChat",
     .room = "MSIX packages",
     .purpose = "Removes the chat companion: package, folders and key.",
     .onResult = Return::Ignore,
     .returnReason = "its result is always 0",
     .schedule = "Deferred, elevated, `REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE`: in an upgrade the chat "
                 "and its data are the newer version's; declared `Return=\"ignore\"`.",
     .condition = "REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE",
     .place = "After=\"InstallInitialize\"",
     .reads = {kSettingsLocation,
               {.root = "HKLM",
                .key = "SOFTWARE\\TAVO\\HX\\Chat",
                .value = "InstallPath",
                .meaning = "the companion's folder"},
               {.root = "HKLM",
                .key = "SOFTWARE\\TAVO\\HX\\Chat",
                .value = "DataPath",
                .meaning = "the companion's data folder"}},
     .changes = "Closes the settings application (waits at most 30 seconds), runs a removal of the packages "
                "TavoCorporationInc-LSXCMCHAT*, deletes both folders and the key.",
     .deletes = {"the chat companion's folders with their data, and its key", true, true},
     .takenBackNote = "Nothing takes it back.",
     .results = {kAlwaysDone},
     .log = {kPackageCommandLine,
             kCommandOutputLine,
             {"UninstallTAVOChat: Exit code for LSX CM CHAT MSIX Package uninstall: %d",
              "the removal command's exit code",
              "255 or 9009 is usual: the command interpreter takes the pipe itself, "
              "and no package is ever removed."},
             {"UninstallTAVOChat: Got registry", "the companion's key is there", {}},
             {"UninstallTAVOChat: install path", "its folder was worked on", {}},
             {"UninstallTAVOChat: data path", "its data folder was worked on", {}},
             {"UninstallTAVOChat: deleted registry", "the key's deletion was tried",
              "It is written whether the key was there or not."}},
     .onFailure = "Without the line \"Got registry\" the key is missing: no folder was deleted then."},
};

const std::vector<ActionFacts> kSystemPath = {
    {.name = "SetEnvPath_IPU_WA",
     .room = "System path",
     .purpose = "Puts the suite's system folder on the system path.",
     .onResult = Return::Ignore,
     .returnReason = "its result is always 0",
     .schedule = "Deferred, elevated, `NOT REMOVE`; declared `Return=\"ignore\"`.",
     .condition = "CORVI_SYSTEM_PATH AND NOT REMOVE",
     .place = "Before=\"InstallFinalize\"",
     .reads = {kSystemPathRead},
     .guards = {kSystemPathGuard},
     .changes =
         "Puts Windows\\System32\\TAVO; of the Windows drive in front of the system path, unless it is there "
         "already, and tells all windows.",
     .takenBackNote = "Nothing takes it back: the entry outlives the product.",
     .results = {{0, Outcome::Done, "the entry is on the path, or the Windows directory is not known"}},
     .onFailure =
         "A path that cannot be read or written lets a registry error out: look at the value's type and "
         "rights."},
};

const std::vector<ActionFacts> kSettings = {
    {.name = "DeleteHXFolder",
     .room = "Settings application",
     .purpose = "Deletes the settings application's folder.",
     .onResult = Return::Ignore,
     .returnReason = "a missing folder is no failure",
     .schedule = "Deferred, elevated, `REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE`, after `RemoveFiles` "
                 "(what the installer removed itself comes back when the uninstall fails); declared "
                 "`Return=\"ignore\"`: a missing folder is no failure.",
     .condition = "REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE",
     .place = "After=\"RemoveFiles\"",
     .data = {.whole = "the folder, where the registry names none; at most 519 characters",
              .wholeExample = "[INSTALLFOLDER]",
              .optional = true},
     .reads = {kSettingsLocation},
     .changes = "Closes the application (at most 30 seconds), then deletes the folder; programs and modules "
                "in use go at "
                "the next restart.",
     .deletes = {"the settings application's folder with everything in it", true, true},
     .takenBackNote = "Nothing takes it back.",
     .results = {{0, Outcome::Done, "the folder was there and was worked on"},
                 {1, Outcome::Nothing, "there is no such folder"},
                 {0xFFFFFFFF, Outcome::Failed,
                  "the action data is needed and cannot be read or is too long"}},
     .onFailure = "Shorten the action data to 519 characters, or register the location."},
    {.name = "DeleteHXINSTALLDIRFolder",
     .room = "Settings application",
     .purpose = "Removes the application's packages, firewall rules and folder.",
     .onResult = Return::Ignore,
     .returnReason = "its result is always 0",
     .schedule = "Deferred, elevated, `REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE`, after `RemoveFiles` and "
                 "while the registry still holds the location (`package/settings_app.wxs` moves "
                 "`RemoveRegistryValues`); declared `Return=\"ignore\"`.",
     .condition = "REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE",
     .place = "After=\"InstallInitialize\"",
     .data = {.whole = "the folder, where the registry names none; at most 519 characters",
              .wholeExample = "[INSTALLFOLDER]",
              .optional = true},
     .reads = {kSettingsLocation},
     .changes = "Runs a removal of the packages TavoCorporationInc-LSXCM* and TavoCorporationInc-LSXCMCHAT*, "
                "deletes "
                "eight firewall rules by name, and the folder.",
     .deletes = {"firewall rules and the settings application's folder with everything in it", true, true},
     .takenBackNote = "Nothing takes it back.",
     .results = {kAlwaysDone},
     .log = {kPackageCommandLine,
             kCommandOutputLine,
             {"DeleteHXINSTALLDIRFolder: Exit code for LSX CM MSIX Package uninstall: %d",
              "the removal command's exit code",
              "255 or 9009 is usual: the command interpreter takes the pipe itself, "
              "and no package is ever removed."},
             {"DeleteHXINSTALLDIRFolder: Exit code for LSX CM CHAT MSIX Package uninstall: %d",
              "the removal command's exit code",
              "255 or 9009 is usual: the command interpreter takes the pipe itself, "
              "and no package is ever removed."},
             {"DeleteHXINSTALLDIRFolder: HXNEXT install location: %s", "the folder that is deleted", {}},
             {"DeleteHXINSTALLDIRFolder: Failed to delete HXNEXT directory. Exception occurred.",
              "the registry names no folder, and the action data could not be read or is longer than 519 "
              "characters",
              {}}},
     .onFailure = "Look at the line with the install location: without one no folder was deleted."},
    {.name = "DeleteHXNoUpgrade",
     .room = "Settings application",
     .purpose = "Deletes the application's keys on an uninstall that is no upgrade.",
     .onResult = Return::Ignore,
     .returnReason = "its result is always 0",
     .schedule = "Deferred, elevated, `REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE`, with a registry search "
                 "that tells that the key is there; declared `Return=\"ignore\"`.",
     .condition = "CORVI_SUITE_KEY AND REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE",
     .place = "After=\"InstallInitialize\"",
     .reads = {{.root = "HKLM",
                .key = "SOFTWARE\\TAVO",
                .absenceLetsErrorOut = true,
                .meaning = "the key whose subkeys go"}},
     .guards = {kSuiteKeyGuard},
     .changes = "Deletes the subkeys Install and HX of the machine key SOFTWARE\\TAVO.",
     .deletes = {"the machine keys SOFTWARE\\TAVO\\Install and SOFTWARE\\TAVO\\HX", true, true},
     .takenBackNote = "Nothing takes it back.",
     .results = {kAlwaysDone},
     .log = {{"DeleteHXINSTALLDIRFolder: Deleting Install registry result: %d",
              "the deletion's error; 0: gone, 2: it was not there",
              "The prefix is another action's: this line is "
              "DeleteHXNoUpgrade's."},
             {"DeleteHXINSTALLDIRFolder: Deleting HX registry result: %d",
              "the deletion's error; 0: gone, 2: it was not there",
              "The prefix is another action's: this line is "
              "DeleteHXNoUpgrade's."}},
     .onFailure = "The numbers in its two lines are the system's errors: 5 means that the key is refused."},
    {.name = "DeleteHXSlimINSTALLDIRFolder",
     .room = "Settings application",
     .purpose = "Deletes the folder of the slim edition that came before.",
     .onResult = Return::Ignore,
     .returnReason = "its result is always 0",
     .schedule = "Deferred, elevated, on a first install, `NOT Installed AND NOT WIX_UPGRADE_DETECTED`, only "
                 "where its key was found (see `SLIMLOCATION` in `package/settings_app.wxs`); declared "
                 "`Return=\"ignore\"`.",
     .condition = "CORVI_SLIM_LOCATION AND NOT Installed AND NOT WIX_UPGRADE_DETECTED",
     .place = "After=\"InstallInitialize\"",
     .reads = {{.root = "HKLM",
                .key = kCoreStaticKey,
                .value = "Location",
                .view32 = true,
                .absenceLetsErrorOut = true,
                .meaning = "the slim edition's folder; a key without the value deletes nothing"}},
     .guards = {kSlimGuard},
     .changes = "Deletes that folder.",
     .deletes = {"the slim edition's folder with everything in it", true, false},
     .takenBackNote = "Nothing takes it back.",
     .results = {kAlwaysDone},
     .onFailure = "Without the key (32-bit view) a registry error leaves the action."},
    {.name = "DeleteHXSparsePackageAssets",
     .room = "Settings application",
     .purpose = "Deletes the sparse package's assets.",
     .onResult = Return::Ignore,
     .returnReason = "its result is always 0",
     .schedule =
         "Deferred, elevated, `REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE` (in an upgrade the branding "
         "decides what stays), while the registry still holds the location; declared `Return=\"ignore\"`.",
     .condition = "REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE",
     .place = "After=\"InstallInitialize\"",
     .data = {.whole = "the folder, where the registry names none; at most 519 characters",
              .wholeExample = "[INSTALLFOLDER]",
              .optional = true},
     .reads = {kSettingsLocation},
     .changes = "Deletes the subfolders Assets and Strings and the file resources.pri of the location.",
     .deletes = {"Assets, Strings and resources.pri of the settings application's folder", true, true},
     .takenBackNote = "The package that carries the assets installs them again.",
     .results = {kAlwaysDone},
     .onFailure = "Without any location nothing is deleted."},
    {.name = "DeleteDMFTDirectory",
     .room = "Settings application",
     .purpose = "Deletes the camera components' folder.",
     .onResult = Return::Ignore,
     .returnReason = "its result is always 0",
     .schedule = "Deferred, elevated, `REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE` (what the user keeps in "
                 "the folder is the newer version's), after `RemoveFiles`; declared `Return=\"ignore\"`.",
     .condition = "REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE",
     .place = "After=\"RemoveFiles\"",
     .data =
         {.keys = {{.name = "InstallDir=",
                    .example = "[IMAGINGFOLDER]",
                    .meaning = "the folder that is deleted",
                    .misuse =
                        "A missing key gives another part of the text: some other folder may be deleted."}}},
     .changes = "Deletes the folder.",
     .deletes = {"the folder that the action data names, with everything in it", true, true},
     .takenBackNote = "Nothing takes it back.",
     .results = {kAlwaysDone},
     .log = {kActionDataLine},
     .onFailure = "Look at the action data: the folder behind InstallDir= is the one that goes."},
    {.name = "DelInstallProxyKey",
     .room = "Settings application",
     .purpose = "Deletes the older install proxy's key.",
     .onResult = Return::Ignore,
     .returnReason = "it answers 1 for success",
     .schedule = "Deferred, elevated, on a first install, `NOT Installed AND NOT WIX_UPGRADE_DETECTED`; "
                 "declared `Return=\"ignore\"`: it answers 1 for success.",
     .condition = "NOT Installed AND NOT WIX_UPGRADE_DETECTED",
     .place = "After=\"InstallInitialize\"",
     .changes =
         "Deletes the machine key SOFTWARE\\Wow6432Node\\QEL\\ACE\\Settings\\MOM\\Install, when it has no "
         "subkeys.",
     .deletes = {"the older install proxy's key", true, false},
     .takenBackNote = "Nothing takes it back.",
     .results = {{1, Outcome::Done, "the key was deleted"},
                 {0, Outcome::Nothing, "it was not: it is missing, has subkeys or is refused"}},
     .log = {{"SABLE_CA: DelInstallProxyKey", "the action has started", {}},
             {"SABLE_CA: DelInstallProxyKey successfully", "the key was deleted", {}}},
     .onFailure = "0 is usual: most machines have no such key."},
    {.name = "LaunchInstallProxyHX",
     .room = "Settings application",
     .purpose = "Runs the older install proxy that hands over to the command-line client.",
     .onResult = Return::Ignore,
     .returnReason = "it answers 1 for success",
     .schedule = "Deferred, elevated, after the files, on a first install, `NOT Installed AND NOT "
                 "WIX_UPGRADE_DETECTED`; declared `Return=\"ignore\"`: it answers 1 for success.",
     .condition = "NOT Installed AND NOT WIX_UPGRADE_DETECTED",
     .place = "Before=\"InstallFinalize\"",
     .data = {.whole = "the install folder; without it the path of the proxy names a server",
              .wholeExample = "[INSTALLFOLDER]"},
     .reads =
         {{.root = "HKLM", .key = kCoreStaticKey, .value = "Location", .meaning = "the client's folder"}},
     .changes = "Runs MOM.InstallProxy.exe Install <client> from the install folder's MOM-InstallProxy-Net4 "
                "and waits "
                "without limit.",
     .takenBackNote = "What the proxy does is its own to take back.",
     .results = {{1, Outcome::Done, "the proxy was started and has ended; its own answer is not read"},
                 {0, Outcome::Nothing, "there is no client, or the proxy could not be started"}},
     .log = {{"SABLE_CA DeleteFolder: %s", "the command-line client that the proxy is given",
              "Nothing is deleted, whatever the line says."},
             {"SABLE_CA Could not get INSTALLDIR", "the action data is longer than 519 characters",
              "It is the action data, not a property INSTALLDIR."}},
     .onFailure = "0 is usual where the older client is not installed."},
};

const std::vector<ActionFacts> kProfileClient = {
    {.name = "PreInstallPPC",
     .room = "Performance-profile client and TUEP",
     .purpose = "Clears the older profile client and a running TUEP away before the new files.",
     .onResult = Return::Ignore,
     .returnReason = "its result is always 0",
     .schedule = "Deferred, elevated, before `InstallFiles`, `NOT Installed`, never on a repair: when it "
                 "runs, the installer has already decided which files it leaves as they are, and their "
                 "folder goes. Declared `Return=\"ignore\"`.",
     .condition = "NOT Installed",
     .place = "After=\"InstallInitialize\"",
     .reads = {{.root = "HKLM",
                .key = kDriverServiceKey,
                .value = "ImagePath",
                .meaning = "where the driver service's program lies; its versions V18 to V24 are asked too"}},
     .changes = "Asks their programs to close, stops and deletes the services PPCL and TUEPLauncher, deletes "
                "the folder "
                "TAVO\\Performance Profile Client, and stops and deletes driver services whose program lies "
                "in a path "
                "with the words Performance Profile Client.",
     .deletes = {"the program folder TAVO\\Performance Profile Client and its services", true, false},
     .takenBackNote = "PostInstallPPC installs the service again.",
     .results = {kAlwaysDone},
     .log = {{"UnInstallPPC() Service location - %s", "a driver service of the older client is removed",
              "The prefix is another action's: PreInstallPPC writes it too."},
             kManagerFailedLine,
             kServiceFailedLine,
             kStopFailedLine},
     .onFailure =
         "It waits up to 30 seconds for each service; a service with a long wait hint can take longer."},
    {.name = "PostInstallPPC",
     .room = "Performance-profile client and TUEP",
     .purpose = "Installs and starts the TUEP launcher service, its task and its settings.",
     .onResult = Return::Check,
     .returnReason = "1603 means that there is no event log to write to",
     .schedule = "Deferred, elevated, after the files, `NOT REMOVE`. `Return=\"check\"`: 1603 means that "
                 "there is no event log to write to. Its rollback takes the data of an earlier copy as well: "
                 "on a first install only, and where no other copy was found.",
     .condition = "NOT REMOVE",
     .place = "Before=\"InstallFinalize\"",
     .data = {.keys = {kTaskNameKey, kCommandKey, kUserNameKey}},
     .reads =
         {kClaimantRead,
          {.root = "HKLM",
           .key = kTuepKey,
           .value = "GUID",
           .meaning = "the machine's GUID; one that is there stays"},
          {.root = "HKLM",
           .key = "SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\TAVO Prism Install "
                  "Manager",
           .value = "InstallDir",
           .meaning = "the install manager's folder, beside which the service's program lies; at most 130 "
                      "characters"},
          {.root = "HKLM",
           .key = kProfileClientKey,
           .value = "InstallDir",
           .meaning =
               "where the service's program lies when that folder does not exist; at most 130 characters"}},
     .searches = {kTuepSearch},
     .changes =
         "Writes Disable Performance Counters and, once, a new GUID under Software\\TUEP; gives Users full "
         "control of TAVO\\PPC below the common application data; creates and starts the service "
         "TUEPLauncher; "
         "registers the logon task and runs it; marks the client as holding TUEP and deletes TUEPClient.",
     .takenBackBy = "UnInstallPPC",
     .takenBackNote = "The GUID, the performance counters' value and the access list stay.",
     .rollback = "UnInstallPPC",
     .rollbackCondition = "NOT Installed AND NOT CORVI_TUEP_LOCATION",
     .results = {{0, Outcome::Done,
                  "TUEP is set up, whether its service starts or not; or there is no action data"},
                 {1603, Outcome::Failed, "the event source cannot be registered, and nothing was done"}},
     .log = {kActionDataLine,
             kTaskNameLine,
             kCommandLine,
             kUserNameLine,
             {"AfterInstallPPC::Registry status %d",
              "the analytics key's opening; 0: open, 2: it is not there",
              "The prefix is another action's: this line is PostInstallPPC's."},
             {"AfterInstallPPC::Client Name %s", "the client that holds TUEP now",
              "The prefix is another action's: this line is PostInstallPPC's."}},
     .onFailure = "1603 comes from the event log alone: look whether the event log service runs."},
    {.name = "UnInstallPPC",
     .room = "Performance-profile client and TUEP",
     .purpose = "Removes the performance-profile client and TUEP.",
     .onResult = Return::Ignore,
     .returnReason = "its result is always 0",
     .schedule = "Deferred, elevated, `REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE` (the user's data goes "
                 "with it), after `CheckForClients`; declared `Return=\"ignore\"`.",
     .condition = "REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE",
     .place = "After=\"InstallInitialize\"",
     .reads = {{.root = "HKLM",
                .key = kDriverServiceKey,
                .value = "ImagePath",
                .meaning = "where the driver service's program lies; its versions V18 to V26 are asked too"}},
     .changes =
         "Deletes the task StartTUEP; asks programs to close, deletes both services, both program folders "
         "(what "
         "remains is moved to the temporary folder and deleted at the next restart), their registry keys in "
         "both "
         "views and driver services whose program lies there; sets TUEP of SOFTWARE\\TAVO\\Install to 1.",
     .deletes = {"TUEP as a whole: task, services, program folders and keys", true, true},
     .takenBackNote = "PostInstallPPC sets TUEP up again.",
     .results = {kAlwaysDone},
     .log = {{"Sable_CA Failed to MoveFile UnInstallPPC() - %s", "that folder was not moved or scheduled",
              "After a clean removal four such lines are usual: the folders are simply gone."},
             {"UnInstallPPC() Service location - %s", "a driver service of the client is removed", {}},
             kManagerFailedLine,
             kServiceFailedLine,
             kStopFailedLine},
     .onFailure = "What is in use goes at the next restart, from the temporary folder."},
    {.name = "AfterInstallPPC",
     .room = "Performance-profile client and TUEP",
     .purpose = "Starts the TUEP launcher service after the install.",
     .onResult = Return::Ignore,
     .returnReason = "its result is always 0",
     .schedule = "Deferred, elevated, after `PostInstallPPC`; declared `Return=\"ignore\"`.",
     .condition = "CORVI_SYSTEM_PATH AND NOT REMOVE",
     .place = "Before=\"InstallFinalize\"",
     .reads = {{.root = "HKLM",
                .key = kSessionManagerKey,
                .absenceLetsErrorOut = true,
                .meaning = "the pending renames; they stay as they are"}},
     .guards = {kSystemPathGuard},
     .changes = "Starts the service TUEPLauncher.",
     .takenBackBy = "UnInstallPPC",
     .takenBackNote = "UnInstallPPC stops and deletes the service.",
     .results = {{0, Outcome::Done, "always, whether the service runs or not"}},
     .onFailure = "A session manager key that cannot be opened lets a registry error out."},
};

const std::vector<ActionFacts> kAnalytics = {
    {.name = "DisabelAnalyticsKey",
     .room = "Analytics consent",
     .purpose = "Records that the user declined analytics.",
     .execution = Execution::Immediate,
     .onResult = Return::Ignore,
     .returnReason = "its result is always 0",
     .schedule = "Immediate, after `InstallFinalize`, `NOT REMOVE`: it reads a property; declared "
                 "`Return=\"ignore\"`. The installing process must be elevated.",
     .condition = "NOT REMOVE",
     .place = "After=\"InstallFinalize\"",
     .properties = {"DISABLEANALYTICS"},
     .changes = "AnalyticsAccepted = false in SOFTWARE\\TAVO\\TAVOAnalytics, if that key exists.",
     .takenBackBy = "DeleteAnalyticsKey",
     .results = {{0, Outcome::Done, "always, whether something was written or not"}},
     .onFailure =
         "The installing process must be elevated, the key must exist, and DISABLEANALYTICS must begin with "
         "yes; in a full-UI install it must stand in SecureCustomProperties."},
    {.name = "EnableAnalyticsKey",
     .room = "Analytics consent",
     .purpose = "Records that the user accepted analytics.",
     .onResult = Return::Check,
     .returnReason = "an install without a recorded consent must not pass",
     .schedule =
         "Deferred, elevated, after the files, on a first install only, `NOT Installed AND NOT "
         "WIX_UPGRADE_DETECTED`, and not where a registry search finds `AnalyticsAccepted` = `false`: a "
         "refused consent survives repairs, upgrades and newer copies. `Return=\"check\"`. Its rollback "
         "deletes the whole key: only where nothing was in it before.",
     .condition = "NOT Installed AND NOT WIX_UPGRADE_DETECTED AND CORVI_ANALYTICS_CONSENT ~<> \"false\"",
     .place = "Before=\"InstallFinalize\"",
     .searches = {kConsentSearch, kClaimantSearch},
     .changes =
         "TUEP = 0 in SOFTWARE\\TAVO\\Install; AnalyticsAccepted = true in SOFTWARE\\TAVO\\TAVOAnalytics, "
         "created if needed.",
     .takenBackBy = "DeleteAnalyticsKey",
     .takenBackNote = "The value TUEP of SOFTWARE\\TAVO\\Install stays.",
     .rollback = "DeleteAnalyticsKey",
     .rollbackCondition = "NOT Installed AND NOT CORVI_ANALYTICS_CONSENT AND NOT CORVI_TUEP_CLAIMANT",
     .results = {{0, Outcome::Done, "the consent is recorded, or the value was refused"}},
     .onFailure =
         "A key that can neither be opened nor created lets a registry error out: look at the rights of "
         "SOFTWARE\\TAVO."},
    {.name = "DeleteAnalyticsKey",
     .room = "Analytics consent",
     .purpose = "Deletes the analytics key.",
     .onResult = Return::Ignore,
     .returnReason = "its result is always 0",
     .schedule = "Deferred, elevated, `REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE`: the user's answer is "
                 "the newer version's; declared `Return=\"ignore\"`.",
     .condition = "REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE",
     .place = "After=\"InstallInitialize\"",
     .reads = {{.root = "HKLM", .key = kAnalyticsKey, .meaning = "the key that goes"}},
     .changes = "Deletes SOFTWARE\\TAVO\\TAVOAnalytics, when it has no subkeys.",
     .deletes = {"the user's answer about analytics", true, true},
     .takenBackNote = "EnableAnalyticsKey creates the key again; a refused consent is lost.",
     .results = {{0, Outcome::Done, "always, whether the key was deleted or not"}},
     .log = {{"Could not access PPC Key", "the analytics key is missing or refused",
              "PPC Key means SOFTWARE\\TAVO\\TAVOAnalytics."},
             {"PPC Key deleted", "the analytics key was deleted",
              "PPC Key means SOFTWARE\\TAVO\\TAVOAnalytics."},
             {"PPC Key not deleted", "the analytics key has subkeys or is refused",
              "PPC Key means SOFTWARE\\TAVO\\TAVOAnalytics."}},
     .onFailure = "A key with subkeys stays."},
};

const std::vector<ActionFacts> kRecording = {
    {.name = "DeleteWVRFolder",
     .room = "Recording and VR",
     .purpose = "Deletes the VR component's folder.",
     .onResult = Return::Ignore,
     .returnReason = "its result is always 0",
     .schedule = "Deferred, elevated, `REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE` (what the user keeps in "
                 "the folder is the newer version's), after `RemoveFiles` and while the registry still names "
                 "it; declared `Return=\"ignore\"`.",
     .condition = "REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE",
     .place = "Before=\"RemoveRegistryValues\"",
     .reads = {kSettingsLocation, kVRLocation},
     .changes = "Closes the settings application; deletes WVR below that folder, and the folder itself when "
                "it is empty "
                "then.",
     .deletes = {"the VR component's folder with everything in it", true, true},
     .takenBackNote = "Nothing takes it back.",
     .results = {kAlwaysDone},
     .onFailure = "Without the registered folder nothing is deleted; it must end in a backslash."},
    {.name = "UnRegisterWVR",
     .room = "Recording and VR",
     .purpose = "Takes the VR driver out of SteamVR.",
     .impersonated = true,
     .onResult = Return::Ignore,
     .returnReason = "its result is always 0",
     .schedule = "Deferred and impersonated (`Impersonate=\"yes\"`: the tool edits a file of the calling "
                 "user), `REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE` (nothing here registers the driver "
                 "again), before the files go; declared `Return=\"ignore\"`.",
     .condition = "REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE",
     .place = "After=\"InstallInitialize\"",
     .reads = {kSettingsLocation,
               kVRLocation,
               {.root = "HKLM",
                .key = "SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\Steam App 250820",
                .value = "InstallLocation",
                .meaning = "SteamVR's folder"}},
     .changes =
         "Closes the settings application; runs vrpathreg.exe removedriver with the driver folder and waits.",
     .deletes = {"the VR driver's entry in SteamVR's list", true, true},
     .takenBackNote = "Nothing takes it back: the VR component registers itself.",
     .results = {kAlwaysDone},
     .onFailure = "Without SteamVR nothing runs; its tool edits the calling user's file, so the action must "
                  "run as that "
                  "user."},
    {.name = "TrackDVRAnalytics",
     .room = "Recording and VR",
     .purpose = "Records once that recording was enabled.",
     .onResult = Return::Ignore,
     .returnReason = "it answers 1 when it did its work",
     .schedule = "Deferred, elevated, after the registry values, `NOT REMOVE`; declared `Return=\"ignore\"`: "
                 "it answers 1 when it did its work.",
     .condition = "NOT REMOVE",
     .place = "Before=\"InstallFinalize\"",
     .reads = {{.root = "HKLM",
                .key = "SOFTWARE\\QEL Technologies\\Install",
                .value = "TAVODVR_Enabled",
                .meaning = "1: recording is enabled"},
               {.root = "HKLM", .key = "SOFTWARE\\TAVODVR", .meaning = "there already: nothing is done"}},
     .changes = "Creates SOFTWARE\\TAVODVR with TAVODVR_Tracked = 1.",
     .takenBackNote = "Nothing takes it back: the key outlives the product.",
     .results = {{1, Outcome::Done, "the tracking key was created"},
                 {0, Outcome::Nothing, "it was there already, or recording is not enabled"}},
     .onFailure = "0 is usual from the second install on."},
    {.name = "DeleteandRetainValues",
     .room = "Recording and VR",
     .purpose = "Clears the branding folder, keeping what the branding content names.",
     .onResult = Return::Ignore,
     .returnReason = "its result is always 0",
     .schedule = "Deferred, elevated, when an upgrade removes the older version (`REMOVE=\"ALL\" AND "
                 "UPGRADINGPRODUCTCODE`), after `RemoveFiles` and while the registry still names the folder; "
                 "declared `Return=\"ignore\"`. Register the folder without a separator at its end, and name "
                 "in the branding list what must survive, other products' files in it included.",
     .condition = "REMOVE=\"ALL\" AND UPGRADINGPRODUCTCODE",
     .place = "After=\"InstallInitialize\"",
     .reads =
         {{.root = "HKLM", .key = "SOFTWARE\\TAVOBranding", .meaning = "what is kept"},
          {.root = "HKLM", .key = kHXKey, .value = "HXBrandingInstallDir", .meaning = "the branding folder"}},
     .changes = "Deletes every entry of that folder, except those whose whole path a branding text names "
                "and, when the "
                "branding names Skins, those whose path contains Skins.",
     .deletes = {"the branding folder's entries that the branding does not name", true, false},
     .takenBackNote = "Nothing takes it back: the newer version installs its own content.",
     .results = {kAlwaysDone},
     .onFailure = "Without branding content everything in the folder goes."},
};

const std::vector<ActionFacts> kInstallManager = {
    {.name = "SetDCLogFileRegistry",
     .room = "Install manager and driver",
     .purpose = "Points the display driver's diagnostic log at a file in the temporary folder.",
     .onResult = Return::Ignore,
     .returnReason = "its result is always 0",
     .schedule = "Deferred, elevated, after the driver is installed; declared `Return=\"ignore\"`.",
     .condition = "NOT Installed",
     .place = "Before=\"InstallFinalize\"",
     .changes = "Creates TAVO\\HX\\Analytics in the temporary folder; writes DalDCELogFilePath and "
                "DalDCEFilePathSize "
                "into the driver key of each display adapter of the suite.",
     .takenBackNote = "The values go with the driver's key; the folder stays.",
     .results = {kAlwaysDone},
     .onFailure = "As a deferred action its temporary folder is the system account's."},
    {.name = "PreInstallKMSDK",
     .room = "Install manager and driver",
     .purpose = "Removes stale services of the processor-tuning driver before its SDK is installed.",
     .onResult = Return::Ignore,
     .returnReason = "its result is always 0",
     .schedule = "Deferred, elevated, before the files, `NOT Installed`, in an upgrade as well: these "
                 "services are stale whichever version left them; declared `Return=\"ignore\"`.",
     .condition = "NOT Installed",
     .place = "After=\"InstallInitialize\"",
     .reads = {{.root = "HKLM",
                .key = kDriverServiceKey,
                .value = "ImagePath",
                .meaning = "where the driver service's program lies; its versions V18 to V24 are asked too"}},
     .changes = "Stops and deletes each of six services whose program is system32\\TavoKyrnMasterDriver.sys.",
     .deletes = {"stale driver services of the processor-tuning SDK", true, false},
     .takenBackNote = "Nothing takes it back: the SDK's own driver replaces them.",
     .results = {kAlwaysDone},
     .log = {{"PreInstallKMSDK() Service location - %s", "a stale driver service is removed", {}},
             kManagerFailedLine,
             kServiceFailedLine,
             kStopFailedLine},
     .onFailure = "A service that runs on is only marked for deletion."},
    {.name = "PostUnInstallKITE",
     .room = "Install manager and driver",
     .purpose = "Removes what the install manager leaves: its process, tasks, folder and key.",
     .onResult = Return::Ignore,
     .returnReason = "its result is always 0",
     .schedule =
         "Deferred, elevated, `REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE`, while the registry still names "
         "its folder, and before the files go: it ends the running program. Declared `Return=\"ignore\"`.",
     .condition = "REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE",
     .place = "After=\"InstallInitialize\"",
     .reads = {{.root = "HKLM",
                .key = "SOFTWARE\\TAVO\\TAVOInstallManager",
                .value = "InstallLocation",
                .meaning = "the install manager's folder"}},
     .changes = "Ends TAVOInstallManager.exe, deletes its four tasks, the folder and the key.",
     .deletes = {"the install manager's tasks, its folder with everything in it, and its key", true, true},
     .takenBackNote = "Nothing takes it back.",
     .results = {kAlwaysDone},
     .log = {{"PostUnInstallKITE: Exit code for %s Scheduled task deletion: %d",
              "schtasks' exit code for that task; 1: it was not there, which is no failure",
              {}}},
     .onFailure = "A task that is not there is logged with exit code 1 and does not stop the action."},
};

const std::vector<Room> kRooms = {
    {"Launch guard",
     "Immediate: they read a property of the session or decide before anything is changed, and their refusal "
     "must stop "
     "the install. DeleteQELKey changes the machine: deferred, as the system account."},
    {"Logon tasks",
     "A missing install location (1603) must stop an install; the other results, 1 for success among them, "
     "are no "
     "failures. The removals roll back by creating: the files are back by then."},
    {"Benchmark task",
     "Creation reads the installing user's own registry hive, so it runs as that user. Without an elevated "
     "installer "
     "that user may not open the machine's key for writing: a convenience that must not roll an install "
     "back."},
    {"Elevated task", "1 means that the task was not registered, which the install must not hide."},
    {"Services", "Its result is always 0."},
    {"Closing the applications", "1603 says that a tool is missing; an uninstall goes on all the same."},
    {"Arbitration of the user-experience program",
     "259 (skip, successfully) and 1602 (keep it, ended as cancelled) must reach the installer."},
    {"Camera components",
     "A failed registration (1603) stops an install. Unregistering must not stop an uninstall, and "
     "DeleteOPTXCameraGUID answers 1603 when it succeeded."},
    {"MSIX packages",
     "They are added for a user, never from the system account; a certificate that this user may not import "
     "must not "
     "roll an install back."},
    {"System path", "Its result is always 0."},
    {"Settings application",
     "Housekeeping whose results are no failures: DelInstallProxyKey and LaunchInstallProxyHX answer 1 for "
     "success, "
     "DeleteHXFolder non-zero for a missing folder."},
    {"Performance-profile client and TUEP",
     "Only PostInstallPPC has a result that must stop an install (1603)."},
    {"Analytics consent", "DisabelAnalyticsKey reads a property that deferred actions cannot see."},
    {"Recording and VR",
     "TrackDVRAnalytics answers 1 when it did its work; UnRegisterWVR runs SteamVR's tool, which edits a "
     "file of the "
     "calling user."},
    {"Install manager and driver", "Their results are always 0."},
};

std::vector<ActionFacts> Everything() {
    std::vector<ActionFacts> all;
    for (const auto* room : {&kLaunchGuard, &kLogonTasks, &kBenchmarkTask, &kElevatedTask, &kServices,
                             &kClosing, &kArbitration, &kCamera, &kMsix, &kSystemPath, &kSettings,
                             &kProfileClient, &kAnalytics, &kRecording, &kInstallManager}) {
        std::copy(room->begin(), room->end(), std::back_inserter(all));
    }
    return all;
}

char Lowered(char character) {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character + ('a' - 'A')) : character;
}

}  // namespace

const std::vector<Room>& AllRooms() { return kRooms; }

const std::vector<ActionFacts>& AllActions() {
    static const std::vector<ActionFacts> all = Everything();
    return all;
}

const ActionFacts* FindAction(std::string_view name) {
    const auto& all = AllActions();
    const auto found =
        std::find_if(all.begin(), all.end(), [&](const ActionFacts& facts) { return facts.name == name; });
    return found == all.end() ? nullptr : &*found;
}

std::size_t Distance(std::string_view left, std::string_view right) {
    std::vector<std::size_t> row(right.size() + 1);
    for (std::size_t column = 0; column <= right.size(); ++column) {
        row[column] = column;
    }
    for (std::size_t line = 1; line <= left.size(); ++line) {
        std::size_t diagonal = row[0];
        row[0] = line;
        for (std::size_t column = 1; column <= right.size(); ++column) {
            const bool same = Lowered(left[line - 1]) == Lowered(right[column - 1]);
            const std::size_t changed = diagonal + (same ? 0 : 1);
            diagonal = row[column];
            row[column] = std::min({row[column] + 1, row[column - 1] + 1, changed});
        }
    }
    return row[right.size()];
}

const ActionFacts* NearestAction(std::string_view name) {
    const ActionFacts* nearest = nullptr;
    std::size_t least = name.size() / 3 + 2;
    for (const ActionFacts& facts : AllActions()) {
        const std::size_t distance = Distance(name, facts.name);
        if (distance < least) {
            least = distance;
            nearest = &facts;
        }
    }
    return nearest;
}

const Result* ResultMeaning(const ActionFacts& action, std::uint32_t code) {
    const Result* other = nullptr;
    for (const Result& result : action.results) {
        if (result.code == code) {
            return &result;
        }
        if (!result.code) {
            other = &result;
        }
    }
    return other;
}

}  // namespace corvi::tool
