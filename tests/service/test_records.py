#!/usr/bin/python3
"""The description of the records is whole, and says what the bytes say. Needs no root and no service."""
import pathlib
import re
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tools" / "records"))

import usbrecords  # noqa: E402

HEADERS = ROOT / "usbservice" / "src" / "record"

# The service's own name of each record that has one.
STRUCTS = {
    "st_usb_pkt": "st_usb_pkt", "st_storage_pkt": "st_storage_pkt", "media_voltage": "MediaVoltagePacket",
    "voltage": "VoltagePacket", "diag_device_state": "DiagDeviceState", "diag_status_communication": "DiagByte",
    "diag_external_optical_error_code": "DiagErrorCode", "mount_check_result": "MountCheckResult",
    "scan": "ScanRecord", "device_event": "DeviceEventRecord", "mode_result": "UMsgChMode",
    "mode_request": "UMsgChMode", "media_command": "MediaCommand", "diag_adaption": "DiagRequest",
    "power": "PowerNotification", "test_command": "TestCommand", "message": "UMsgHeader", "search": "UMsgHeader",
    "node": "UMsgNode", "mount_error": "UMsgMountError", "over_current": "UMsgOverCurrent",
}


def asserted():
    """What the headers assert: {struct: size}, {(struct, field): offset}."""
    text = "".join(path.read_text() for path in sorted(HEADERS.glob("*.h")))
    sizes = {name: int(size) for name, size in re.findall(r"TakesBytes<(\w+), (\d+)>", text)}
    offsets = {(struct, field): int(at) for struct, field, at in
               re.findall(r"offsetof\((\w+), (\w+)\) == (\d+)", text)}
    return sizes, offsets


class DescriptionOfTheRecords(unittest.TestCase):
    def test_the_fields_of_each_record_cover_every_byte_once(self):
        for name, description in usbrecords.RECORDS.items():
            with self.subTest(name):
                end = 0
                for field in description["fields"]:
                    self.assertEqual(field["at"], end, f"{field['name']} begins elsewhere")
                    end += usbrecords.width(field)
                self.assertEqual(end, description["size"])

    def test_each_record_has_the_size_that_the_service_asserts(self):
        sizes, _ = asserted()
        self.assertGreater(len(sizes), 20)
        for name, struct in STRUCTS.items():
            with self.subTest(name):
                self.assertEqual(usbrecords.RECORDS[name]["size"], sizes[struct])

    def test_fields_of_one_name_lie_where_the_service_asserts_them(self):
        _, offsets = asserted()
        compared = 0
        for name, struct in STRUCTS.items():
            for field in usbrecords.RECORDS[name]["fields"]:
                if (struct, field["name"]) in offsets and not field.get("unused"):
                    with self.subTest(f"{name}.{field['name']}"):
                        self.assertEqual(field["at"], offsets[struct, field["name"]])
                        compared += 1
        self.assertGreater(compared, 60)

    def test_every_enumeration_and_process_that_is_named_exists(self):
        for name, description in usbrecords.RECORDS.items():
            for field in description["fields"]:
                if "words" in field:
                    self.assertIn(field["words"], usbrecords.WORDS, name)
            for process in description["to"] + [description["from"]]:
                if process not in ("usb", "monitor"):
                    self.assertIn(process, usbrecords.PROCESSES, name)

    def test_every_message_id_of_the_service_has_words(self):
        numbers = re.findall(r"MSGID_\w+ = (\d+)", (HEADERS / "MessageId.h").read_text())
        self.assertEqual(sorted(map(int, numbers)), sorted(usbrecords.WORDS["id"]))

    def test_a_process_is_one_bit_and_the_sets_are_the_services(self):
        bits = [bit for name, bit in usbrecords.PROCESSES.items() if name != "settings"]
        self.assertEqual(len(set(bits)), len(bits))
        for bit in bits:
            self.assertEqual(bin(bit).count("1"), 1)
        storage = sum(usbrecords.PROCESSES[name] for name in usbrecords.STORAGE_LISTENERS)
        self.assertEqual(storage, 0x00002A4802A04000)
        self.assertEqual(sum(usbrecords.PROCESSES[name] for name in usbrecords.USB_LISTENERS), 0x0000004000800000)

    def test_what_is_built_is_decoded_as_the_same_record(self):
        for name, description in usbrecords.RECORDS.items():
            with self.subTest(name):
                if name in ("diag_request", "setting_changed"):
                    continue        # the first is any request that no other description fits, the second any text
                values = {"id": 12} if name == "mode_request" else {}
                decoded = usbrecords.decode(description["to"][0], usbrecords.build(name, **values),
                                            description["from"])
                self.assertEqual(decoded.name, name)
                self.assertEqual(decoded.faults, [])

    def test_nothing_fits_a_record_of_another_size(self):
        record = usbrecords.decode("media", bytes(359))
        self.assertIsNone(record.name)
        self.assertIn("359 bytes that no description fits", record.describe())


