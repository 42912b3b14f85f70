"""The story that the demonstration tells: one entry a run of the installer.

title, log (name of the log file), msiexec (its arguments), result (expected exit code), actions (custom
actions that must have run), expect (what must be there afterwards: a text for a value, True for anything,
None for absent), plant (what is put on the machine before), note (what a reader should know)."""

FOLDER = "C:\\Program Files\\TAVO"
DRIVER = "C:\\corvi\\graphics_driver.msi"
DRIVER_TOOL = f"file {FOLDER}\\Graphics Driver\\DriverTool.exe"
QEL_KEY = "key HKLM\\SOFTWARE\\QEL"

SETTINGS = "C:\\corvi\\settings_app_1.0.0.msi"
SETTINGS_TOOL = f"file {FOLDER}\\HXNext\\hxcmd.exe"
RECORDING = "C:\\corvi\\recording.msi"

CAMERA = "C:\\corvi\\camera.msi"
SDK = "C:\\corvi\\tuning_sdk.msi"
MANAGER = "C:\\corvi\\install_manager.msi"

TUEP = "C:\\corvi\\profile_client_{}.msi CLIENTNAME={}"
UPLOADER = f"file {FOLDER}\\Performance Profile Client\\TUEPDU.exe"
LSX_STATUS = "value HKLM\\SOFTWARE\\TUEP | LSX_TUEPStatus"
DVR_STATUS = "value HKLM\\SOFTWARE\\TUEP | DVR_TUEPStatus"
CLAIMANT = "value HKLM\\SOFTWARE\\TAVO\\TAVOAnalytics | TUEPClient"

