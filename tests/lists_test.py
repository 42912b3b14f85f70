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


class Lists(unittest.TestCase):
    def setUp(self):
        self.exports = exports()
        self.assertTrue(self.exports)

    def test_every_export_is_declared_for_package_authors_and_nothing_else(self):
        declared = re.findall(r'<CustomAction Id="(\w+)" BinaryKey="Corvi_CA" DllEntry="(\w+)"',
                              read("package", "Corvi_CA.wxi"))
        self.assertEqual([], [pair for pair in declared if pair[0] != pair[1]])
        self.assertEqual(self.exports, {name for name, _ in declared})
        self.assertEqual(len(declared), len(self.exports))

    def test_every_export_is_scheduled_by_a_package(self):
        scheduled = set()
        for package in ROOT.glob("package/*.wxs"):
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
        entries = re.findall(r"^### `(\w+)`$", read("docs", "actions.md"), re.MULTILINE)
        self.assertEqual(len(entries), len(set(entries)))
        self.assertEqual(self.exports, set(entries))

    def test_the_entries_of_the_reference_have_one_shape(self):
        parts = ["Purpose", "Schedule", "Reads", "Changes", "Logs", "Returns", "What can go wrong"]
        text = read("docs", "actions.md")
        for match in re.finditer(r"^### `(\w+)`\n(.*?)(?=^##|\Z)", text, re.MULTILINE | re.DOTALL):
            self.assertEqual(parts, re.findall(r"^- \*\*(.+?):\*\* \S", match.group(2), re.MULTILINE),
                             match.group(1))

    def test_every_export_is_called_by_a_test_through_the_dll(self):
        tests = "\n".join(path.read_text(encoding="utf-8") for path in ROOT.glob("tests/**/*_test.cpp"))
        self.assertEqual(set(), {name for name in self.exports if f'"{name}"' not in tests})


if __name__ == "__main__":
    unittest.main()
