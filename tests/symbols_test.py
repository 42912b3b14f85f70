#!/usr/bin/env python3
"""A crash's addresses become names and lines; the PDB belongs to the DLL and lists its functions.
usage: symbols_test.py ROOT TEMPLATE"""

import pathlib
import re
import struct
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
TEMPLATE = pathlib.Path(sys.argv.pop(2))
ROOT = pathlib.Path(sys.argv.pop(1))
LIBRARY = ROOT / "build" / "Corvi_CA.dll"
SYMBOLS = ROOT / "build" / "Corvi_CA.dll.debug"
PDB = ROOT / "build" / "Corvi_CA.pdb"
sys.path.insert(0, str(ROOT / "scripts"))
import normalize_pdb  # noqa: E402  (its folder is known only now)
import readable_stack  # noqa: E402


def offset_of(function):
    listed = subprocess.run(["x86_64-w64-mingw32-nm", str(SYMBOLS)], check=True, capture_output=True, text=True)
    address = int(re.search(rf"^([0-9a-f]+) T {function}$", listed.stdout, re.MULTILINE)[1], 16)
    return address - readable_stack.image_base(SYMBOLS)


def readable(report):
    done = subprocess.run([sys.executable, "-B", str(ROOT / "scripts" / "readable_stack.py"), str(SYMBOLS)],
                          input=report, check=True, capture_output=True, text=True)
    return done.stdout


class Stack(unittest.TestCase):
    def test_each_spelling_of_an_address_gets_its_name(self):
        offset = offset_of("BlockKITELaunch")
        for line in (f"01 Corvi_CA+0x{offset:x}", f"  1 0x0033 in corvi_ca (+0x{offset:x}) (0000)",
                     f"Fault offset: 0x{offset:016x}", f"Corvi_CA.dll!+0x{offset:X}"):
            self.assertRegex(readable(line + "\n"), r"BlockKITELaunch  \[.*launch_guard\.cpp:\d+\]", line)

    def test_other_lines_stay_as_they_are(self):
        self.assertEqual("msi+0x10\nno address\n", readable("msi+0x10\nno address\n"))

    def test_a_crash_that_wine_reports_names_the_action(self):
        # The error that leaves this action without its key is caught by nobody here.
        with tempfile.TemporaryDirectory() as stage:
            pathlib.Path(stage, "Corvi_CA.dll").write_bytes(LIBRARY.read_bytes())
            script = (f'. "{ROOT}/tests/wine-prefix.sh"; trap corvi_drop_prefix EXIT; '
                      f'corvi_new_prefix "{TEMPLATE}" "{stage}" || exit 1; '
                      'export WINEDLLOVERRIDES="mscoree,mshtml="; cd "$WINEPREFIX/drive_c/corvi"; '
                      'timeout -k 5 90 wine winedbg --command cont "C:\\windows\\system32\\rundll32.exe" '
                      '"C:\\corvi\\Corvi_CA.dll,DeleteHXNoUpgrade" 2>&1')
            done = subprocess.run(["sh", "-c", script], capture_output=True, stdin=subprocess.DEVNULL, check=False)
        report = done.stdout.decode("utf-8", "replace")
        self.assertIn("corvi_ca (+0x", report)
        self.assertRegex(readable(report), r"DeleteHXNoUpgrade  \[.*settings_app\.cpp:\d+\]")


class Pdb(unittest.TestCase):
    def setUp(self):
        self.block_size, self.streams = normalize_pdb.read_streams(PDB.read_bytes())

    def test_it_carries_the_guid_that_the_library_names(self):
        data = LIBRARY.read_bytes()
        place = data.index(b"RSDS")
        self.assertEqual(b"Corvi_CA.pdb\0", data[place + 24:place + 37])
        info = self.streams[normalize_pdb.INFO]
        self.assertEqual(data[place + 4:place + 20], info[12:28])
        self.assertEqual(struct.unpack_from("<I", data, place + 20), struct.unpack_from("<I", info, 8))

    def test_every_export_is_among_its_names(self):
        records = self.streams[struct.unpack_from("<H", self.streams[normalize_pdb.DEBUG_INFORMATION], 20)[0]]
        lines = (ROOT / "actions" / "Corvi_CA.def").read_text().splitlines()
        exports = [line.strip() for line in lines[lines.index("EXPORTS") + 1:] if re.match(r"\s*\w", line)]
        self.assertEqual(47, len(exports))
        self.assertEqual([], [name for name in exports if b"\0" + name.encode() + b"\0" not in records])

    def test_it_has_no_time_and_no_folder_of_the_builder(self):
        self.assertEqual(0, struct.unpack_from("<I", self.streams[normalize_pdb.INFO], 4)[0])
        self.assertNotIn(str(ROOT).encode(), PDB.read_bytes())

    def test_what_is_written_is_read_back(self):
        for streams in (self.streams, [b"", None, b"x" * 5000, b"", b"y" * (self.block_size * 3000)]):
            written = normalize_pdb.write_streams(self.block_size, streams)
            self.assertEqual((self.block_size, streams), normalize_pdb.read_streams(written))


if __name__ == "__main__":
    unittest.main()
