"""The description for people: docs/records.md, whose hand-written part is records.md.in beside this file."""
import pathlib
import textwrap

import headers
import usbrecords

TEMPLATE = pathlib.Path(__file__).with_name("records.md.in")
ENUMERATIONS = usbrecords.DESCRIPTION["words"]
STRUCTS = usbrecords.DESCRIPTION["struct"]
COLUMNS = 118          # of a paragraph
RULER_COLUMNS = 110
LISTED = 4    # names of numbers that stand in a record's own table; more are only linked


def table(heads, rows):
    """A table of Markdown; heads that end in ":" are of numbers."""
    lines = ["| " + " | ".join(head.rstrip(":") for head in heads) + " |",
             "|" + "|".join("---:" if head.endswith(":") else "---" for head in heads) + "|"]
    return lines + ["| " + " | ".join(str(cell) for cell in row) + " |" for row in rows]


def paragraph(text):
    return textwrap.wrap(text, COLUMNS, break_on_hyphens=False, break_long_words=False)


def named(field):
    return f"({field['name']})" if headers.is_hole(field) else field["name"]


# --- the ruler ---

def ruler_rows(fields):
    """The fields in rows that are not too wide: [(field, columns of its box)]."""
    row, used = [], 1
    for field in fields:
        columns = max(len(named(field)), len(field["type"]), len(str(field["at"]))) + 2
        if row and used + columns + 1 > RULER_COLUMNS:
            yield row
            row, used = [], 1
        row.append((field, columns))
        used += columns + 1
    yield row


def ruler(fields):
    """A drawing of the bytes: a box for each field, above its left edge the number of its first byte."""
    for row in ruler_rows(fields):
        last = row[-1][0]
        end = last["at"] + usbrecords.width(last)
        yield "".join(str(field["at"]).ljust(columns + 1) for field, columns in row) + str(end)
        yield "┌" + "┬".join("─" * columns for _, columns in row) + "┐"
        for text in (named, lambda field: field["type"]):
            yield "│" + "│".join(f" {text(field)}".ljust(columns) for field, columns in row) + "│"
        yield "└" + "┴".join("─" * columns for _, columns in row) + "┘"


# --- one record ---

def number_of(words, number):
    return f"0x{number:02x}" if ENUMERATIONS[words].get("hex") else number


def listed(words, numbers):
    return ", ".join(f"{number_of(words, number)} {usbrecords.WORDS[words][number]}" for number in numbers)


def values(field):
    """What numbers or bytes a field may hold."""
    if "is" in field:
        return always(field)
    if "words" not in field:
        return "zero" if field.get("unused") else "any" if field.get("any") else ""
    names = usbrecords.WORDS[field["words"]]
    link = f"[{field['words']}](#numbers-{field['words']})"
    if "of" in field:
        carried = usbrecords.carried(field)
        ranges = field["of"].replace(" ", ", ").replace("-", " to ")
        return listed(field["words"], carried) if len(carried) <= LISTED else f"{ranges} of {link}"
    return listed(field["words"], names) if len(names) <= LISTED else link


def always(field):
    """The one value of a field."""
    if not isinstance(field["is"], int):
        return f"always `{bytes.fromhex(field['is']).hex(' ')}`"
    word = usbrecords.WORDS[field["words"]].get(field["is"]) if "words" in field else None
    return f"always {field['is']}" + (f" {word}" if word else "")


def size_of(record):
    least = record.get("minimum")
    if not least:
        return str(record["size"])
    return f"{least} or more" if least == record["size"] else f"{record['size']}, at least {least}"


def receivers(record):
    """The receivers that have names, and how many have none."""
    processes = usbrecords.DESCRIPTION["processes"]
    nameless = [name for name in record["to"] if name in processes and "cpp" not in processes[name]]
    own = {"usb": "`usb` (command frame)", "monitor": "`usb` (monitor frame)"} if record["from"] == "usb" else {}
    names = [own.get(name, f"`{name}`") for name in record["to"] if name not in nameless]
    return ", ".join(names) + (f" and {len(nameless)} without a name" if nameless else "")


