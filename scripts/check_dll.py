#!/usr/bin/env python3
"""The finished DLL against its budget: size, imports from Windows system DLLs only, and no library code
that needs a locale. usage: check_dll.py FILE"""

import os
import re
import subprocess
import sys

SIZE_BUDGET = 330_000  # bytes, stripped: the installer writes the file out for every single call
SYSTEM_DLLS = {
    "advapi32.dll", "kernel32.dll", "msi.dll", "msvcrt.dll", "ole32.dll", "oleaut32.dll", "setupapi.dll",
    "shell32.dll", "shlwapi.dll", "user32.dll", "xmllite.dll",
}
# Symbols that only stand in the DLL when a stream, a locale, a regular expression or the file-system
# library was linked in.
BANNED_SYMBOLS = re.compile(r"std::(locale::|basic_[io]?stream<|filesystem::|__cxx11::(basic_regex|regex))")


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def main(path):
    complaints = []
    size = os.path.getsize(path)
    if size > SIZE_BUDGET:
        complaints.append(f"{size} bytes are more than the budget of {SIZE_BUDGET}")
    imports = set(re.findall(r"DLL Name: (\S+)", run("x86_64-w64-mingw32-objdump", "-p", path)))
    for name in sorted(imports):
        if name.lower() not in SYSTEM_DLLS:
            complaints.append(f"imports from {name}")
    if not imports:
        complaints.append("no imports found: not a DLL?")
    symbols = run("x86_64-w64-mingw32-nm", "-C", path + ".debug")
    banned = sorted({line.split(" ", 2)[-1] for line in symbols.splitlines() if BANNED_SYMBOLS.search(line)})
    for symbol in banned[:10]:
        complaints.append(f"linked in: {symbol}")
    print(f"{path}: {size:,} of {SIZE_BUDGET:,} bytes, {len(imports)} system DLLs imported")
    print("\n".join(complaints), end="\n" if complaints else "", file=sys.stderr)
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
