#!/usr/bin/python3
"""What the service shows on its status socket, by the program that people use for it."""
import json
import os
import socket
import stat
import subprocess
import threading

from bench import ServiceCase, board, main, peers, usbrecords, volumes

PROGRAM = "/bench/bin/usbservice_ports"
SOCKET = f"{peers.ROOT}/usb/status"
UUID = "11111111-2222-3333-4444-555555555555"


def connect():
    one = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    one.connect(SOCKET)     # which waits while too many are there
    one.settimeout(10)
    return one


def read_all(one):
    """The datagrams up to the end of the connection."""
    datagrams = []
    while data := one.recv(4096):
        datagrams.append(data)
    return datagrams


class Status(ServiceCase):
    @classmethod
    def prepare(cls):
        cls.volume("stick", volumes.filesystem(label="STICK", uuid=UUID))
        cls.board.present_before_start(board.root_hub() + board.vehicle_hub())

    def ask(self, *options):
        done = subprocess.run([PROGRAM, *(options or ("--json",))], capture_output=True, text=True, timeout=30)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return done.stdout

    def look(self):
        return json.loads(self.ask())

    def plug(self, nodes):
        self.volumes["stick"].appear_as("sda1")
        self.addCleanup(volumes.disappear, "sda1")
        self.board.plug(nodes)
        self.addCleanup(self.settle)
        self.addCleanup(self.board.unplug, nodes)
        self.settle()

    def number(self, list_name, name, what):
        return next((one[what] for one in self.look()[list_name] if one["name"] == name), 0)

    def test_the_service_says_who_it_is_and_that_it_runs(self):
        service = self.look()["service"]
        self.assertEqual(service["pid"], self.service.pid)
        self.assertEqual(service["state"], "running")
        self.assertLess(service["started_ns"], service["now_ns"])
        self.assertEqual(service["nodes"], 4)       # root hub and the vehicle's hub, one interface each
        self.assertEqual(service["not_shown"], 0)

    def test_what_is_plugged_before_the_start_is_there(self):
        seen = {(device["dev_type"], device["vid"], device["devpath"]) for device in self.look()["devices"]}
        self.assertEqual(seen, {("hub", 0x1d6b, board.ROOT_HUB), ("hub", 0x0424, board.path_of("1-1"))})

    def test_a_stick_is_seen_with_its_port_and_its_volume_and_gone_when_it_is_pulled(self):
        before = self.look()
        stick = board.stick("1-1.1")
        self.plug(stick)
        seen = self.look()
        device = {"dev_type": "storage", "vid": 0x0951, "pid": 0x1666, "serial": "E0D55EA573F5F3A0",
                  "product": "DataTraveler 3.0", "manufacturer": "Kingston", "devpath": stick[0].devpath}
        port = next(one for one in seen["ports"] if one["port"] == 1)
        since = port.pop("since_ns")
        self.assertEqual(port, {"port": 1, "state": "STATE_ATTACH", **device})
        self.assertLess(before["service"]["now_ns"], since)
        self.assertLess(since, seen["service"]["now_ns"])
        self.assertIn({"port": 1, **device}, seen["devices"])
        self.assertEqual(seen["mounts"], [{"port": 1, "partition": 1, "mount_path": "/tmp/USB/PORT1/PART1/",
                                           "fs_type": "ext4", "label": "STICK", "uuid": UUID,
                                           "devpath": stick[-1].devpath}])
        self.assertGreaterEqual(seen["service"]["nodes"], before["service"]["nodes"] + 4)

        self.board.unplug(stick)
        self.settle()
        gone = self.look()
        port = next(one for one in gone["ports"] if one["port"] == 1)
        self.assertEqual((port["state"], port["vid"], port["devpath"]), ("STATE_DETACH", 0, ""))
        self.assertGreater(port["since_ns"], since)
        self.assertEqual(gone["mounts"], [])
        self.assertEqual(gone["devices"], before["devices"])
        self.assertEqual(gone["service"]["nodes"], before["service"]["nodes"])

    def test_a_phone_is_seen_in_its_mode_change(self):
        phone = board.iphone("1-1.2")
        self.plug(phone)
        port = next(one for one in self.look()["ports"] if one["port"] == 2)
        self.assertEqual((port["state"], port["dev_type"], port["product"]), ("STATE_ATTACH", "Apple", "iPhone"))

    def test_every_event_is_counted(self):
        self.settle_events()
        before = self.look()["service"]["uevents"]
        for number in range(100):
            self.board.injector.emit("add", f"/devices/virtual/thing{number}", SUBSYSTEM="platform")
        self.settle_events()
        after = self.look()["service"]["uevents"]
        self.assertIn(after - before, (100, 101, 102))      # the barriers are events too

    def test_receivers_and_queues_are_counted(self):
        sent, dropped = self.number("receivers", "media", "sent"), self.number("receivers", "media", "dropped")
        self.plug(board.stick("1-1.1"))
        self.assertGreaterEqual(self.number("receivers", "media", "sent"), sent + 2)
        self.assertEqual(self.number("receivers", "media", "dropped"), dropped)
        self.assertEqual(self.number("receivers", "media", "waiting"), 0)
        self.assertEqual([one["name"] for one in self.look()["queues"]], ["usb", "sdcm", "event", "monitor"])
        self.assertGreater(self.number("queues", "usb", "high_water_bytes"), 0)

    def test_settings_follow_diagnosis(self):
        for undo in (usbrecords.coding(3), usbrecords.adaption(1, 1, 1, 1)):
            self.addCleanup(self.settle)
            self.addCleanup(self.send, "diag", undo)
        self.send("diag", usbrecords.coding(2))
        self.send("diag", usbrecords.adaption(1, 2, 1, 1))
        self.expect_log("usb_adaption of port4 is 1")
        self.assertEqual(self.look()["settings"],
                         {"coding": 2, "adaption": {"1": "active", "2": "inactive", "3": "active", "4": "active"},
                          "customer_hub_support": 1, "force_enable": [0, 0], "device_mode": [0, 0]})

    def test_the_table_says_the_same(self):
        self.plug(board.stick("1-1.1"))
        table = self.ask("--once")
        self.assertRegex(table, rf"^usbservice {self.service.pid}, running, up ")
        self.assertRegex(table, r"(?m)^1 +STATE_ATTACH +since \d+\.\d s +storage +0951:1666 +"
                                r"Kingston DataTraveler 3.0$")
        self.assertRegex(table, rf"(?m)^1 +1 +/tmp/USB/PORT1/PART1/ +ext4 +STICK +{UUID}$")
        self.assertNotIn("\x1b", table)

    # --- the socket ---

    def test_the_socket_is_for_owner_and_group_and_lies_among_the_others(self):
        status = os.stat(SOCKET)
        self.assertTrue(stat.S_ISSOCK(status.st_mode))
        self.assertEqual(stat.S_IMODE(status.st_mode), 0o660)

    def test_what_is_written_to_it_changes_nothing(self):
        self.mark()
        before = self.look()
        with connect() as one:
            try:
                for record in (usbrecords.message(12), b"\0" * 4096, b"x"):
                    one.send(record)
            except BrokenPipeError:
                pass        # it does not even listen
            self.assertGreater(len(read_all(one)), 5)
        self.settle()
        after = self.look()
        for what in ("ports", "devices", "mounts", "settings"):
            self.assertEqual(after[what], before[what])
        self.assertFalse([line.raw for line in self.service.since(self.log_from) if "status" in line.raw])

    def test_clients_that_never_read_and_clients_that_leave_keep_nobody_waiting(self):
        descriptors = self.service.descriptors()
        silent = [connect() for _ in range(50)]
        for _ in range(100):
            connect().close()
        self.plug(board.stick("1-1.1"))
        self.assertEqual(len(self.look()["mounts"]), 1)
        for one in silent:
            self.assertGreater(len(read_all(one)), 5)       # of the time at which it came
            one.close()
        self.assertLessEqual(self.service.descriptors(), descriptors + 2)   # a receiver may have been connected to

    def test_looking_all_the_time_disturbs_no_stick(self):
        stop = threading.Event()
        looks = []

        def watch():
            while not stop.is_set():
                with connect() as one:
                    looks.append(len(read_all(one)))
        watchers = [threading.Thread(target=watch) for _ in range(2)]
        for watcher in watchers:
            watcher.start()
        try:
            for _ in range(3):
                self.assert_stick_is_announced()
        finally:
            stop.set()
            for watcher in watchers:
                watcher.join()
        self.assertGreater(min(looks), 5)


if __name__ == "__main__":
    main()
