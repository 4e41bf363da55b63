"""The catalogue of what can be plugged into the unit. A phone needs nothing here: its description is enough."""
import dataclasses
import itertools
import tomllib
from typing import Callable

from headunit import (CardReader, Device, Hub, Keyboard, Mtp, NetworkAdapter, Phone, SerialAdapter, Sound, Stick,
                      sticks)
from headunit.phones import DESCRIPTIONS

from .forms import Field

HUB_PORTS = 4
MOST_TEXT = 126     # characters of a USB string descriptor


@dataclasses.dataclass(frozen=True)
class Kind:
    """One kind of device. make(values, folder): the device, with files of its own in that (empty) folder."""
    key: str
    group: str
    label: str
    hint: str
    fields: tuple
    make: Callable

    def describe(self):
        """For the page."""
        return {"key": self.key, "group": self.group, "label": self.label, "hint": self.hint,
                "fields": [field.describe() for field in self.fields]}


# What every device but a phone has: the board's module can make it show other ids.
IDS = Field("ids", "Shown ids", pattern="([0-9a-fA-F]{4}:[0-9a-fA-F]{4})?", advanced=True,
            hint="VID:PID in hexadecimal, like 0bda:8152; empty: its own")
READ_ONLY = Field("read_only", "Write protection", "choice", "no", (("no", "no"), ("yes", "yes")), advanced=True)


def serial(text):
    return Field("serial", "Serial", default=text, most=MOST_TEXT)


def label(text):
    return Field("label", "Label", default=text, most=16)


SONG = {"song.mp3": b"la la la"}


def _image(write):
    """Makes a stick of a function that writes its image: write(path, values)."""
    def make(values, folder):
        path = folder / "image"
        write(path, values)
        return Stick(path, serial=values["serial"], read_only=values["read_only"] == "yes")
    return make


def _stick(key, text, hint, write, *fields):
    return Kind(key, "Storage", text, hint, (serial("STICK"), *fields, READ_ONLY, IDS), _image(write))


def _vfat_label(values):
    return values["label"][:11]


STICKS = [
    _stick("vfat", "Stick, vfat", "one partition with one song",
           lambda path, values: sticks.mbr(path, [sticks.Vfat(label=_vfat_label(values), files=SONG)]),
           Field("label", "Label", default="STICK", most=11)),
    _stick("ext4", "Stick, ext4", "one partition with one song",
           lambda path, values: sticks.mbr(path, [sticks.Ext4(label=values["label"], files=SONG)]), label("DATA")),
    _stick("exfat", "Stick, exfat", "the unit's driver for it is not in this kernel: cannot be mounted",
           lambda path, values: sticks.mbr(path, [sticks.Exfat(label=values["label"])]),
           Field("label", "Label", default="CARD", most=11)),
    _stick("two", "Stick, two partitions", "vfat and ext4",
           lambda path, values: sticks.mbr(path, [sticks.Vfat(label=_vfat_label(values), files=SONG),
                                                  sticks.Ext4(label="DATA")]),
           Field("label", "Label of the first", default="STICK", most=11)),
    _stick("whole", "Stick without partition table", "vfat on the whole disk",
           lambda path, values: sticks.whole(path, sticks.Vfat(label=_vfat_label(values), files=SONG)),
           Field("label", "Label", default="PLAIN", most=11)),
    _stick("unknown", "Stick, no filesystem", "a partition with bytes that are no filesystem",
           lambda path, values: sticks.mbr(path, [sticks.Unknown()])),
]


def _card(values, folder):
    return CardReader(card_image(folder) if values["card"] == "yes" else None, serial=values["serial"])


def card_image(folder):
    """The card of a reader."""
    return sticks.mbr(folder / "card", [sticks.Vfat(label="CARD", files=SONG)])


def _mtp(values, folder):
    (folder / "files").mkdir()
    (folder / "files" / "song.mp3").write_bytes(SONG["song.mp3"])
    return Mtp(folder / "files", serial=values["serial"])


def _plain(make):
    return lambda values, folder: make(serial=values["serial"])


