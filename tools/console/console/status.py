"""What the service says of itself on its status socket, and what its tap shows, decoded."""
import usbrecords

from . import layouts

_STATUS = layouts.read("platform/include/platform/status.h", "usbservice/src/record/StatusRecord.h")
_TAP = layouts.read("platform/include/platform/tap.h")

ROWS = {"KIND_NUMBER": ("numbers", "NumberRecord"), "KIND_QUEUE": ("queues", "QueueRecord"),
        "KIND_RECEIVER": ("receivers", "ReceiverRecord"), "STATUS_PORT": ("ports", "PortStatus"),
        "STATUS_DEVICE": ("devices", "DeviceStatus"), "STATUS_MOUNT": ("mounts", "MountStatus"),
        "STATUS_SETTINGS": ("settings", "SettingsStatus")}
_KINDS = {_STATUS.numbers[kind]: (name, _STATUS[layout]) for kind, (name, layout) in ROWS.items()}
SERVICE_STATES = {_STATUS.numbers[f"SERVICE_{word.upper()}"]: word for word in ("starting", "scanning", "running")}
OUTCOMES = {_TAP.numbers["TAP_DELIVERED"]: "delivered", _TAP.numbers["TAP_NO_RECEIVER"]: "no receiver",
            _TAP.numbers["TAP_FULL"]: "full"}
DIRECTIONS = {_TAP.numbers["TAP_IN"]: "in", _TAP.numbers["TAP_OUT"]: "out"}


class NotUnderstood(Exception):
    """Bytes of another version of the service than this console knows."""


def decode(data):
    """A snapshot as {"start", "numbers": {name: value}, "ports": [...], "devices", "mounts", "settings", "queues",
    "receivers"}; rows are dictionaries by the layouts' names. None for an answer that was cut off."""
    found = {name: [] for name, _ in _KINDS.values()}
    head_layout, at, is_whole = _STATUS["RecordHead"], 0, False
    while at < len(data):
        head = head_layout.unpack(data, at)
        at += head_layout.size
        if head["kind"] == _STATUS.numbers["KIND_START"]:
            found["start"] = _checked(_STATUS["StartRecord"].unpack(data, at), "kMagic", "kVersion", _STATUS)
        elif head["kind"] == _STATUS.numbers["KIND_END"]:
            is_whole = True
        elif head["kind"] in _KINDS:
            name, layout = _KINDS[head["kind"]]
            found[name].append(layout.unpack(data, at))
        at += head["length"]
    if not is_whole:
        return None
    found["numbers"] = {row["name"]: row["value"] for row in found["numbers"]}
    if found["numbers"].get("version") != _STATUS.numbers["kStatusVersion"]:
        raise NotUnderstood(f"the service shows a status of version {found['numbers'].get('version')}")
    found["settings"] = found["settings"][0] if found["settings"] else None
    return found


def decode_tap(data):
    """(head, record's bytes); in the head "direction" and "outcome" are words."""
    head = _checked(_TAP["TapHead"].unpack(data), "kTapMagic", "kTapVersion", _TAP)
    head["direction"] = DIRECTIONS[head["direction"]]
    head["outcome"] = OUTCOMES.get(head["outcome"], str(head["outcome"]))
    return head, data[head["head_bytes"]:]


def _checked(head, magic, version, known):
    if head["magic"] != known.numbers[magic] or head["version"] != known.numbers[version]:
        raise NotUnderstood(f"magic {head['magic']:#x}, version {head['version']}")
    return head


# ---- for the page ----

def tables(snapshot):
    """[{"title", "columns", "rows"}]: what the page shows as it is."""
    numbers, settings = snapshot["numbers"], snapshot["settings"]
    shown = [_table("Service", ("", ""), [
        ("state", SERVICE_STATES.get(numbers.get("state"), str(numbers.get("state")))),
        ("process", snapshot["start"]["process"]), ("events of the kernel", numbers.get("uevents")),
        ("device nodes", numbers.get("nodes"))])]
    shown.append(_table("Devices", ("port", "type", "ids", "product", "manufacturer", "serial", "path"), [
        (one["port"], type_word(one), f"{one['vid']:04x}:{one['pid']:04x}", one["product"], one["manufacturer"],
         one["serial"], one["devpath"]) for one in snapshot["devices"]]))
    if settings:
        shown.append(_table("Settings", ("", ""), [
            ("coding", settings["coding"]), ("adaption of ports 1 to 4", _listed(settings["adaption"])),
            ("customer's hub supported", settings["customer_hub_support"]),
            ("signal test of ports 1, 2", _listed(settings["force_enable"])),
            ("device mode of ports 1, 2", _listed(settings["device_mode"]))]))
    shown.append(_table("Receivers", ("name", "sent", "lost", "waiting"), [
        (one["name"], one["sent"], one["dropped"], one["waiting"]) for one in snapshot["receivers"]]))
    shown.append(_table("Queues", ("name", "waiting", "most bytes", "lost"), [
        (one["name"], one["waiting"], one["high_water"], one["dropped"]) for one in snapshot["queues"]]))
    return shown


def type_word(device):
    return usbrecords.WORDS["dev_type"].get(device["dev_type"], str(device["dev_type"]))


def _table(title, columns, rows):
    return {"title": title, "columns": columns, "rows": [[str(cell) for cell in row] for row in rows]}


def _listed(numbers):
    return " ".join(map(str, numbers))
