#!/usr/bin/python3
"""What other processes tell the service: coding and adaption, settings, power, and what nobody understands."""
import os
import re
import stat
import struct
import subprocess

from bench import ServiceCase, board, main, storage, usbrecords, volumes, world

UNGATED = ("0000000000004000", "0000000000200000", "0000000800000000", "0000020000000000", "0000080000000000",
           "0000200000000000")
GATED = ("media", "speech", "navi")
USB_CERT, USB_CERT_PERSIST = 143, 144
NOTIFY_TABLE = "/dev/shm/NotifyTable"
PERSISTENT_FILE = "/data/sharedmemory/shm_usb_cert_persist"


def store(*words):
    """Runs another process that shares the settings."""
    program = f"{world.BENCH}/bin/store_tool"
    done = subprocess.run([program, *map(str, words)], capture_output=True, text=True, timeout=30)
    if done.returncode != 0:
        raise RuntimeError(f"store_tool {words}: {done.stdout}{done.stderr}")
    return done.stdout.strip()


class Gates(ServiceCase):
    @classmethod
    def prepare(cls):
        cls.volume("stick", volumes.filesystem())

    def setUp(self):
        super().setUp()
        self.volumes["stick"].appear_as("sda1")
        self.addCleanup(self.open_all)

    def open_all(self):
        self.send("diag", usbrecords.coding(3))
        self.send("diag", usbrecords.adaption(1, 1, 1, 1))
        self.expect_log("usb_adaption of port4 is 1")

    def diagnose(self, *requests):
        for request in requests:
            self.send("diag", request)
        # Requests on one connection keep their order: this one is answered last.
        self.send("diag", bytes.fromhex("8360220000"))
        self.expect_log("unknown diag packet cmd:83 subcmd:60,22 rdid:0,0", level=128)
        self.mark()

    def plug_and_pull(self, place="1-1.1"):
        stick = board.stick(place)
        self.board.plug(stick)
        self.settle()
        self.board.unplug(stick)
        self.settle()

    def said(self, receiver):
        return [record["cmd"] for record in self.got(receiver)]

    def test_the_request_of_diagnosis_sets_the_adaption_of_each_port(self):
        self.send("diag", usbrecords.adaption(1, 2, 1, 2))
        self.expect_log("activiation for hub interface_1:1 interface_2:0 interface_3:1 interface_4:0", level=128)
        for port, value in ((1, 1), (2, 2), (3, 1), (4, 2)):
            self.expect_log(f"usb_adaption of port{port} is {value}", level=128)

    def test_the_request_of_diagnosis_sets_the_coding(self):
        self.send("diag", usbrecords.coding(1))
        self.expect_log("media usb configuration: 1", level=128)
        self.expect_log("usb_coding is 1", level=128)
        self.send("diag", usbrecords.coding(3))
        self.expect_log("media usb configuration: 3")

    def test_an_inactive_port_tells_the_six_listeners_only(self):
        self.diagnose(usbrecords.adaption(2, 1, 1, 1))
        self.plug_and_pull()
        for receiver in UNGATED:
            self.assertEqual(self.said(receiver), [2, 3, 5], receiver)
        for receiver in GATED:
            self.expect_nothing(receiver)
            self.expect_log(f"not send to {receiver} because of not active port1 adaption(2) or invalid coding(3)",
                            level=128)
        self.expect_log("not send because of not active port1 adaption(2)", level=128)
        self.assertEqual(len(self.got("diag")), 2)

    def test_the_other_port_is_not_concerned(self):
        self.diagnose(usbrecords.adaption(2, 1, 1, 1))
        self.plug_and_pull("1-1.2")
        for receiver in GATED + UNGATED:
            self.assertEqual(self.said(receiver), [2, 3, 5], receiver)

    def test_a_device_on_an_inactive_port_is_reported_to_nobody_but_diagnosis(self):
        self.diagnose(usbrecords.adaption(1, 2, 1, 1))
        keyboard = board.keyboard("1-1.2")
        self.board.plug(keyboard)
        self.settle()
        self.board.unplug(keyboard)
        self.settle()
        self.expect_nothing("media", "speech")
        self.expect_log("not send because of not active port2 adaption(2) or invalid coding(3)", level=128)
        self.assertEqual(len(self.got("diag")), 2)

    def test_a_port_behind_a_hub_is_gated_by_its_units_digit(self):
        self.diagnose(usbrecords.adaption(1, 2, 1, 1))
        self.plug_and_pull("1-1.2.1")
        self.expect_nothing(*GATED)
        self.expect_log("not send because of not active port2 adaption(2)")

    def test_a_coding_below_two_keeps_packets_back(self):
        for coding in (0, 1):
            with self.subTest(coding):
                self.diagnose(usbrecords.coding(coding))
                self.plug_and_pull()
                self.expect_nothing(*GATED)
                self.expect_log(f"not send to navi because of not active port1 adaption({self.adaption()}) or invalid "
                                f"coding({coding})")
                self.assertEqual(self.said(UNGATED[0]), [2, 3, 5])
        self.diagnose(usbrecords.coding(2))
        self.plug_and_pull()
        for receiver in GATED:
            self.assertEqual(self.said(receiver), [2, 3, 5])

    def adaption(self):
        """0 until diagnosis spoke for the first time."""
        return 1 if "usb_adaption of port1 is 1" in self.service.texts() else 0

    def test_a_change_takes_effect_with_the_next_record(self):
        stick = board.stick("1-1.1")
        self.board.plug(stick)
        self.settle()
        self.assertEqual(self.said("media"), [2, 3])
        self.diagnose(usbrecords.adaption(2, 1, 1, 1))
        self.board.unplug(stick)
        self.settle()
        self.expect_nothing("media")
        self.expect("0000000000004000", storage(5, 1, path="/tmp/USB/PORT1/PART1/", label="STICK",
                                                uuid="6b0c1f2a-0000-4000-8000-000000000001", fs_type="ext4"))


