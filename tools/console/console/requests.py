"""The catalogue of what can be asked of the service, and done to the unit around it."""
import dataclasses
from typing import Callable

import usbrecords

from .forms import Field, WrongInput

MODES = ((12, "Android Auto"), (13, "MirrorLink"), (14, "CarPlay"), (15, "CarLife on Android"),
         (16, "CarLife on iPhone"), (17, "Reset"))
PORTS = ((1, "port 1"), (2, "port 2"))
OFF_ON = ((0, "off"), (1, "on"))
BYTE = {"kind": "number", "default": 0, "high": 0xFF}
MODEM_DRIVER = "/usr/lib/modules/$(uname -r)/cdc_acm.ko"


@dataclasses.dataclass(frozen=True)
class Request:
    """One form. about: it is about a device on a port, whose ids the page fills in.

    act(unit, values): does it. unit.send(sender, bytes) speaks as another service; what it returns, if anything, is
    shown to who asked.
    """
    key: str
    group: str
    label: str
    hint: str
    fields: tuple
    act: Callable
    about: bool = False

    def describe(self):
        """For the page."""
        return {"key": self.key, "group": self.group, "label": self.label, "hint": self.hint, "about": self.about,
                "fields": [field.describe() for field in self.fields]}


def _spoken(key, group, label, hint, sender, record, *fields, about=False):
    """Another service sends one record, made of the values."""
    def act(unit, values):
        try:
            data = record(values)
        except ValueError as error:
            raise WrongInput(str(error)) from None
        unit.send(sender, data)
    return Request(key, group, label, hint, fields, act, about)


def _settings(record, *numbers):
    def act(unit, values):
        written = " ".join(str(values[name]) for name in numbers)
        return unit.sh(f"settings write {record} {written}")
    return act


SDCM = [
    _spoken("mode", "SDCM", "Projection mode or reset", "the port is that of the device path", "sdcm",
            lambda values: usbrecords.mode_request(**values),
            Field("id", "Request", "choice", 12, MODES),
            Field("vid", "Vendor", "number", 0, high=0xFFFF),
            Field("pid", "Product id", "number", 0, high=0xFFFF),
            Field("serial", "Serial", most=63),
            Field("devpath", "Device path", most=127),
            Field("devid", "SDCM's name", default="PHONE", most=31),
            Field("port", "Port byte", advanced=True, hint="ignored by the service", **BYTE), about=True),
    _spoken("search", "SDCM", "Search", "each attached device is told again", "sdcm",
            lambda values: usbrecords.build("search", **values),
            Field("port", "Port byte", advanced=True, **BYTE), Field("trigger", "Trigger byte", advanced=True, **BYTE)),
]

MEDIA = [
    _spoken("search_phone", "Media", "Search for phones", "iPhones and media players are told again", "media",
            lambda values: usbrecords.search_phone(**values),
            Field("dev_type", "Type of device", "choice", 0,
                  tuple((number, f"{number} {word}") for number, word in usbrecords.WORDS["dev_type"].items()),
                  advanced=True),
            Field("port", "Port byte", advanced=True, **BYTE)),
]

ADAPTION = ((1, "active"), (2, "not active"))
DIAGNOSIS = [
    _spoken("coding", "Diagnosis", "Coding", "the media USB configuration", "diag",
            lambda values: usbrecords.coding(values["coding"]),
            Field("coding", "Coding", "choice", 0, tuple((value, str(value)) for value in range(4)))),
    _spoken("adaption", "Diagnosis", "Adaption", "which ports are active", "diag",
            lambda values: usbrecords.adaption(*values.values()),
            *(Field(f"port{number}", f"Port {number}", "choice", 1, ADAPTION) for number in range(1, 5))),
    _spoken("self_test", "Diagnosis", "Self-test of the hub", "takes a second", "diag",
            lambda values: usbrecords.run_hub_test()),
]

POWER = [
    _spoken("power_states", "Power", "Power states", "the service logs them", "power",
            lambda values: usbrecords.power_states(*values.values()),
            Field("hmi_state", "HMI state", **BYTE), Field("hmi_event", "HMI event", **BYTE),
            Field("mmi_state", "MMI state", **BYTE), Field("mmi_event", "MMI event", **BYTE)),
    _spoken("terminals", "Power", "Terminals", "the service logs them", "power",
            lambda values: usbrecords.terminal_states(*values.values()),
            *(Field(f"terminal{name}", f"Terminal {name}", "choice", 0, OFF_ON) for name in ("15", "50", "S", "X"))),
]

