#!/usr/bin/env python3
"""The kit for a real Windows machine, started by its run.cmd under Wine's own command interpreter: it refuses
without consent, tells what passed, failed, crashed and hung, and exits accordingly.
usage: windows_kit_test.py ROOT BUILD TEMPLATE"""

import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree as ElementTree

sys.dont_write_bytecode = True
TEMPLATE = pathlib.Path(sys.argv.pop(3))
BUILD = pathlib.Path(sys.argv.pop(2))
ROOT = pathlib.Path(sys.argv.pop(1))
CONSENT = "--this-machine-may-be-thrown-away"


class Kit(unittest.TestCase):
    def setUp(self):
        holder = tempfile.TemporaryDirectory()
        self.addCleanup(holder.cleanup)
        self.folder = pathlib.Path(holder.name)
        self.kit = self.folder / "corvi-windows-kit"
        (self.kit / "tests").mkdir(parents=True)
        shutil.copytree(BUILD / "stage", self.kit / "stage")
        shutil.copy(BUILD / "kit" / "kit_runner.exe", self.kit)
        shutil.copy(ROOT / "tests" / "kit" / "run.cmd", self.kit)

    def program(self, source, name=None):
        shutil.copy(source, self.kit / "tests" / (name or source.name))

    def run_kit(self, *arguments):
        """(exit code, output); the results come back into the kit's folder."""
        script = (f'. "{ROOT}/tests/wine-prefix.sh"; trap corvi_drop_prefix EXIT; corvi_new_prefix "{TEMPLATE}" || exit 99; '
                  f'cp -R "{self.kit}" "$WINEPREFIX/drive_c/kit" || exit 99; cd "$WINEPREFIX/drive_c/kit"; '
                  f'timeout -k 5 250 wine cmd /c "C:\\kit\\run.cmd" {" ".join(arguments)} </dev/null; code=$?; '
                  f'cp -R "$WINEPREFIX/drive_c/kit/results" "{self.kit}/" 2>/dev/null; exit $code')
        done = subprocess.run(["sh", "-c", script], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
        return done.returncode, done.stdout.decode("utf-8", "replace").replace("\r", "")

    def report(self, name):
        return ElementTree.parse(self.kit / "results" / f"{name}.xml").getroot()

    def test_without_consent_nothing_runs(self):
        self.program(BUILD / "tests" / "action_data_test.exe")
        code, output = self.run_kit()
        self.assertEqual(2, code, output)
        self.assertIn("may be thrown away", output)
        self.assertFalse((self.kit / "results").exists())

    def test_a_program_that_is_not_there_is_a_refusal(self):
        self.assertEqual(2, self.run_kit(CONSENT, "no_such_test")[0])

    def test_programs_that_pass_are_told_with_their_reports(self):
        for name in ("action_data_test", "dll_test", "launch_guard_test"):
            self.program(BUILD / "tests" / f"{name}.exe")
        code, output = self.run_kit(CONSENT)
        self.assertEqual(0, code, output)
        self.assertIn("3 of 3 programs passed", output)
        for name in ("action_data_test", "dll_test", "launch_guard_test"):
            self.assertGreater(int(self.report(name).get("tests")), 0)
            self.assertEqual("0", self.report(name).get("failures"))

    def test_a_failure_a_crash_and_a_hang_show_up(self):
        self.program(BUILD / "tests" / "dll_test.exe")
        # The list of exports that its test compares with.
        (self.kit / "stage" / "Corvi_CA.def").write_text("LIBRARY Corvi_CA\nEXPORTS\n    Other\n")
        self.program(BUILD / "stage" / "crash.exe", "crash_test.exe")
        self.program(BUILD / "stage" / "sleeper.exe", "sleeper_test.exe")
        code, output = self.run_kit(CONSENT, "--limit", "20")
        self.assertEqual(1, code, output)
        rows = {line.split()[0]: line for line in output.splitlines() if line.strip()}
        self.assertIn("FAILED", rows["dll_test"])
        self.assertIn("CRASHED", rows["crash_test"])
        self.assertIn("TIME OUT", rows["sleeper_test"])
        self.assertIn("0 of 3 programs passed", output)
        self.assertGreater(int(self.report("dll_test").get("failures")), 0)
        self.assertIsNotNone(self.report("crash_test").find(".//error"))
        self.assertIn("out of time", self.report("sleeper_test").find(".//error").get("message"))


if __name__ == "__main__":
    unittest.main()
