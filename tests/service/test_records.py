#!/usr/bin/python3
"""The description of the records is whole, and says what the bytes say. Needs no root and no service."""
import contextlib
import io
import pathlib
import re
import sys
import unittest
import unittest.mock

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tools" / "records"))

import generate  # noqa: E402
import headers  # noqa: E402
import usbrecords  # noqa: E402

PLATFORM = ROOT / "platform" / "src"

# Bytes of each record: peers were built with these.
SIZES = {
    "st_usb_pkt": 360, "st_storage_pkt": 136, "media_voltage": 24, "voltage": 12,
    "diag_external_optical_status": 6, "diag_external_optical_error_code": 8, "diag_status_communication": 6,
    "diag_device_state": 16, "diag_over_current": 6, "diag_faulty_communication": 6, "diag_test_result": 6,
    "diag_hub_support": 6, **{f"diag_socket{n}_{fault}": 6 for n in (1, 2, 3, 4) for fault in ("open", "short")},
    "mount_check_result": 36, "scan": 12, "device_event": 364, "mode_result": 244,
    "media_command": 20, "diag_adaption": 9, "diag_coding": 7, "diag_run_test": 6, "diag_request": 5, "power": 7,
    "test_command": 5, "setting_changed": 128, "mode_request": 244, "search": 12, "command": 12,
    "message": 12, "node": 348, "mount_error": 148, "over_current": 140,
}

# What stands where, of the records whose bytes no other test holds.
PLACES = {
    "mode_request": {"id": 4, "port": 8, "vid": 10, "pid": 12, "serial": 14, "devpath": 78, "devid": 206,
                     "result": 240},
    "node": {"id": 4, "port": 8, "dev_type": 12, "vid": 16, "pid": 18, "usb_class": 20, "speed": 24, "serial": 28,
             "product": 92, "manufacturer": 156, "devpath": 220},
    "device_event": {"id": 4, "port": 8, "dev_type": 12, "vid": 16, "pid": 18, "usb_class": 20, "speed": 24,
                     "aa_capa": 28, "ml_capa": 32, "cp_capa": 36, "cl_capa": 40, "serial": 44, "product": 108,
                     "manufacturer": 172, "devpath": 236},
}


class DescriptionOfTheRecords(unittest.TestCase):
    def test_the_fields_of_each_record_cover_every_byte_once(self):
        for name, description in usbrecords.RECORDS.items():
            with self.subTest(name):
                end = 0
                for field in description["fields"]:
                    self.assertEqual(field["at"], end, f"{field['name']} begins elsewhere")
                    end += usbrecords.width(field)
                self.assertEqual(end, description["size"])

    def test_each_record_has_the_size_that_peers_were_built_with(self):
        self.assertEqual({name: description["size"] for name, description in usbrecords.RECORDS.items()}, SIZES)

    def test_fields_lie_where_peers_were_built_to_find_them(self):
        for name, places in PLACES.items():
            fields = {field["name"]: field["at"] for field in usbrecords.RECORDS[name]["fields"]}
            self.assertEqual({field: fields[field] for field in places}, places, name)

    def test_each_record_fits_the_services_structure_of_it(self):
        self.assertEqual(list(headers.faults()), [])
        covered = {description["struct"] for description in usbrecords.RECORDS.values() if "struct" in description}
        self.assertEqual(set(headers.STRUCTS) - covered, {"DiagHead", "StDiagUsbDeviceStateData"})

    def test_a_record_that_does_not_fit_its_structure_is_found(self):
        for change, fault in (
                ({"size": 139}, "moved takes 139 bytes, UMsgOverCurrent 140"),
                ({"fields": [{"at": 8, "name": "ports", "type": "u16"}]},
                 "moved.ports begins or ends inside a member of UMsgOverCurrent"),
                ({"fields": [{"at": 137, "name": "port", "type": "u8"}]},
                 "moved.port is elsewhere in UMsgOverCurrent")):
            moved = usbrecords.RECORDS["over_current"] | change
            with self.subTest(fault), unittest.mock.patch.dict(usbrecords.RECORDS, {"moved": moved}):
                self.assertIn(fault, list(headers.faults()))

    def test_a_structure_with_a_hole_that_has_no_name_is_found(self):
        fields = [field for field in headers.STRUCTS["DiagHead"]["fields"] if field["name"] != "service"]
        with unittest.mock.patch.dict(headers.STRUCTS["DiagHead"], {"fields": fields}):
            self.assertIn("DiagHead: rdid does not begin at 2", list(headers.faults()))

    def test_what_was_generated_is_compared_to_the_last_line(self):
        self.assertEqual(generate.check(), 0)
        places = usbrecords.RECORDS["voltage"]["fields"]
        changed = [*places[:2], places[2] | {"name": "part"}]
        said = io.StringIO()
        with unittest.mock.patch.dict(usbrecords.RECORDS["voltage"], {"fields": changed}), \
                contextlib.redirect_stdout(said):
            self.assertGreaterEqual(generate.check(), 3)    # the header, the table, the page
        self.assertIn("+static_assert(offsetof(VoltagePacket, part) == 8);", said.getvalue())

    def test_every_enumeration_and_process_that_is_named_exists(self):
        for name, description in usbrecords.RECORDS.items():
            for field in description["fields"]:
                if "words" in field:
                    self.assertIn(field["words"], usbrecords.WORDS, name)
            for process in description["to"] + [description["from"]]:
                if process not in ("usb", "monitor"):
                    self.assertIn(process, usbrecords.PROCESSES, name)

    def test_a_process_is_one_bit_and_the_sets_are_the_services(self):
        bits = [bit for name, bit in usbrecords.PROCESSES.items() if name != "settings"]
        self.assertEqual(len(set(bits)), len(bits))
        for bit in bits:
            self.assertEqual(bin(bit).count("1"), 1)
        storage = sum(usbrecords.PROCESSES[name] for name in usbrecords.STORAGE_LISTENERS)
        self.assertEqual(storage, 0x00002A4802A04000)
        self.assertEqual(sum(usbrecords.PROCESSES[name] for name in usbrecords.USB_LISTENERS), 0x0000004000800000)

    def test_the_platform_calls_processes_by_the_same_names_and_bits(self):
        pairs = re.findall(r'\{"(\w+)", (0x\w+|0)\}', (PLATFORM / "dcm.cpp").read_text())
        senders = {description["from"] for description in usbrecords.RECORDS.values()} - {"usb"}
        self.assertEqual({name: int(mask, 0) for name, mask in pairs},
                         {name: usbrecords.PROCESSES[name] for name in senders})
        pairs = re.findall(r'\{(0x\w+), "(\w+)"\}', (PLATFORM / "Outbox.cpp").read_text())
        receivers = {receiver for description in usbrecords.RECORDS.values() for receiver in description["to"]}
        named = {name: process["mask"] for name, process in usbrecords.DESCRIPTION["processes"].items()
                 if "cpp" in process and name in receivers}
        named["usb"] = named.pop("sdcm")    # SDCM speaks in the service's name, and is written to without a bit
        self.assertEqual({name: int(mask, 0) for mask, name in pairs}, named)

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
