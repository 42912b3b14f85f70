#!/usr/bin/env python3
"""The script that plants faults plants what it says, where the code is and nowhere else, and its marks are held to
the sources. usage: mutants_test.py ROOT"""

import pathlib
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
ROOT = pathlib.Path(sys.argv.pop(1))
sys.path.insert(0, str(ROOT / "scripts"))
import mutant_faults  # noqa: E402  (its folder is known only now)
import mutants  # noqa: E402

SOURCE = '''#include "runtime/registry.h"

// if (commented) { Drop(1); }
constexpr wchar_t kName[] = L"Path == Name";
inline constexpr REGSAM kAccess = KEY_READ | KEY_WOW64_64KEY;

UINT Act(Text&& text) {
    if (text.empty()) {
        return ERROR_SUCCESS;
    }
    First(text);
    second = Second(text) + 2;
    return corvi::MustStop([&] { return Work(text); });
}
'''


def planted(kind):
    """What each fault of this kind makes of the source, as the changed lines."""
    result = []
    for fault in mutant_faults.faults_in("x/y.cpp", SOURCE):
        if fault.kind == kind:
            old, new = SOURCE.split("\n"), fault.planted(SOURCE).split("\n")
            result.append([line.strip() for line, before in zip(new, old) if line != before])
    return result


class Faults(unittest.TestCase):
    def test_a_negated_condition(self):
        self.assertEqual([["if (!(text.empty())) {"]], planted("negated condition"))

    def test_a_dropped_call(self):
        self.assertEqual([[";"], [";"]], planted("dropped call"))

    def test_a_dropped_flag(self):
        self.assertEqual([["inline constexpr REGSAM kAccess = KEY_WOW64_64KEY;"],
                          ["inline constexpr REGSAM kAccess = KEY_READ;"]], planted("dropped flag"))

    def test_a_wrong_constant(self):
        self.assertEqual([["return ERROR_GEN_FAILURE;"], ["second = Second(text) + 3;"]], planted("wrong constant"))

    def test_an_altered_text(self):
        changed = planted("altered text")
        self.assertEqual(1, len(changed), changed)
        self.assertRegex(changed[0][0], r'^constexpr wchar_t kName\[\] = L"(?!Path == Name).{12}";$')

    def test_a_swapped_order(self):
        self.assertEqual([["second = Second(text) + 2;", "First(text);"]], planted("swapped order"))

    def test_a_wrong_view(self):
        self.assertEqual([["inline constexpr REGSAM kAccess = KEY_ALL_ACCESS | KEY_WOW64_64KEY;"],
                          ["inline constexpr REGSAM kAccess = KEY_READ | KEY_WOW64_32KEY;"]], planted("wrong view"))

    def test_a_changed_policy(self):
        self.assertEqual([["return corvi::BestEffort([&] { return Work(text); });"]], planted("changed policy"))

    def test_the_product_has_faults_of_each_kind_in_each_folder_each_with_a_name_of_its_own(self):
        faults = mutants.all_faults(ROOT)
        self.assertEqual(len(faults), len({fault.name for fault in faults}))
        self.assertEqual(set(mutant_faults.KINDS), {fault.kind for fault in faults})
        self.assertEqual(set(mutants.FOLDERS), {fault.path.split("/")[0] for fault in faults})
        self.assertTrue(any(fault.path.endswith(".h") for fault in faults))

    def test_a_seed_draws_the_same_faults_and_a_change_of_one_leaves_the_rest_of_its_kind_in_order(self):
        faults = mutants.all_faults(ROOT)
        order = mutants.drawn(faults, 11)
        self.assertEqual(order, mutants.drawn(list(reversed(faults)), 11))
        self.assertNotEqual(order, mutants.drawn(faults, 12))
        kind = [fault for fault in order if fault.kind == "dropped call"]
        fewer = mutants.drawn([fault for fault in faults if fault != kind[0]], 11)
        self.assertEqual(kind[1:], [fault for fault in fewer if fault.kind == "dropped call"])


