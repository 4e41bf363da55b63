"""A bench for roads: something is plugged into the virtual head unit, and everything that the service then tells
anybody is compared, record by record and per receiver, with what is written down in the test.

    class OneStick(RoadTest):
        def test_a_stick_on_port_1(self):
            self.start()
            stick = self.unit.plug("1.1", Stick(image))
            self.told(came(STICK), attached(port=1), mounted(VOLUME))
            self.unit.unplug(stick)
            self.told(detached(VOLUME), left(STICK))

What is expected is data: a dictionary from receivers to the records that they get, in order. `told` waits for all of
them, then until nothing more comes, and compares whole records. Who is not in the dictionary must have heard nothing.
Records of different receivers are not ordered: they leave by different threads.

One boot serves a class; each test has a fresh service.
"""
import dataclasses
import pathlib
import re
import sys
import tempfile
import time
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "tools" / "headunit"), str(ROOT / "tools" / "records")]

import usbrecords  # noqa: E402
from headunit import (CardReader, HeadUnit, HeadUnitError, Hub, Keyboard, Mtp, NetworkAdapter,  # noqa: E402, F401
                      SerialAdapter, Sound, Stick, sticks)

CONTROLLER = "/devices/soc/7600000.hsusb/7600000.dwc3/xhci-hcd.0.auto"

ATTACH, MOUNTED, DETACH, ERROR = 2, 3, 5, 6                            # cmd
UNSUPPORTED_DEVICE, CUSTOMER_HUB = 1, 7                                # sub_cmd
NONE, UNSUPPORTED, HUB, CD_DRIVE, STORAGE, APPLE, APPLE_SHUTTLE, PHONE, MTP, INPUT = 0, 1, 2, 3, 5, 6, 8, 9, 10, 12
ATTACHED, DETACHED, SCAN_BEGIN, SCAN_END = 1, 2, 3, 4                  # id
# What a device can do, as SDCM is told: Android Auto, MirrorLink, CarPlay, CarLife.
UNKNOWN, SUPPORTED, NOT_SUPPORTED, ACCESSORY = 0, 1, 2, 3
CAPABILITY = {
    STORAGE: (NOT_SUPPORTED, SUPPORTED, NOT_SUPPORTED, NOT_SUPPORTED),
    APPLE: (NOT_SUPPORTED, NOT_SUPPORTED, UNKNOWN, NOT_SUPPORTED),
    APPLE_SHUTTLE: (NOT_SUPPORTED, NOT_SUPPORTED, UNKNOWN, NOT_SUPPORTED),
    PHONE: (NOT_SUPPORTED, SUPPORTED, NOT_SUPPORTED, NOT_SUPPORTED),
    MTP: (NOT_SUPPORTED, SUPPORTED, NOT_SUPPORTED, NOT_SUPPORTED),
}   # of one that answers no vendor request; no other type has a state of its port
FULL_SPEED = 1   # of everything behind QEMU's hubs

RECEIVERS = sorted({receiver for record in usbrecords.RECORDS.values() if record["from"] == "usb"
                    for receiver in record["to"]} - {"usb", "monitor"})


# --- what is plugged ---

@dataclasses.dataclass(frozen=True)
class Plugged:
    """A device as it shows itself, and the port of the unit where it hangs: 1, or 32 for port 3 of a hub on port 2."""
    port: int
    vid: int = 0x46F4
    pid: int = 0x0001
    dev_type: int = STORAGE
    interface: tuple = (0x08, 0x06, 0x50)   # class, subclass and protocol of its first interface
    serial: str = "0123456789"
    product: str = "QEMU USB HARDDRIVE"
    manufacturer: str = "QEMU"
    power: int = 1                          # 1: it may not sleep ("power/level" is "on")
    speed: int = FULL_SPEED
    capability: tuple = None                # None: that of a device which answers no vendor request

    @property
    def devpath(self):
        path = CONTROLLER + f"/usb1/1-1/1-1.{self.port % 10}"
        return path + (f"/1-1.{self.port % 10}.{self.port // 10}" if self.port > 9 else "")


@dataclasses.dataclass(frozen=True)
class Volume:
    """A volume as blkid shows it, and where it is mounted."""
    port: int
    slot: int = 1
    label: str = "STICK"
    uuid: str = "1234-ABCD"
    fs_type: str = "vfat"
    folder: str = None      # below /tmp, without the slot; None: that of the port

    @property
    def mount_path(self):
        return f"/tmp/{self.folder or f'USB/PORT{self.port}/'}PART{self.slot}/"


# --- what is told: dictionaries of receivers and their records ---

def to(receivers, name, **fields):
    """The same record to several receivers."""
    record = usbrecords.parse(name, usbrecords.build(name, **fields))
    return {receiver: [record] for receiver in receivers}


def together(*told):
    """One dictionary of several, in order for each receiver."""
    all_of_them = {}
    for one in told:
        for receiver, records in one.items():
            all_of_them.setdefault(receiver, []).extend(records)
    return all_of_them


