"""The service's headers of records: usbservice/src/record/*.h, each enumeration, structure and its law."""
import re

import usbrecords

HEADERS = usbrecords.DESCRIPTION["header"]
STRUCTS = usbrecords.DESCRIPTION["struct"]
ENUMERATIONS = usbrecords.DESCRIPTION["words"]
NAMES = tuple(HEADERS)

TYPES = {"u8": "std::uint8_t", "u16": "std::uint16_t", "u32": "std::uint32_t", "i32": "std::int32_t"}
COLUMNS = 110    # of .clang-format


# --- sizes ---

def fields_of(struct):
    """The fields of a structure of the service: its own, or those of its record."""
    return struct["fields"] if "fields" in struct else usbrecords.RECORDS[struct["record"]]["fields"]


def size_of(name):
    last = fields_of(STRUCTS[name])[-1]
    return last["at"] + width(last)


def width(field):
    return size_of(field["type"]) if field["type"] in STRUCTS else usbrecords.width(field)


def is_hole(field):
    return field.get("unused") or field.get("any")


def flat(name):
    """(begin, end) of each field, with those of the structures in it in their place."""
    for field in fields_of(STRUCTS[name]):
        inner = flat(field["type"]) if field["type"] in STRUCTS else [(0, width(field))]
        yield from ((field["at"] + begin, field["at"] + end) for begin, end in inner)


def faults():
    """One line for each structure that cannot be its records' bytes."""
    for name, record in usbrecords.RECORDS.items():
        if "struct" not in record:
            continue
        struct = record["struct"]
        if size_of(struct) < record["size"] or size_of(struct) > record["size"] and "minimum" not in record:
            yield f"{name} takes {record['size']} bytes, {struct} {size_of(struct)}"
        for field in record["fields"]:
            begin, end = field["at"], field["at"] + usbrecords.width(field)
            for b, e in flat(struct):
                if b < begin < e < end or begin < b < end < e:
                    yield f"{name}.{field['name']} begins or ends inside a member of {struct}"
            for other in fields_of(STRUCTS[struct]):
                if other["name"] == field["name"] and not is_hole(field) and other["at"] != field["at"]:
                    yield f"{name}.{field['name']} is elsewhere in {struct}"
    for name, struct in STRUCTS.items():
        end = 0
        for field in fields_of(struct):
            if field["at"] != end:
                yield f"{name}: {field['name']} does not begin at {end}"
            end += width(field)


# --- lines ---

def aligned(lines):
    """Code with its comments behind it: (code, comment or ""). Comments of neighbouring lines are below each other."""
    done, group = [], []
    for code, comment in [*lines, ("", "")]:
        if comment:
            group.append((code, comment))
            continue
        column = max((len(code) for code, _ in group), default=0)
        done += [f"{code.ljust(column)}  // {comment}" for code, comment in group]
        group = []
        done.append(code)
    return done[:-1]


def checked(lines):
    for line in lines:
        if len(line) > COLUMNS:
            raise ValueError(f"longer than {COLUMNS} columns: {line}")
    return lines


def comment_above(text):
    """A comment, broken into lines where it must be."""
    lines, line = [], "//"
    for word in text.split():
        if len(line) + 1 + len(word) > COLUMNS:
            lines.append(line)
            line = "//"
        line += " " + word
    return lines + [line]


# --- enumerations and constants ---

def hexadecimal(number, digits):
    return f"0x{number:0{digits}X}"


def enumeration(words):
    """An enum, in one line when it fits and nothing is said of its numbers."""
    head = f"enum {words['enum']} : {TYPES[words['type']]} {{"
    numbers = [(enumerator, f"{enumerator['cpp']} = {number}") for number, enumerator in usbrecords.enumerators(words)]
    short = f"{head} {', '.join(text for _, text in numbers)} }};"
    if len(short) <= COLUMNS and not any("says" in enumerator or "group" in enumerator for enumerator, _ in numbers):
        return [short]
    lines = []
    for i, (enumerator, text) in enumerate(numbers):
        if "group" in enumerator:
            lines += [("", "")] if i else []
            lines.append((f"    // {enumerator['group']}", ""))
        lines.append((f"    {text}{',' if i + 1 < len(numbers) else ''}", enumerator.get("says", "")))
    return [head, *aligned(lines), "};"]


def constants(words):
    return aligned([(f"inline constexpr {TYPES[words['type']]} {enumerator['cpp']} = {hexadecimal(number, 2)};",
                     enumerator["word"]) for number, enumerator in usbrecords.enumerators(words)])


def enumerations(header):
    for words in ENUMERATIONS.values():
        if words.get("header") == header:
            yield [*(comment_above(words["says"]) if "says" in words else []),
                   *(enumeration(words) if "enum" in words else constants(words))]


