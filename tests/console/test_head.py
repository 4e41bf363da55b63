#!/usr/bin/python3
"""What is asked of the console's side of the unit, with a unit that only remembers."""
import pathlib
import threading
import time
import unittest

import paths  # noqa: F401
import usbrecords
from console.feed import Feed
from console.forms import WrongInput
from console.head import KEEP, LOOK, Failed, Head
from headunit import HeadUnitError
from test_parts import port, snapshot, tap


class FakeUnit:
    """One at a time: `FakeUnit.last` is the one that was booted last."""
    last = None
    boot_fails = False

    def __init__(self, listener):
        self.listener = listener
        self.called = []
        self.boot_seconds = 1.0
        self.threads = set()
        self.closing = 0        # seconds that it takes

    def __enter__(self):
        if FakeUnit.boot_fails:
            raise HeadUnitError("no kernel\n--- last records ---\n")
        FakeUnit.last = self
        return self

    def close(self):
        self._remember("close")
        time.sleep(self.closing)
        self.listener("over", "")

    def sh(self, command):
        self._remember("sh", command)
        return "Linux"

    def start_service(self, env):
        self._remember("start_service", env)
        self.listener("started", "77")

    def stop_service(self):
        self._remember("stop_service")
        self.listener("exited", "code 0")

    def plug(self, place, device):
        self._remember("plug", place)
        if place == "1.1" and "refused" in device.properties.get("serial", ""):
            raise HeadUnitError("QEMU says no\n--- last records ---\nmuch")
        device.port = place

    def unplug(self, device):
        self._remember("unplug", device.port)
        for item in self.head._items:
            if item.device.port and f"{item.device.port}.".startswith(f"{device.port}.") and item.device is not device:
                item.device.port = None
        device.port = None

    def reset(self):
        self._remember("reset")
        self.stop_service()
        for item in self.head._items:
            item.device.port = None

    def ask_status(self):
        self.listener("status", snapshot(port(8, "STATE_AA", 12.5)).hex())

    def _remember(self, *call):
        self.called.append(call)
        self.threads.add(threading.current_thread().name)

    def __getattr__(self, name):
        return lambda *arguments: self._remember(name, *arguments)


