"""The records of the USB service in words: what each byte of them means, and how to make those that peers send.

The description is data (records.toml beside this file); this module only reads it.

    record = decode("media", packet)          # what the service sent to media
    record.name, record["cmd"], record.word("cmd"), record.faults
    print(record)                             # one line

    build("test_command", extra_command=8, port=0)      # by the description, the rest zero
    adaption(1, 2, 1, 2)                                # what diagnosis sends, by its meaning
"""
import pathlib
import struct
import tomllib

with open(pathlib.Path(__file__).with_name("records.toml"), "rb") as file:
    DESCRIPTION = tomllib.load(file)

PROCESSES = {name: process["mask"] for name, process in DESCRIPTION["processes"].items()}   # its bit
RECORDS = DESCRIPTION["record"]         # name of a record: its description


def enumerators(words):
    """The numbers of an enumeration and what is said of each."""
    for number, enumerator in words.items():
        if number[0].isdigit():
            yield int(number, 0), {"word": enumerator} if isinstance(enumerator, str) else enumerator


WORDS = {name: {number: enumerator["word"] for number, enumerator in enumerators(words) if "word" in enumerator}
         for name, words in DESCRIPTION["words"].items()}

NUMBERS = {"u8": "<B", "u16": "<H", "u32": "<I", "i32": "<i"}

# Who gets a change of storage, and a change of any other device.
STORAGE_LISTENERS = tuple(RECORDS["st_storage_pkt"]["to"])
USB_LISTENERS = tuple(RECORDS["st_usb_pkt"]["to"])


def kind_of(field):
    """The type of a field without its length."""
    return field["type"].partition(" ")[0]


def width(field):
    """Bytes of a field."""
    kind, _, count = field["type"].partition(" ")
    return struct.calcsize(NUMBERS[kind]) if kind in NUMBERS else int(count)


def fixed(field):
    """The bytes that a field always holds, or None."""
    if "is" not in field:
        return None
    if field["type"] in NUMBERS:
        return struct.pack(NUMBERS[field["type"]], field["is"])
    return bytes.fromhex(field["is"])


def carried(field):
    """The numbers of its enumeration that a field carries."""
    if "of" not in field:
        return list(WORDS[field["words"]])
    ranges = (part.partition("-") for part in field["of"].split())
    return [number for first, _, last in ranges for number in range(int(first), int(last or first) + 1)]


def meaning(record, field):
    """What a field of a record (its description) says, for people; empty when its name says it all."""
    here = record.get("meaning", {}).get(field["name"], field.get("says", ""))
    if field.get("unused") or field.get("any"):
        return here
    return ", ".join(filter(None, (DESCRIPTION["meaning"].get(field["name"], ""), here)))


class Record:
    """One record: name (None when no description fits), bytes, fields by name, and what is wrong with it."""

    def __init__(self, name, data):
        self.name = name
        self.data = bytes(data)
        self.fields = {}
        self.faults = []

    def __getitem__(self, field):
        return self.fields[field]

    def description(self):
        return RECORDS[self.name]["fields"] if self.name else []

    def word(self, name):
        """The field's number in words; the number itself when it has none."""
        for field in self.description():
            if field["name"] == name:
                return say(field, self.fields[name])
        raise KeyError(name)

    def describe(self):
        """One line: the record's name and every field that says something."""
        if not self.name:
            return f"{len(self.data)} bytes that no description fits: {self.data[:48].hex(' ')}"
        said = [self.name]
        for field in self.description():
            value = self.fields.get(field["name"])
            if "is" in field or field.get("unused") or field.get("any") or value in (None, ""):
                continue
            said.append(f"{field['name']}={say(field, value)}")
        return " ".join(said) + "".join(f" [{fault}]" for fault in self.faults)

    __str__ = describe

    def __repr__(self):
        return f"<{self.describe()}>"

    def __eq__(self, other):
        return isinstance(other, Record) and self.data == other.data

    __hash__ = None


def shown(character):
    """A character of a text: a quote escaped, and a control character or what is no UTF-8 as its bytes."""
    if character in '"\\':
        return "\\" + character
    number = ord(character)
    if number < 0x20 or 0x7f <= number < 0xa0 or 0xdc80 <= number <= 0xdcff:
        return "".join(f"\\x{byte:02x}" for byte in character.encode("utf-8", "surrogateescape"))
    return character


def say(field, value):
    if isinstance(value, bytes):
        return value.hex()
    if isinstance(value, str):
        return '"' + "".join(map(shown, value)) + '"'
    word = WORDS[field["words"]].get(value) if "words" in field else None
    if word is not None:
        return word
    return f"{value:#0{2 + 2 * width(field)}x}" if field.get("hex") else str(value)


