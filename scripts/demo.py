#!/usr/bin/env python3
"""Tells the suite's story with the real installer and shows, for each run of a package, the custom
actions, their lines in the installer log, and what changed on the machine.
usage: demo.py LOG_FOLDER, in the environment of a throwaway Wine prefix (scripts/demo.sh)"""

import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import textwrap
import time

import demo_story

TIMEOUT = 120  # seconds for one run of the installer


class DemoFailure(Exception):
    """One clear line for the reader."""


def wine(*command):
    """The output and exit code of a Windows program."""
    # To a file, not a pipe: Wine's services inherit a pipe and hold it open long after the program.
    with tempfile.TemporaryFile() as output:
        try:
            done = subprocess.run(["wine", *command], stdout=output, stderr=subprocess.DEVNULL,
                                  stdin=subprocess.DEVNULL, timeout=TIMEOUT, check=False)
        except FileNotFoundError as error:
            raise DemoFailure("Wine is not installed; run 'make setup'") from error
        except subprocess.TimeoutExpired as error:
            raise DemoFailure(f"timed out after {TIMEOUT} s: {' '.join(command)}") from error
        output.seek(0)
        return output.read().decode("utf-8", "replace").replace("\r", ""), done.returncode


class Machine:
    """What can be asked of the machine that is installed on."""

    def __init__(self, prefix):
        self.drive = pathlib.Path(prefix) / "drive_c"

    def path(self, windows_path):
        return self.drive.joinpath(*windows_path.split("\\")[1:])

    def probe(self, what):
        """The state of one thing as text, or None when it is not there."""
        kind, _, name = what.partition(" ")
        if kind == "file":
            return "there" if self.path(name).exists() else None
        if kind == "task":
            return "there" if (self.drive / "windows/system32/tasks" / name).exists() else None
        if kind == "service":
            return self.probe(f"key HKLM\\SYSTEM\\CurrentControlSet\\Services\\{name}")
        if kind == "key":
            return "there" if wine("reg", "query", name)[1] == 0 else None
        if kind == "value":
            key, _, value = name.rpartition(" | ")
            output, code = wine("reg", "query", key, "/v", value)
            return output.strip().split("    ")[-1].strip() if code == 0 else None
        raise ValueError(what)

    def state(self, probes):
        return {what: self.probe(what) for what in probes}


def plant(machine, things):
    for what, content in things:
        kind, _, name = what.partition(" ")
        if kind == "file":
            target = machine.path(name)
            target.parent.mkdir(parents=True, exist_ok=True)
            target.write_text(content, encoding="utf-8")
        elif kind == "service":
            if wine("sc", "create", name, f"binPath={content}", "type=own", "start=demand")[1] != 0:
                raise DemoFailure(f"could not plant {what}")
        elif kind == "value":
            key, _, value = name.rpartition(" | ")
            number = content.startswith("dword:")
            data = content.removeprefix("dword:")
            _, code = wine("reg", "add", key, "/v", value, "/t", "REG_DWORD" if number else "REG_SZ",
                           "/d", data, "/f")
            if code != 0:
                raise DemoFailure(f"could not plant {what}")
        else:
            raise ValueError(what)


def custom_actions(log_name):
    """[action, what it came to, its log lines] in the order in which they ran, as corvi explain tells it."""
    output, code = wine("C:\\corvi\\corvi.exe", "explain", "--json", f"C:\\corvi\\{log_name}")
    if code not in (0, 1):
        raise DemoFailure(f"corvi explain could not read {log_name}")
    actions = json.loads(output)["logs"][0]["actions"]
    return [[action["name"], action["verdict"], [line["text"].rstrip() for line in action["lines"]]]
            for action in actions if action["verdict"] != "never ran"]


def table(rows, headers):
    widths = [max(len(row[column]) for row in [headers, *rows]) for column in range(len(headers) - 1)]
    last = max(20, 108 - sum(widths) - 3 * len(widths))

    def show(row):
        wrapped = [piece for line in (row[-1].split("\n") or [""])
                   for piece in (textwrap.wrap(line, last) or [""])]
        for index, piece in enumerate(wrapped):
            cells = row[:-1] if index == 0 else [""] * len(widths)
            print("  " + "   ".join([cell.ljust(width) for cell, width in zip(cells, widths)] + [piece]).rstrip())

    show(headers)
    show(["-" * width for width in widths] + ["-" * 20])
    for row in rows:
        show(row)


def run_step(machine, number, step, logs):
    print(f"\n[{number}] {step['title']}", flush=True)
    plant(machine, step.get("plant", []))
    before = machine.state(step["watch"])
    began = time.monotonic()
    log_name = f"{number:02}-{step['log']}.log"
    command = f"msiexec {step['msiexec']} /qn /l*v C:\\corvi\\{log_name}"
    print(f"    msiexec {step['msiexec']} /qn")
    output, _ = wine("cmd", "/c", f"{command} & call echo result=%^errorlevel%")
    match = re.search(r"result=(-?\d+)", output)
    if not match:
        raise DemoFailure(f"the installer gave no result: {output.strip()}")
    code = int(match.group(1))
    raw = (machine.drive / "corvi" / log_name).read_bytes()
    text = raw.decode("utf-16" if raw[:2] == b"\xff\xfe" else "utf-8", "replace").replace("\r", "")
    (logs / log_name).write_text(text, encoding="utf-8")
    after = machine.state(step["watch"])

    rows = [[name, verdict, "\n".join(lines)] for name, verdict, lines in custom_actions(log_name)]
    table(rows or [["(none)", "", ""]], ["action", "result", "log lines"])
    changes = [f"{what}: {before[what] or 'absent'} -> {after[what] or 'absent'}"
               for what in step["watch"] if before[what] != after[what]]
    print("    changed on the machine: " + ("; ".join(changes) if changes else "nothing"))
    if "note" in step:
        print(f"    note: {step['note']}")
    print(f"    installer's result: {code}; {time.monotonic() - began:.1f} s; full log: {logs / log_name}")

    problems = []
    if code != step["result"]:
        problems.append(f"the installer's result is {code}, not {step['result']}")
    for what, expected in step["expect"].items():
        found = after[what]
        if (found is None) != (expected is None) or (expected not in (None, True) and found != expected):
            problems.append(f"{what} is {found or 'absent'}, not {expected or 'absent'}")
    ran = [row[0] for row in rows]
    for name in step["actions"]:
        if name not in ran:
            problems.append(f"{name} did not run")
    for problem in problems:
        print(f"    NOT AS EXPECTED: {problem}")
    return not problems


def main():
    logs = pathlib.Path(sys.argv[1])
    machine = Machine(os.environ["WINEPREFIX"])
    results = [run_step(machine, number, {"watch": list(step["expect"]), **step}, logs)
               for number, step in enumerate(demo_story.STEPS, 1)]
    good = sum(results)
    print(f"\ndemo: {good} of {len(results)} runs of the installer went as expected: "
          + ("PASSED" if all(results) else "FAILED"))
    return 0 if all(results) else 1


if __name__ == "__main__":
    try:
        sys.exit(main())
    except DemoFailure as failure:
        print(f"demo: {failure}", file=sys.stderr)
        sys.exit(1)
