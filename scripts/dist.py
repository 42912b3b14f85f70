#!/usr/bin/env python3
"""Makes the release archive: the programs with their symbols, the includes, the example packages, the manuals
as HTML, the notices, a bill of materials and checksums. The same commit gives the same bytes: the only time in
it is the commit's. usage: dist.py BUILD_FOLDER STAGE_FOLDER WIX4_INCLUDE, from the root of the sources"""

import hashlib
import json
import pathlib
import re
import subprocess
import sys
import time
import uuid
import zipfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
PROGRAMS = ["Corvi_CA.dll", "Corvi_CA.dll.debug", "Corvi_CA.pdb", "corvi.exe", "corvi.exe.debug", "corvi.pdb"]
STAND_INS = ["suite_tool.exe", "service.exe", "com_server.dll", "media_source.dll"]
MANUALS = ["README.md", "CHANGELOG.md", "CONTRIBUTING.md", *sorted(
    str(path.relative_to(ROOT)) for path in (ROOT / "docs").glob("*.md"))]
# What is linked statically or compiled in: name, Debian package, licence (SPDX), where it ends up.
COMPONENTS = [
    ("libstdc++ and libgcc (GCC runtime)", "gcc-mingw-w64-x86-64-win32-runtime",
     "GPL-3.0-or-later WITH GCC-exception-3.1", ["Corvi_CA.dll", "corvi.exe"]),
    ("mingw-w64 runtime", "mingw-w64-x86-64-dev", "ZPL-2.1 AND MIT", ["Corvi_CA.dll", "corvi.exe"]),
    ("CLI11", "libcli11-dev", "BSD-3-Clause", ["corvi.exe"]),
    ("JSON for Modern C++", "nlohmann-json3-dev", "MIT", ["corvi.exe"]),
]
GPL = pathlib.Path("/usr/share/common-licenses/GPL-3")


def run(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, cwd=ROOT, **options).stdout.strip()


def version_texts(build):
    header = (build / "release" / "generated" / "actions" / "version_text.h").read_text(encoding="utf-8")
    return dict(re.findall(r'#define CORVI_(\w+) "(.*)"', header))


def debian_version(package):
    return run("dpkg-query", "-W", "-f=${Version}", package)


def manual_name(path):
    stem = pathlib.PurePath(path).stem
    return ("index" if stem == "README" else stem) + ".html"


def manual(path, version, build):
    source = (ROOT / path).read_text(encoding="utf-8")
    title = re.search(r"^# (.+)$", source, re.MULTILINE)[1]
    links = " · ".join(f'<a href="{manual_name(other)}">{pathlib.PurePath(other).stem}</a>' for other in MANUALS)
    head = build / "dist" / "pages.html"
    head.write_text(f'<nav class="pages">Corvi_CA {version}: {links}</nav>\n', encoding="utf-8")
    html = run("pandoc", "--from=gfm", "--to=html5", "--standalone", "--toc", "--toc-depth=3",
               f"--include-before-body={head}", "--css=style.css", f"--metadata=pagetitle:{title}",
               "--lua-filter=docs/html/links.lua", path)
    return html + "\n"


def bill_of_materials(version, commit, seconds):
    stamp = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(seconds))
    product = {"type": "application", "bom-ref": "corvi", "name": "Corvi_CA", "version": version,
               "licenses": [{"license": {"id": "MIT"}}],
               "properties": [{"name": "commit", "value": commit}]}
    parts = []
    for name, package, licence, users in COMPONENTS:
        installed = debian_version(package)
        parts.append({
            "type": "library", "bom-ref": package, "name": name, "version": installed,
            "licenses": [{"expression": licence}], "purl": f"pkg:deb/debian/{package}@{installed}",
            "properties": [{"name": "part of", "value": user} for user in users]})
    return json.dumps({
        "bomFormat": "CycloneDX", "specVersion": "1.5", "version": 1,
        "serialNumber": "urn:uuid:" + str(uuid.uuid5(uuid.NAMESPACE_URL, f"corvi/{version}/{commit}")),
        "metadata": {"timestamp": stamp, "component": product},
        "components": parts,
        "dependencies": [{"ref": "corvi", "dependsOn": [part["bom-ref"] for part in parts]}],
    }, indent=2) + "\n"


