#!/usr/bin/env python3
"""Packs the kit for a real Windows machine: the test programs, the stage, the runner.
usage: windows_kit.py BUILD_FOLDER   (the folder of the release build, everything built)"""

import pathlib
import re
import sys
import zipfile

ROOT = pathlib.Path(__file__).resolve().parent.parent


def main(build):
    build = pathlib.Path(build).resolve()
    header = (build / "generated" / "actions" / "version_text.h").read_text(encoding="utf-8")
    version = re.search(r'CORVI_VERSION_TEXT "(.*)"', header)[1]
    files = {"kit_runner.exe": build / "kit" / "kit_runner.exe"}
    for name in ("run.cmd", "README.txt"):
        files[name] = ROOT / "tests" / "kit" / name
    for folder, pattern in (("tests", "*.exe"), ("stage", "**/*")):
        for path in sorted((build / folder).glob(pattern)):
            if path.is_file():
                files[f"{folder}/{path.relative_to(build / folder)}"] = path
    target = build.parent / f"corvi-windows-kit-{version}.zip"
    with zipfile.ZipFile(target, "w", zipfile.ZIP_DEFLATED) as archive:
        for name, path in files.items():
            archive.write(path, f"corvi-windows-kit/{name}")
    print(f"{target.relative_to(ROOT)}: {target.stat().st_size:,} bytes, {len(files)} files")


if __name__ == "__main__":
    main(*sys.argv[1:])
