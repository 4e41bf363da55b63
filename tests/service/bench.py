"""What every test program here imports: paths to our modules, then the bench."""
import pathlib
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tools" / "records"))

import usbrecords  # noqa: E402
from harness import board, peers, service, uevents, volumes, world  # noqa: E402
from harness.case import ServiceCase, main  # noqa: E402

__all__ = ["ServiceCase", "board", "main", "peers", "service", "uevents", "usbrecords", "volumes", "world"]

# Reports to diagnosis, whole.
OPTICAL_STATUS = bytes.fromhex("01602251ecff")
OPTICAL_ERROR_CODE = bytes.fromhex("0160221005ffffff")
NO_OVER_CURRENT = bytes.fromhex("016022247c00")
HUB_SUPPORTED = bytes.fromhex("01602280aa00")
HUB_NOT_SUPPORTED = bytes.fromhex("01602280aa01")
HUB_STATUS_OK = bytes.fromhex("01602218e800")
HUB_STATUS_FAULTY = bytes.fromhex("01602218e801")
HUB_COMMUNICATION_OK = bytes.fromhex("016019066500")
HUB_COMMUNICATION_FAULTY = bytes.fromhex("016019066501")
DEVICE_LEFT = bytes.fromhex("016022185dffffffffffffffffff00ff")

SCAN_BEGIN = bytes.fromhex("000000000300000000000000")
SCAN_END = bytes.fromhex("000000000400000000000000")


def device_came(vid, pid, codes, speed=2, power=1):
    """What diagnosis is told of a device on arrival."""
    return usbrecords.build("diag_device_state", power=power, speed=speed, usb_class=codes[0], sub_class=codes[1],
                            protocol=codes[2], vid=vid, pid=pid, connected=1)


def storage(cmd, partition, port=1, path="", label="", uuid="", fs_type="", usb_class=8, speed=2):
    return usbrecords.build("st_storage_pkt", cmd=cmd, dev_type=5, port=port, partition=partition, mount_path=path,
                            label=label, uuid=uuid[:31], fs_type=fs_type, usb_class=usb_class, speed=speed)


def device(cmd, sub_cmd, dev_type, node, port, codes, speed=2):
    """What media is told of a device that is no storage."""
    shown, keys = node.attributes, node.keys
    vid, pid, _ = (int(number, 16) for number in keys["PRODUCT"].split("/"))
    return usbrecords.build("st_usb_pkt", cmd=cmd, sub_cmd=sub_cmd, dev_type=dev_type, port=port, vid=vid, pid=pid,
                            serial=shown["serial"] or f"{vid:x}_{pid:x}", product=shown["product"] or "",
                            manufacturer=shown["manufacturer"] or "", devpath=node.devpath[:127], usb_class=codes,
                            speed=speed)


# What SDCM is told of a device's modes: Android Auto, MirrorLink, CarPlay, CarLife; 0 when it cannot be asked, as here,
# where no device has a file in /dev.
STORAGE_MODES = (2, 1, 2, 2)
PHONE_MODES = (0, 1, 2, 2)
ACCESSORY_MODES = (3, 1, 2, 2)
APPLE_MODES = (2, 2, 0, 2)


def ids(node):
    vid, pid, _ = (int(number, 16) for number in node.keys["PRODUCT"].split("/"))
    return vid, pid


def event(id, dev_type, node, port, usb_class, modes, speed=2):
    """What SDCM is told when a device comes (1) or goes (2)."""
    vid, pid = ids(node)
    shown = node.attributes
    return usbrecords.build("device_event", id=id, port=port, dev_type=dev_type, vid=vid, pid=pid, usb_class=usb_class,
                            speed=speed, aa_capa=modes[0], ml_capa=modes[1], cp_capa=modes[2], cl_capa=modes[3],
                            serial=shown["serial"] or f"{vid:x}_{pid:x}", product=shown["product"] or "",
                            manufacturer=shown["manufacturer"] or "", devpath=node.devpath[:127])


def request(id, node, port=1, devid="", **other):
    """What SDCM asks of a device: ids 12 to 17."""
    vid, pid = ids(node)
    values = dict(port=port, vid=vid, pid=pid, serial=node.attributes["serial"], devpath=node.devpath, devid=devid)
    values.update(other)
    return usbrecords.mode_request(id, **values)


def result(id, asked, outcome, **other):
    """The answer to a request (its bytes): 0 done, 1 failed or refused. Echoes the request."""
    asked = usbrecords.parse("mode_request", asked)
    values = {name: asked[name] for name in ("port", "vid", "pid", "serial", "devpath", "devid")}
    values.update(other)
    return usbrecords.build("mode_result", id=id, result=outcome, **values)