def notices():
    """file name -> text: whose parts are in the programs, and under which terms."""
    lines = ["The programs of this archive contain parts of these projects, linked statically or compiled in.",
             "Their notices stand beside this file.", ""]
    files = {}
    for name, package, licence, users in COMPONENTS:
        lines.append(f"{name} ({licence}), in {' and '.join(users)}: {package}.txt")
        files[f"{package}.txt"] = pathlib.Path("/usr/share/doc", package, "copyright").read_text(encoding="utf-8")
    files["GPL-3.txt"] = GPL.read_text(encoding="utf-8")
    files["NOTICES.txt"] = "\n".join(lines + [
        "", "The GCC runtime's exception allows programs that are compiled with GCC to carry it under their own",
        "terms; GPL-3.txt is the licence that its notice refers to.", ""])
    return files


def contents(build, stage, wix4, version):
    """path in the archive -> bytes"""
    texts = version_texts(build)
    seconds = int(run("git", "log", "-1", "--format=%ct"))
    files = {name: (build / name).read_bytes() for name in PROGRAMS}
    files["include/wix3/Corvi_CA.wxi"] = (ROOT / "package" / "Corvi_CA.wxi").read_bytes()
    files["include/wix4/Corvi_CA.wxs"] = wix4.read_bytes()
    listed = run("git", "ls-files", "package").splitlines()
    for path in (pathlib.Path(line) for line in listed):
        if path.name != "CMakeLists.txt":
            files[f"examples/{path.relative_to('package')}"] = (ROOT / path).read_bytes()
    for name in STAND_INS:
        files[f"examples/stand-ins/{name}"] = (stage / name).read_bytes()
    for path in MANUALS:
        files[f"docs/{manual_name(path)}"] = manual(path, version, build).encode("utf-8")
    files["docs/style.css"] = (ROOT / "docs" / "html" / "style.css").read_bytes()
    files["symbols/readable_stack.py"] = (ROOT / "scripts" / "readable_stack.py").read_bytes()
    files["LICENSE"] = (ROOT / "LICENSE").read_bytes()
    files.update({f"notices/{name}": text.encode("utf-8") for name, text in notices().items()})
    files["sbom.cdx.json"] = bill_of_materials(version, texts["COMMIT"], seconds).encode("utf-8")
    sums = [f"{hashlib.sha256(data).hexdigest()}  {name}\n" for name, data in sorted(files.items())]
    files["SHA256SUMS"] = "".join(sums).encode("utf-8")
    return files, seconds


def write_archive(path, folder, files, seconds):
    moment = time.gmtime(seconds - seconds % 2)[:6]  # the format counts in steps of two seconds
    with zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED, compresslevel=9) as archive:
        for name, data in sorted(files.items()):
            entry = zipfile.ZipInfo(f"{folder}/{name}", moment)
            entry.compress_type = zipfile.ZIP_DEFLATED
            entry.create_system = 3
            program = name.endswith((".exe", ".dll", ".sh")) or name.endswith(".py")
            entry.external_attr = (0o100755 if program else 0o100644) << 16
            archive.writestr(entry, data)


def main(build, stage, wix4):
    build, stage = pathlib.Path(build).resolve(), pathlib.Path(stage).resolve()
    version = version_texts(build)["VERSION_TEXT"]
    files, seconds = contents(build, stage, pathlib.Path(wix4), version)
    path = build / f"corvi-{version}.zip"
    write_archive(path, path.stem, files, seconds)
    digest = hashlib.sha256(path.read_bytes()).hexdigest()
    path.with_name(path.name + ".sha256").write_text(f"{digest}  {path.name}\n", encoding="utf-8")
    print(f"{path.relative_to(ROOT)}: {path.stat().st_size:,} bytes, {len(files)} files, sha256 {digest}")


if __name__ == "__main__":
    main(*sys.argv[1:])
