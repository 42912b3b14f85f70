#!/usr/bin/env python3
"""The reference has every text that the library writes, and no other; and an entry's "Logs" are the lines
that the reference lists for its action. usage: log_texts_test.py ROOT"""

import pathlib
import re
import shutil
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
ROOT = pathlib.Path(sys.argv.pop(1))
sys.path.insert(0, str(ROOT / "scripts"))
import log_texts  # noqa: E402  (its folder is known only now)

CHAPTER = "## Every line, and what it means"
NEVER_IN_THE_LOG = "The next lines are sent to no session"


def reference(root):
    return (root / "docs" / "actions.md").read_text(encoding="utf-8")


def rows(text):
    """(line, who writes it, meaning) for each row of the tables. "\\n" in a row is a line feed."""
    return [(line.replace("\\n", "\n"), writers, meaning)
            for line, writers, meaning in re.findall(r"^\| `(.+?)` \| (.+?) \| (.+?) \|$", text, re.MULTILINE)]


def listed(root):
    return [line for line, _, _ in rows(reference(root).split(CHAPTER)[1])]


def differences(root):
    """(texts that only the sources have, texts that only the reference has)."""
    written, known = set(log_texts.read_texts(root)), set(listed(root))
    return written - known, known - written


def wrapped(line):
    """A line as a bullet of the reference can hold it, wherever that is wrapped."""
    return " ".join(line.replace("\n", "\\n").split())


class Reference(unittest.TestCase):
    def test_it_has_the_texts_of_the_sources_and_no_other(self):
        self.assertEqual((set(), set()), differences(ROOT))

    def test_no_text_stands_twice(self):
        lines = listed(ROOT)
        self.assertEqual([], sorted(line for line in set(lines) if lines.count(line) > 1))

    def test_every_row_has_a_meaning(self):
        chapter = reference(ROOT).split(CHAPTER)[1]
        table_rows = [line for line in chapter.splitlines() if line.startswith("| `")]
        self.assertEqual(len(table_rows), len(rows(chapter)))

    def test_an_entry_logs_the_lines_that_are_listed_for_its_action(self):
        text = reference(ROOT)
        log_table = text.split(CHAPTER)[1].split(NEVER_IN_THE_LOG)[0]
        entries = re.findall(r"^### `(\w+)`\n(.*?)(?=^##|\Z)", text, re.MULTILINE | re.DOTALL)
        self.assertTrue(entries)
        for action, entry in entries:
            logs = re.search(r"^- \*\*Logs:\*\* (.*?)(?=^- \*\*)", entry, re.MULTILINE | re.DOTALL)[1]
            quoted = {" ".join(line.split()) for line in re.findall(r'"(.*?)"', logs, re.DOTALL)}
            expected = {wrapped(line) for line, writers, _ in rows(log_table) if f"`{action}`" in writers}
            self.assertEqual(expected, quoted, action)

    def test_the_writers_of_the_lines_are_actions(self):
        text = reference(ROOT)
        actions = set(re.findall(r"^### `(\w+)`$", text, re.MULTILINE))
        named = {name for _, writers, _ in rows(text.split(CHAPTER)[1]) for name in re.findall(r"`(\w+)`", writers)}
        self.assertEqual(set(), named - actions)

    def test_the_table_of_facts_knows_the_lines_of_the_log(self):
        # Not a version alone, which no text tells from others, nor what any action may write.
        untold = {"%s", "CA buffer overflow"}
        log_table = reference(ROOT).split(CHAPTER)[1].split(NEVER_IN_THE_LOG)[0]
        facts = log_texts.literals((ROOT / "tool" / "action_facts.cpp").read_text(encoding="utf-8"))
        # A text of several lines is known by its first.
        known = {text.split("\n")[0].strip() for text in facts}
        wanted = {line.split("\n")[0].strip() for line, _, _ in rows(log_table) if line not in untold}
        self.assertEqual(set(), wanted - known)

    def test_no_text_leaves_the_library_by_another_way(self):
        self.assertEqual([], log_texts.other_ways_out(ROOT))


