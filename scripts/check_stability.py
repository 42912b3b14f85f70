#!/usr/bin/env python3
"""What others depend on by name or text: the exports, the results of each action and the texts that the
library writes. Compares them with the list recorded for the last release (docs/interface.txt) and fails on a
difference that the changelog does not announce in a section above that release.
usage: check_stability.py [--record] [ROOT]   (--record writes the list anew, for a release)"""

import pathlib
import re
import sys

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).parent))
import log_texts  # noqa: E402  (its folder is known only now)

RECORD = pathlib.PurePath("docs", "interface.txt")
HEADING = "What release {} has, a line each; written by scripts/check_stability.py --record"


def read(root, *parts):
    return root.joinpath(*parts).read_text(encoding="utf-8")


def version(root):
    return re.search(r"project\(Corvi_CA VERSION (\S+)", read(root, "CMakeLists.txt"))[1]


def exports(root):
    lines = [line.strip() for line in read(root, "actions", "Corvi_CA.def").splitlines()]
    return [line for line in lines[lines.index("EXPORTS") + 1:] if line and not line.startswith(";")]


def results(root):
    """The codes of each action, from its entry of the reference, which a test holds equal to the sources' table."""
    for name, text in re.findall(r"^### `(\w+)`\n.*?^- \*\*Returns:\*\* (.*?)(?=^- \*\*|^##|\Z)",
                                 read(root, "docs", "actions.md"), re.MULTILINE | re.DOTALL):
        yield name, [code.strip() for code in re.findall(r"(?:^|;)\s*(0x[0-9A-F]+|\d+)(?= )", text)]


def interface(root):
    """line -> what the changelog must name when the line is new or gone."""
    lines = {f"export {name}": name for name in exports(root)}
    lines.update({f"result {name}: {' '.join(codes)}": name for name, codes in results(root)})
    for text in log_texts.read_texts(root):
        shown = text.replace("\n", "\\n")
        lines[f"text {shown}"] = shown
    return lines


def named_by(line):
    kind, _, rest = line.partition(" ")
    return rest.partition(":")[0] if kind == "result" else rest


def announced(changelog, released):
    """The changelog's part above the section of the recorded release."""
    position = changelog.find(f"\n## [{released}]")
    return changelog if position < 0 else changelog[:position]


def complaints(root):
    record = read(root, *RECORD.parts).splitlines()
    released = re.search(r"release (\S+) has", record[0])[1]
    known, current = set(record[1:]), interface(root)
    changelog = read(root, "CHANGELOG.md")
    news = announced(changelog, released)
    for line in sorted(set(current) ^ known):
        if named_by(line) not in news:
            change = "is new" if line in current else "is gone"
            yield f"'{line}' {change} since {released}, and CHANGELOG.md does not announce it"
    first = changelog.split("\n", 1)[0]
    if version(root) not in first.split() or f"\n## [{version(root)}]" not in changelog:
        yield f"CHANGELOG.md: the first line and a section name the version, {version(root)}"


def main(arguments):
    root = pathlib.Path(next((word for word in arguments if word != "--record"),
                             pathlib.Path(__file__).parent.parent))
    if "--record" in arguments:
        lines = [HEADING.format(version(root)), *sorted(interface(root))]
        root.joinpath(RECORD).write_text("\n".join(lines) + "\n", encoding="utf-8")
        return 0
    found = list(complaints(root))
    print("\n".join(found), end="\n" if found else "", file=sys.stderr)
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
