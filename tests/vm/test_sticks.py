#!/usr/bin/python3
"""Sticks: what is mounted where, who is told, and that nothing is left when they are pulled."""
import time

from road import (Plugged, RoadTest, Stick, Volume, attached, came, detached, left, main, mounted, said_at,
                  sticks, usbrecords)

STICK = Plugged(port=1)
STICK2 = Plugged(port=2)
VFAT = Volume(port=1)
EXT4_UUID = "00000000-1111-2222-3333-444444444444"


class OneStick(RoadTest):
    LEVEL = 32

    @classmethod
    def prepare(cls):
        super().prepare()
        cls.plain = sticks.whole(cls.folder / "plain", sticks.Vfat(label="PLAIN", uuid=0x00C0FFEE,
                                                                   files={"plain.txt": b"no table"}))
        cls.next = sticks.mbr(cls.folder / "next", [sticks.Vfat(label="NEXT", uuid=0x22223333)])
        cls.unknown = sticks.mbr(cls.folder / "unknown", [sticks.Unknown()])

    def test_a_vfat_stick_is_announced_mounted_readable_and_gone_when_pulled(self):
        for partno in (False, True):
            with self.subTest(disk_partno=partno):
                self.unit.disk_partno(partno)
                self.start()
                stick = self.unit.plug("1.1", Stick(self.one))
                self.told(came(STICK), attached(port=1), mounted(VFAT))
                self.assertEqual(self.mounts(), [("/tmp/USB/PORT1/PART1", "/dev/sda1", "vfat")])
                self.assertEqual(self.unit.sh("cat /tmp/USB/PORT1/PART1/song.mp3"), "la la la")
                self.assert_log("Mount: vol ret \\(STICK,1234-ABCD,vfat\\)", times=1)
                # Only a kernel that tells the number of partitions spares the try of the whole disk.
                self.assert_log("Mount: ftype:vfat devpath:/dev/sda$", times=0 if partno else 1)
                self.unit.unplug(stick)
                self.told(detached(VFAT), left(STICK))
                self.assert_log("um pass p\\[/tmp/USB/PORT1/PART1/\\]", times=1)
                self.nothing_left()
                self.unit.reset()
                self._heard = (0, 0)

    def test_a_stick_without_partition_table_is_mounted_as_the_first_partition(self):
        self.start()
        stick = self.unit.plug("1.1", Stick(self.plain))
        volume = Volume(port=1, label="PLAIN", uuid="00C0-FFEE")
        self.told(came(STICK), attached(port=1), mounted(volume))
        self.assertEqual(self.mounts(), [("/tmp/USB/PORT1/PART1", "/dev/sda", "vfat")])
        self.assertEqual(self.unit.sh("cat /tmp/USB/PORT1/PART1/plain.txt"), "no table")
        self.unit.unplug(stick)
        self.told(detached(volume), left(STICK))
        self.nothing_left()

    def test_a_stick_that_cannot_be_mounted_is_ejected_only_where_the_kernel_tells_the_number_of_partitions(self):
        self.start()
        stick = self.unit.plug("1.1", Stick(self.unknown))
        self.told(came(STICK), attached(port=1))
        self.assert_log("popup isn't shown in the usbapp", times=1)                        # the whole disk
        self.assert_log("even if mount fail, not notify a block to media", times=1)        # the partition
        self.unit.unplug(stick)
        self.told(left(STICK))
        self.nothing_left()

        self.unit.disk_partno(True)
        stick = self.unit.plug("1.1", Stick(self.unknown))
        self.told(came(STICK), attached(port=1))
        self.assert_log("is_notice is true because of last partition and not mounted", times=1)
        self.assert_log("popup isn't shown in the usbapp", times=1)
        self.unit.unplug(stick)
        # The service takes the first UUID=" that blkid prints: here the end of PARTUUID=".
        self.told(detached(Volume(port=1, label="", uuid="57a7104d-01", fs_type="")), left(STICK))
        self.nothing_left()

    def test_a_stick_pulled_while_a_file_is_open_is_detached_after_eight_tries_and_the_next_one_mounts(self):
        self.start()
        stick = self.unit.plug("1.1", Stick(self.one))
        self.told(came(STICK), attached(port=1), mounted(VFAT))
        # In a session of its own, as what a command leaves behind is ended with it.
        holder = self.unit.sh("setsid sleep 100 < /tmp/USB/PORT1/PART1/song.mp3 > /dev/null 2>&1 & echo $!; "
                              "until [ $(cat /proc/$!/comm) = sleep ]; do usleep 10000; done")
        self.assertEqual(self.unit.sh(f"readlink /proc/{holder}/fd/0"), "/tmp/USB/PORT1/PART1/song.mp3")
        self.addCleanup(self.unit.run, f"kill {holder}", check=False)
        self.unit.unplug(stick)
        self.told(detached(VFAT), left(STICK))
        begin, end = (said_at(self.assert_log(text, times=1)[0])
                      for text in ("umount processing /tmp/USB/PORT1/PART1/", "UnMountForcibly: UnMountForcibly"))
        self.assertGreaterEqual(end - begin, 8 * 0.3)
        self.assertLess(end - begin, 8 * 0.3 + 2)
        self.assert_log("um pass", times=0)
        self.assert_log("ghost /tmp/USB/PORT1/PART1/ mount alive ret: 0", times=1)
        self.nothing_left()
        self.assertEqual(self.unit.sh(f"ls -d /proc/{holder}"), f"/proc/{holder}")   # it still holds the file

        following = self.unit.plug("1.1", Stick(self.next))
        volume = Volume(port=1, label="NEXT", uuid="2222-3333")
        self.told(came(STICK), attached(port=1), mounted(volume))
        # The name of the one that is still held is not free.
        self.assertEqual(self.mounts(), [("/tmp/USB/PORT1/PART1", "/dev/sdb1", "vfat")])
        self.unit.run(f"kill {holder}")
        self.unit.unplug(following)
        self.told(detached(volume), left(STICK))
        self.nothing_left()


