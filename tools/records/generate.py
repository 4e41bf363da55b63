#!/usr/bin/python3
"""Writes the files that say what records.toml says. Run it after each change of the description.

    generate.py            writes them
    generate.py --check    writes nothing; shows what differs and fails when something does
"""
import difflib
import pathlib
import sys

import usbrecords

ROOT = pathlib.Path(__file__).resolve().parents[2]
MARK = "Generated from tools/records/records.toml by tools/records/generate.py; do not edit."

KINDS = {"u8": "KIND_U8", "u16": "KIND_U16", "u32": "KIND_U32", "i32": "KIND_I32", "text": "KIND_TEXT",
         "bytes": "KIND_BYTES"}


# --- the table of the C++ programs ---

def literal(data):
    """A C++ string literal that holds exactly these bytes."""
    if isinstance(data, str):
        data = data.encode()
    shown = {ord('"'): '\\"', ord("\\"): "\\\\"}
    return '"' + "".join(shown.get(byte) or (chr(byte) if 0x20 <= byte < 0x7f else f"\\{byte:03o}")
                         for byte in data) + '"'


def table_field(field):
    words = f"kWords_{field['words']}" if "words" in field else "{}"
    always = usbrecords.fixed(field)
    always = "{}" if always is None else f"{{{literal(always)}, {len(always)}}}"
    flags = ", ".join("true" if field.get(flag) else "false" for flag in ("hex", "unused", "any"))
    return (f"{{{literal(field['name'])}, {field['at']}, {usbrecords.width(field)}, "
            f"{KINDS[usbrecords.kind_of(field)]}, {words}, {always}, {flags}, {literal(field.get('says', ''))}}}")


def table():
    """tools/kipc/records/Table.inc: what Records.cpp looks everything up in."""
    lines = [f"// {MARK}", "// clang-format off", ""]
    for name, words in usbrecords.WORDS.items():
        lines.append(f"constexpr Word kWords_{name}[] = {{")
        lines += [f"    {{{number}, {literal(word)}}}," for number, word in words.items()]
        lines += ["};", ""]
    for name, record in usbrecords.RECORDS.items():
        receivers = ", ".join(literal(receiver) for receiver in record["to"])
        lines += [f"constexpr std::string_view kTo_{name}[] = {{{receivers}}};",
                  f"constexpr Field kFields_{name}[] = {{"]
        lines += [f"    {table_field(field)}," for field in record["fields"]]
        lines += ["};", ""]
    lines.append("constexpr Record kRecords[] = {")
    for name, record in usbrecords.RECORDS.items():
        lines.append(f"    {{{literal(name)}, {record['size']}, {record.get('minimum', record['size'])}, "
                     f"{'true' if 'minimum' in record else 'false'}, {literal(record['from'])}, kTo_{name}, "
                     f"kFields_{name}, {literal(record.get('says', ''))}}},")
    lines += ["};", "", "constexpr Process kProcesses[] = {"]
    lines += [f"    {{{literal(name)}, 0x{mask:016x}}}," for name, mask in usbrecords.PROCESSES.items()]
    lines += ["};", ""]
    return "\n".join(lines)


OUTPUTS = {
    "tools/kipc/records/Table.inc": table,
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
