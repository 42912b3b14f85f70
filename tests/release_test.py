#!/usr/bin/env python3
"""The release: two builds of the commit, in two folders, give the same archive; its files are what its lists
say; its manuals' links lead somewhere; an example package is built from it alone and installed on a throwaway
machine; signing and what it refuses. usage: release_test.py ROOT TEMPLATE"""

import hashlib
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
import zipfile
from html.parser import HTMLParser

sys.dont_write_bytecode = True
TEMPLATE = pathlib.Path(sys.argv.pop(2))
ROOT = pathlib.Path(sys.argv.pop(1))
RUNTIME = 1700  # seconds for one build


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, check=False, timeout=RUNTIME, **options)


def need(done):
    if done.returncode != 0:
        raise AssertionError(f"{done.args}: {done.returncode}\n{done.stdout}\n{done.stderr}")
    return done


def build_archive(folder, **environment):
    """A clone of the commit in a folder of its own, and the archive that it makes."""
    need(run("git", "clone", "-q", str(ROOT), str(folder)))
    need(run("make", "dist", cwd=folder, env={**os.environ, **environment}))
    return next(folder.glob("build/corvi-*.zip"))


class Links(HTMLParser):
    def __init__(self, text):
        super().__init__()
        self.targets, self.anchors = [], set()
        self.feed(text)

    def handle_starttag(self, tag, attrs):
        for name, value in attrs:
            if name in ("href", "src"):
                self.targets.append(value)
            elif name == "id":
                self.anchors.add(value)


