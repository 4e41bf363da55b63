"""Records, lines of the log and what a phone sees, as the page shows them."""
import re

import usbrecords

# "[    2.467286] 128 3584.1792 154/frame-usb UPortState.cpp:61 SetState: port2 STATE_DETACH->STATE_ATTACH"
LOG_LINE = re.compile(r"\[ *(?P<time>\d+\.\d+)\] (?P<level>\d+) \S+ \d+/(?P<thread>\S+) (?P<file>\S+:\d+) (?P<text>.*)")

# Vendor requests that the service makes: (request type, request).
MEANINGS = {(0xC0, 51): "which accessory protocol do you speak?", (0x40, 53): "become an accessory",
            (0xC0, 0x53): "can you do CarPlay?", (0x40, 0xF0): "become a MirrorLink phone"}
INTRODUCTION = (0x40, 52)
NAMES = ("manufacturer", "model", "description", "version", "address", "serial number")
EVENTS = {"left": "leaves the bus", "cut": "has lost its power", "restored": "has power again",
          "reset": "is reset on the bus"}


def record_entry(head, record):
    """head: of the tap."""
    lost = [f"{head['lost']} records before this one were lost on the way here"] if head["lost"] else []
    return {"time": head["monotonic_ns"] / 1e9, "direction": head["direction"], "sender": head["sender"],
            "receivers": [head["receiver"]], "outcome": head["outcome"], "name": record.name,
            "fields": [_field(record, field) for field in record.description() if field["name"] in record.fields],
            "faults": record.faults + lost, "hex": record.data.hex(), "port": record.fields.get("port")}


def _field(record, field):
    value = record.fields[field["name"]]
    return {"name": field["name"], "said": usbrecords.say(field, value), "at": field["at"],
            "width": usbrecords.width(field), "number": value if isinstance(value, int) else None,
            "shown": not ("is" in field or field.get("unused") or field.get("any") or value in (None, ""))}


def log_entry(time, line):
    """A line of the service's log. What is none of its own (a library's) keeps the time when it was read."""
    found = LOG_LINE.fullmatch(line)
    if not found:
        return {"time": time, "source": "service", "level": 0, "from": "", "text": line}
    return {"time": float(found["time"]), "source": "service", "level": int(found["level"]),
            "from": f"{found['thread']} {found['file']}", "text": found["text"]}


def console_entry(text):
    return {"time": 0.0, "source": "console", "level": 192, "from": "", "text": text}


def board_entry(time, text):
    return {"time": time, "source": "board", "level": 0, "from": "", "text": text}


def phone_event(what):
    """{"kind", "said", ...} of an event of a phone; None for what only its program says."""
    verb, _, rest = what.partition(" ")
    if verb == "transfer":
        return _transfer(rest)
    if verb == "came":
        return {"kind": "bus", "said": f"is on the bus, as {rest}"}
    if verb == "configured":
        return {"kind": "bus", "said": f"is set to configuration {rest}"}
    if verb in EVENTS:
        return {"kind": "bus", "said": EVENTS[verb]}
    return None


def _transfer(text):
    request_type, request, value, index, data, answer = text.split(" ")
    numbers = [int(one, 16) for one in (request_type, request, value, index)]
    key, brought = tuple(numbers[:2]), b"" if data == "-" else bytes.fromhex(data)
    if key == INTRODUCTION and numbers[3] < len(NAMES):
        meaning = f"the {NAMES[numbers[3]]} is \"{brought.rstrip(bytes(1)).decode('utf-8', 'backslashreplace')}\""
    else:
        meaning = MEANINGS.get(key, "")
    vendor = numbers[0] & 0x60 == 0x40
    return {"kind": "vendor" if vendor else "class", "said": meaning or ("" if vendor else "by a driver of the kernel"),
            "type": f"{numbers[0]:#04x}", "request": f"{numbers[1]:#04x}", "value": f"{numbers[2]:#06x}",
            "index": f"{numbers[3]:#06x}", "data": brought.hex(" "), "answer": answer}