def fits(description, data):
    if "minimum" in description:
        if len(data) < description["minimum"]:
            return False
    elif len(data) != description["size"]:
        return False
    for field in description["fields"]:
        always = fixed(field)
        if always is not None and data[field["at"]:field["at"] + width(field)] != always:
            return False
    return True


def decode(receiver, data, sender="usb"):
    """What `sender` sent to `receiver`: names of processes; "usb" and "monitor" are the service's own queues."""
    data = bytes(data)
    for name, description in RECORDS.items():
        if description["from"] == sender and receiver in description["to"] and fits(description, data):
            return parse(name, data)
    return Record(None, data)


def parse(name, data):
    """The record of that name in `data`. Fields behind its end are left out."""
    record = Record(name, data)
    missing = False
    for field in RECORDS[name]["fields"]:
        piece = record.data[field["at"]:field["at"] + width(field)]
        kind = kind_of(field)
        if len(piece) < width(field) and kind != "text":
            missing = True
            continue
        if kind in NUMBERS:
            record.fields[field["name"]] = struct.unpack(NUMBERS[kind], piece)[0]
        elif kind == "text":
            text, terminator, rest = piece.partition(b"\0")
            record.fields[field["name"]] = text.decode("utf-8", "surrogateescape")
            if not terminator:
                record.faults.append(f"{field['name']} is not terminated")
            elif rest.strip(b"\0"):
                record.faults.append(f"{field['name']} has bytes behind its end")
        else:
            record.fields[field["name"]] = piece
        if field.get("unused") and piece.strip(b"\0"):
            record.faults.append(f"{field['name']} is not zero")
    if missing:
        record.faults.append(f"ends after {len(record.data)} of {RECORDS[name]['size']} bytes")
    return record


def build(name, **values):
    """The bytes of a record: fixed fields as they always are, the named ones as given, the rest zero."""
    data = bytearray(RECORDS[name]["size"])
    for field in RECORDS[name]["fields"]:
        piece = fixed(field) or bytes(width(field))
        if field["name"] in values:
            piece = encode(name, field, values.pop(field["name"]))
        data[field["at"]:field["at"] + width(field)] = piece
    if values:
        raise KeyError(f"{name} has no field {', '.join(values)}")
    return bytes(data)


def encode(name, field, value):
    kind = kind_of(field)
    if kind in NUMBERS:
        return struct.pack(NUMBERS[kind], value)
    if isinstance(value, str):
        value = value.encode("utf-8", "surrogateescape")
    most = width(field) - (1 if kind == "text" else 0)
    if len(value) > most:
        raise ValueError(f"{name}.{field['name']} takes {most} bytes, not {len(value)}")
    return value.ljust(width(field), b"\0")


# --- what peers send, by its meaning ---

def search_phone(dev_type=0, port=0):
    """From media."""
    return build("media_command", cmd=8, dev_type=dev_type, port=port)


def adaption(*ports):
    """From diagnosis: 1 (activated) or 2 (not activated) for each of the four ports."""
    bits = {f"port{i}": 0x80 if value == 1 else 0 for i, value in enumerate(ports, 1)}
    return build("diag_adaption", **bits)


def coding(value):
    """From diagnosis: the media USB configuration, 0 to 3."""
    return build("diag_coding", coding=value << 6)


def run_hub_test():
    """From diagnosis."""
    return build("diag_run_test", start=3)


def power_states(*values):
    """From power management: HMI state and event, MMI state and event."""
    return build("power", about=1, **{f"value{i}": value for i, value in enumerate(values, 1)})


def terminal_states(*values):
    """From power management: terminals 15, 50, S and X."""
    return build("power", about=3, **{f"value{i}": value for i, value in enumerate(values, 1)})


def mount_check(selector):
    """From the test interface: 0 first port, 1 second port."""
    return build("test_command", extra_command=8, port=selector)


def setting_changed(name):
    """From the settings store: a record's path, terminated."""
    return f"/data/sharedmemory/{name}".encode() + b"\0"


def message(id, port=0, sender=0, argument=0):
    """From SDCM: a message of 12 bytes."""
    return build("message", id=id, port=port, sender=sender, argument=argument)


def node_message(id, **values):
    """A device came or went, as device nodes queue it."""
    return build("node", id=id, **values)


def mode_request(id, **values):
    """From SDCM: ids 12 to 17."""
    return build("mode_request", id=id, **values)