class Settings(ServiceCase):
    @classmethod
    def prepare(cls):
        cls.volume("stick", volumes.filesystem())

    def change(self, record, value):
        """Another process writes a record; the change driver's message follows."""
        store("write", record, value)
        self.mark()
        self.send("settings", usbrecords.setting_changed("shm_usb_cert" if record == USB_CERT else
                                                         "shm_usb_cert_persist"))

    def test_an_empty_store_gets_the_defaults_and_only_the_persistent_one_is_saved(self):
        with open("/dev/shm/shm_usb_cert", "rb") as file:
            self.assertEqual(file.read(), struct.pack("<I", 16) + bytes(16))
        with open("/dev/shm/shm_usb_cert_persist", "rb") as file:
            self.assertEqual(file.read(), struct.pack("<II", 4, 1))
        self.assertEqual(os.listdir("/data/sharedmemory"), ["shm_usb_cert_persist"])
        texts = self.service.texts()
        for text in ("succeed to write shm_usb_cert", "succeed to set_notify shm_usb_cert",
                     "succeed to write shm_usb_cert_persist", "succeed to set_notify shm_usb_cert_persist",
                     "succeed to sync shm_usb_cert_persist"):
            self.assertEqual(texts.count(text) >= 1, True, text)
        self.assertEqual(stat.S_IMODE(os.stat("/dev/shm/shm_usb_cert").st_mode), 0o777)
        self.assertEqual(stat.S_IMODE(os.stat("/dev/shm/sem.shm_usb_cert").st_mode), 0o777)

    def test_the_service_is_to_be_told_of_both_records(self):
        with open(NOTIFY_TABLE, "rb") as file:
            table = struct.unpack("<306Q", file.read())
        self.assertEqual({i: mask for i, mask in enumerate(table) if mask}, {USB_CERT: 4096, USB_CERT_PERSIST: 4096})

    def test_customer_hubs_that_are_not_supported_any_more_are_removed(self):
        self.change(USB_CERT_PERSIST, "00000000")
        self.expect_log("customer_hub_support:0", level=128)
        self.expect_log("succeed to sync shm_usb_cert_persist", level=128)
        with open(PERSISTENT_FILE, "rb") as file:
            self.assertEqual(file.read(), struct.pack("<II", 4, 0))
        self.expect_no_log("test_force_enable1:0>0 test_force_enable2:0>0 device_mode1:0>0 device_mode2:0>0")
        hub = board.hub("1-1.2")
        self.board.plug(hub)
        self.settle()
        self.expect_log(f"remove it. isForce:0 customer_hub_support:0 path:{hub[0].devpath} port:2", level=128)
        self.board.unplug(hub)
        self.change(USB_CERT_PERSIST, "01000000")
        self.expect_log("customer_hub_support:1")
        keyboard = board.keyboard()
        self.board.plug(keyboard)
        self.settle()
        self.expect_log("don't remove it because customer_hub is supported")
        self.board.unplug(keyboard)

    def test_an_unchanged_persistent_record_is_saved_all_the_same(self):
        os.unlink(PERSISTENT_FILE)
        self.mark()
        self.send("settings", usbrecords.setting_changed("shm_usb_cert_persist"))
        self.expect_log("succeed to sync shm_usb_cert_persist")
        self.settle()
        self.assertEqual(self.service.texts(self.log_from).count("customer_hub_support:1"), 1)
        self.assertTrue(os.path.exists(PERSISTENT_FILE))

    def test_a_switch_of_the_engineering_menu_is_seen_with_its_old_and_new_value(self):
        self.change(USB_CERT, "01000000" + "00000000" + "02000000" + "01000000")
        self.expect_log("test_force_enable1:0>1 test_force_enable2:0>0 device_mode1:0>2 device_mode2:0>1", level=128)
        self.change(USB_CERT, "00" * 16)
        self.expect_log("test_force_enable1:1>0 test_force_enable2:0>0 device_mode1:2>0 device_mode2:1>0")

    def test_the_signal_test_of_the_engineering_menu_is_switched_at_its_port(self):
        zeros = "00000000"
        for value, switched in (("01000000" + zeros * 3, [("port_sel", "1"), ("testmode", "4")]),
                                ("01000000" * 2 + zeros * 2, [("port_sel", "2"), ("testmode", "4")]),
                                (zeros * 4, [("port_sel", "1"), ("testmode", "0"), ("port_sel", "2"),
                                             ("testmode", "0")]),
                                ("02000000" + zeros * 3, []), (zeros * 4, [])):
            with self.subTest(value):
                self.board.written()
                self.change(USB_CERT, value)
                self.settle_commands()
                self.assertEqual(self.board.written(), switched)
        self.assertIn("port1 STATE_DETACH trigger:1", self.service.texts())

    def test_the_hub_mode_of_the_engineering_menu_needs_carplay(self):
        self.board.written()
        self.change(USB_CERT, "00" * 8 + "01000000" * 2)
        self.expect_log("port1 STATE_DETACH, so can't change", level=128)
        self.expect_log("port2 STATE_DETACH, so can't change", level=128)
        self.change(USB_CERT, "00" * 16)
        self.expect_log("port2 STATE_DETACH, so can't change")
        self.assertEqual(self.board.written(), [])

    def test_a_name_that_is_not_ours_is_refused(self):
        self.send("settings", b"/data/sharedmemory/shm_radio\0")
        self.expect_log("unknown str:/data/sharedmemory/shm_radio", level=160)

    def test_a_name_without_an_end_is_taken_as_it_came(self):
        self.mark()
        self.send("settings", b"shm_usb_cert_persist")
        self.expect_log("customer_hub_support:1")

    def test_the_service_reads_what_a_former_run_left(self):
        self.change(USB_CERT_PERSIST, "00000000")
        self.expect_log("succeed to sync shm_usb_cert_persist")
        for name in ("shm_usb_cert", "shm_usb_cert_persist", "NotifyTable"):
            os.unlink(f"/dev/shm/{name}")
        self.restart_service()
        self.log_from = 0
        self.expect_log("succeed to read shm_usb_cert_persist", level=128)
        self.assertEqual(store("read", USB_CERT), "00" * 16)
        keyboard = board.keyboard()
        self.board.plug(keyboard)
        self.settle()
        self.expect_log(f"remove it. isForce:0 customer_hub_support:0 path:{keyboard[0].devpath} port:2")
        self.board.unplug(keyboard)
        self.change(USB_CERT_PERSIST, "01000000")
        self.expect_log("customer_hub_support:1")