OTHERS = [
    Kind("card_reader", "Storage", "Card reader",
         "a card put into an empty one is mounted; the change of a mounted one is not noticed",
         (Field("card", "Card inside", "choice", "yes", (("yes", "yes"), ("no", "no"))), serial("READER"), IDS), _card),
    Kind("hub", "Other devices", "Hub", f"a customer's, with {HUB_PORTS} ports", (serial("HUB"),),
         lambda values, folder: Hub(HUB_PORTS, serial=values["serial"])),
    Kind("keyboard", "Other devices", "Keyboard", "input device", (serial("KEYBOARD"), IDS), _plain(Keyboard)),
    Kind("mouse", "Other devices", "Mouse", "input device", (serial("MOUSE"), IDS),
         lambda values, folder: Device("usb-mouse", serial=values["serial"])),
    Kind("sound", "Other devices", "Sound card", "a class that the service does not know", (serial("SOUND"), IDS),
         _plain(Sound)),
    Kind("serial", "Other devices", "Serial adapter", "black-listed", (serial("SERIAL"), IDS), _plain(SerialAdapter)),
    Kind("network", "Other devices", "Network adapter",
         "its own ids count as a phone's; 0bda:8152 is on the white list", (serial("NETWORK"), IDS),
         _plain(NetworkAdapter)),
    Kind("mtp", "Phones", "Media player (MTP)", "shows a folder with one song", (serial("MTP"), IDS), _mtp),
]


# --- phones: whatever is described ---

IDENTITY = (("vid", "Vendor"), ("pid", "Product id"))
TEXTS = (("product", "Product"), ("manufacturer", "Manufacturer"), ("serial", "Serial"))


def _joined(value):
    return ", ".join(value) if isinstance(value, list) else value


def _split(text):
    """One answer, or several that are given one after another."""
    parts = [part.strip() for part in text.split(",")]
    return parts if len(parts) > 1 else parts[0]


def _phone_fields(told):
    """Of a description's keys."""
    modes = list(told.get("modes", {"phone": {}}))
    fields = [Field("starts", "Comes as", "choice", told.get("starts", modes[0]), tuple((one, one) for one in modes))]
    fields += [Field(key, text, default=told.get(key, ""), most=MOST_TEXT) for key, text in TEXTS]
    fields += [Field(key, text, "number", f"{told[key]:#06x}", high=0xFFFF, advanced=True,
                     hint="of modes that do not say it themselves") for key, text in IDENTITY]
    if "returns" in told:
        fields.append(Field("returns", "Returns", default=_joined(told["returns"]), advanced=True,
                            hint="after a switch, one after another: a mode, accessory after 200 (ms), stays, never"))
    fields += [Field(f"answer {name}", f"Answer: {name}", default=_joined(answer["answer"]), advanced=True,
                     hint="ok, stall, never, or bytes like 02 00; several are given one after another")
               for name, answer in told.get("answers", {}).items()]
    return tuple(fields)


def _overrides(fields, values):
    """What differs from the description, in the words of Phone."""
    changed, answers = {}, {}
    for field in fields:
        value = values[field.name]
        if value == field.parse(field.default):
            continue
        if field.name.startswith("answer "):
            answers[field.name.removeprefix("answer ")] = _split(value)
        elif field.name == "returns":
            split = _split(value)
            changed["returns"] = split if isinstance(split, list) else [split]
        else:
            changed[field.name] = value
    return changed | ({"answers": answers} if answers else {})


def _phone(path):
    text = path.read_text(encoding="utf-8")
    fields = _phone_fields(tomllib.loads(text))
    about = " ".join(line.lstrip("# ") for line in itertools.takewhile(lambda line: line.startswith("#"),
                                                                       text.splitlines()))
    return Kind(f"phone {path.stem}", "Phones", f"Phone: {path.stem}", about, fields,
                lambda values, folder: Phone(path.stem, **_overrides(fields, values)))


def phones():
    """A kind for each description. Without a device's ids the file describes something else."""
    paths = sorted(DESCRIPTIONS.glob("*.toml"))
    return [_phone(path) for path in paths if "vid" in tomllib.loads(path.read_text(encoding="utf-8"))]


def catalogue():
    """{key: kind}, phones first: they are what one plugs most."""
    return {kind.key: kind for kind in [*phones(), *STICKS, *OTHERS]}