class Release(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        holder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(holder.cleanup)
        cls.folder = pathlib.Path(holder.name)
        cls.archive = build_archive(cls.folder / "one")
        with zipfile.ZipFile(cls.archive) as archive:
            archive.extractall(cls.folder / "unpacked")
        cls.release = cls.folder / "unpacked" / cls.archive.stem

    def texts(self):
        return re.search(r'TEXT "(.*)"', (self.folder / "one/build/release/generated/actions/version_text.h").read_text())[1]

    def test_a_second_build_in_another_folder_gives_the_same_bytes(self):
        other = build_archive(self.folder / "a longer name" / "two", CCACHE_DISABLE="1")
        self.assertEqual(self.archive.name, other.name)
        with zipfile.ZipFile(self.archive) as one, zipfile.ZipFile(other) as two:
            self.assertEqual(one.namelist(), two.namelist())
            self.assertEqual([], [name for name in one.namelist() if one.read(name) != two.read(name)])
        self.assertEqual(self.archive.read_bytes(), other.read_bytes())

    def test_the_sources_stay_clean(self):
        self.assertEqual("", need(run("git", "status", "--porcelain", cwd=self.folder / "one")).stdout)

    def test_its_name_tells_the_version_and_a_commit_that_is_no_release(self):
        commit = need(run("git", "rev-parse", "--short=12", "HEAD", cwd=ROOT)).stdout.strip()
        version = re.search(r"project\(Corvi_CA VERSION (\S+)", (ROOT / "CMakeLists.txt").read_text())[1]
        tagged = run("git", "describe", "--exact-match", "--match", "v" + version, cwd=ROOT).returncode == 0
        self.assertEqual(version if tagged else f"{version}-dev+{commit}", self.texts())
        self.assertEqual(f"corvi-{self.texts()}.zip", self.archive.name)

    def test_the_checksums_are_those_of_every_file(self):
        listed = dict(reversed(line.split("  ")) for line in (self.release / "SHA256SUMS").read_text().splitlines())
        found = {str(path.relative_to(self.release)): hashlib.sha256(path.read_bytes()).hexdigest()
                 for path in self.release.rglob("*") if path.is_file() and path.name != "SHA256SUMS"}
        self.assertEqual(found, listed)
        beside = self.archive.with_name(self.archive.name + ".sha256").read_text()
        self.assertEqual(f"{hashlib.sha256(self.archive.read_bytes()).hexdigest()}  {self.archive.name}\n", beside)

    def test_it_has_the_programs_with_symbols_the_includes_the_manuals_and_the_notices(self):
        for name in ("Corvi_CA.dll", "Corvi_CA.dll.debug", "corvi.exe", "corvi.exe.debug", "LICENSE",
                     "include/wix3/Corvi_CA.wxi", "include/wix4/Corvi_CA.wxs", "docs/actions.html",
                     "docs/index.html", "docs/CHANGELOG.html", "notices/NOTICES.txt"):
            self.assertTrue((self.release / name).is_file(), name)
        exports = (ROOT / "actions" / "Corvi_CA.def").read_text()
        for name in ("wix3/Corvi_CA.wxi", "wix4/Corvi_CA.wxs"):
            declared = set(re.findall(r'DllEntry="(\w+)"', (self.release / "include" / name).read_text()))
            self.assertEqual(47, len(declared), name)
            self.assertTrue(all(entry in exports for entry in declared))

    def test_the_bill_of_materials_lists_what_the_notices_name(self):
        bill = json.loads((self.release / "sbom.cdx.json").read_text())
        self.assertEqual("CycloneDX", bill["bomFormat"])
        self.assertEqual(self.texts(), bill["metadata"]["component"]["version"])
        notices = (self.release / "notices" / "NOTICES.txt").read_text()
        self.assertTrue(bill["components"])
        for part in bill["components"]:
            self.assertIn(part["name"], notices)
            notice = self.release / "notices" / (part["bom-ref"] + ".txt")
            self.assertGreater(notice.stat().st_size, 500, notice)

    def test_the_links_of_the_manuals_lead_somewhere(self):
        pages = {path.name: Links(path.read_text()) for path in (self.release / "docs").glob("*.html")}
        broken = []
        for name, page in pages.items():
            for target in page.targets:
                if re.match(r"[a-z]+:", target):
                    continue
                file, _, anchor = target.partition("#")
                known = pages.get(file or name)
                if not (self.release / "docs" / (file or name)).is_file():
                    broken.append((name, target))
                elif anchor and anchor not in known.anchors:
                    broken.append((name, target))
        self.assertEqual([], broken)

    def test_no_folder_of_the_builder_is_in_it(self):
        for path in self.release.rglob("*"):
            if path.is_file():
                self.assertNotIn(str(self.folder).encode(), path.read_bytes(), path)

    def test_an_example_package_is_built_from_it_and_installed(self):
        work = self.folder / "author"
        shutil.copytree(self.release / "examples", work)
        for stand_in in (work / "stand-ins").iterdir():
            shutil.copy(stand_in, work)
        shutil.copy(self.release / "Corvi_CA.dll", work)
        need(run("sh", "build_package.sh", "graphics_driver.msi", "graphics_driver.wxs", cwd=work))
        done = self.on_a_throwaway_machine(
            work, "timeout 120 wine msiexec /i 'C:\\corvi\\graphics_driver.msi' LAUNCHED_FROM_PIM=1 /qn && "
            "test -f \"$WINEPREFIX/drive_c/Program Files/TAVO/Graphics Driver/DriverTool.exe\"")
        need(done)

    def test_the_package_of_the_readme_is_built_from_it_installed_and_removed(self):
        work = self.folder / "newcomer"
        work.mkdir()
        source = re.search(r"is `mytool.wxs`.*?```xml\n(.*?)```", (ROOT / "README.md").read_text(), re.DOTALL)[1]
        (work / "mytool.wxs").write_text(source)
        (work / "mytool.txt").write_text("a program\n")
        shutil.copy(self.release / "Corvi_CA.dll", work)
        need(run("sh", str(self.release / "examples" / "build_package.sh"), "mytool.msi", "mytool.wxs", cwd=work))
        file = '"$WINEPREFIX/drive_c/Program Files/My tool/mytool.txt"'
        need(self.on_a_throwaway_machine(
            work, f"timeout 120 wine msiexec /i 'C:\\corvi\\mytool.msi' /qn && test -f {file} && "
            f"timeout 120 wine msiexec /x 'C:\\corvi\\mytool.msi' /qn && test ! -f {file}"))

    def test_the_tool_of_it_finds_the_library_beside_it(self):
        done = self.on_a_throwaway_machine(self.release, "wine 'C:\\corvi\\corvi.exe' --version")
        self.assertEqual(f"corvi {self.texts()}", done.stdout.strip())

    def on_a_throwaway_machine(self, stage, command):
        script = (f'. "{ROOT}/tests/wine-prefix.sh"; trap corvi_drop_prefix EXIT; '
                  f'corvi_new_prefix "{TEMPLATE}" "{stage}" || exit 1; cd "$WINEPREFIX/drive_c/corvi"; {command}')
        return run("sh", "-c", script, stdin=subprocess.DEVNULL)


class Signing(unittest.TestCase):
    def setUp(self):
        holder = tempfile.TemporaryDirectory()
        self.addCleanup(holder.cleanup)
        self.folder = pathlib.Path(holder.name)
        self.library = self.folder / "Corvi_CA.dll"
        shutil.copy(ROOT / "build" / "Corvi_CA.dll", self.library)
        self.certificate("own")

    def certificate(self, name):
        need(run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", f"/CN={name}",
                 "-addext", "extendedKeyUsage=codeSigning", "-addext", "keyUsage=digitalSignature",
                 "-keyout", f"{name}.key", "-out", f"{name}.pem", cwd=self.folder))

    def sign(self, file="Corvi_CA.dll", **options):
        settings = {"CERT": "own.pem", "KEY": "own.key", "CA": "own.pem", **options}
        return run("sh", str(ROOT / "scripts" / "sign.sh"), file, cwd=self.folder, env={**os.environ, **settings})

    def test_a_signed_library_verifies_and_a_package_built_afterwards_carries_it(self):
        unsigned = self.library.read_bytes()
        need(self.sign())
        self.assertNotEqual(unsigned, self.library.read_bytes())
        need(run("osslsigncode", "verify", "-CAfile", "own.pem", "-in", "Corvi_CA.dll", cwd=self.folder))
        for name in ("suite_tool.exe",):
            shutil.copy(ROOT / "build/release/stage" / name, self.folder)
        need(run("sh", str(ROOT / "package/build_package.sh"), "driver.msi", str(ROOT / "package/graphics_driver.wxs"),
                 cwd=self.folder))
        carried = subprocess.run(["msiinfo", "extract", "driver.msi", "Binary.Corvi_CA"], cwd=self.folder,
                                 check=True, capture_output=True).stdout
        self.assertEqual(self.library.read_bytes(), carried)

    def test_a_changed_byte_breaks_the_signature(self):
        need(self.sign())
        data = bytearray(self.library.read_bytes())
        data[0x1000] ^= 1
        self.library.write_bytes(data)
        done = run("osslsigncode", "verify", "-CAfile", "own.pem", "-in", "Corvi_CA.dll", cwd=self.folder)
        self.assertNotEqual(0, done.returncode)

    def test_a_signature_that_does_not_verify_is_not_kept(self):
        unsigned = self.library.read_bytes()
        self.certificate("foreign")
        done = self.sign(CA="foreign.pem")
        self.assertEqual(1, done.returncode)
        self.assertIn("does not verify", done.stderr)
        self.assertEqual(unsigned, self.library.read_bytes())
        self.assertEqual([], list(self.folder.glob("*.signing")))

    def test_what_is_missing_is_said_in_one_line(self):
        for options, words in (({"CERT": ""}, "CERT="), ({"KEY": ""}, "KEY="), ({"CERT": "none.pem"}, "none.pem"),
                               ({"KEY": "none.key"}, "none.key"), ({"file": "none.dll"}, "none.dll")):
            done = self.sign(**options)
            self.assertEqual(2, done.returncode)
            self.assertIn(words, done.stderr)
            self.assertEqual(1, len(done.stderr.splitlines()))


if __name__ == "__main__":
    unittest.main()