TEST = [
    _spoken("mount_check", "Test interface", "Mount check", "whether something is mounted, and where", "test",
            lambda values: usbrecords.mount_check(values["port"]),
            Field("port", "Port", "choice", 0, ((0, "first port"), (1, "second port")))),
]

SWITCHES = (("force1", "Signal test, port 1"), ("force2", "Signal test, port 2"), ("mode1", "Device mode, port 1"),
            ("mode2", "Device mode, port 2"))
MENU = [
    Request("switches", "Engineering menu", "Switches", "the service acts when one goes from 0 to 1 or back",
            tuple(Field(name, text, "choice", 0, OFF_ON) for name, text in SWITCHES),
            _settings("shm_usb_cert", *(name for name, _ in SWITCHES))),
    Request("hub_support", "Engineering menu", "Customer's hub", "kept over restarts of the service",
            (Field("supported", "Is supported", "choice", 1, ((1, "yes"), (0, "no"))),),
            _settings("shm_usb_cert_persist", "supported")),
]


def _overcurrent(unit, values):
    unit.overcurrent(*{0: (), 1: (1,), 2: (2,), 3: (1, 2)}[values["ports"]])
    if values["report"]:
        unit.report_overcurrent(values["report"])


def _modem(unit, values):
    load = f"test -d /sys/module/cdc_acm || insmod {MODEM_DRIVER}"
    return unit.sh(load if values["driver"] else "test ! -d /sys/module/cdc_acm || rmmod cdc_acm")


BOARD = [
    Request("overcurrent", "Board", "Over-current", "what the ports' sensors read from now on",
            (Field("ports", "Sensors say so of", "choice", 1, ((1, "port 1"), (2, "port 2"), (3, "both"), (0, "none"))),
             Field("report", "Event of the host driver", "choice", 1, ((0, "none"), *PORTS))), _overcurrent),
    Request("supply", "Board", "Supply of the hub", "read once a second",
            (Field("level", "Reads", "choice", 0, ((0, "low"), (1, "high"))),),
            lambda unit, values: unit.supply(values["level"])),
    Request("port_power", "Board", "Power of a port", "as the hub's driver switches it",
            (Field("port", "Port", "choice", 1, PORTS),
             Field("what", "Power", "choice", 3, ((3, "cut"), (4, "restore")))),
            lambda unit, values: unit.hub_control(values["port"], values["what"])),
    Request("self_test_result", "Board", "Result of the next self-test", "a bit for each wire of the four sockets",
            (Field("result", "Reads", "number", 0xF0, hint="240: all in order", high=0xFF),),
            lambda unit, values: unit.board("diag_result", values["result"])),
    Request("modem", "Board", "Driver of an iPhone's modem",
            "CarPlay begins when the modem's tty appears after the request",
            (Field("driver", "Driver", "choice", 0, ((0, "unload"), (1, "load"))),), _modem),
    Request("configuration", "Board", "Configuration of a device", "an iPhone's second one has the modem",
            (Field("place", "Place", default="1.2", pattern=r"1\.[12](\.[1-8])*",
                   hint="1.1, 1.2, or behind a hub 1.2.1"),
             Field("number", "Configuration", "number", 2, low=0, high=8)),
            lambda unit, values: unit.configure(values["place"], values["number"])),
    Request("command", "Board", "Shell command in the unit", "its output is shown here",
            (Field("command", "Command", default="cat /proc/mounts"),),
            lambda unit, values: _shell(unit, values["command"])),
]


def _shell(unit, command):
    output = unit.run(command, check=False)
    return f"{output.text}(status {output.status})"


SENDERS = tuple((name, name) for name in usbrecords.PROCESSES)
RAW = [
    Request("raw", "Raw", "Any bytes", "as any service",
            (Field("sender", "Sender", "choice", "sdcm", SENDERS), Field("bytes", "Bytes", "hex", "", most=4096)),
            lambda unit, values: unit.send(values["sender"], values["bytes"])),
]


def catalogue():
    """{key: request}."""
    return {one.key: one for one in [*SDCM, *MEDIA, *DIAGNOSIS, *POWER, *TEST, *MENU, *BOARD, *RAW]}
