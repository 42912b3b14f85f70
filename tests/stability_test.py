#!/usr/bin/env python3
"""The check of names, results and texts against the recorded list fails on each kind of change, and is content
once the changelog announces it. usage: stability_test.py ROOT"""

import pathlib
import shutil
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
ROOT = pathlib.Path(sys.argv.pop(1))
sys.path.insert(0, str(ROOT / "scripts"))
import check_stability  # noqa: E402  (its folder is known only now)
import log_texts  # noqa: E402


class Stability(unittest.TestCase):
    """On a copy, with the list recorded from it: only what a test changes is a change."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)
        for name in (*log_texts.FOLDERS, "docs"):
            shutil.copytree(ROOT / name, self.root / name)
        for name in ("CHANGELOG.md", "CMakeLists.txt"):
            shutil.copy(ROOT / name, self.root / name)
        self.assertEqual(0, check_stability.main(["--record", str(self.root)]))
        self.assertEqual([], list(check_stability.complaints(self.root)))

    def change(self, parts, old, new):
        path = self.root.joinpath(*parts)
        text = path.read_text(encoding="utf-8")
        self.assertIn(old, text)
        path.write_text(text.replace(old, new, 1), encoding="utf-8")

    def assert_needs_announcing(self, name, count):
        found = list(check_stability.complaints(self.root))
        self.assertEqual(count, len(found), found)
        self.assertTrue(all(name in line for line in found), found)
        self.change(["CHANGELOG.md"], "## [Unreleased]\n", f"## [Unreleased]\n\n- {name}\n")
        self.assertEqual([], list(check_stability.complaints(self.root)))

    def test_an_export_that_is_gone(self):
        self.change(["actions", "Corvi_CA.def"], "    BlockKITELaunch\n", "")
        self.assert_needs_announcing("BlockKITELaunch", 1)

    def test_an_export_that_is_new(self):
        self.change(["actions", "Corvi_CA.def"], "    BlockLaunch\n", "    BlockLaunch\n    BlockAll\n")
        self.assert_needs_announcing("BlockAll", 1)

    def test_another_result(self):
        self.change(["docs", "actions.md"], "0 when the value is `1`; 1612 when it is not.",
                    "0 when the value is `1`; 1603 when it is not.")
        self.assert_needs_announcing("LaunchedFromPIM", 2)

    def test_another_text(self):
        self.change(["actions", "launch_guard.cpp"], "Launched from PIM:", "Begun from PIM:")
        found = list(check_stability.complaints(self.root))
        self.assertEqual(2, len(found), found)
        self.change(["CHANGELOG.md"], "## [Unreleased]\n",
                    '## [Unreleased]\n\n- "SABLE_CA Launched from PIM: %s " is "SABLE_CA Begun from PIM: %s " now\n')
        self.assertEqual([], list(check_stability.complaints(self.root)))

    def test_an_announcement_of_an_older_release_does_not_count(self):
        self.change(["actions", "Corvi_CA.def"], "    BlockKITELaunch\n", "")
        released = check_stability.version(self.root)
        self.change(["CHANGELOG.md"], f"## [{released}]", f"## [{released}]\n\n- BlockKITELaunch\n")
        self.assertEqual(1, len(list(check_stability.complaints(self.root))))

    def test_the_changelog_names_the_version(self):
        self.change(["CMakeLists.txt"], "VERSION " + check_stability.version(self.root), "VERSION 9.9.9")
        self.assertEqual(1, len(list(check_stability.complaints(self.root))))


if __name__ == "__main__":
    unittest.main()
