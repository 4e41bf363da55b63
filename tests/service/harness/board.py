"""The unit's USB tree in a made-up /sys: devices as the kernel shows them, and the uevents that go with them.

    stick = board.stick(1, partitions=["sda1"])
    board.plug(stick)
    board.unplug(stick)"""
import os
import shutil
from dataclasses import dataclass, field

from . import controls, uevents

SYS = "/sys"
CONTROLLER = "/devices/soc/7600000.hsusb/7600000.dwc3/xhci-hcd.0.auto"
ROOT_HUB = CONTROLLER + "/usb1"
PORT_STATUS = CONTROLLER + "/ka_hub_port_status"        # of the selected port: 1 connected, 0 not
# What the service writes: Board.written().
CONTROLS = {"port_sel": CONTROLLER + "/port_sel", "ka_hub_control": CONTROLLER + "/ka_hub_control",
            "testmode": CONTROLLER + "/testmode", "hub_supply": "/class/gpio/gpio70/value",
            "unbind": "/bus/usb/drivers/usb/unbind", "bind": "/bus/usb/drivers/usb/bind"}
STORAGE = (8, 6, 0x50)
HUB = (9, 0, 0)
KEYBOARD = (3, 1, 1)
VENDOR = (0xFF, 0, 0)


@dataclass
class Node:
    """One kernel device: what its uevents say and which attributes it has. A value of None: not there."""
    devpath: str
    subsystem: str
    keys: dict = field(default_factory=dict)
    attributes: dict = field(default_factory=dict)

    @property
    def name(self):
        return self.devpath.rpartition("/")[2]


@dataclass
class Interface:
    """One interface of a device: class, subclass and protocol, endpoints, and its text."""
    codes: tuple = STORAGE
    endpoints: int = 2
    text: str = None
    number: int = None      # None: its position


def path_of(place):
    """1-1.2.3 hangs below 1-1.2, which hangs below 1-1, which hangs below the root hub."""
    path, parts = ROOT_HUB, place.split(".")
    for count in range(1, len(parts) + 1):
        path += "/" + ".".join(parts[:count])
    return path


def interface_path(place, number=0):
    return f"{path_of(place)}/{place}:1.{number}"


_device_number = 1


def usb_device(place, vid, pid, interfaces=(Interface(),), serial="0123456789", product="Device", manufacturer="Maker",
               speed="480", power="on", attributes=None, release=0x100, path=None):
    """The device and its interfaces. `attributes` replaces what stands in the device's files; None removes one."""
    global _device_number
    _device_number = _device_number % 120 + 1
    path = path or path_of(place)
    product_key = f"{vid:x}/{pid:x}/{release:x}"
    keys = dict(MAJOR=189, MINOR=_device_number - 1, DEVNAME=f"bus/usb/001/{_device_number:03d}",
                DEVTYPE="usb_device", PRODUCT=product_key, TYPE="0/0/0", BUSNUM="001", DEVNUM=f"{_device_number:03d}")
    shown = {"idVendor": f"{vid:04x}", "idProduct": f"{pid:04x}", "bNumInterfaces": f"{len(interfaces):2d}",
             "manufacturer": manufacturer, "serial": serial, "product": product, "speed": speed, "power/level": power,
             "busnum": "1", "devnum": str(_device_number), "remove": ""}
    shown.update(attributes or {})
    nodes = [Node(path, "usb", keys, shown)]
    for position, interface in enumerate(interfaces):
        number = position if interface.number is None else interface.number
        codes = interface.codes
        nodes.append(Node(
            f"{path}/{place}:1.{number}", "usb",
            dict(DEVTYPE="usb_interface", PRODUCT=product_key, TYPE="0/0/0",
                 INTERFACE="/".join(str(code) for code in codes),
                 MODALIAS=f"usb:v{vid:04X}p{pid:04X}d{release:04X}dc00dsc00dp00ic{codes[0]:02X}isc{codes[1]:02X}"
                          f"ip{codes[2]:02X}in{number:02X}"),
            {"bInterfaceClass": f"{codes[0]:02x}", "bInterfaceSubClass": f"{codes[1]:02x}",
             "bInterfaceProtocol": f"{codes[2]:02x}", "bInterfaceNumber": f"{number:02x}",
             "bNumEndpoints": f"{interface.endpoints:02x}", "interface": interface.text}))
    return nodes