class FourPartitions(RoadTest):
    LEVEL = 32

    @classmethod
    def prepare(cls):
        cls.hard = sticks.mbr(cls.folder / "hard", [sticks.Exfat(), sticks.Unknown(), sticks.Vfat(),
                                                    sticks.Ext4(files={"data.txt": b"ext"})])
        cls.easy = sticks.mbr(cls.folder / "easy", [sticks.Vfat(), sticks.Ext4(), sticks.Exfat(),
                                                    sticks.Vfat(label="LAST", uuid=0x44445555)])

    VFAT = Volume(port=2)
    EXT4 = Volume(port=2, slot=2, label="DATA", uuid=EXT4_UUID, fs_type="ext4")

    def tried(self):
        """Partitions for which blkid was asked, and those that were to be mounted."""
        probed = [one.text.rpartition("/dev/")[2] for one in self.logs("UpdateVolid: devpath:/dev/")]
        wanted = [one.text.rpartition("/dev/")[2] for one in self.logs("Mount: ftype:\\S+ devpath:/dev/")]
        self.assertEqual(probed, wanted)
        return probed

    def walk(self, image, partno, mounts, tried, failures=()):
        self.unit.disk_partno(partno)
        self.start()
        stick = self.unit.plug("1.2", Stick(image))
        self.told(came(STICK2), attached(port=2, partitions=4 if partno else 1), mounted(self.VFAT),
                  mounted(self.EXT4))
        self.assertEqual(self.mounts(), mounts)
        self.assertEqual(self.tried(), tried if partno else ["sda"] + tried)
        self.assert_log("is_notice is true", times=0)
        for text, times in failures:
            self.assert_log(text, times=times)
        self.unit.unplug(stick)
        self.told(detached(self.VFAT), detached(self.EXT4), left(STICK2))
        self.nothing_left()

    def hard_ones(self, partno):
        self.walk(self.hard, partno, [("/tmp/USB/PORT2/PART1", "/dev/sda3", "vfat"),
                                      ("/tmp/USB/PORT2/PART2", "/dev/sda4", "ext4")],
                  ["sda1", "sda2", "sda3", "sda4"],
                  # Each is tried again read-only: "texfat" is not this kernel's, and no filesystem is no vfat; nor is the
                  # whole disk, which is tried first where the partitions' number is not told.
                  [("error in mount 19 No such device$", 2),
                   ("error in mount 22 Invalid argument$", 2 if partno else 4)])

    def easy_ones(self, partno):
        self.walk(self.easy, partno, [("/tmp/USB/PORT2/PART1", "/dev/sda1", "vfat"),
                                      ("/tmp/USB/PORT2/PART2", "/dev/sda2", "ext4")], ["sda1", "sda2"])

    def test_partitions_that_cannot_be_mounted_do_not_stop_the_next(self):
        self.hard_ones(partno=False)

    def test_partitions_that_cannot_be_mounted_do_not_stop_the_next_where_their_number_is_told(self):
        self.hard_ones(partno=True)

    def test_a_third_partition_is_never_tried(self):
        self.easy_ones(partno=False)

    def test_a_third_partition_is_never_tried_where_their_number_is_told(self):
        self.easy_ones(partno=True)


