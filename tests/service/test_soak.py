#!/usr/bin/python3
"""Ten thousand plugs and unplugs in random order leave the service as it was."""
import os
import random
import time

from bench import ServiceCase, board, main, usbrecords, volumes

EVENTS = int(os.environ.get("SOAK_EVENTS", 10000))
SEED = int(os.environ.get("SOAK_SEED", 0)) or random.SystemRandom().randrange(1, 1 << 30)
MEMORY = int(os.environ.get("SOAK_MEMORY_KIB", 1024)) << 10      # more than at the beginning: 128 KiB were seen
VENDOR = (0xFF, 0, 0)


def worth_keeping(line):
    return b"barrier-" in line or b"size[" in line or b" 192 " in line[:32] or not line.startswith(b"[")


class Soak(ServiceCase):
    LEVEL = 128
    KEEP = staticmethod(worth_keeping)
    # Who may carry a stick; each has its own disk.
    STICKS = {"1-1.1": "sda", "1-1.2": "sdb", "1-1.1.2": "sdc", "1-1.2.3": "sdd"}
    PLACES = ("1-1.1", "1-1.2", "1-1.1.1", "1-1.1.2", "1-1.2.3", "1-1.2.4", "1-1.2.4.1")
    VEHICLE_HUB = "1-1"
    HUB_OFTEN = 0.005       # its removal costs the command frame half a second without power

    @classmethod
    def prepare(cls):
        for name in cls.STICKS.values():
            cls.volume(name + "1", volumes.filesystem("ext4", label=name)).appear_as(name + "1")
            cls.volume(name + "2", volumes.filesystem("ext2", label="")).appear_as(name + "2")
            cls.volume(name + "3", volumes.blank()).appear_as(name + "3")

    def setUp(self):
        print(f"seed {SEED} ", end="", flush=True)
        super().setUp()
        self.chance = random.Random(SEED)

    def some_device(self, place):
        """What somebody plugs there."""
        if place == self.VEHICLE_HUB:
            return board.vehicle_hub()
        kinds = [lambda: board.keyboard(place), lambda: board.hub(place),
                 lambda: board.usb_device(place, 0x0403, 0x6001, [board.Interface(VENDOR, 2)]),
                 lambda: board.usb_device(place, 0x04E8, 0x6860, [board.Interface(VENDOR, 4)] * 3),
                 lambda: self.phone_with_functions(place), lambda: self.network_adapter(place)]
        if place in self.STICKS:
            kinds += [lambda: self.some_stick(place)] * 4
        return self.chance.choice(kinds)()

    def some_stick(self, place):
        name = self.STICKS[place]
        parts = self.chance.choice([["1"], ["1", "2"], ["3", "1"], ["3"], ["1", "2", "3"]])
        return board.stick(place, name, [name + part for part in parts], self.chance.choice([None, "", 0]))

    def phone_with_functions(self, place):
        below = board.interface_path(place)
        return board.usb_device(place, 0x05AC, 0x12A8, [board.Interface((3, 0, 0), 1)]) + [
            board.Node(below + "/0003:05AC:12A8.0001", "hid", {}),
            board.Node(below + "/tty/ttyACM0", "tty", dict(DEVNAME="ttyACM0"))]

    def network_adapter(self, place):
        return board.usb_device(place, 0x0BDA, 0x8153, [board.Interface(VENDOR, 3)]) + [
            board.Node(board.interface_path(place) + "/net/eth0", "net", dict(INTERFACE="eth0"))]

    def plug_and_unplug(self, count):
        """So many plugs and unplugs; what is plugged at the end."""
        plugged = {}
        for i in range(count):
            place = self.VEHICLE_HUB if self.chance.random() < self.HUB_OFTEN else self.chance.choice(self.PLACES)
            if place not in plugged:
                plugged[place] = self.some_device(place)
                self.board.plug(plugged[place])
            else:
                self.take_away(plugged.pop(place))
            if i % 20 == 19:
                self.settle_events(60)
            self.assertTrue(self.service.runs())
        return plugged

    def take_away(self, nodes):
        """Mostly as the kernel does; now and then in another order."""
        order = list(reversed(nodes))
        if self.chance.random() < 0.05:
            self.chance.shuffle(order)
        for node in order:
            self.board.tell("remove", node)
        for node in order:
            self.board.hide(node)

    def take_all_away(self, plugged):
        for place in sorted(plugged, reverse=True):
            self.take_away(plugged[place])
        self.settle(60)

    def state(self):
        return {"descriptors": self.service.descriptors(), "threads": self.service.threads(),
                "mounts": self.mounted(), "folders": os.listdir("/tmp"), "children": self.service.children()}

    def test_thousands_of_random_plugs_and_unplugs_leave_the_service_as_it_was(self):
        self.take_all_away(self.plug_and_unplug(min(EVENTS // 10, 300)))
        before, memory = self.state(), self.service.memory()
        self.assertEqual((before["mounts"], before["folders"], before["children"]), ({}, [], []))
        self.mark()

        started = time.monotonic()
        self.take_all_away(self.plug_and_unplug(EVENTS))
        print(f"{time.monotonic() - started:.1f} s ", end="", flush=True)

        self.assertEqual(self.state(), before)
        sizes = [text for text in self.service.texts(self.log_from) if text.startswith("size[")]
        self.assertGreater(len(sizes), EVENTS // 4)
        self.assertEqual(sizes[-1], "size[0]")
        grown = self.service.memory() - memory
        print(f"{grown >> 10} KiB more ", end="", flush=True)
        self.assertLess(grown, MEMORY)
        self.assert_what_was_said()

    def assert_what_was_said(self):
        with self.peers.changed:
            different = {(one.receiver, one.data) for one in self.peers.received}
        for receiver, data in different:
            record = usbrecords.decode(receiver, data)
            self.assertIsNotNone(record.name, str(record))
            self.assertEqual(record.faults, [], str(record))
        said = [record["cmd"] for record in self.got("navi")]
        self.assertGreater(said.count(3), EVENTS // 100)
        self.assertGreaterEqual(said.count(5), said.count(3))       # nothing that was mounted stays unannounced


if __name__ == "__main__":
    main()