class Comparison(unittest.TestCase):
    """It fails both ways, on a copy of the sources and the reference: what is planted is found, beside
    whatever was different before."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)
        for name in (*log_texts.FOLDERS, "docs"):
            shutil.copytree(ROOT / name, self.root / name)
        self.before = differences(self.root)

    def found(self):
        return tuple(now - before for now, before in zip(differences(self.root), self.before))

    def test_a_new_line_in_the_sources_is_missed_in_the_reference(self):
        path = self.root / "actions" / "planted.cpp"
        path.write_text('void Planted(MSIHANDLE session) { WriteInstallerLog(session, L"Planted %d\\n", 1); }\n')
        self.assertEqual(({"Planted %d"}, set()), self.found())

    def test_a_line_that_the_sources_no_longer_have_is_too_much_in_the_reference(self):
        path = self.root / "actions" / "launch_guard.cpp"
        path.write_text(path.read_text().replace("Launched from PIM:", "Started from PIM:"))
        self.assertEqual(({"SABLE_CA Started from PIM: %s "}, {"SABLE_CA Launched from PIM: %s "}),
                         self.found())

    def test_a_row_that_is_dropped_is_missed(self):
        path = self.root / "docs" / "actions.md"
        path.write_text(re.sub(r"^\| `Win 11 only code` .*\n", "", path.read_text(), flags=re.MULTILINE))
        self.assertEqual(({"Win 11 only code"}, set()), self.found())


class Extraction(unittest.TestCase):
    """What the reading of the sources understands."""

    def read(self, source):
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder, "actions")
            path.mkdir()
            (path / "sample.cpp").write_text(source)
            return set(log_texts.read_texts(folder))

    def test_literals_side_by_side_are_one_text(self):
        self.assertEqual({"one two"}, self.read('void F() { OutputDebugStringW(L"one " L"two\\n"); }'))

    def test_both_branches_of_a_condition_count(self):
        self.assertEqual({"a", "b"}, self.read('void F(bool c) { OutputDebugStringW(c ? L"a" : L"b"); }'))

    def test_constants_and_their_aliases_are_followed(self):
        self.assertEqual({"text"}, self.read('constexpr wchar_t kA[] = L"text"; constexpr const wchar_t* kB = kA;\n'
                                             "void F() { OutputDebugStringW(kB); }"))

    def test_what_is_joined_to_a_text_stands_as_a_placeholder(self):
        self.assertEqual({"path %s here"}, self.read(
            'void F(const std::wstring& path) { WriteStandardOutput(L"path " + path + L" here"); }'))

    def test_a_parameter_that_is_handed_on_makes_a_function_a_way_out(self):
        self.assertEqual({"x"}, self.read("void Inner(const wchar_t* t) { OutputDebugStringW(t); }\n"
                                          "void Outer(int n, const wchar_t* u) { Inner(u); }\n"
                                          'void F() { Outer(1, L"x"); }'))

    def test_a_parameter_inside_a_format_is_filled_in(self):
        self.assertEqual({"step, error %d"}, self.read(
            'void Fail(const wchar_t* s, int e) { WriteStandardOutput(FormatBounded(64, L"%ls, error %d", s, e)); }\n'
            'void F() { Fail(L"step", 1); }'))

    def test_a_printed_variable_is_followed_to_its_format(self):
        self.assertEqual({"error %d"}, self.read(
            'void F() { wchar_t t[9]; wsprintfW(t, L"error %d", 1); OutputDebugStringW(t); }'))

    def test_comments_and_other_texts_do_not_count(self):
        self.assertEqual(set(), self.read('// OutputDebugStringW(L"no");\n'
                                          'void F() { Open(L"key"); /* OutputDebugStringW(L"no"); */ }'))

    def test_a_call_that_cannot_be_followed_is_an_error(self):
        with self.assertRaises(log_texts.Unreadable):
            self.read("void F() { OutputDebugStringW(unknown); }")


if __name__ == "__main__":
    unittest.main()