def state_told(device):
    """Diagnosis hears of a device's state."""
    return to(["diag"], "diag_device_state", power=device.power, speed=device.speed, usb_class=device.interface[0],
              sub_class=device.interface[1], protocol=device.interface[2], vid=device.vid, pid=device.pid, connected=1)


def event_told(device, event):
    """SDCM hears that a device came or went."""
    capability = device.capability or CAPABILITY[device.dev_type]
    return to(["sdcm"], "device_event", id=event, port=device.port, dev_type=device.dev_type, vid=device.vid,
              pid=device.pid, usb_class=device.interface[0], speed=device.speed, aa_capa=capability[0],
              ml_capa=capability[1], cp_capa=capability[2], cl_capa=capability[3], serial=device.serial,
              product=device.product, manufacturer=device.manufacturer, devpath=device.devpath)


def came(device):
    """A device is there and known: diagnosis hears of its state, SDCM of those that have a state of their port, and
    media of phones."""
    told = [state_told(device)]
    if device.dev_type in CAPABILITY:
        told.append(event_told(device, ATTACHED))
    if device.dev_type == PHONE:
        told.append(device_told(device, ATTACH, 0, PHONE))
    return together(*told)


def left(device):
    """A device that was attached, in no projection mode, is gone. Diagnosis is not told which."""
    told = [to(["diag"], "diag_device_state", power=0xFF, speed=0xFF, usb_class=0xFF, sub_class=0xFF, protocol=0xFF,
               vid=0xFFFF, pid=0xFFFF, connected=0)]
    if device.dev_type in CAPABILITY:
        told.append(event_told(device, DETACHED))
    if device.dev_type == PHONE:
        told.append(device_told(device, DETACH, 0, PHONE))
    return together(*told)


def device_told(device, cmd, sub_cmd, dev_type):
    return to(usbrecords.USB_LISTENERS, "st_usb_pkt", cmd=cmd, sub_cmd=sub_cmd, dev_type=dev_type,
              port=device.port % 10, vid=device.vid, pid=device.pid, serial=device.serial, product=device.product,
              manufacturer=device.manufacturer, devpath=device.devpath, usb_class=device.interface[0],
              speed=device.speed)


def unsupported(device):
    """Media is told that a device cannot be used."""
    return device_told(device, ERROR, UNSUPPORTED_DEVICE, device.dev_type)


def unsupported_left(device):
    return device_told(device, DETACH, 0, device.dev_type)


def hub_came(device):
    """A customer's hub. It is announced as a device of type 1, not as a hub, and its state is not told."""
    return device_told(device, ERROR, CUSTOMER_HUB, UNSUPPORTED)


def hub_left(device):
    return device_told(device, DETACH, 0, UNSUPPORTED)


def storage(cmd, port, partition, **fields):
    fields = {"usb_class": 0x08, "speed": FULL_SPEED} | fields
    return to(usbrecords.STORAGE_LISTENERS, "st_storage_pkt", cmd=cmd, dev_type=STORAGE, port=port,
              partition=partition, **fields)


def attached(port, partitions=1, **known):
    """A disk is there, with so many partitions to expect. `known`: what it has kept of an earlier try to mount it."""
    return storage(ATTACH, port, partitions, **known)


def mounted(volume):
    return storage(MOUNTED, volume.port, volume.slot, mount_path=volume.mount_path, label=volume.label[:31],
                   uuid=volume.uuid[:31], fs_type=volume.fs_type)


def detached(volume):
    """Ejected: the record carries what the mounted one did."""
    return storage(DETACH, volume.port, volume.slot, mount_path=volume.mount_path, label=volume.label[:31],
                   uuid=volume.uuid[:31], fs_type=volume.fs_type)


HUB_HEALTHY = together(to(["diag"], "diag_status_communication", status=0),
                       to(["diag"], "diag_faulty_communication", result=0))
HUB_FAULTY = together(to(["diag"], "diag_status_communication", status=1),
                      to(["diag"], "diag_faulty_communication", result=1))
HUB_NOT_SUPPORTED = to(["diag"], "diag_hub_support", not_supported=1)
START_REPORTS = together(to(["diag"], "diag_external_optical_status", status=0xFF),
                         to(["diag"], "diag_external_optical_error_code", status=b"\xff\xff\xff"),
                         to(["diag"], "diag_over_current", present=0))
SCAN_BEGINS = to(["sdcm"], "scan", id=SCAN_BEGIN)
SCAN_ENDS = to(["sdcm"], "scan", id=SCAN_END)
SCAN = together(SCAN_BEGINS, SCAN_ENDS)
# With the vehicle's hub, and nothing plugged into it.
STARTED = together(START_REPORTS, HUB_HEALTHY, SCAN)


def comparable(record):
    """A record in words, with everything that is wrong with it, and its bytes without those that mean nothing."""
    data = bytearray(record.data)
    for field in record.description():
        if field.get("any"):
            data[field["at"]:field["at"] + usbrecords.width(field)] = bytes(usbrecords.width(field))
    return record.describe(), bytes(data)