class OtherMessages(ServiceCase):
    @classmethod
    def prepare(cls):
        cls.volume("stick", volumes.filesystem())

    def test_power_states_are_logged(self):
        self.send("power", usbrecords.power_states(1, 2, 3, 4))
        self.expect_log("hmi_power_state:1 hmi_power_event:2 mmi_power_state:3 mmi_power_event:4", level=128)

    def test_terminals_are_logged(self):
        self.send("power", usbrecords.terminal_states(1, 0, 1, 0))
        self.expect_log("clamp 15:1 50:0 S:1 X:0", level=128)

    def test_a_power_message_of_three_bytes_has_no_values(self):
        self.send("power", bytes.fromhex("839101"))
        self.expect_log("hmi_power_state:0 hmi_power_event:0 mmi_power_state:0 mmi_power_event:0")

    def test_messages_that_are_too_short_are_refused(self):
        for peer, least in {"power": 3, "test": 3, "diag": 5, "media": 20}.items():
            with self.subTest(peer):
                self.mark()
                self.send(peer, bytes(least - 1))
                line = self.service.wait_log(self.wrong_size(least - 1), self.log_from)
                self.assertIsNotNone(line)
                self.assertEqual(line.level, 192)

    @staticmethod
    def wrong_size(size):
        return re.compile(rf"wrong size\({size}\) or no str\(0x[0-9a-f]+\)")

    def test_unknown_messages_of_each_sender_are_refused_by_name(self):
        for peer, data, text, level in (
                ("media", usbrecords.build("media_command", cmd=9), "unknown cmd:9", 128),
                ("power", bytes.fromhex("839102"), "unknown packet cmd:83 subcmd:91,2", 160),
                ("power", bytes.fromhex("849101"), "unknown packet cmd:84 subcmd:91,1", 160),
                ("diag", bytes.fromhex("83603180aa02"), "unknown diag packet cmd:83 subcmd:60,31 rdid:80,aa", 128),
                ("diag", bytes.fromhex("0000000000"), "unknown diag packet cmd:0 subcmd:0,0 rdid:0,0", 128),
                ("sdcm", usbrecords.message(19), "unknown msgID:19", 160),
                ("sdcm", usbrecords.message(11), "unknown msgID:11", 160),
                ("sdcm", usbrecords.message(31), "unknown msgID:31", 160),
                ("sdcm", usbrecords.message(44), "unknown msgID:44", 160),
                ("sdcm", usbrecords.message(48), "unknown msgID:48", 160),
                ("sdcm", usbrecords.message(0x80000014), "unknown msgID:-2147483628", 160),
                ("sdcm", b"x", "unknown msgID:0", 160),
                ("settings", b"x", "unknown str:x", 160)):
            with self.subTest(f"{peer} {data.hex()}"):
                self.mark()
                self.send(peer, data)
                self.expect_log(text, level=level)

    def test_a_search_of_the_media_player_is_taken(self):
        self.send("media", usbrecords.search_phone(dev_type=9, port=2))
        self.expect_log("SEARCH_PHONE dev_type:9 port:2", level=128)

    def test_the_service_still_does_its_job_afterwards(self):
        self.assert_stick_is_announced()


if __name__ == "__main__":
    main()
