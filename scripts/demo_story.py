"""The story that the demonstration tells: one entry a run of the installer.

title, log (name of the log file), msiexec (its arguments), result (expected exit code), actions (custom
actions that must have run), expect (what must be there afterwards: a text for a value, True for anything,
None for absent), plant (what is put on the machine before)."""

DRIVER = "C:\\corvi\\graphics_driver.msi"
DRIVER_TOOL = "file C:\\Program Files\\TAVO\\Graphics Driver\\DriverTool.exe"
QEL_KEY = "key HKLM\\SOFTWARE\\QEL"

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
        "actions": ["BlockLaunch", "BlockKITELaunch", "DeleteQELKey"],
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
]