class Marks(unittest.TestCase):
    def marks(self, text):
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder, "marks.txt")
            path.write_text(text, encoding="utf-8")
            return mutants.read_marks(path)

    def test_each_mark_of_the_project_names_a_fault_and_gives_a_reason(self):
        done = subprocess.run([sys.executable, "-B", ROOT / "scripts/mutants.py", "--check-marks"],
                              capture_output=True, text=True, check=False)
        self.assertEqual((0, ""), (done.returncode, done.stderr))

    def test_a_mark_without_such_a_fault_or_without_a_reason_is_an_error(self):
        faults = list(mutant_faults.faults_in("x/y.cpp", SOURCE))
        good = f"# why\n{faults[0].name}\n    The reason\n    in two lines.\n"
        self.assertEqual({faults[0].name: "The reason in two lines."}, self.marks(good))
        self.assertEqual([], list(mutants.mark_complaints(self.marks(good), faults)))
        self.assertEqual(1, len(list(mutants.mark_complaints(self.marks(faults[0].name + "\n"), faults))))
        self.assertEqual(1, len(list(mutants.mark_complaints(self.marks(f"{good}x/z.cpp: gone\n    Why.\n"), faults))))


class Coverage(unittest.TestCase):
    def test_the_mirrored_program_comes_first_then_those_that_call_the_exports(self):
        programs = {"recording_vr_test": ["tests/actions/branding_content_test.cpp"],
                    "launch_guard_test": ["tests/actions/launch_guard_test.cpp"],
                    "logon_tasks_test": ["tests/tasks/logon_tasks_test.cpp"]}
        coverage = mutants.Coverage(ROOT, programs)
        self.assertEqual(["logon_tasks_test"], coverage.of("tasks/logon_tasks.cpp"))
        self.assertEqual("recording_vr_test", coverage.of("actions/branding_content.cpp")[0])
        self.assertEqual({"recording_vr_test", "launch_guard_test", "logon_tasks_test"},
                         set(coverage.of("runtime/session.h")))

    def test_what_only_a_user_shows_its_users_are_asked_for_too(self):
        programs = {"client_register_test": ["tests/msiregistry/client_register_test.cpp"],
                    "launch_guard_test": ["tests/actions/launch_guard_test.cpp"],
                    "analytics_consent_test": ["tests/actions/analytics_consent_test.cpp"]}
        self.assertEqual(["client_register_test", "analytics_consent_test"],
                         mutants.Coverage(ROOT, programs).of("msiregistry/client_register.cpp"))


class Reach(unittest.TestCase):
    def test_a_program_runs_itself_what_its_headers_announce_and_what_these_objects_include(self):
        base = mutants.Base(ROOT, ROOT)
        base.core = {name: str(ROOT / f"{name}.cpp") for name in (
            "runtime/text", "runtime/process", "runtime/registry", "runtime/stack_guard", "actions/settings_app")}
        base.objects = {"process_test": ["tests/runtime/process_test.dir/process_test"],
                        "settings_app_test": ["tests/actions/settings_app_test.dir/settings_app_test"]}
        base.depends = {str(ROOT / "runtime/process.h"): {"tests/runtime/process_test.dir/process_test"},
                        str(ROOT / "runtime/text.h"): {"runtime/process"}}
        self.assertEqual({"runtime/process", "runtime/text", "runtime/stack_guard"}, base.reached("process_test"))
        self.assertEqual({"runtime/stack_guard"}, base.reached("settings_app_test"))

    def test_a_program_runs_itself_the_actions_that_it_declares(self):
        base = mutants.Base(ROOT, ROOT)
        base.core = {name: str(ROOT / f"{name}.cpp") for name in ("actions/settings_app", "actions/recording_vr")}
        base.programs = {"kept_test": ["tests/actions/session_handle_test.cpp"],
                         "other_test": ["tests/actions/settings_app_test.cpp"]}
        base.objects, base.depends = {"kept_test": ["kept_test"], "other_test": ["other_test"]}, {}
        self.assertEqual(set(base.core), base.reached("kept_test"))
        self.assertEqual(set(), base.reached("other_test"))


class Score(unittest.TestCase):
    def test_counts_by_folder_what_was_caught_of_what_can_be_seen(self):
        faults = [fault for fault in mutants.all_faults(ROOT) if fault.path.startswith("services/")][:4]
        verdicts = ["caught", "survived", "survived", "invalid"]
        judged = [(fault, {"verdict": verdict}) for fault, verdict in zip(faults, verdicts)]
        table = mutants.table(judged, {faults[2].name: "why"})
        self.assertIn("| services | 3 | 1 | 1 | 1 | 50.0 % |", table)
        self.assertIn("| all | 3 | 1 | 1 | 1 | 50.0 % |", table)
        self.assertIn("| runtime | 0 | 0 | 0 | 0 | - |", table)


if __name__ == "__main__":
    unittest.main()
