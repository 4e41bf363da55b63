#!/usr/bin/python3
"""docs/conformance.md names what exists: each place in its second column, each test in its third.

Exits non-zero with one line per offence; says how many rows still have no test."""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
DOCUMENT = ROOT / "docs" / "conformance.md"
SOURCES = [ROOT / "usbservice" / "src", ROOT / "shm", ROOT / "platform"]
HEADINGS = {"Behaviour", "---"}


def sources():
    return [path.read_text() for folder in SOURCES for path in sorted(folder.rglob("*"))
            if path.suffix in (".h", ".cpp", ".inc")]


def unit_tests():
    named = re.compile(r"^TEST(?:_F|_P)?\(\s*(\w+)\s*,\s*(\w+)\s*\)", re.MULTILINE)
    return {f"{suite}.{name}" for path in (ROOT / "tests" / "unit").rglob("*.cpp")
            for suite, name in named.findall(path.read_text())}


class Names:
    def __init__(self):
        self.sources = sources()
        self.unit_tests = unit_tests()
        self.house = (ROOT / "tests" / "CMakeLists.txt").read_text()

    def is_place(self, name):
        """A file, or words that one source file holds together: a class, a function, or both."""
        if "/" in name:
            return (ROOT / name).is_file()
        words = [re.compile(rf"(?<!\w){re.escape(word)}(?!\w)") for word in name.split("::")]
        return any(all(word.search(text) for word in words) for text in self.sources)

    def is_test(self, name):
        if "/" not in name:
            return name in self.unit_tests
        program, _, method = name.partition(" ")
        kind, _, file = program.partition("/")
        if kind == "house":
            return f"NAME {program}\n" in self.house or f"NAME {program} " in self.house
        if kind == "fuzz":
            return (ROOT / "tests" / "fuzz" / f"{file}.cpp").is_file()
        folder = ROOT / "tests" / {"records": "service"}.get(kind, kind)
        script = folder / ("test_records.py" if kind == "records" else f"test_{file}.py")
        registered = (folder / "CMakeLists.txt").read_text() if folder.is_dir() else ""
        return (script.is_file() and re.search(rf"(?<!\w){re.escape(file)}(?!\w)", registered) is not None
                and re.search(rf"^    def {re.escape(method)}\(self", script.read_text(), re.MULTILINE) is not None)


def rows(text):
    for number, line in enumerate(text.splitlines(), 1):
        if not line.startswith("|"):
            continue
        cells = [cell.strip() for cell in line.strip().strip("|").split(" | ")]
        first = cells[0].strip("|").strip()
        if first in HEADINGS or first.startswith("---") or first.startswith("**"):
            continue
        yield number, cells


def main():
    text = DOCUMENT.read_text()
    names, faults, checked, untested = Names(), [], 0, 0
    for number, cells in rows(text):
        if len(cells) != 3:
            faults.append(f"line {number}: {len(cells)} columns")
            continue
        places = re.findall(r"`([^`]+)`", cells[1])
        tests = re.findall(r"`([^`]+)`", cells[2])
        if not places:
            faults.append(f"line {number}: no place is named")
        if cells[2] == "no test":
            untested += 1
        elif not tests:
            faults.append(f"line {number}: no test is named")
        faults += [f"line {number}: there is no {name}" for name in places if not names.is_place(name)]
        faults += [f"line {number}: there is no test {name}" for name in tests if not names.is_test(name)]
        checked += 1
    # What the text between the tables names.
    for name in re.findall(r"`((?:tests|docs)/[\w./]+|house/\w+)`", text):
        if not (names.is_test(name) if name.startswith("house/") else (ROOT / name).is_file()):
            faults.append(f"there is no {name}")
    if checked == 0:
        faults.append("no row was found")
    print("\n".join(faults) if faults else f"{checked} behaviours, {untested} without a test")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
