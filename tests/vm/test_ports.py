#!/usr/bin/python3
"""What hangs on one port of the unit: hubs of the customer, players that keep the port for themselves, drives."""
from road import (APPLE_SHUTTLE, CD_DRIVE, CardReader, HUB, Hub, Keyboard, MTP, Mtp, Plugged, RoadTest, Stick, Volume,
                  attached, came, detached, hub_came, hub_left, left, main, mounted, sticks)

HUB_ON_2 = Plugged(port=2, vid=0x0409, pid=0x55AA, dev_type=HUB, interface=(9, 0, 0), serial="HUB",
                   product="QEMU USB Hub")
VFAT = Volume(port=2)
OTHER = Volume(port=2, label="OTHER", uuid="2222-3333")


class Ports(RoadTest):
    @classmethod
    def prepare(cls):
        super().prepare()
        cls.other = sticks.mbr(cls.folder / "other", [sticks.Vfat(label="OTHER", uuid=0x22223333,
                                                                  files={"other.txt": b"the other"})])
        cls.empty = cls.folder / "player"
        cls.empty.mkdir()

    def start_with_hub(self):
        """Returns the hub, which hangs on port 2."""
        self.start()
        hub = self.unit.plug("1.2", Hub())
        self.told(hub_came(HUB_ON_2))
        self.assert_log("don't remove it because customer_hub is supported", times=1)
        return hub


class BehindAHub(Ports):
    def test_a_stick_behind_a_customer_hub_is_told_with_the_units_port(self):
        stick = Plugged(port=32)
        hub = self.start_with_hub()
        plugged = self.unit.plug("1.2.3", Stick(self.one))
        self.told(came(stick), attached(port=2), mounted(VFAT))
        # Inside the service, and to who follows phones, the port keeps its tens digit.
        self.assert_log("NotifyEventToUsb: msgID:20 dev_type:5 port:32 vid:46f4 pid:1 class:8 speed:1$", times=1)
        self.assertEqual(self.mounts(), [("/tmp/USB/PORT2/PART1", "/dev/sda1", "vfat")])
        self.unit.unplug(plugged)
        self.told(detached(VFAT), left(stick))
        self.assert_log("NotifyEventToUsb: msgID:21 dev_type:5 port:32 ", times=1)
        self.nothing_left()
        self.unit.unplug(hub)
        self.told(hub_left(HUB_ON_2))

    def test_a_hub_that_is_pulled_takes_its_stick_with_it(self):
        stick = Plugged(port=42)
        hub = self.start_with_hub()
        self.unit.plug("1.2.4", Stick(self.one))
        self.told(came(stick), attached(port=2), mounted(VFAT))
        self.unit.unplug(hub)
        self.told(detached(VFAT), left(stick), hub_left(HUB_ON_2))
        self.nothing_left()

    def test_two_sticks_behind_one_hub_share_a_directory_and_the_first_to_go_unmounts_the_other(self):
        first, second = Plugged(port=12), Plugged(port=32, serial="SECOND")
        self.start_with_hub()
        one = self.unit.plug("1.2.1", Stick(self.one))
        self.told(came(first), attached(port=2), mounted(VFAT))
        two = self.unit.plug("1.2.3", Stick(self.other, serial="SECOND"))
        self.told(came(second), attached(port=2), mounted(OTHER))
        self.assertEqual(self.mounts(), [("/tmp/USB/PORT2/PART1", "/dev/sda1", "vfat"),
                                         ("/tmp/USB/PORT2/PART1", "/dev/sdb1", "vfat")])
        self.assertEqual(self.unit.sh("ls /tmp/USB/PORT2/PART1"), "other.txt")

        # Deliberate: one directory for each port and slot. What lies on top goes first, whoever is pulled.
        self.unit.unplug(one)
        self.told(detached(VFAT), left(first))
        self.assertEqual(self.mounts(), [("/tmp/USB/PORT2/PART1", "/dev/sda1", "vfat")])
        self.assertEqual(self.unit.run("cat /tmp/USB/PORT2/PART1/other.txt", check=False).status, 1)
        self.unit.unplug(two)
        self.told(detached(OTHER), left(second))
        self.nothing_left()


