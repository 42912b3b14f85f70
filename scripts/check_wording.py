#!/usr/bin/env python3
"""Comments and documents give the reason as it stands, not a history that nobody can look up."""

import re
import subprocess
import sys

HISTORY = re.compile(
    r"\b(?:has|have|had) always\b|\balways (?:was|were|had|has been|been)\b|\bas (?:it )?always\b"
    r"|\bwere written against\b|\b(?:is|are) used to (?:that|it|this|them)\b|\bpackages rely\b|\bnever was\b"
    r"|\bhas never known\b|\bhas shipped\b", re.IGNORECASE)
COMMENT = re.compile(r"\s*(?://+|#|;|\*)?\s*")
NOT_TEXT = (".png", ".cer", ".msix", ".zip")
# These two name the phrases.
EXAMPLES = {"scripts/check_wording.py", "CONTRIBUTING.md"}


def paragraphs(path):
    """The text with line number, lines joined so that a phrase is found wherever it is wrapped."""
    with open(path, encoding="utf-8", errors="replace") as file:
        lines = file.read().splitlines()
    for number, line in enumerate(lines, 1):
        following = COMMENT.sub("", lines[number], count=1) if number < len(lines) else ""
        yield number, line.strip(), f"{line.strip()} {following}"


def main():
    listed = subprocess.run(["git", "ls-files", "-c", "-o", "--exclude-standard"], check=True, capture_output=True,
                            text=True).stdout.split("\n")
    complaints = []
    for path in listed:
        if path and path not in EXAMPLES and not path.endswith(NOT_TEXT):
            for number, line, joined in paragraphs(path):
                match = HISTORY.search(joined)
                # What lies wholly in the next line is told there.
                if match and match.start() < len(line):
                    complaints.append(f"{path}:{number}: an invented history: \"{match[0]}\"")
    print("\n".join(complaints), end="\n" if complaints else "", file=sys.stderr)
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
