#!/usr/bin/python3
"""What the service says when it starts, and what it finds that was there before."""
import os
import re
import signal
import time

from bench import (DEVICE_LEFT, HUB_COMMUNICATION_FAULTY, HUB_COMMUNICATION_OK, HUB_NOT_SUPPORTED, HUB_STATUS_FAULTY,
                   HUB_STATUS_OK, NO_OVER_CURRENT, OPTICAL_ERROR_CODE, OPTICAL_STATUS, SCAN_BEGIN, SCAN_END,
                   ServiceCase, board, device_came, main, service, storage, usbrecords, volumes, world)

UUID = "11111111-2222-3333-4444-555555555555"


class StartWithoutTheVehicleHub(ServiceCase):
    def setUp(self):
        super().setUp()
        self.records_from = self.log_from = 0
        self.settle()

    def test_sdcm_is_told_that_the_scan_begins_and_ends(self):
        self.expect("sdcm", SCAN_BEGIN, SCAN_END)

    def test_diagnosis_gets_the_start_up_reports_and_one_set_of_hub_reports_in_order(self):
        self.expect("diag", OPTICAL_STATUS, OPTICAL_ERROR_CODE, NO_OVER_CURRENT, HUB_NOT_SUPPORTED, HUB_STATUS_FAULTY,
                    HUB_COMMUNICATION_FAULTY)

    def test_nobody_else_is_told_anything(self):
        self.expect_nothing("media", "navi", "speech", "test", "voltage", "0000000000004000")

    def test_the_start_up_lines_have_their_own_module(self):
        self.assertEqual(self.expect_log("usbservice start").module, "3584.1792")
        self.assertEqual(self.expect_log("usbservice ready").module, "3584.1792")
        self.assertEqual(self.expect_log("msgID:27").module, "2816.0")
        texts = self.service.texts()
        self.assertLess(texts.index("usbservice start"), texts.index("usbservice ready"))
        self.assertEqual(texts.count("usbservice ready"), 1)

    def test_the_socket_is_bound_before_the_scan_begins(self):
        texts = self.service.texts()
        bound = next(i for i, text in enumerate(texts) if re.fullmatch(r"fd\(\d+\) max_fd\(\d+\)", text))
        self.assertLess(bound, texts.index("msgID:27"))

    def test_four_threads_of_the_service_run(self):
        names = set()
        for task in os.listdir(f"/proc/{self.service.pid}/task"):
            with open(f"/proc/{self.service.pid}/task/{task}/comm") as file:
                names.add(file.read().strip())
        own = {name for name in names if not name.startswith("kipc")}       # the platform's
        self.assertEqual(own, {"usbservice", "frame-usb", "frame-event", "frame-monitor"})

    def test_no_descriptor_is_inherited_by_what_it_starts(self):
        for entry in os.listdir(f"/proc/{self.service.pid}/fd"):
            if int(entry) < 3:
                continue
            with open(f"/proc/{self.service.pid}/fdinfo/{entry}") as file:
                flags = int(re.search(r"flags:\s*(\d+)", file.read()).group(1), 8)
            self.assertTrue(flags & 0o2000000, f"descriptor {entry} is not closed on exec")


class StartWithTheVehicleHubAndAStick(ServiceCase):
    @classmethod
    def prepare(cls):
        cls.volume("a", volumes.filesystem(label="EARLY", uuid=UUID)).appear_as("sda1")
        cls.stick = board.stick("1-1.1")
        internal = board.Node("/devices/platform/mmc0/block/mmcblk0", "block",
                              dict(MAJOR=179, MINOR=0, DEVNAME="mmcblk0", DEVTYPE="disk"))
        cls.board.present_before_start(board.root_hub() + board.vehicle_hub() + cls.stick + [internal])

    def setUp(self):
        super().setUp()
        self.records_from = self.log_from = 0
        self.settle()

    def test_the_hub_is_healthy_and_nothing_is_reported_missing(self):
        reports = [record.data for record in self.got("diag") if record.name != "diag_device_state"]
        self.assertEqual(reports, [OPTICAL_STATUS, OPTICAL_ERROR_CODE, NO_OVER_CURRENT, HUB_STATUS_OK,
                                   HUB_COMMUNICATION_OK])

    def test_the_stick_is_found_once_and_announced_as_if_it_came_now(self):
        path = "/tmp/USB/PORT1/PART1/"
        self.expect("media", storage(2, 1), storage(3, 1, path=path, label="EARLY", uuid=UUID, fs_type="ext4"))
        self.assertEqual(self.mounted(), {"/tmp/USB/PORT1/PART1": ("/dev/sda1", "ext4")})
        inserted = [text for text in self.service.texts() if re.fullmatch(r"\[.*\]->p\[.*\], size\[\d+\]", text)]
        self.assertEqual(len(inserted), 8)       # root hub, hub, stick: a device and an interface each; disk, partition

    def test_the_sticks_device_state_is_reported_between_scan_begin_and_end(self):
        came = device_came(0x0951, 0x1666, board.STORAGE)
        self.assertEqual([record.data for record in self.got("diag") if record.name == "diag_device_state"], [came])
        texts = self.service.texts()
        mounted = texts.index("cmd:3 sub_cmd:0 dev_type:5 port:1 parti:1")
        self.assertLess(texts.index("msgID:27"), mounted)
        self.assertLess(mounted, texts.index("msgID:28"))

    def test_a_disk_that_is_not_on_usb_is_left_alone(self):
        self.assertFalse([text for text in self.service.texts() if "mmcblk0" in text])

    def test_the_board_is_read_once(self):
        self.assertEqual(self.service.texts().count("X53 B"), 1)