def processes():
    """What stands in the header Process: each process that has a name, and the sets."""
    named = [process for process in usbrecords.DESCRIPTION["processes"].values() if "cpp" in process]
    declare = "inline constexpr unsigned long"
    yield aligned([(f"{declare} {process['cpp']} = {hexadecimal(process['mask'], 16)};", process["says"])
                   for process in named])
    for name, record in usbrecords.RECORDS.items():
        if "destinations" in record:
            mask = sum(usbrecords.PROCESSES[receiver] for receiver in record["to"])
            names = [receiver for receiver in record["to"] if "cpp" in usbrecords.DESCRIPTION["processes"][receiver]]
            bits = [str(usbrecords.PROCESSES[receiver].bit_length() - 1) for receiver in record["to"]
                    if receiver not in names]
            others = f", and the processes of bits {', '.join(bits)}" if bits else ""
            yield [*comment_above(f"Who gets an {name}: {', '.join(names)}{others}."),
                   f"{declare} {record['destinations']} = {hexadecimal(mask, 16)};"]


def field_constants(header):
    """Names of the numbers that fields always are."""
    lines = {}
    for struct in STRUCTS.values():
        if struct["header"] != header or "record" not in struct:
            continue
        for field in fields_of(struct):
            if "constant" in field:
                text = f"inline constexpr {TYPES[field['type']]} {field['constant']} = {field['is']};"
                lines.setdefault(text, explained(struct, field))
    if lines:
        yield aligned(lines.items())


# --- structures ---

def explained(struct, field):
    """What is to be known of a member, besides its name."""
    record = usbrecords.RECORDS[struct["record"]] if "record" in struct else {}
    return record.get("meaning", {}).get(field["name"], field.get("says", ""))


def numbers_of(field):
    """What names the numbers of a member: one or two of them themselves, else the enumeration."""
    words = ENUMERATIONS[field["words"]]
    names = {number: enumerator.get("cpp", "") for number, enumerator in usbrecords.enumerators(words)}
    if "is" in field:
        return names[field["is"]] or str(field["is"])
    if "enum" not in words:
        return ", ".join(filter(None, names.values()))
    carried = usbrecords.carried(field) if "of" in field else []
    return " or ".join(names[number] for number in carried) if 0 < len(carried) <= 2 else words["enum"]


def comment_of(struct, field):
    here = explained(struct, field)
    if "note" in field or "constant" in field:
        return field.get("note") or field["constant"]
    if "words" in field:
        return ", ".join(filter(None, (numbers_of(field), here)))
    if "is" in field and not here:
        return str(field["is"]) if field["type"] in TYPES else bytes.fromhex(field["is"]).hex(" ").upper()
    return here


def declaration(field):
    if "cpp" in field:
        return field["cpp"]
    kind, _, count = field["type"].partition(" ")
    if kind == "text":
        return f"char {field['name']}[{count}]"
    if kind == "bytes":
        return f"std::uint8_t {field['name']}" + (f"[{count}]" if count != "1" else "")
    start = f" = {hexadecimal(field['default'], 2)}" if "default" in field else ""
    return f"{TYPES.get(kind, kind)} {field['name']}{start}"


def member(field):
    """The name that the service calls a field by."""
    return re.search(r"(\w+)(\[\d+\])?( = .*)?$", declaration(field))[1]


def structure(name, struct):
    yield from comment_above(struct["says"]) if "says" in struct else []
    yield f"struct [[gnu::packed]] {name} {{"
    yield from aligned([(f"    {declaration(field)};", comment_of(struct, field)) for field in fields_of(struct)])
    yield "};"
    yield f"static_assert(TakesBytes<{name}, {size_of(name)}>());"
    for field in fields_of(struct):
        if field["at"] > 0:
            yield f"static_assert(offsetof({name}, {member(field)}) == {field['at']});"


def aliases(header):
    for name, struct in STRUCTS.items():
        if struct["header"] == header and "aliases" in struct:
            yield aligned([(f"using {alias} = {name};", use) for alias, use in struct["aliases"].items()])


# --- the whole ---

def text(name, mark):
    """A header's text."""
    wrong = list(faults())
    if wrong:
        raise ValueError("; ".join(wrong))
    header = HEADERS[name]
    structures = [list(structure(struct, described)) for struct, described in STRUCTS.items()
                  if described["header"] == name]
    namespace = header.get("namespace", "dcm::usb")
    includes = [f'#include "record/{other}.h"' for other in sorted([*header.get("includes", ()),
                                                                    *(["Text"] if structures else [])])]
    blocks = [[f"// {header['says']}", f"// {mark}", "#pragma once"],
              ["#include <cstddef>", "#include <cstdint>"] if structures else ["#include <cstdint>"],
              includes,
              [f"namespace {namespace} {{"],
              *(processes() if name == "Process" else []),
              *enumerations(name), *field_constants(name), *structures, *aliases(name),
              [f"}}  // namespace {namespace}"]]
    return "\n\n".join("\n".join(checked(list(block))) for block in blocks if block) + "\n"