class DecodedRecords(unittest.TestCase):
    def test_a_mounted_volume_reads_as_a_line(self):
        data = bytes.fromhex("03000000" "03000000" "00000000" "05000000" "01000000" "01") \
            + b"/tmp/USB/PORT1/PART1/".ljust(32, b"\0") + b"STICK".ljust(32, b"\0") + b"1234-ABCD".ljust(32, b"\0") \
            + b"vfat".ljust(16, b"\0") + bytes.fromhex("080200")
        record = usbrecords.decode("navi", data)
        self.assertEqual(str(record), 'st_storage_pkt cmd=mounted sub_cmd=- dev_type=storage port=1 partition=1 '
                         'mount_path="/tmp/USB/PORT1/PART1/" label="STICK" uuid="1234-ABCD" fs_type="vfat" '
                         'usb_class=0x08 speed=high')
        self.assertEqual(usbrecords.build("st_storage_pkt", cmd=3, dev_type=5, port=1, partition=1,
                                          mount_path="/tmp/USB/PORT1/PART1/", label="STICK", uuid="1234-ABCD",
                                          fs_type="vfat", usb_class=8, speed=2), data)

    def test_a_device_state_reads_as_a_line(self):
        record = usbrecords.decode("diag", bytes.fromhex("016022185d0102080650510966160" "1ff"))
        self.assertEqual(str(record), "diag_device_state power=1 speed=high usb_class=0x08 sub_class=0x06 "
                                      "protocol=0x50 vid=0x0951 pid=0x1666 connected=yes")

    def test_a_text_without_end_and_one_with_something_behind_it_are_faults(self):
        full = bytearray(usbrecords.build("mount_check_result", mounted=1))
        full[4:36] = b"x" * 32
        self.assertEqual(usbrecords.decode("test", full).faults, ["mount_path is not terminated"])
        full[4:36] = b"abc\0rest".ljust(32, b"\0")
        self.assertEqual(usbrecords.decode("test", full).faults, ["mount_path has bytes behind its end"])

    def test_a_hole_that_is_not_zero_is_a_fault(self):
        data = bytearray(usbrecords.build("st_storage_pkt", cmd=3))
        data[135] = 7
        self.assertEqual(usbrecords.decode("media", data).faults, ["unused is not zero"])

    def test_requests_of_diagnosis_are_the_known_bytes(self):
        self.assertEqual(usbrecords.adaption(1, 2, 1, 2), bytes.fromhex("836022098180008000"))
        self.assertEqual(usbrecords.coding(3), bytes.fromhex("836022055700c0"))
        self.assertEqual(usbrecords.coding(1), bytes.fromhex("83602205570040"))
        self.assertEqual(usbrecords.run_hub_test(), bytes.fromhex("83603180aa03"))

    def test_the_other_senders_requests_are_the_known_bytes(self):
        self.assertEqual(usbrecords.mount_check(1), bytes.fromhex("0231020801"))
        self.assertEqual(usbrecords.power_states(1, 2, 3, 4), bytes.fromhex("83910101020304"))
        self.assertEqual(usbrecords.terminal_states(1, 0, 1, 0), bytes.fromhex("83910301000100"))
        self.assertEqual(len(usbrecords.search_phone()), 20)
        self.assertEqual(usbrecords.search_phone()[4], 8)
        self.assertEqual(usbrecords.setting_changed("shm_usb_cert"), b"/data/sharedmemory/shm_usb_cert\0")

    def test_a_text_that_is_too_long_for_its_field_is_refused(self):
        with self.assertRaises(ValueError):
            usbrecords.build("st_storage_pkt", label="x" * 32)
        with self.assertRaises(KeyError):
            usbrecords.build("st_storage_pkt", no_such_field=1)


if __name__ == "__main__":
    unittest.main()
