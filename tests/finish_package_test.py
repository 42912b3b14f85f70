#!/usr/bin/env python3
"""What package/finish_package.py writes into a package that wixl built. usage: finish_package_test.py ROOT"""

import pathlib
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(sys.argv.pop(1))
FINISH = ROOT / "package" / "finish_package.py"
SOURCE = """<?xml version="1.0" encoding="utf-8"?>
<Wix xmlns="http://schemas.microsoft.com/wix/2006/wi">
  <Product Id="*" Name="Finish" Version="1.0.0" Manufacturer="Corvi" Language="1033"
           UpgradeCode="{{6E0C7F52-3D1A-4B88-9C24-5F0A1B2C3D40}}">
    <Package InstallerVersion="500" Compressed="yes" />
    {upgrade}
    <!-- <?include not_there.wxi ?> is no include. -->
    {more}
    <Directory Id="TARGETDIR" Name="SourceDir" />
    <Feature Id="All" Level="1" />
    <CustomAction Id="Tool.Path" Property="Tool" Value="x" />
    <CustomAction Id="Do" Property="Tool" ExeCommand="do" Execute="deferred" Return="check" />
    <CustomAction Id="Do.Rollback" Property="Tool" ExeCommand="undo" Execute="rollback" Return="ignore" />
    <CustomAction Id="Do.Commit" Property="Tool" ExeCommand="keep" Execute="commit" Return="ignore" />
    <InstallExecuteSequence>
      <Custom Action="Do.Rollback" Sequence="{first}" />
      <Custom Action="Do" Sequence="5910" />
    </InstallExecuteSequence>
  </Product>
</Wix>
"""
SECURE = '<Property Id="GIVEN" Secure="yes" /><Property Id="OTHER" Value="1" />'


class FinishPackage(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.source = pathlib.Path(folder.name) / "package.wxs"
        self.package = pathlib.Path(folder.name) / "package.msi"

    def build(self, upgrade="", more="", first=5900):
        self.source.write_text(SOURCE.format(upgrade=upgrade, more=more, first=first), encoding="utf-8")
        subprocess.run(["wixl", "-a", "x64", "-o", str(self.package), str(self.source)], check=True,
                       stderr=subprocess.DEVNULL)

    def finish(self):
        return subprocess.run([sys.executable, str(FINISH), str(self.package), str(self.source)],
                              capture_output=True, text=True, check=False)

    def table(self, name):
        done = subprocess.run(["msiinfo", "export", str(self.package), name], capture_output=True, check=True)
        rows = [line.split("\t") for line in done.stdout.decode().replace("\r", "").split("\n")[3:] if line]
        return {row[0]: row[1:] for row in rows}

    def test_rollback_and_commit_actions_get_their_type_and_others_keep_theirs(self):
        self.build()
        before = self.table("CustomAction")
        self.assertEqual("", self.finish().stderr)
        after = self.table("CustomAction")
        self.assertEqual(int(before["Do.Rollback"][0]) | 0x500, int(after["Do.Rollback"][0]))
        self.assertEqual(int(before["Do.Commit"][0]) | 0x600, int(after["Do.Commit"][0]))
        for name in ("Do", "Tool.Path"):
            self.assertEqual(before[name], after[name])

    def test_secure_properties_are_listed_beside_those_of_the_upgrade_table(self):
        self.build(upgrade='<MajorUpgrade DowngradeErrorMessage="No." />', more=SECURE)
        self.finish()
        self.assertEqual("GIVEN;WIX_DOWNGRADE_DETECTED;WIX_UPGRADE_DETECTED",
                         self.table("Property")["SecureCustomProperties"][0])

    def test_secure_properties_are_listed_where_there_is_no_upgrade_table(self):
        self.build(more=SECURE)
        self.finish()
        self.assertEqual("GIVEN", self.table("Property")["SecureCustomProperties"][0])

    def test_the_older_version_is_removed_where_the_schedule_says(self):
        for schedule, place in (("", "1401"), ('Schedule="afterInstallInitialize"', "1501"),
                                ('Schedule="afterInstallFinalize"', "6601")):
            self.build(upgrade=f'<MajorUpgrade {schedule} DowngradeErrorMessage="No." />')
            self.assertEqual("", self.finish().stderr)
            self.assertEqual(place, self.table("InstallExecuteSequence")["RemoveExistingProducts"][1], schedule)

    def test_a_number_that_is_taken_is_refused(self):
        self.build(upgrade='<MajorUpgrade Schedule="afterInstallInitialize" DowngradeErrorMessage="No." />',
                   first=1501)
        done = self.finish()
        self.assertEqual(1, done.returncode)
        self.assertIn("Do.Rollback has the sequence number", done.stderr)

    def test_an_include_that_is_not_found_is_refused(self):
        self.build()
        self.source.write_text(self.source.read_text(encoding="utf-8").replace(
            "<Directory ", "<?include missing.wxi ?><Directory "), encoding="utf-8")
        done = self.finish()
        self.assertEqual(1, done.returncode)
        self.assertIn("missing.wxi is not found", done.stderr)

    def test_a_second_run_changes_nothing(self):
        self.build(upgrade='<MajorUpgrade DowngradeErrorMessage="No." />', more=SECURE)
        self.finish()
        tables = [self.table(name) for name in ("CustomAction", "Property", "InstallExecuteSequence")]
        self.finish()
        self.assertEqual(tables, [self.table(name) for name in ("CustomAction", "Property", "InstallExecuteSequence")])


if __name__ == "__main__":
    unittest.main()