class StartAgain(ServiceCase):
    @classmethod
    def prepare(cls):
        cls.volume("stick", volumes.filesystem())

    def test_a_stick_that_leaves_after_the_scan_is_ejected_and_unmounted(self):
        self.volumes["stick"].appear_as("sda1")
        stick = board.stick("1-1.2")
        self.board.present_before_start(stick)
        self.restart_service()
        self.records_from = self.log_from = 0
        self.settle()
        self.assertEqual(list(self.mounted()), ["/tmp/USB/PORT2/PART1"])
        self.mark()
        self.board.unplug(stick)
        self.settle()
        self.expect("media", *self.ejected(2))
        self.expect("diag", DEVICE_LEFT)
        self.assertEqual(self.mounted(), {})

    def ejected(self, port):
        return [storage(5, 1, port=port, path=f"/tmp/USB/PORT{port}/PART1/", label="STICK",
                        uuid="6b0c1f2a-0000-4000-8000-000000000001", fs_type="ext4")]

    def test_sockets_of_a_previous_run_are_taken_over(self):
        self.service.process.kill()
        self.restart_service()
        self.mark()
        self.send("power", usbrecords.power_states(9, 8, 7, 6))
        self.expect_log("hmi_power_state:9 hmi_power_event:8 mmi_power_state:7 mmi_power_event:6", level=128)
        self.assert_stick_is_announced()

    def test_without_a_board_id_the_first_controller_is_the_units(self):
        os.unlink("/sys/devices/soc/soc:common_gpio_default/board_id")
        self.addCleanup(self.board.write, "/devices/soc/soc:common_gpio_default/board_id", "X53")
        self.restart_service()
        self.mark()
        self.assert_stick_is_announced()
        self.assertEqual(self.service.texts().count("board not exist. so B0"), 1)

    def test_a_log_below_the_threshold_is_not_written(self):
        self.restart_service(level=192)
        texts = [line for line in self.service.since(0) if line.level is not None and line.level < 192]
        self.assertEqual(texts, [])
        self.restart_service()


class Surroundings(ServiceCase):
    """What the service inherits, or loses, from whoever started it."""

    @classmethod
    def prepare(cls):
        cls.volume("stick", volumes.filesystem())

    def setUp(self):
        super().setUp()
        self.volumes["stick"].appear_as("sda1")
        self.addCleanup(self.restart_service)

    def start(self, **how):
        self.service.stop()
        self.peers.hang_up()
        self.peers.received.clear()
        type(self).service = service.Service(0, {}, **how)

    def test_children_are_waited_for_though_their_end_was_ignored_before(self):
        self.start(before=lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN))
        self.wait_until_running()
        self.assert_stick_is_announced()

    def test_volumes_are_identified_though_standard_input_is_closed(self):
        self.start(before=lambda: os.close(0))      # else the tool's pipe would get its number, which is never read
        self.wait_until_running()
        self.assert_stick_is_announced()
        self.expect_log("vol ret (STICK,6b0c1f2a-0000-4000-8000-000000000001,ext4)")

    def announce_unheard(self):
        """A stick, with the records as the only witness."""
        self.mark()
        stick = board.stick("1-1.1")
        self.board.plug(stick)
        self.assertEqual([record["cmd"] for record in self.await_records("navi", 2)], [2, 3])
        self.board.unplug(stick)
        self.assertEqual([record["cmd"] for record in self.await_records("navi", 3)], [2, 3, 5])
        deadline = time.monotonic() + 5
        while self.mounted() and time.monotonic() < deadline:       # it is announced first
            time.sleep(0.01)
        self.assertEqual(self.mounted(), {})
        self.assertTrue(self.service.runs())

    def test_a_log_whose_reader_is_gone_does_not_end_the_service(self):
        self.start(reads=False)
        self.assertEqual(len(self.peers.wait("diag", 6, 0)), 6)
        self.service.hang_up()
        for _ in range(3):
            self.announce_unheard()

    def test_a_log_that_nobody_reads_does_not_stop_the_service(self):
        self.start(reads=False)
        self.assertEqual(len(self.peers.wait("diag", 6, 0)), 6)
        keyboard = board.keyboard("1-1.2")
        for node in keyboard:
            self.board.show(node)
        for _ in range(500):        # far more than the pipe takes
            for action in ("add", "remove"):
                for node in keyboard:
                    self.board.tell(action, node)
        self.announce_unheard()
        for node in keyboard:
            self.board.hide(node)

    def test_a_device_that_comes_while_the_scan_runs_is_in_the_list_once_and_told_twice(self):
        first, second = board.stick("1-1.1"), board.stick("1-1.2", "sdb", ["sdb1"])
        self.board.present_before_start(first + second)
        world.set_blkid(f"sleep 0.5; exec {world.BLKID} \"$@\"")
        self.start()
        self.assertIsNotNone(self.service.wait_log("partition num 1"))      # the scan is at the first stick
        for node in second:
            self.board.tell("add", node)
        self.wait_until_running()
        world.set_blkid()
        self.records_from = self.log_from = 0
        self.settle()
        said = [(record["cmd"], record["partition"]) for record in self.got("navi") if record["port"] == 2]
        self.assertEqual([cmd for cmd, _ in said if cmd == 2], [2, 2])
        self.assertEqual(self.service.texts().count("already exists"), 4)
        self.board.unplug(second)
        self.board.unplug(first)
        self.settle()
        sizes = [text for text in self.service.texts() if text.startswith("size[")]
        self.assertEqual(sizes[-1], "size[0]")
        self.assertEqual(self.mounted(), {})


if __name__ == "__main__":
    main()
