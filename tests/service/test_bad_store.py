#!/usr/bin/python3
"""A settings store that is broken leaves the defaults in force, and the service at work."""
import os
import struct
import subprocess
import time

from bench import ServiceCase, board, main, usbrecords, volumes, world

FILE = "/data/sharedmemory/shm_usb_cert_persist"
SEGMENTS = ("shm_usb_cert", "shm_usb_cert_persist", "NotifyTable")


class BadStore(ServiceCase):
    @classmethod
    def prepare(cls):
        cls.volume("stick", volumes.filesystem())

    def start_with(self, files=None, segments=None):
        """Starts the service with these contents, and nothing else, in the store."""
        self.service.stop()
        for folder in ("/dev/shm", "/data"):
            world.unmount(folder, 2)
            world.mount("store", folder, "tmpfs", 0, "mode=1777")
        os.makedirs(os.path.dirname(FILE))
        for path, content in [(FILE, content) for content in files or []] + \
                [(f"/dev/shm/{name}", content) for name, content in (segments or {}).items()]:
            with open(path, "wb") as file:
                file.write(content)
            os.chmod(path, 0o777)
        self.restart_service()
        self.records_from = self.log_from = 0

    def assert_default(self, supported=1):
        """What the settings say about customers' devices, as the service acts on it."""
        keyboard = board.keyboard("1-1.2")
        self.board.plug(keyboard)
        self.settle()
        if supported:
            self.expect_log("don't remove it because customer_hub is supported")
        else:
            self.expect_log(f"remove it. isForce:0 customer_hub_support:0 path:{keyboard[0].devpath} port:2")
        self.board.unplug(keyboard)
        self.assert_stick_is_announced()

    def test_a_file_that_is_cut_short_is_as_good_as_none(self):
        for size in (0, 3, 7):
            with self.subTest(size):
                self.start_with(files=[struct.pack("<II", 4, 0)[:size]])
                self.expect_log("succeed to write shm_usb_cert_persist", level=128)
                self.expect_log("succeed to sync shm_usb_cert_persist", level=128)
                with open(FILE, "rb") as file:
                    self.assertEqual(file.read(), struct.pack("<II", 4, 1))
                self.assert_default()

    def test_a_whole_file_is_read(self):
        self.start_with(files=[struct.pack("<II", 4, 0)])
        self.expect_log("succeed to read shm_usb_cert_persist", level=128)
        self.assert_default(supported=0)

    def test_a_file_whose_length_is_too_large_gives_no_more_than_the_record(self):
        for length in (5, 16, 0x7FFFFFFF, 0xFFFFFFFF):
            with self.subTest(length):
                self.start_with(files=[struct.pack("<II", length, 0) + bytes(100)])
                self.assertTrue([line for line in self.service.texts() if "size overflow" in line])
                self.assert_default(supported=0)

    def test_a_file_that_is_a_folder_is_as_good_as_none(self):
        self.start_with()
        self.service.stop()
        os.unlink(FILE)
        for name in SEGMENTS:
            os.unlink(f"/dev/shm/{name}")
        os.mkdir(FILE)
        self.restart_service()
        self.records_from = self.log_from = 0
        self.expect_log("failed to sync shm_usb_cert_persist", level=192)
        self.assert_default()

    def test_segments_that_are_cut_short_are_made_whole(self):
        # What is missing reads as zero: of three bytes the length is left, of seven all but a leading zero.
        for size, supported in ((0, 1), (3, 0), (7, 1)):
            with self.subTest(size):
                self.start_with(segments={name: bytes([4, 0, 0, 0, 1, 0, 0, 0])[:size] for name in SEGMENTS})
                self.assert_default(supported)

    def test_a_segment_whose_length_is_too_large_gives_no_more_than_the_record(self):
        for length in (5, 17, 0x7FFFFFFF, 0xFFFFFFFF):
            with self.subTest(length):
                self.start_with(segments={"shm_usb_cert_persist": struct.pack("<II", length, 0),
                                          "shm_usb_cert": struct.pack("<I", length) + bytes(16)})
                self.expect_log("succeed to read shm_usb_cert", level=128)
                self.expect_log("succeed to read shm_usb_cert_persist", level=128)
                self.assert_default(supported=0)

    def test_semaphores_that_are_no_semaphores_leave_the_defaults(self):
        self.start_with(segments={f"sem.{name}": b"" for name in SEGMENTS})
        self.expect_log("failed to write shm_usb_cert", level=192)
        self.assert_default()

    def test_a_flash_that_cannot_be_written_costs_only_what_is_saved(self):
        self.start_with()
        self.service.stop()
        os.unlink(FILE)
        for name in SEGMENTS:
            os.unlink(f"/dev/shm/{name}")
        world.mount("data", "/data", "tmpfs", world.MS_REMOUNT | world.MS_RDONLY)
        self.restart_service()
        self.records_from = self.log_from = 0
        self.expect_log("succeed to write shm_usb_cert_persist", level=128)
        self.expect_log("failed to sync shm_usb_cert_persist", level=192)
        self.assert_default()

    def test_memory_that_cannot_be_written_leaves_the_defaults(self):
        self.start_with()
        self.service.stop()
        world.unmount("/dev/shm", 2)
        world.mount("shm", "/dev/shm", "tmpfs", world.MS_RDONLY)
        self.restart_service()
        self.records_from = self.log_from = 0
        self.expect_log("failed to write shm_usb_cert", level=192)
        self.expect_log("failed to write shm_usb_cert_persist", level=192)
        self.assert_default()

    def test_a_record_that_somebody_holds_for_ever_costs_fifteen_seconds_and_no_event(self):
        self.start_with()
        subprocess.run([f"{world.BENCH}/bin/store_tool", "hold", "shm_usb_cert_persist"], check=True, timeout=30)
        started = time.monotonic()
        self.mark()
        self.send("settings", usbrecords.setting_changed("shm_usb_cert_persist"))
        time.sleep(0.2)
        self.volumes["stick"].appear_as("sda1")
        stick = board.stick("1-1.1")
        self.board.plug(stick)
        self.settle_events()
        self.board.unplug(stick)
        self.settle_events()
        self.peers.quiet()
        self.assertEqual([record["cmd"] for record in self.got("navi")], [2, 3, 5])
        self.assertLess(time.monotonic() - started, 10)
        self.expect_no_log("failed to read shm_usb_cert_persist")
        self.expect_log("failed to read shm_usb_cert_persist", 20, level=192)
        self.assertTrue(14 < time.monotonic() - started < 20)
        self.assert_default()


if __name__ == "__main__":
    main()
