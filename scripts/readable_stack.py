#!/usr/bin/env python3
"""Puts function names and source lines behind the addresses of Corvi_CA.dll in a stack, as a debugger, a crash
report or the event log prints it: "Corvi_CA+0x1a2b", "corvi_ca (+0x1a2b)", "Fault offset: 0x0000000000001a2b".
usage: readable_stack.py Corvi_CA.dll.debug [REPORT]   (standard input without REPORT)

Needs an addr2line that reads Windows programs: the mingw-w64 one, or llvm-addr2line."""

import pathlib
import re
import shutil
import struct
import subprocess
import sys

TOOLS = ["x86_64-w64-mingw32-addr2line", "llvm-addr2line", "addr2line"]
ADDRESS = re.compile(r"\bcorvi_ca(?:\.dll)?!?(?: ?\(?\+)(?:0x)?([0-9a-f]+)|fault offset: 0x([0-9a-f]+)", re.IGNORECASE)


def image_base(path):
    data = path.read_bytes()[:4096]
    header = struct.unpack_from("<I", data, 0x3C)[0]
    if data[:2] != b"MZ" or data[header:header + 4] != b"PE\0\0":
        raise SystemExit(f"readable_stack: {path} is no Windows program")
    return struct.unpack_from("<Q", data, header + 24 + 24)[0]


def names(tool, symbols, address):
    """The functions at an address, innermost (inlined) first, each with its place."""
    output = subprocess.run([tool, "-e", str(symbols), "-f", "-C", "-i", hex(address)], check=True,
                            capture_output=True, text=True).stdout.splitlines()
    return list(zip(output[0::2], output[1::2]))


def main(arguments):
    if not 1 <= len(arguments) <= 2:
        raise SystemExit(__doc__.split("\n\n")[0])
    symbols = pathlib.Path(arguments[0])
    tool = next((name for name in TOOLS if shutil.which(name)), None)
    if tool is None:
        raise SystemExit("readable_stack: none of these is installed: " + ", ".join(TOOLS))
    base = image_base(symbols)
    report = pathlib.Path(arguments[1]).read_text(errors="replace") if len(arguments) == 2 else sys.stdin.read()
    for line in report.splitlines():
        print(line)
        match = ADDRESS.search(line)
        if match:
            for function, place in names(tool, symbols, base + int(match[1] or match[2], 16)):
                print(f"        {function}  [{place}]")


if __name__ == "__main__":
    main(sys.argv[1:])
