#!/usr/bin/env python3
"""Writes into a package that wixl built what its source says and wixl drops. WiX itself needs none of this.

usage: finish_package.py PACKAGE.msi SOURCE.wxs [-I FOLDER]...

- CustomAction Execute="rollback" or "commit": wixl compiles an immediate action, which would run at once.
- Property Secure="yes": wixl leaves it out, and a start with full user interface then drops the property
  between its unelevated and its elevated half.
- MajorUpgrade Schedule: wixl places RemoveExistingProducts last, where the older version's removal takes the
  newer version's files away. Without the attribute it goes where WiX puts it, behind InstallValidate.

Includes are looked up beside the source and in the folders given. Needs msitools (msibuild, msiinfo)."""

import argparse
import pathlib
import re
import subprocess
import sys
import xml.etree.ElementTree as ElementTree

WIX = "{http://schemas.microsoft.com/wix/2006/wi}"
IN_SCRIPT = 0x400
SCHEDULED_WHEN = {"rollback": 0x100, "commit": 0x200}
REMOVAL_BEHIND = {
    "afterInstallValidate": "InstallValidate",
    "afterInstallInitialize": "InstallInitialize",
    "afterInstallExecute": "InstallExecute",
    "afterInstallExecuteAgain": "InstallExecuteAgain",
    "afterInstallFinalize": "InstallFinalize",
}


class Refusal(Exception):
    """One clear line for the author."""


def read_source(source, folders):
    """The elements of a source and of everything that it includes."""
    text = source.read_text(encoding="utf-8")
    yield from ElementTree.fromstring(text).iter()
    for name in re.findall(r"<\?include\s+(.+?)\s*\?>", re.sub(r"<!--.*?-->", "", text, flags=re.DOTALL)):
        places = [folder / name for folder in [source.parent, *folders]]
        found = next((place for place in places if place.is_file()), None)
        if found is None:
            raise Refusal(f"{source}: the include {name} is not found")
        yield from read_source(found, folders)


def rows(package, table):
    """The rows of a table, each as a list of texts; none when there is no such table."""
    done = subprocess.run(["msiinfo", "export", str(package), table], capture_output=True, check=False)
    lines = done.stdout.decode("utf-8").replace("\r", "").split("\n")
    return [line.split("\t") for line in lines[3:] if line]


def run_queries(package, queries):
    arguments = [argument for query in queries for argument in ("-q", query)]
    done = subprocess.run(["msibuild", str(package), *arguments], capture_output=True, text=True, check=False)
    if done.returncode != 0 or done.stderr.strip():
        raise Refusal(f"msibuild: {done.stderr.strip() or done.returncode}")


def action_types(elements, package):
    """Queries that give rollback and commit actions their type."""
    types = {row[0]: int(row[1]) for row in rows(package, "CustomAction")}
    for element in elements:
        when = SCHEDULED_WHEN.get(element.get("Execute")) if element.tag == WIX + "CustomAction" else None
        if when is not None and element.get("Id") in types:
            wanted = types[element.get("Id")] | IN_SCRIPT | when
            yield f"UPDATE `CustomAction` SET `Type` = {wanted} WHERE `Action` = '{element.get('Id')}'"


def secure_properties(elements, package):
    """The query that lists the secure properties, beside those that are listed already."""
    secure = {element.get("Id") for element in elements
              if element.tag == WIX + "Property" and element.get("Secure") == "yes"}
    listed = {row[0]: row[1] for row in rows(package, "Property")}.get("SecureCustomProperties")
    text = ";".join(sorted(secure | set((listed or "").split(";")) - {""}))
    if not secure:
        return
    if listed is None:
        yield f"INSERT INTO `Property` (`Property`, `Value`) VALUES ('SecureCustomProperties', '{text}')"
    else:
        yield f"UPDATE `Property` SET `Value` = '{text}' WHERE `Property` = 'SecureCustomProperties'"


def removal_place(elements, package):
    """The query that places the removal of the older version."""
    upgrade = next((element for element in elements if element.tag == WIX + "MajorUpgrade"), None)
    if upgrade is None:
        return
    schedule = upgrade.get("Schedule", "afterInstallValidate")
    numbers = {row[0]: int(row[2]) for row in rows(package, "InstallExecuteSequence")}
    if REMOVAL_BEHIND.get(schedule) not in numbers:
        raise Refusal(f"the package has nothing to schedule the upgrade behind: {schedule}")
    place = numbers[REMOVAL_BEHIND[schedule]] + 1
    taken = [name for name, number in numbers.items() if number == place and name != "RemoveExistingProducts"]
    if taken:
        raise Refusal(f"{taken[0]} has the sequence number that RemoveExistingProducts needs: {place}")
    yield f"UPDATE `InstallExecuteSequence` SET `Sequence` = {place} WHERE `Action` = 'RemoveExistingProducts'"


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("package", type=pathlib.Path)
    parser.add_argument("source", type=pathlib.Path)
    parser.add_argument("-I", dest="folders", type=pathlib.Path, action="append", default=[])
    arguments = parser.parse_args()
    if not arguments.package.is_file():
        raise Refusal(f"{arguments.package} is not there")
    elements = list(read_source(arguments.source, arguments.folders))
    queries = [query for write in (action_types, secure_properties, removal_place)
               for query in write(elements, arguments.package)]
    if queries:
        run_queries(arguments.package, queries)


if __name__ == "__main__":
    try:
        main()
    except (Refusal, OSError, ElementTree.ParseError) as error:
        sys.exit(f"finish_package: {error}")
