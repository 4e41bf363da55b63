"""Layouts of structs, read from the C++ headers that define them: nobody types them twice.

    layouts = read("platform/include/platform/tap.h")
    head = layouts["TapHead"]
    head.size, head.unpack(data)["sender"]

Understands packed structs of fixed-width integers, texts (char arrays) and structs defined before, and constants. The
sizes that the headers assert are checked.
"""
import pathlib
import re
import struct

ROOT = pathlib.Path(__file__).resolve().parents[3]
NUMBERS = {"std::uint8_t": "B", "std::uint16_t": "H", "std::uint32_t": "I", "std::uint64_t": "Q", "std::int32_t": "i"}
STRUCT = re.compile(r"struct \[\[gnu::packed\]\] (\w+) \{(.*?)\n\};", re.DOTALL)
FIELD = re.compile(r"^\s*([\w:]+) (\w+)(?:\[(\w+)\])?;", re.MULTILINE)
CONSTANT = re.compile(r"\b(k\w+) = (0x[0-9A-Fa-f]+|\d+)")
ENUMERATOR = re.compile(r"^\s*([A-Z][A-Z0-9_]+) = (\d+)", re.MULTILINE)
SIZE = re.compile(r"static_assert\((?:sizeof\((\w+)\) == |TakesBytes<(\w+), )(\d+)")


class Layout:
    def __init__(self, name, members):
        self.name = name
        self._members = members     # (name, a Layout or a struct's format or None for a text, count)
        self.size = sum(self._width(kind) * count for _, kind, count in members)

    @staticmethod
    def _width(kind):
        if kind is None:
            return 1
        return kind.size if isinstance(kind, Layout) else struct.calcsize(kind)

    def unpack(self, data, at=0):
        """{field: value}: numbers, texts up to their end, lists of numbers, and dictionaries of structs."""
        if len(data) - at < self.size:
            raise ValueError(f"{self.name} takes {self.size} bytes, not {len(data) - at}")
        values = {}
        for name, kind, count in self._members:
            width = self._width(kind)
            if kind is None:
                values[name] = data[at:at + count].partition(b"\0")[0].decode("utf-8", "surrogateescape")
            else:
                found = [self._one(kind, data, at + index * width) for index in range(count)]
                values[name] = found[0] if count == 1 else found
            at += width * count
        return values

    @staticmethod
    def _one(kind, data, at):
        return kind.unpack(data, at) if isinstance(kind, Layout) else struct.unpack_from(f"<{kind}", data, at)[0]


class Layouts(dict):
    """{name of a struct: Layout}; constants and enumerators in `numbers`."""

    def __init__(self):
        super().__init__()
        self.numbers = {}

    def add(self, text):
        text = re.sub(r"//[^\n]*", "", text)
        self.numbers.update((name, int(number, 0)) for name, number in CONSTANT.findall(text))
        self.numbers.update((name, int(number)) for name, number in ENUMERATOR.findall(text))
        for name, body in STRUCT.findall(text):
            self[name] = Layout(name, [self._member(*found) for found in FIELD.findall(body)])
        for plain, taken, size in SIZE.findall(text):
            layout = self.get(plain or taken)
            if layout and layout.size != int(size):
                raise ValueError(f"{layout.name} has {layout.size} bytes as it is understood, and not {size}")

    def _member(self, kind, name, count):
        number = 1 if not count else int(count) if count.isdigit() else self.numbers[count]
        if kind == "char":
            return name, None, number
        return name, NUMBERS.get(kind) or self[kind], number


def read(*headers):
    """headers: paths in the project, those that others need first."""
    layouts = Layouts()
    for header in headers:
        layouts.add((ROOT / header).read_text(encoding="utf-8"))
    return layouts
