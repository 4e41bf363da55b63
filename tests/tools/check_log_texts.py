#!/usr/bin/python3
"""Every log text of the service is compared whole by a test.

Takes the format of each ULOG call (and of the two start-up lines) in usbservice/src and looks for a string in the
unit or service tests that the format could have printed, from its first to its last character, or for the format
itself, which a test fills in. Texts that cannot be produced stand in tests/data/unreachable_log_texts.txt, each with its reason behind a tab."""
import re
import sys

from log_calls import ROOT, SERVICE, STRING, formats, unescape

TESTS = [ROOT / "tests" / "unit", ROOT / "tests" / "service"]
UNREACHABLE = ROOT / "tests" / "data" / "unreachable_log_texts.txt"

CONVERSION = re.compile(r"%[-+ #0]*\d*(?:\.\d+)?(?:hh|h|ll|l|z)?([diuxXcsp%])")
PLAIN = {"d": r"-?\d+", "i": r"-?\d+", "u": r"\d+", "x": r"[0-9a-f]+", "X": r"[0-9A-F]+", "c": ".", "s": ".*",
         "p": r"(?:0x[0-9a-f]+|\(nil\)|.+)", "%": "%"}


def pattern(form):
    """What the format can print; widths such as %2x print blanks in front."""
    out, at = "", 0
    for found in CONVERSION.finditer(form):
        out += re.escape(form[at:found.start()]) + r"\s*" * bool(re.match(r"%\d", found.group()))
        out += PLAIN[found.group(1)]
        at = found.end()
    return re.compile(out + re.escape(form[at:]), re.S)


def strings():
    """Texts of the tests, by the characters they are made of; adjacent literals are one."""
    for folder in TESTS:
        for path in sorted(folder.rglob("*.cpp")) + sorted(folder.rglob("*.h")) + sorted(folder.rglob("*.py")):
            text = path.read_text()
            for found in re.finditer(r"(?:" + STRING + r"\s*)+", text):
                yield unescape(found.group())
            for found in re.finditer(r'R"\((.*?)\)"', text, re.S):
                yield found.group(1)
            for found in re.finditer(r"(?<![A-Za-z0-9\"'])'((?:[^'\\\n]|\\.)*)'", text):   # Python's other quotes
                yield found.group(1).replace("\\'", "'")


def main():
    excused = {}
    if UNREACHABLE.exists():
        for line in UNREACHABLE.read_text().splitlines():
            if line and not line.startswith("#"):
                form, _, reason = line.partition("\t")
                excused[form] = reason
    wanted = list(formats(*SERVICE))
    have = set(strings())
    faults = []
    if len(wanted) < 100:
        faults.append(f"only {len(wanted)} log calls were found: is this the right folder?")
    seen = set()
    for path, line, form in wanted:
        if form in excused:
            seen.add(form)
            if not excused[form].strip():
                faults.append(f"{UNREACHABLE.name}: no reason is given for: {form}")
            continue
        what = pattern(form)
        # A text of conversions only ("%s") is matched by anything: nothing to look for.
        if not CONVERSION.sub("", form).strip():
            continue
        if form not in have and not any(what.fullmatch(text) for text in have):
            faults.append(f"{path}:{line}: no test compares: {form}")
    for form in sorted(set(excused) - seen):
        faults.append(f"{UNREACHABLE.name}: no such log text: {form}")
    print("\n".join(faults) if faults else f"{len(wanted)} log calls, each compared whole ({len(seen)} unreachable)")
    return 1 if faults else 0


sys.exit(main())