class TheHead(unittest.TestCase):
    def setUp(self):
        FakeUnit.boot_fails = False
        self.feed = Feed(KEEP)
        self.head = Head(self.feed, FakeUnit)
        FakeUnit.head = self.head
        self.addCleanup(self.head.close)
        self.head.start()
        self.wait(lambda: self.standing("unit")["state"] in ("running", "failed"))

    def standing(self, kind):
        return [entry.data for entry in self.feed.after(0, 0) if entry.kind == kind][-1]

    def happened(self, kind):
        return [entry.data for entry in self.feed.after(0, 0) if entry.kind == kind]

    def wait(self, check):
        version = 0
        for _ in range(200):
            if check():
                return
            entries = self.feed.after(version, 0.1)
            version = entries[-1].version if entries else version
        self.fail("it did not come")

    def plug(self, place, kind="keyboard", **fields):
        return self.head.do("plug", {"kind": kind, "place": place, "fields": fields})["number"]

    def places(self):
        return [item["place"] for item in self.standing("plugged")["items"]]

    def refused(self, text, action, **arguments):
        with self.assertRaisesRegex(WrongInput, text):
            self.head.do(action, arguments)

    # ---- plugging ----

    def test_a_device_hangs_where_it_was_plugged_until_it_is_pulled(self):
        number = self.plug("1.2")
        plugged = self.standing("plugged")
        self.assertEqual([(one["place"], one["label"]) for one in plugged["items"]], [("1.2", "Keyboard")])
        self.assertEqual(plugged["free"], ["1.1"])
        self.head.do("pull", {"number": number})
        self.assertEqual((self.places(), self.standing("plugged")["free"]), ([], ["1.1", "1.2"]))
        self.refused("no longer plugged in", "pull", number=number)

    def test_a_hub_offers_its_ports_and_takes_along_what_hangs_on_it(self):
        hub = self.plug("1.1", "hub")
        self.assertEqual(self.standing("plugged")["free"], ["1.2", "1.1.1", "1.1.2", "1.1.3", "1.1.4"])
        self.plug("1.1.3")
        self.plug("1.2")
        self.head.do("pull", {"number": hub})
        self.assertEqual(self.places(), ["1.2"])

    def test_a_place_that_is_taken_or_is_none_is_refused(self):
        self.plug("1.1")
        for place in ("1.1", "1.1.1", "1.3", "x; reboot", None, 7):
            self.refused("nothing can be plugged into", "plug", kind="keyboard", place=place)

    def test_an_unknown_device_or_field_is_refused(self):
        self.refused("no device", "plug", kind="toaster", place="1.1")
        self.refused("no field", "plug", kind="keyboard", place="1.1", fields={"x": "y"})

    def test_a_device_that_cannot_be_plugged_leaves_nothing_behind(self):
        folder = pathlib.Path(self.head._folder)
        with self.assertRaisesRegex(Failed, "^QEMU says no$"):
            self.plug("1.1", serial="refused")
        self.assertEqual((self.places(), list(folder.iterdir())), ([], []))

    def test_other_ids_are_shown_as_long_as_such_a_device_hangs_there(self):
        number = self.plug("1.1", ids="0BDA:8152")
        self.plug("1.2", ids="1234:5678")
        self.head.do("pull", {"number": number})
        self.plug("1.1")
        self.assertEqual([call for call in FakeUnit.last.called if "rewrite" in call[0]], [
            ("rewrite", "1.1", "0bda:8152"), ("rewrite", "1.2", "1234:5678"), ("forget_rewrites",),
            ("rewrite", "1.2", "1234:5678")])

    # ---- asking ----

    def test_a_request_speaks_as_its_process(self):
        self.head.do("request", {"request": "mount_check", "fields": {"port": "1"}})
        self.assertIn(("send", "test", usbrecords.mount_check(1)), FakeUnit.last.called)
        self.refused("no request", "request", request="tea")
        self.refused("Vendor: 'x' is no number", "request", request="mode", fields={"vid": "x"})

    def test_what_is_no_action_is_refused(self):
        for action in ("close", "_do_plug", "start", ""):
            self.refused("there is no action", action)
        with self.assertRaises(WrongInput):
            self.head.do("plug", ["1.1"])

    def test_the_service_is_started_with_the_level_that_was_chosen(self):
        self.head.do("service", {"what": "restart", "level": 64})
        self.assertEqual(FakeUnit.last.called[-2:], [("stop_service",), ("start_service", {"KA_LOG_LEVEL": "64"})])
        self.assertEqual(self.standing("service"), {"pid": 77, "end": None, "level": 64})
        self.refused("log level", "service", what="restart", level=63)
        self.head.do("service", {"what": "stop"})
        self.assertEqual(self.standing("service"), {"pid": None, "end": "code 0", "level": 64})

    def test_everything_is_done_by_one_thread(self):
        self.plug("1.1")
        self.head.do("unit", {"what": "reset"})
        self.assertEqual(FakeUnit.last.threads, {"unit"})

    # ---- the machine ----

    def test_a_reset_pulls_everything_and_starts_the_service_anew(self):
        self.plug("1.1", ids="0bda:8152")
        self.head.do("unit", {"what": "reset"})
        self.assertEqual((self.places(), self.standing("plugged")["free"]), ([], ["1.1", "1.2"]))
        self.assertEqual(FakeUnit.last.called[-1][0], "start_service")
        self.assertEqual(self.standing("service")["pid"], 77)
        self.plug("1.1")    # shows its own ids: the board has forgotten the others
        self.assertNotIn(("forget_rewrites",), FakeUnit.last.called)

    def test_a_restart_boots_another_unit_with_nothing_plugged_in(self):
        first = FakeUnit.last
        first.closing = 2 * LOOK    # so that it is looked at meanwhile
        self.plug("1.1")
        self.head.do("unit", {"what": "restart"})
        self.assertIsNot(FakeUnit.last, first)
        self.assertEqual(first.called[-1], ("close",))
        self.assertEqual((self.standing("unit")["state"], self.places()), ("running", []))
        self.wait(lambda: self.standing("ports").get("2", {}).get("state") == "STATE_AA")

    def test_a_machine_that_dies_is_told_and_can_be_restarted(self):
        FakeUnit.last.listener("over", "")
        self.assertEqual((self.standing("unit")["state"], self.standing("service")["pid"]), ("gone", None))
        self.head.do("unit", {"what": "restart"})
        self.assertEqual((self.standing("unit")["state"], self.standing("service")["pid"]), ("running", 77))

    def test_a_unit_that_does_not_boot_is_told_and_asks_are_refused(self):
        FakeUnit.boot_fails = True
        with self.assertRaisesRegex(Failed, "does not run"):
            self.head.do("unit", {"what": "restart"})
        self.assertIn("no kernel", self.standing("unit")["text"])
        with self.assertRaisesRegex(Failed, "does not run"):
            self.plug("1.1")
        FakeUnit.boot_fails = False
        self.head.do("unit", {"what": "restart"})
        self.assertEqual(self.standing("unit")["state"], "running")

    # ---- hearing ----

    def hear(self, *arguments):
        FakeUnit.last.listener("tap", tap(*arguments).hex())

    def test_a_packet_to_several_processes_is_one_entry(self):
        packet = usbrecords.build("st_usb_pkt", cmd=2, port=2)
        for receiver in ("media", "speech"):
            self.hear(2, "usb", receiver, packet)
        self.hear(2, "usb", "media", packet)
        self.assertEqual([entry["receivers"] for entry in self.happened("record")], [["media", "speech"], ["media"]])

    def test_what_comes_in_is_never_joined(self):
        for sender in ("media", "diag"):
            self.hear(1, sender, "usb", usbrecords.search_phone())
        self.assertEqual([entry["sender"] for entry in self.happened("record")], ["media", "diag"])

    def test_the_state_of_a_port_comes_from_the_log_and_the_status(self):
        self.wait(lambda: self.standing("ports").get("2", {}).get("state") == "STATE_AA")
        FakeUnit.last.listener("log", "13000000000 [   13.000000] 128 1.0 7/frame-usb UPortState.cpp:61 "
                                      "SetState: port2 STATE_AA->STATE_AA_RESETTING")
        self.assertEqual([state for _, state in self.standing("ports")["2"]["trail"]],
                         ["STATE_DETACH", "STATE_AA", "STATE_AA_RESETTING"])

    def test_bytes_that_are_not_understood_are_told_in_the_log(self):
        FakeUnit.last.listener("tap", "00" * 96)
        self.assertEqual([entry["source"] for entry in self.happened("log")], ["console"])

    def test_the_end_leaves_no_files(self):
        folder = pathlib.Path(self.head._folder)
        self.plug("1.1")
        self.assertTrue(folder.exists())
        self.head.close()
        self.assertFalse(folder.exists())
        self.assertEqual(FakeUnit.last.called[-1], ("close",))


if __name__ == "__main__":
    unittest.main()
