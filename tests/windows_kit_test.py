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

    def run_kit(self, *arguments, prepare="true", before="", after="true"):
        """(exit code, output); the results come back into the kit's folder. prepare and after: commands of the shell in
        the prefix's kit; before: a command of the command interpreter, ended by "&& "."""
        script = (f'. "{ROOT}/tests/wine-prefix.sh"; trap corvi_drop_prefix EXIT; corvi_new_prefix "{TEMPLATE}" || exit 99; '
                  f'cp -R "{self.kit}" "$WINEPREFIX/drive_c/kit" || exit 99; cd "$WINEPREFIX/drive_c/kit"; {prepare}; '
                  f'timeout -k 5 250 wine cmd /c "{before}C:\\kit\\run.cmd {" ".join(arguments)}" </dev/null; code=$?; {after}; '
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

    def assert_refused(self, sentence, run):
        code, output = run
        self.assertEqual(2, code, output)
        self.assertIn(sentence, output)
        self.assertNotIn("programs passed", output)

    # The template has the mark of a throwaway machine: it goes first, and is looked for afterwards.
    UNMARK = "wine reg delete 'HKLM\\SOFTWARE\\CorviTests' /f >/dev/null 2>&1"
    IS_MARKED = "wine reg query 'HKLM\\SOFTWARE\\CorviTests' >/dev/null 2>&1 && echo the machine is marked"

    def test_a_program_that_is_not_there_is_a_refusal(self):
        self.program(BUILD / "tests" / "action_data_test.exe")
        run = self.run_kit(CONSENT, "action_data_test", "no_such_test", prepare=self.UNMARK, after=self.IS_MARKED)
        self.assert_refused("No such test program in the kit: no_such_test", run)
        self.assertNotIn("the machine is marked", run[1])
        self.assertFalse((self.kit / "results").exists())

    def test_a_limit_that_is_no_number_of_seconds_is_a_refusal(self):
        self.program(BUILD / "tests" / "action_data_test.exe")
        for limit in (["abc"], ["0"], ["20s"], ["99999999999"], []):
            self.assert_refused("--limit needs a number of seconds", self.run_kit(CONSENT, "--limit", *limit))

    def test_results_that_have_no_place_are_a_refusal(self):
        self.program(BUILD / "tests" / "action_data_test.exe")
        (self.kit / "results").write_text("a file")
        self.assert_refused("The folder for the results could not be made: C:\\kit\\results", self.run_kit(CONSENT))

    def test_a_32_bit_windows_is_refused_before_the_runner_is_started(self):
        self.program(BUILD / "tests" / "action_data_test.exe")
        (self.kit / "kit_runner.exe").unlink()
        bits = "set PROCESSOR_ARCHITECTURE=x86&& "
        self.assert_refused("The tests need a 64-bit Windows", self.run_kit(CONSENT, before=bits))

    def test_a_stage_that_cannot_be_renewed_is_a_failure_of_the_program(self):
        self.program(BUILD / "tests" / "action_data_test.exe")
        stage = "rmdir ../corvi && echo >../corvi"
        code, output = self.run_kit(CONSENT, prepare=stage)
        self.assertEqual(1, code, output)
        self.assertIn("NOT RUN", output)
        self.assertIn("the stage could not be renewed: C:\\corvi: ", output)
        self.assertIn("0 of 1 programs passed", output)
        self.assertIn("the stage", self.report("action_data_test").find(".//error").get("message"))

    def test_what_a_program_leaves_running_ends_with_it(self):
        for name in ("first_test", "second_test"):
            self.program(BUILD / "stage" / "leaver.exe", f"{name}.exe")
        code, output = self.run_kit(CONSENT)
        self.assertEqual(1, code, output)
        self.assertEqual("ended with 5", self.report("first_test").find(".//error").get("message"))
        self.assertEqual("ended with 0", self.report("second_test").find(".//error").get("message"))

    def test_what_an_earlier_program_still_holds_in_the_stage_is_named(self):
        self.program(BUILD / "tests" / "action_data_test.exe")
        # It makes a file once it is up.
        hold = ("cp stage/leaver.exe ../corvi/held.exe; (wine C:/corvi/held.exe stay >/dev/null 2>&1 &); "
                "for _ in $(seq 600); do [ -e ../left.txt ] && break; sleep 0.1; done")
        code, output = self.run_kit(CONSENT, prepare=hold)
        self.assertEqual(0, code, output)
        self.assertIn("earlier programs left and still hold: held.exe\n", output)

    def test_renewing_the_stage_does_not_go_through_links(self):
        self.program(BUILD / "tests" / "action_data_test.exe")
        link = "mkdir ../outside; echo >../outside/file; mkdir ../corvi/folder; ln -s ../../outside ../corvi/folder/link"
        code, output = self.run_kit(CONSENT, prepare=link, after="ls ../outside")
        self.assertEqual(0, code, output)
        self.assertTrue(output.endswith("\nfile\n"), output)

    def test_programs_that_pass_are_told_with_their_reports(self):
        for name in ("action_data_test", "dll_test", "launch_guard_test"):
            self.program(BUILD / "tests" / f"{name}.exe")
        code, output = self.run_kit(CONSENT, prepare=self.UNMARK, after=self.IS_MARKED)
        self.assertEqual(0, code, output)
        self.assertIn("3 of 3 programs passed", output)
        self.assertIn("the machine is marked", output)
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
        access_violation = f"ended with {0xC0000005}"
        self.assertEqual(access_violation, self.report("crash_test").find(".//error").get("message"))
        self.assertIn("out of time", self.report("sleeper_test").find(".//error").get("message"))


if __name__ == "__main__":
    unittest.main()
