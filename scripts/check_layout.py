#!/usr/bin/env python3
"""The folders are floors: a folder includes only from its own and from floors below it, no two files
include each other in a circle, and the headers that would bring locale code into the DLL stay out of it
(the tool on the top floor is a program of its own and may have them)."""

import re
import subprocess
import sys

FLOORS = {"runtime": 1, "services": 2, "msiregistry": 2, "tasks": 3, "components": 3, "actions": 4, "tool": 5}
PROGRAMS = {"tool"}
BANNED = {
    "filesystem", "regex", "locale", "iostream", "istream", "ostream", "fstream", "sstream", "iomanip",
    "codecvt", "syncstream", "spanstream",
}
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]')


def product_sources():
    listed = subprocess.run(["git", "ls-files", "-c", "-o", "--exclude-standard", "--", *FLOORS],
                            check=True, capture_output=True, text=True).stdout.split("\n")
    return [path for path in listed if path.endswith((".cpp", ".h", ".h.in"))]


def includes(path):
    with open(path, encoding="utf-8") as source:
        for number, line in enumerate(source, 1):
            match = INCLUDE.match(line)
            if match:
                yield number, match.group(1), match.group(2)


def complaint(folder, bracket, target):
    if bracket == "<":
        banned = target in BANNED and folder not in PROGRAMS
        return f"<{target}> stays out of the product" if banned else None
    other = target.split("/")[0]
    if other not in FLOORS:
        return f'"{target}" is not a path from the root of the product'
    if other != folder and FLOORS[other] >= FLOORS[folder]:
        return f"{folder}/ (floor {FLOORS[folder]}) may not include {other}/ (floor {FLOORS[other]})"
    return None


def circle(graph):
    done, path = set(), []

    def visit(node):
        if node in path:
            return path[path.index(node):] + [node]
        if node in done:
            return None
        path.append(node)
        for target in sorted(graph.get(node, ())):
            found = visit(target)
            if found:
                return found
        path.pop()
        done.add(node)
        return None

    for start in sorted(graph):
        found = visit(start)
        if found:
            return found
    return None


def main():
    complaints, graph = [], {}
    sources = product_sources()
    for path in sources:
        for number, bracket, target in includes(path):
            problem = complaint(path.split("/")[0], bracket, target)
            if problem:
                complaints.append(f"{path}:{number}: {problem}")
            if bracket == '"':
                graph.setdefault(path, set()).add(target)
    found = circle(graph)
    if found:
        complaints.append("files include each other: " + " -> ".join(found))
    if not sources:
        complaints.append("no product sources found")
    print("\n".join(complaints), end="\n" if complaints else "", file=sys.stderr)
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