class RoadTest(unittest.TestCase):
    """Subclasses may say in `prepare` which images they need: `cls.folder` is theirs."""
    maxDiff = None
    LEVEL = 64          # of the service's log: detail
    QUIET = 0.6         # seconds without a word, after which nothing more is expected
    PATIENCE = 30       # seconds for what must come

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="roads-")
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)
        cls.prepare()
        cls.unit = HeadUnit()
        cls.addClassCleanup(cls.unit.close)
        cls.unit.__enter__()
        cls.wait_before_disks(0)

    @classmethod
    def wait_before_disks(cls, seconds):
        """How long the kernel waits before it looks for the disk of a device. Its own choice, 1, only costs time."""
        cls.unit.run(f"echo {seconds} > /sys/module/usb_storage/parameters/delay_use")

    @classmethod
    def prepare(cls):
        cls.one = sticks.mbr(cls.folder / "one", [sticks.Vfat(files={"song.mp3": b"la la la"})])

    def setUp(self):
        self._heard = (0, 0)    # place in the stream up to which records were compared
        self._step = (0, 0)     # where the current step began, for logs
        self.addCleanup(self.unit.reset)

    # --- the road ---

    def start(self, *expected):
        """Starts the service. Without arguments: nothing is plugged but the vehicle's hub."""
        pid = self.unit.start_service({"KA_LOG_LEVEL": str(self.LEVEL)})
        self.told(*(expected or [STARTED]))
        return pid

    def told(self, *expected):
        """Since the last call each receiver got exactly these records, in this order."""
        expected = together(*expected)
        self._await({receiver: len(records) for receiver, records in expected.items()})
        self.settle()
        self._step, here = self._heard, self.unit.mark()
        got = self._records_since(self._heard)
        self._heard = here
        wrong = [difference(receiver, expected.get(receiver, []), got.get(receiver, []))
                 for receiver in sorted({*RECEIVERS, *got})]
        if any(wrong):
            self.fail("\n".join(filter(None, wrong)) + "\n" + self.heard())

    def settle(self):
        """Until nothing more is expected."""
        self.unit.settle(self.QUIET)

    def told_nothing(self, seconds=1.5):
        """Since the last call nobody got anything, nor in so many seconds from now."""
        time.sleep(seconds)
        self.told()

    def _await(self, counts):
        """Until each receiver has so many records. A missing one is found by the comparison, which shows what came."""
        deadline = time.monotonic() + self.PATIENCE
        while any(len(self.unit.records(receiver, self._heard)) < count for receiver, count in counts.items()):
            if time.monotonic() > deadline or self.unit.service_pid is None:
                return
            time.sleep(0.05)

    def _records_since(self, place):
        got = {}
        for one in self.unit.records(since=place):
            got.setdefault(one.receiver, []).append(usbrecords.decode(one.receiver, one.bytes))
        return got

    # --- what else can be seen ---

    def mounts(self):
        """Device and file system of each mount below /tmp/USB and /tmp/CD, in the order of mounting."""
        table = [line.split()[:3] for line in self.unit.mounts()]
        return [(point, device, kind) for device, point, kind in table if point.startswith(("/tmp/USB", "/tmp/CD"))]

    def nothing_left(self):
        self.assertEqual(self.mounts(), [])
        self.assertEqual(self.unit.sh("ls -d /tmp/USB /tmp/CD 2>/dev/null || true"), "")

    def logs(self, text, since=None):
        """Log lines with that text (a regular expression) of the last step, or since a place in the stream."""
        return [one for one in self.unit.logs(self._step if since is None else since) if re.search(text, one.text)]

    def assert_log(self, text, times=None, since=None):
        found = self.logs(text, since)
        if times is None and not found or times is not None and len(found) != times:
            self.fail(f"{len(found)} log lines with {text!r}, not {times or 'any'}\n" + self.heard())
        return found

    def heard(self):
        """The service's own log of the step, for a failure's text."""
        lines = self.unit.logs(self._step)
        return "Log:\n" + "\n".join(f"{one.time:10.3f} {one.text}" for one in lines[-120:])

    def descriptors(self):
        return int(self.unit.sh(f"ls /proc/{self.unit.service_pid}/fd | wc -l"))

    def nodes(self):
        """How many nodes the service's list holds, as it said last."""
        sizes = [re.search(r"size\[(\d+)\]", one.text) for one in self.unit.logs()]
        return int([one for one in sizes if one][-1].group(1))


def said_at(line):
    """The service's own time of a log line; the line's is when it was read."""
    return float(re.match(r"\[ *([\d.]+)\]", line.text).group(1))


def difference(receiver, expected, got):
    """What to say about a receiver that got something else; None when it did not."""
    if [comparable(one) for one in expected] == [comparable(one) for one in got]:
        return None
    return f"{receiver} was told something else.\nExpected:\n{listed(expected)}\nGot:\n{listed(got)}"


def listed(records):
    return "\n".join(f"    {one.describe()}" for one in records) or "    nothing"


def main():
    unittest.main(verbosity=2)

