#!/usr/bin/python3
"""kipcmon at the real service's tap, in a world of its own. Needs root."""
import os
import pathlib
import signal
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "service"))

import tap  # noqa: E402
from bench import SCAN_BEGIN, SCAN_END, ServiceCase, board, main, peers, usbrecords, volumes, world  # noqa: E402

tap.PROGRAM = f"{world.BENCH}/bin/kipcmon"
KEPT = "/bench/kept.pcapng"


class Watched(ServiceCase):
    """Listens before the service starts."""
    @classmethod
    def prepare(cls):
        cls.volume("stick", volumes.filesystem())
        cls.board.present_before_start(board.vehicle_hub())
        cls.monitor = tap.Monitor(peers.ROOT, "--json", "--write", KEPT)
        cls.addClassCleanup(cls.monitor.end, signal.SIGKILL)
        cls.monitor.wait_said("listening at")

    def setUp(self):
        super().setUp()
        self.settle()
        self.mark()
        self.shown_from = len(self.monitor.lines)

    def shown(self):
        """What was shown since the test began, when all that was sent is."""
        self.settle()
        end = usbrecords.setting_changed(f"end-of-{self.id()}")
        self.peers.send("settings", end)
        self.monitor.wait_for(lambda: end.hex().encode() in self.monitor.out, "the last record")
        return [one for one in self.monitor.objects[self.shown_from:] if one["hex"] != end.hex()]

    def told(self, receiver):
        return [bytes.fromhex(one["hex"]) for one in self.shown() if one["receiver"] == receiver]

    def plug_and_pull(self):
        self.volumes["stick"].appear_as("sda1")
        nodes = board.stick("1-1.1", "sda", ["sda1"])
        self.board.plug(nodes)
        self.settle()
        self.board.unplug(nodes)
        self.settle()
        volumes.disappear("sda")

    def test_each_receiver_got_what_is_shown_in_that_order(self):
        self.plug_and_pull()
        objects = self.shown()
        self.assertEqual({one["outcome"] for one in objects}, {"delivered"})
        self.assertEqual([one["faults"] for one in objects if one["faults"]], [])
        receivers = {one["receiver"] for one in objects if one["direction"] == "out"}
        self.assertGreaterEqual(receivers, {"media", "navi", "sdcm", "diag"})
        for receiver in receivers:
            shown = [bytes.fromhex(one["hex"]) for one in objects if one["receiver"] == receiver]
            self.assertEqual(shown, [one.data for one in self.got(receiver)], receiver)

    def test_a_stick_is_told_in_words(self):
        self.plug_and_pull()
        media = [one for one in self.shown() if one["receiver"] == "media" and one["record"] == "st_storage_pkt"]
        self.assertEqual([(one["words"]["cmd"], one["fields"]["mount_path"], one["fields"]["port"]) for one in media],
                         [("attach", "", 1), ("mounted", "/tmp/USB/PORT1/PART1/", 1),
                          ("detach", "/tmp/USB/PORT1/PART1/", 1)])

    def test_what_peers_ask_is_shown_as_theirs(self):
        request = usbrecords.build("search", id=18, port=2)
        self.send("sdcm", request)
        self.send("power", usbrecords.power_states(1, 2, 3, 4))
        asked = [one for one in self.shown() if one["direction"] == "in"]
        self.assertIn(("sdcm", "usb", "search", request.hex()),
                      [(one["sender"], one["receiver"], one["record"], one["hex"]) for one in asked])
        self.assertIn(("power", "usb", "power"), [(one["sender"], one["receiver"], one["record"]) for one in asked])

    def test_records_to_nobody_are_shown_as_lost(self):
        self.peers.stop("navi")
        self.addCleanup(self.peers.start, "navi")
        self.plug_and_pull()
        outcomes = {(one["receiver"], one["outcome"]) for one in self.shown() if one["record"] == "st_storage_pkt"}
        self.assertLessEqual({("navi", "no receiver"), ("media", "delivered")}, outcomes)
        self.assertNotIn(("navi", "delivered"), outcomes)

    def test_clocks_are_those_of_the_machine(self):
        before = time.monotonic_ns()
        self.send("sdcm", usbrecords.build("search", id=18, port=2))
        (asked,) = [one for one in self.shown() if one["record"] == "search"]
        self.assertLess(before, asked["monotonic_ns"])
        self.assertLess(asked["monotonic_ns"], time.monotonic_ns())

    def test_the_file_holds_the_same(self):
        self.plug_and_pull()
        self.shown()
        again = tap.Monitor(peers.ROOT, "--read", KEPT, "--json")
        self.assertEqual(again.end(), tap.AS_ASKED)
        self.assertEqual(again.objects, self.monitor.objects)


class Restarted(ServiceCase):
    def test_the_monitor_stays_and_shows_each_start_from_its_first_record(self):
        self.settle()
        monitor = tap.Monitor(peers.ROOT, "--json", "--receiver", "sdcm")
        self.addCleanup(monitor.end, signal.SIGKILL)
        monitor.wait_said("listening at")
        for starts in (1, 2):
            type(self).restart_service()
            monitor.wait_lines(2 * starts)
            self.assertEqual([bytes.fromhex(one["hex"]) for one in monitor.objects], [SCAN_BEGIN, SCAN_END] * starts)
        self.assertTrue(os.path.exists(f"{peers.ROOT}/tap"))

    def test_a_monitor_that_comes_later_is_found(self):
        self.settle()
        monitor = tap.Monitor(peers.ROOT, "--json", "--count", 1, "--id", "search")
        self.addCleanup(monitor.end, signal.SIGKILL)
        monitor.wait_said("listening at")
        time.sleep(0.2)         # the service looks for a tap at most ten times a second
        self.send("sdcm", usbrecords.build("search", id=18, port=1))
        self.assertEqual(monitor.end(), tap.AS_ASKED)


if __name__ == "__main__":
    main()