class TakenPorts(Ports):
    def refused(self, holder, device, text):
        """A stick beside a device that has the port for itself; after that device has left, the next one mounts."""
        stick = Plugged(port=32)
        self.start_with_hub()
        holding = self.unit.plug("1.2.1", holder)
        self.told(came(device))
        plugged = self.unit.plug("1.2.3", Stick(self.one))
        self.unit.wait_path("/sys/block/sda/sda1")
        self.told(came(stick))
        self.assert_log(f"IsAlreadySupported: {text}", times=2)   # the disk and its partition
        self.assert_log("UMount.cpp", times=0)
        self.nothing_left()
        self.unit.unplug(plugged)
        self.told(left(stick))
        self.assert_log("not send the ejected because not notice media", times=2)

        self.unit.unplug(holding)
        self.told(left(device))
        self.unit.plug("1.2.3", Stick(self.one))
        self.told(came(stick), attached(port=2), mounted(VFAT))

    def test_no_stick_is_mounted_on_the_port_of_an_mtp_device(self):
        device = Plugged(port=12, pid=0x0004, dev_type=MTP, interface=(6, 1, 1), serial="MTP",
                         product="QEMU filesharing")
        self.refused(Mtp(self.empty), device, "the port is already MTP, so not mount")

    def test_no_stick_is_mounted_on_the_port_of_an_apple_shuttle_device(self):
        self.unit.rewrite("1.2.1", "05ac:1300")
        device = Plugged(port=12, vid=0x05AC, pid=0x1300, dev_type=APPLE_SHUTTLE, interface=(3, 1, 1),
                         serial="KEYBOARD", product="QEMU USB Keyboard")
        self.refused(Keyboard(), device, "the port is already SHUFFLE_APPLE, so not mount")


class Drives(Ports):
    def test_the_disc_of_an_external_cd_drive_is_mounted_as_the_cdrom(self):
        drive = Plugged(port=1, vid=0x2166, pid=0x000C, dev_type=CD_DRIVE, serial="DISC")
        volume = Volume(port=1, label="OTHER", uuid="2222-3333", folder="CD/CDROM/")
        self.unit.rewrite("1.1", "2166:000c")
        self.start()
        plugged = self.unit.plug("1.1", Stick(self.other, serial="DISC"))
        self.told(came(drive), attached(port=1), mounted(volume))
        self.assertEqual(self.mounts(), [("/tmp/CD/CDROM/PART1", "/dev/sda1", "vfat")])
        self.assertEqual(self.unit.sh("cat /tmp/CD/CDROM/PART1/other.txt"), "the other")
        self.unit.unplug(plugged)
        self.told(detached(volume), left(drive))
        self.nothing_left()


class CardReaders(Ports):
    READER = Plugged(port=1, serial="9876543210")
    CARD = Volume(port=1)

    @classmethod
    def prepare(cls):
        super().prepare()
        cls.unreadable = sticks.whole(cls.folder / "unreadable", sticks.Unknown())

    def start_with_reader(self, image):
        self.unit.poll_media(300)
        self.start()
        return self.unit.plug("1.1", CardReader(image))

    def pulled(self, reader):
        self.unit.unplug(reader)
        self.told(detached(self.CARD), left(self.READER))
        self.nothing_left()

    def wait_change(self):
        self.unit.wait_log("-change-block ", since=self._heard)

    def test_a_card_that_is_put_into_an_empty_reader_is_mounted(self):
        reader = self.start_with_reader(None)
        self.told(came(self.READER), attached(port=1))
        self.nothing_left()
        reader.insert(self.one)
        self.told(mounted(self.CARD))
        self.assertEqual(self.mounts(), [("/tmp/USB/PORT1/PART1", "/dev/sda1", "vfat")])
        self.assertEqual(self.unit.sh("cat /tmp/USB/PORT1/PART1/song.mp3"), "la la la")
        self.pulled(reader)

    def test_a_card_that_follows_an_unreadable_one_is_mounted(self):
        reader = self.start_with_reader(self.unreadable)
        self.told(came(self.READER), attached(port=1))
        reader.eject()
        self.wait_change()
        self.told()
        reader.insert(self.one)
        self.told(mounted(self.CARD))
        self.assertEqual(self.mounts(), [("/tmp/USB/PORT1/PART1", "/dev/sda1", "vfat")])
        self.pulled(reader)

    def test_a_card_that_follows_a_mounted_one_is_not_seen_until_the_reader_is_plugged_again(self):
        reader = self.start_with_reader(self.one)
        self.told(came(self.READER), attached(port=1), mounted(self.CARD))
        # A change tries the whole disk again, in the next slot; nothing unmounts what is mounted already.
        reader.eject()
        self.wait_change()
        self.told()
        self.assert_log("create path /tmp/USB/PORT1/PART2/")
        self.assert_log("error in mount 16 Device or resource busy")
        self.assertEqual(self.mounts(), [("/tmp/USB/PORT1/PART1", "/dev/sda1", "vfat")])
        reader.insert(self.other)
        self.wait_change()
        self.told()
        self.assertEqual(self.mounts(), [("/tmp/USB/PORT1/PART1", "/dev/sda1", "vfat")])
        self.pulled(reader)
        again = self.unit.plug("1.1", CardReader(self.other))
        volume = Volume(port=1, label="OTHER", uuid="2222-3333")
        self.told(came(self.READER), attached(port=1), mounted(volume))
        self.unit.unplug(again)
        self.told(detached(volume), left(self.READER))
        self.nothing_left()


if __name__ == "__main__":
    main()
