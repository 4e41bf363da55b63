#!/usr/bin/python3
"""Writes the files that say what records.toml says. Run it after each change of the description.

    generate.py            writes them
    generate.py --check    writes nothing; shows what differs and fails when something does
"""
import difflib
import functools
import pathlib
import sys

import document
import headers
import lua
import table

ROOT = pathlib.Path(__file__).resolve().parents[2]
MARK = "Generated from tools/records/records.toml by tools/records/generate.py; do not edit."

# Each file that is made, and what makes its text.
OUTPUTS = {
    "docs/records.md": lambda: document.text(MARK),
    "tools/kipc/records/Table.inc": lambda: table.text(MARK),
    "tools/kipc/wireshark/usbservice.lua": lambda: lua.renewed(ROOT / "tools/kipc/wireshark/usbservice.lua", MARK),
    **{f"usbservice/src/record/{name}.h": functools.partial(headers.text, name, MARK) for name in headers.NAMES},
}


def check():
    """Shows how each file differs from what it should be; how many do."""
    wrong = 0
    for name, make in OUTPUTS.items():
        path = ROOT / name
        found = path.read_text() if path.exists() else ""
        difference = list(difflib.unified_diff(found.splitlines(keepends=True), make().splitlines(keepends=True), name,
                                               "as the description has it"))
        sys.stdout.writelines(difference)
        wrong += bool(difference)
    if wrong:
        print(f"{wrong} of {len(OUTPUTS)} files differ: run tools/records/generate.py")
    return wrong


def main(arguments):
    if arguments == ["--check"]:
        return 1 if check() else 0
    if arguments:
        print(__doc__, file=sys.stderr)
        return 2
    for name, make in OUTPUTS.items():
        path, text = ROOT / name, make()
        if not path.exists() or path.read_text() != text:
            path.write_text(text)
            print(f"wrote {name}")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