STEPS = [
    {
        "title": "The driver's package, started by hand: it is blocked, and nothing changes",
        "log": "driver-blocked",
        "plant": [("value HKLM\\SOFTWARE\\QEL\\Old | Setting", "left by an older driver")],
        "msiexec": f"/i {DRIVER}",
        "result": 1603,
        "actions": ["BlockLaunch"],
        "expect": {QEL_KEY: True, DRIVER_TOOL: None},
    },
    {
        "title": "The same package, started by the install manager: it installs, the old key goes",
        "log": "driver-install",
        "msiexec": f"/i {DRIVER} LAUNCHED_FROM_PIM=1",
        "result": 0,
        "actions": ["BlockLaunch", "BlockKITELaunch", "DeleteQELKey", "SetDCLogFileRegistry"],
        "expect": {QEL_KEY: None, DRIVER_TOOL: True},
    },
    {
        "title": "The package is uninstalled",
        "log": "driver-uninstall",
        "msiexec": f"/x {DRIVER}",
        "result": 0,
        "actions": [],
        "expect": {DRIVER_TOOL: None},
    },
    {
        "title": "The settings application: its logon task comes from its own task file",
        "log": "settings-install",
        "plant": [("value HKLM\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run | StartHX", "an older autostart")],
        "msiexec": f"/i {SETTINGS}",
        "result": 0,
        "actions": ["CreateLogonSchTask", "DeleteSchedTaskonBranding", "CreateBenchMarkRunOnceSchTask",
                    "InstallContextMenuMSIX", "LaunchHX"],
        "expect": {SETTINGS_TOOL: True, "task StartHX": True, "task StartHXBM": True,
                   "value HKLM\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run | StartHX": None},
    },
    {
        "title": "Recording joins it in the same folder",
        "log": "recording-install",
        "msiexec": f"/i {RECORDING}",
        "result": 0,
        "actions": ["CreateDVRLogonSchTask", "TrackDVRAnalytics"],
        "expect": {"task StartDVR": True, "value HKLM\\SOFTWARE\\TAVODVR | TAVODVR_Tracked": "0x1"},
    },
    {
        "title": "Recording is uninstalled: its server is asked to exit, task and VR folder go",
        "log": "recording-uninstall",
        "msiexec": f"/x {RECORDING}",
        "result": 0,
        "actions": ["ShutDownDVR", "TerminateDVRApp", "RemoveDVRSchedularTask", "UnRegisterWVR",
                    "DeleteWVRFolder"],
        "expect": {"task StartDVR": None, f"file {FOLDER}\\VR": None, SETTINGS_TOOL: True},
    },
    {
        "title": "The settings application is uninstalled: tasks, packages, firewall rules, folder and keys go",
        "log": "settings-uninstall",
        "plant": [(f"file {FOLDER}\\HXNext\\made-later.txt", "not of the package")],
        "msiexec": f"/x {SETTINGS}",
        "result": 0,
        "actions": ["ShutDownPQRNext", "RemoveHXSchedularTask", "UninstallTAVOChat", "DeleteHXINSTALLDIRFolder",
                    "DeleteHXNoUpgrade", "DeleteHXFolder"],
        "expect": {"task StartHX": None, "task StartHXBM": None, f"file {FOLDER}\\HXNext": None,
                   "key HKLM\\SOFTWARE\\TAVO\\HX": None},
        "note": "Wine has no PowerShell that removes packages: their removal ends with an error code.",
    },
    {
        "title": "The camera's package registers its DLLs and extends the system path",
        "log": "camera-install",
        "msiexec": f"/i {CAMERA}",
        "result": 0,
        "actions": ["SetPermissionsRegisterDLL", "SetEnvPath_IPU_WA"],
        "expect": {f"file {FOLDER}\\Camera\\CameraServer.dll": True},
    },
    {
        "title": "It is uninstalled; DeleteOPTXCameraGUID's inverted result does not stop that",
        "log": "camera-uninstall",
        "msiexec": f"/x {CAMERA}",
        "result": 0,
        "actions": ["UnregisterDLL", "DeleteOPTXCameraGUID", "DeleteDMFTDirectory"],
        "expect": {f"file {FOLDER}\\Camera": None},
    },
    {
        "title": "The tuning SDK removes a stale driver service before it installs",
        "log": "sdk-install",
        "plant": [("service TAVOKyrnMasterDriverV20", "C:\\windows\\system32\\TavoKyrnMasterDriver.sys")],
        "msiexec": f"/i {SDK} LAUNCHED_FROM_PIM=1",
        "result": 0,
        "actions": ["LaunchedFromPIM", "PreInstallKMSDK"],
        "expect": {"service TAVOKyrnMasterDriverV20": None},
    },
    {
        "title": "The install manager registers the task that updates it",
        "log": "manager-install",
        "msiexec": f"/i {MANAGER}",
        "result": 0,
        "actions": ["BlockKITELaunch", "CreateTriggerlessElevatedScheduleTask"],
        "expect": {"task TAVO Install Manager Self Update": True},
    },
    {
        "title": "It is uninstalled: its tasks, folder and key go",
        "log": "manager-uninstall",
        "msiexec": f"/x {MANAGER}",
        "result": 0,
        "actions": ["PostUnInstallKITE"],
        "expect": {"task TAVO Install Manager Self Update": None, f"file {FOLDER}\\Install Manager": None,
                   "key HKLM\\SOFTWARE\\TAVO\\TAVOInstallManager": None},
    },
    {
        "title": "TUEP: the first client (LSX) installs it",
        "log": "tuep-first-client",
        "msiexec": "/i " + TUEP.format("1.5.0", "LSX"),
        "result": 0,
        "actions": ["CheckForClients", "PreInstallPPC", "PostInstallPPC", "AfterInstallPPC", "EnableAnalyticsKey",
                    "DisabelAnalyticsKey"],
        "expect": {UPLOADER: True, "service TUEPLauncher": True, LSX_STATUS: "0x1", DVR_STATUS: None,
                   CLAIMANT: None},
    },
    {
        "title": "TUEP: a second client (DVR) with an older copy is told to skip",
        "log": "tuep-older-copy",
        "msiexec": "/i " + TUEP.format("1.0.0", "DVR"),
        "result": 0,
        "actions": ["CheckForClients"],
        "expect": {LSX_STATUS: "0x1", DVR_STATUS: "0x1"},
        "note": "CheckForClients answered 259: Windows skips the rest, successfully. Wine's installer goes on.",
    },
    {
        "title": "TUEP: the first client's uninstall keeps it while the second holds it",
        "log": "tuep-kept",
        "msiexec": "/x " + TUEP.format("1.5.0", "LSX"),
        "result": 1602,
        "actions": ["CheckForClients"],
        "expect": {"service TUEPLauncher": True, LSX_STATUS: "0x2", CLAIMANT: "LSX"},
        "note": "CheckForClients answered 1602: the installer ends as cancelled before anything is removed.",
    },
    {
        "title": "TUEP: a newer copy replaces the registration of the older ones",
        "log": "tuep-newer-copy",
        "msiexec": "/i " + TUEP.format("2.0.0", "DVR"),
        "result": 0,
        "actions": ["CheckForClients", "PostInstallPPC"],
        "expect": {UPLOADER: True, DVR_STATUS: "0x1"},
    },
    {
        "title": "TUEP: the last client's uninstall removes it",
        "log": "tuep-last-client",
        "msiexec": "/x " + TUEP.format("2.0.0", "DVR"),
        "result": 0,
        "actions": ["CheckForClients", "UnInstallPPC", "DeleteAnalyticsKey"],
        "expect": {UPLOADER: None, "service TUEPLauncher": None, "task StartTUEP": None},
    },
]
