#!/usr/bin/env python3
"""Five lists that must name the same custom actions: the export table, the include for package authors,
the packages, the reference, and the tests. usage: lists_test.py ROOT"""

import pathlib
import re
import sys
import unittest

ROOT = pathlib.Path(sys.argv.pop(1))


def read(*parts):
    return ROOT.joinpath(*parts).read_text(encoding="utf-8")


def exports():
    lines = [line.strip() for line in read("actions", "Corvi_CA.def").splitlines()]
    return {line for line in lines[lines.index("EXPORTS") + 1:] if line and not line.startswith(";")}


def entries():
    """(action, text) of each entry of the reference."""
    return re.findall(r"^### `(\w+)`\n(.*?)(?=^##|\Z)", read("docs", "actions.md"), re.MULTILINE | re.DOTALL)


def bullet(entry, label):
    return re.search(rf"^- \*\*{label}:\*\* (.*?)(?=^- \*\*|\Z)", entry, re.MULTILINE | re.DOTALL)[1].strip()


class Lists(unittest.TestCase):
    def setUp(self):
        self.exports = exports()
        self.assertTrue(self.exports)

    def test_every_export_is_declared_for_package_authors_and_nothing_else(self):
        declared = re.findall(r'<CustomAction Id="(\w+)"\s+BinaryKey="Corvi_CA"\s+DllEntry="(\w+)"',
                              read("package", "Corvi_CA.wxi"))
        self.assertEqual([], [pair for pair in declared if pair[0] != pair[1]])
        self.assertEqual(self.exports, {name for name, _ in declared})
        self.assertEqual(len(declared), len(self.exports))

    def test_every_export_is_scheduled_by_a_package(self):
        scheduled = set()
        for package in ROOT.glob("package/*.wxs"):
            if package.stem == "one_action":  # has them all, and shows no schedule
                continue
            scheduled |= set(re.findall(r'<Custom Action="(\w+)"', package.read_text(encoding="utf-8")))
        self.assertEqual(set(), self.exports - scheduled)

    def test_action_data_is_set_just_before_the_action_that_takes_it(self):
        for package in ROOT.glob("package/*.wxs"):
            rows = re.findall(r'<Custom Action="([\w.]+)" Sequence="(\d+)"(?: />|>(.*?)</Custom>)',
                              package.read_text(encoding="utf-8"))
            order = [row[0] for row in sorted(rows, key=lambda row: int(row[1]))]
            numbers = [row[1] for row in rows]
            self.assertEqual(len(numbers), len(set(numbers)), f"{package.name}: two actions share a number")
            conditions = {name: condition for name, _, condition in rows}
            for index, name in enumerate(order):
                if name.endswith(".Data"):
                    action = name.removesuffix(".Data")
                    self.assertEqual(action, order[index + 1], package.name)
                    self.assertEqual(conditions[action], conditions[name], package.name)

    def test_every_export_has_an_entry_in_the_reference_and_every_entry_an_export(self):
        named = [action for action, _ in entries()]
        self.assertEqual(len(named), len(set(named)))
        self.assertEqual(self.exports, set(named))

    def test_the_entries_of_the_reference_have_one_shape(self):
        parts = ["Purpose", "Parameters", "Schedule", "Reads", "Changes", "Taken back by", "Logs", "Returns",
                 "What can go wrong"]
        for action, entry in entries():
            self.assertEqual(parts, re.findall(r"^- \*\*(.+?):\*\* \S", entry, re.MULTILINE), action)

    def test_returns_are_codes_with_their_meaning(self):
        for action, entry in entries():
            returns = " ".join(bullet(entry, "Returns").split())
            self.assertTrue(returns.endswith("."), action)
            codes = []
            for piece in returns[:-1].split("; "):
                match = re.fullmatch(r"(\d+|0x[0-9A-F]{8}) (?:always|when|while)\b[^;]*", piece)
                self.assertTrue(match, f"{action}: {piece}")
                codes.append(match[1])
            self.assertEqual(len(codes), len(set(codes)), action)

    def test_the_reference_names_the_actions_that_let_a_registry_error_out(self):
        sources = "\n".join(path.read_text(encoding="utf-8") for folder in
                            ("services", "msiregistry", "tasks", "components", "actions")
                            for path in ROOT.glob(f"{folder}/*.cpp"))
        exported = re.findall(r"^UINT __stdcall (\w+)\(MSIHANDLE[^)]*\) \{\n(.*?)^\}",
                              sources.replace('extern "C" UINT', "UINT"), re.MULTILINE | re.DOTALL)
        self.assertEqual(self.exports, {action for action, _ in exported})
        self.assertEqual({action for action, body in exported if "LetRegistryErrorThrough" in body},
                         {action for action, entry in entries()
                          if "lets a registry error out" in " ".join(bullet(entry, "What can go wrong").split())})

    def test_the_index_of_the_reference_names_every_action(self):
        index = read("docs", "actions.md").split("## I want to ...")[1].split("\n## ")[0]
        self.assertEqual(self.exports, set(re.findall(r"`(\w+)`", index)))

    def test_what_takes_an_action_back_is_an_action(self):
        for action, entry in entries():
            named = re.findall(r"`([A-Z][A-Za-z_]+)`", bullet(entry, "Taken back by"))
            self.assertEqual(set(), set(named) - self.exports, action)

    def test_what_the_table_of_facts_says_takes_an_action_back_is_in_its_entry(self):
        facts = re.findall(r'\{\.name = "(\w+)",(.*?)(?=\{\.name = "\w+"|\Z)', read("tool", "action_facts.cpp"),
                           re.DOTALL)
        self.assertEqual(self.exports, {action for action, _ in facts})
        said = dict(entries())
        for action, text in facts:
            for counterpart in re.findall(r'\.takenBackBy = "(\w+)"', text):
                self.assertIn(f"`{counterpart}`", bullet(said[action], "Taken back by"), action)

    def test_the_table_of_facts_and_the_reference_say_the_same_of_the_schedule(self):
        said = dict(entries())
        facts = re.findall(r'\{\.name = "(\w+)",(.*?)(?=\{\.name = "\w+",\s*\.room|\Z)', read("tool", "action_facts.cpp"),
                           re.DOTALL)
        schedules = {}
        for action, text in facts:
            match = re.search(r'\.schedule =((?:\s*"(?:[^"\\]|\\.)*")+),', text)
            if match:
                pieces = re.findall(r'"((?:[^"\\]|\\.)*)"', match[1])
                schedules[action] = "".join(pieces).replace('\\"', '"').replace("\\\\", "\\")
        self.assertEqual(self.exports, set(schedules))
        for action, schedule in schedules.items():
            self.assertEqual(" ".join(bullet(said[action], "Schedule").split()), schedule, action)

    def test_the_table_of_facts_and_the_reference_name_the_same_results(self):
        said = dict(entries())
        table = read("tool", "action_facts.cpp")
        shared = dict(re.findall(r"^const Result (\w+) = \{(\w+), ", table, re.MULTILINE))
        facts = re.findall(r'\{\.name = "(\w+)",\s*\.room.*?\.results =\s*\{(.*?)\},\s*\.(?:log|onFailure) =', table,
                           re.DOTALL)
        self.assertEqual(self.exports, {action for action, _ in facts})
        for action, results in facts:
            words = re.findall(r"\{(\w+), Outcome::|\b(k[A-Z]\w+)", results)
            codes = [int(number or shared[name], 0) for number, name in words]
            returns = " ".join(bullet(said[action], "Returns").split())
            said_codes = [int(number, 0) for number in re.findall(r"(?:^|; )(0x\w+|\d+) ", returns)]
            self.assertEqual(said_codes, codes, action)

    def test_the_examples_of_the_reference_and_the_readme_are_those_that_the_tests_install(self):
        sources = "\n".join(path.read_text(encoding="utf-8") for folder in ("package", "tests/fixtures")
                            for path in ROOT.glob(f"{folder}/*.wxs"))
        installed = {line.strip() for line in sources.splitlines()}
        for document in ("docs/actions.md", "README.md"):
            examples = re.findall(r"^ *```xml\n(.*?)^ *```$", read(*document.split("/")), re.MULTILINE | re.DOTALL)
            self.assertTrue(examples, document)
            for example in examples:
                lines = {line.strip() for line in re.sub("<!--.*?-->", "", example).splitlines()} - {""}
                self.assertEqual(set(), lines - installed, document)

    def test_every_export_is_called_by_a_test_through_the_dll(self):
        tests = "\n".join(path.read_text(encoding="utf-8") for path in ROOT.glob("tests/**/*_test.cpp"))
        self.assertEqual(set(), {name for name in self.exports if f'"{name}"' not in tests})

    def test_every_finding_of_corvi_check_is_described_and_has_a_test(self):
        found = set()
        for source in ROOT.glob("tool/check_*.cpp"):
            found |= set(re.findall(r'\{\s*"([a-z0-9]+(?:-[a-z0-9]+)+)",', source.read_text(encoding="utf-8")))
        self.assertTrue(found)
        described = re.findall(r"^\| `([a-z0-9-]+)` \| \S.* \| \S.* \|$", read("docs", "corvi.md"), re.MULTILINE)
        self.assertEqual(sorted(found), sorted(described))
        tests = read("tests", "tool", "check_test.cpp")
        self.assertEqual(set(), {name for name in found if f'"{name}"' not in tests})


if __name__ == "__main__":
    unittest.main()