def disk_path(place, disk):
    return f"{interface_path(place)}/host0/target0:0:0/0:0:0:0/block/{disk}"


def disk(place, name="sda", partitions=("sda1",), announced=None):
    """A disk and its partitions, with the devices of the SCSI layer between. `announced`: what the platform's
    "disk_partno" says; None: as many as there are; "": there is no such attribute."""
    below = interface_path(place)
    number = 16 * (ord(name[-1]) - ord("a"))
    path = disk_path(place, name)
    count = len(partitions) if announced is None else announced
    nodes = [Node(f"{below}/host0", "scsi", dict(DEVTYPE="scsi_host")),
             Node(f"{below}/host0/scsi_host/host0", "scsi_host"),
             Node(f"{below}/host0/target0:0:0", "scsi", dict(DEVTYPE="scsi_target")),
             Node(f"{below}/host0/target0:0:0/0:0:0:0", "scsi", dict(DEVTYPE="scsi_device", MODALIAS="scsi:t-0x00")),
             Node(path, "block", dict(MAJOR=8, MINOR=number, DEVNAME=name, DEVTYPE="disk", DISKSEQ=9),
                  {"disk_partno": None if count == "" else str(count), "size": "8192", "removable": "1"})]
    for ordinal, partition in enumerate(partitions, 1):
        nodes.append(Node(f"{path}/{partition}", "block",
                          dict(MAJOR=8, MINOR=number + ordinal, DEVNAME=partition, DEVTYPE="partition", DISKSEQ=9,
                               PARTN=ordinal), {"partition": str(ordinal)}))
    return nodes


def stick(place="1-1.1", name="sda", partitions=("sda1",), announced=None, vid=0x0951, pid=0x1666, **device):
    """A memory stick, as the kernel brings it: device, interface, disk, partitions."""
    device.setdefault("product", "DataTraveler 3.0")
    device.setdefault("manufacturer", "Kingston")
    device.setdefault("serial", "E0D55EA573F5F3A0")
    return usb_device(place, vid, pid, **device) + disk(place, name, partitions, announced)


def phone(place="1-1.1", **device):
    """An Android phone that offers storage; a network function beside it is `network`."""
    device.setdefault("product", "Galaxy")
    device.setdefault("manufacturer", "SAMSUNG")
    device.setdefault("serial", "R58M1234567")
    return usb_device(place, 0x04E8, 0x6860, **device)


def accessory(place="1-1.1", pid=0x2D00, **device):
    """The phone in accessory mode."""
    device.setdefault("product", "Galaxy")
    device.setdefault("manufacturer", "SAMSUNG")
    device.setdefault("serial", "R58M1234567")
    return usb_device(place, 0x18D1, pid, [Interface(VENDOR, 2)], **device)


def mtp_player(place="1-1.1", **device):
    return usb_device(place, 0x1234, 0x6860, [Interface((6, 1, 1), 3)], **device)


def iphone(place="1-1.1", **device):
    device.setdefault("product", "iPhone")
    device.setdefault("manufacturer", "Apple Inc.")
    device.setdefault("serial", "00008030001A2B3C")
    return usb_device(place, 0x05AC, 0x12A8, [Interface((3, 0, 0), 1)], **device)


def hid(place="1-1.1"):
    return Node(interface_path(place) + "/0003:05AC:12A8.0001", "hid", dict(HID_ID="0003:05AC:12A8"))


def tty(place="1-1.1", name="ttyACM0"):
    return Node(f"{interface_path(place)}/tty/{name}", "tty", dict(MAJOR=166, MINOR=0, DEVNAME=name))


def network(place="1-1.1", name="usb0"):
    return Node(f"{interface_path(place)}/net/{name}", "net", dict(INTERFACE=name, IFINDEX=7))


def keyboard(place="1-1.2", **device):
    device.setdefault("speed", "1.5")
    return usb_device(place, 0x046D, 0xC31C, [Interface(KEYBOARD, 1)], **device)