class FastReplugs(RoadTest):
    TIMES = 10

    def begin(self):
        """What the service holds before: connections to all who listen are made when they are first told something."""
        self.start()
        stick = self.unit.plug("1.1", Stick(self.one))
        self.told(came(STICK), attached(port=1), mounted(VFAT))
        self.unit.unplug(stick)
        self.told(detached(VFAT), left(STICK))
        self.before = self.descriptors(), self.nodes()

    def nothing_kept(self):
        self.nothing_left()
        self.assertEqual((self.descriptors(), self.nodes()), self.before)

    def plug_until(self, receiver, predicate):
        place = self.unit.mark()
        stick = self.unit.plug("1.1", Stick(self.one))
        self.unit.wait_record(receiver, predicate, since=place)
        return stick

    def test_ten_replugs_before_the_disk_appears_tell_ten_comings_and_goings(self):
        self.begin()
        self.wait_before_disks(10)
        self.addCleanup(self.wait_before_disks, 0)
        for _ in range(self.TIMES):
            self.unit.unplug(self.plug_until("diag", lambda record: record.bytes[14] == 1))
        self.told(*[came(STICK), left(STICK)] * self.TIMES)
        self.nothing_kept()

    def test_ten_replugs_as_soon_as_mounted_have_an_ejection_for_each_insertion(self):
        self.begin()
        for _ in range(self.TIMES):
            # The next one comes while the service is still busy with this one's removal.
            self.unit.unplug(self.plug_until("media", lambda record: record.bytes[4] == 3))
        self.told(*[came(STICK), attached(port=1), mounted(VFAT), detached(VFAT), left(STICK)] * self.TIMES)
        self.nothing_kept()

    def test_replugs_at_any_moment_of_mounting_leave_nothing(self):
        self.unit.disk_partno(True)
        self.begin()
        place = self.unit.mark()
        for number in range(self.TIMES):
            stick = self.plug_until("diag", lambda record: record.bytes[14] == 1)
            time.sleep(0.06 * number)
            pulled = self.unit.mark()
            self.unit.unplug(stick)
            self.unit.wait_record("diag", lambda record: record.bytes[14] == 0, since=pulled)
        self.unit.settle(1.5)
        self.nothing_kept()
        commands = {receiver: [one.bytes[4] for one in self.unit.records(receiver, place)]
                    for receiver in usbrecords.STORAGE_LISTENERS}
        self.one_story_each(commands["media"])
        self.assertEqual(commands, dict.fromkeys(commands, commands["media"]))

    def one_story_each(self, commands):
        """Each stick was announced (2), perhaps mounted (3), and ejected (5) when it was mounted."""
        stories = "".join(str(one) for one in commands).replace("2", " 2").split()
        self.assertLessEqual(len(stories), self.TIMES)
        self.assertLessEqual(set(stories), {"2", "25", "235"}, stories)
        self.assertIn("235", stories)


if __name__ == "__main__":
    main()