def record_section(name, record):
    if "section" in record:
        yield from [f"## {record['section']}", ""]
    road = f"From `{record['from']}` to {receivers(record)}. {size_of(record)} bytes{structure(record)}"
    yield from [f"### {name}", "", *paragraph(record["says"]), "", *paragraph(road), ""]
    yield from ["```", *ruler(record["fields"]), "```", ""]
    yield from table(("At:", "Bytes:", "Field", "Type", "Values", "Meaning"),
                     [(field["at"], usbrecords.width(field), named(field), field["type"], values(field),
                       usbrecords.meaning(record, field)) for field in record["fields"]])
    yield ""


def structure(record):
    if "struct" not in record:
        return "."
    header = STRUCTS[record["struct"]]["header"]
    return f"; `{record['struct']}` in [{header}.h](../usbservice/src/record/{header}.h)."


# --- the lists ---

def processes():
    rows = []
    for name, process in usbrecords.DESCRIPTION["processes"].items():
        sends = [record for record in usbrecords.RECORDS.values() if record["from"] == name]
        folders = ([f"`usb/{name}`"] if sends else []) + (
            [f"`{name}/usb`"] if any(name in record["to"] for record in usbrecords.RECORDS.values()) else [])
        rows.append((f"`{name}`", f"`0x{process['mask']:016x}`", " ".join(folders), process["says"]))
    return table(("Name", "Bit", "Sockets", "Who"), rows)


def overview():
    return table(("Record", "Bytes", "From", "To"),
                 [(f"[{name}](#{name})", size_of(record), f"`{record['from']}`", receivers(record))
                  for name, record in usbrecords.RECORDS.items()])


def enumeration(name, words):
    yield from [f'### <a id="numbers-{name}"></a>{name}', ""]
    about = [words["says"]] if "says" in words else []
    if "enum" in words:
        about.append(f"`{words['enum']}` in [{words['header']}.h](../usbservice/src/record/{words['header']}.h).")
    users = [f"[{record}](#{record})" for record, description in usbrecords.RECORDS.items()
             if any(field.get("words") == name for field in description["fields"])]
    if users:
        about.append(f"In {', '.join(users)}.")
    yield from [*paragraph(" ".join(about)), ""]
    rows = [(number_of(name, number), enumerator.get("word", ""),
             f"`{enumerator['cpp']}`" if "cpp" in enumerator else "", ", ".join(carriers(name, number)),
             enumerator.get("says", "")) for number, enumerator in usbrecords.enumerators(words)]
    kept = [i for i in range(5) if i < 2 or any(row[i] for row in rows)]
    heads = ("Number:", "Name", "In the service", "Record", "Meaning")
    yield from table([heads[i] for i in kept], [[row[i] for i in kept] for row in rows])
    yield ""


def carriers(name, number):
    """The records that carry this number of an enumeration, of those that carry only some."""
    for record, description in usbrecords.RECORDS.items():
        for field in description["fields"]:
            if field.get("words") == name and (number in usbrecords.carried(field) if "of" in field
                                               else number == field.get("is")):
                yield f"[{record}](#{record})"


def example():
    """Some bytes, and what they say."""
    data = usbrecords.build("diag_device_state", power=1, speed=2, usb_class=8, sub_class=6, protocol=0x50, vid=0x0951,
                            pid=0x1666, connected=1)
    return ["```", data.hex(" "), usbrecords.decode("diag", data).describe(), "```"]


def text(mark):
    """The whole page."""
    parts = {
        "@EXAMPLE@": example(),
        "@PROCESSES@": processes(),
        "@OVERVIEW@": overview(),
        "@RECORDS@": [line for name, record in usbrecords.RECORDS.items() for line in record_section(name, record)],
        "@WORDS@": [line for name, words in ENUMERATIONS.items() for line in enumeration(name, words)],
    }
    page = TEMPLATE.read_text()
    for place, lines in parts.items():
        if page.count(place) != 1:
            raise ValueError(f"{TEMPLATE.name} has {place} {page.count(place)} times")
        page = page.replace(place, "\n".join(lines).rstrip("\n"))
    return f"<!-- {mark}\n     The text between the tables is from tools/records/records.md.in. -->\n" + page