def hub(place, vid=0x05E3, pid=0x0608, **device):
    return usb_device(place, vid, pid, [Interface(HUB, 1)], **device)


def vehicle_hub():
    """The unit's own hub, with two ports."""
    return hub("1-1", 0x0424, 0x4504, product="8E1.319.528.A", manufacturer="Microchip", serial=None)


def root_hub():
    nodes = usb_device("1-0", 0x1D6B, 2, [Interface(HUB, 1)], product="xHCI Host Controller", manufacturer="Linux",
                       serial="xhci-hcd.0.auto", path=ROOT_HUB)
    return nodes


class Board:
    """What is in /sys now, and how it gets there. A tree is built anew by each instance."""

    def __init__(self, board_id="X53"):
        self.injector = uevents.Injector()
        self.present = {}
        for entry in os.listdir(SYS):
            remove(f"{SYS}/{entry}")
        for folder in ("bus/usb/devices", "class/block", "class/net", "class/tty", "bus/hid/devices"):
            os.makedirs(f"{SYS}/{folder}")
        os.makedirs(SYS + ROOT_HUB + "/1-1/1-1:1.0")
        for port in (1, 2):
            self.write(ROOT_HUB + f"/1-1/1-1:1.0/1-1-port{port}/overcurrent", "0")
        self.write(PORT_STATUS, "1")
        self.controls = controls.Controls({name: SYS + path for name, path in CONTROLS.items()})
        if board_id is not None:
            self.write("/devices/soc/soc:common_gpio_default/board_id", board_id)

    def close(self):
        self.injector.close()
        self.controls.close()

    def written(self):
        """(attribute, text) of what the service wrote to control hub and ports since the last call, in order."""
        return self.controls.written()

    def read(self, path):
        with open(SYS + path) as file:
            return file.read().strip()

    def write(self, path, text):
        """An attribute as the kernel shows it: text and a newline. Bytes are written as they are."""
        os.makedirs(os.path.dirname(SYS + path), exist_ok=True)
        with open(SYS + path, "wb") as file:
            file.write(text if isinstance(text, bytes) else text.encode("utf-8", "surrogateescape") + b"\n")

    def show(self, node):
        """Puts the device into /sys without a word to anybody."""
        os.makedirs(SYS + node.devpath, exist_ok=True)
        for name, text in node.attributes.items():
            if text is not None:
                self.write(f"{node.devpath}/{name}", text)
        told = "".join(f"{key}={value}\n" for key, value in node.keys.items())
        self.write(node.devpath + "/uevent", told.encode())
        kind = "bus" if node.subsystem in ("usb", "hid", "scsi") else "class"
        home = f"{SYS}/{kind}/{node.subsystem}" + ("/devices" if kind == "bus" else "")
        os.makedirs(home, exist_ok=True)
        link(f"{SYS}/{kind}/{node.subsystem}", f"{SYS}{node.devpath}/subsystem")
        link(SYS + node.devpath, f"{home}/{node.name}")
        self.present[node.devpath] = home

    def hide(self, node):
        home = self.present.pop(node.devpath, None)
        if home:
            remove(f"{home}/{node.name}")
        remove(SYS + node.devpath)

    def add(self, node):
        self.show(node)
        self.tell("add", node)

    def remove(self, node):
        self.tell("remove", node)
        self.hide(node)

    def tell(self, action, node):
        self.injector.emit(action, node.devpath, SUBSYSTEM=node.subsystem, **node.keys)

    def plug(self, nodes):
        for node in nodes:
            self.add(node)

    def unplug(self, nodes):
        """The kernel takes the leaves first."""
        for node in reversed(nodes):
            self.remove(node)

    def present_before_start(self, nodes):
        for node in nodes:
            self.show(node)


def link(target, path):
    if not os.path.lexists(path):
        os.symlink(target, path)


def remove(path):
    if os.path.islink(path) or os.path.isfile(path):
        os.unlink(path)
    while os.path.isdir(path):      # a command of the service may put a file into it meanwhile
        shutil.rmtree(path, ignore_errors=True)
