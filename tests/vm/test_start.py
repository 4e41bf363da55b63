#!/usr/bin/python3
"""What is there when the service starts, what comes while it looks around, and the vehicle's own hub."""
import pathlib
import re
import signal

from road import (CONTROLLER, HUB_FAULTY, HUB_HEALTHY, HUB_NOT_SUPPORTED, HeadUnitError, Plugged, RoadTest, SCAN,
                  SCAN_BEGINS, SCAN_ENDS, STARTED, START_REPORTS, Stick, Volume, attached, came, detached, left, main,
                  mounted, state_told)

STICK = Plugged(port=1)
VFAT = Volume(port=1)
DISK_ID = "57a7104d"    # of the partition table, which is all that blkid has to say about the disk
# Watches for a socket that listens to the kernel's events, of which the service's is the only one in the unit, and stops
# its process. The shell that stops waits beside the watcher, as making a process takes longer than the time there is.
STOP_AT_SOCKET = """awk 'BEGIN {
    table = "/proc/net/netlink"
    while (1) { while ((getline < table) > 0) if ($2 == 15 && $4 == "00000001") { print $3; exit }; close(table) }
}' | { read -r pid; kill -STOP $pid; }"""


class Scan(RoadTest):
    def pull(self, stick):
        self.unit.unplug(stick)
        self.told(detached(VFAT), left(STICK))
        self.nothing_left()

    def between_scan_begin_and_end(self, text, times):
        lines = [one.text for one in self.unit.logs()]
        begin, end = (next(i for i, line in enumerate(lines) if line.endswith(message))
                      for message in ("NotifyScanToUsb: msgID:27", "NotifyScanToUsb: msgID:28"))
        self.assertEqual(sum(text in line for line in lines[begin:end]), times, "\n".join(lines))

    def test_a_stick_that_was_there_before_is_found_once_by_the_scan(self):
        stick = self.unit.plug("1.1", Stick(self.one))
        self.unit.wait_path("/sys/block/sda/sda1")
        # By their paths, what hangs on the hub comes before the hub's interface.
        self.start(START_REPORTS, SCAN_BEGINS, came(STICK), HUB_HEALTHY, SCAN_ENDS, attached(port=1), mounted(VFAT))
        self.between_scan_begin_and_end("NotifyBlockToMedia: cmd:2 sub_cmd:0 dev_type:5 port:1 parti:1", times=1)
        self.between_scan_begin_and_end("NotifyBlockToMedia: cmd:3 sub_cmd:0 dev_type:5 port:1 parti:1", times=1)
        self.assert_log("already exists", times=0)
        self.assertEqual(self.unit.sh("cat /tmp/USB/PORT1/PART1/song.mp3"), "la la la")
        self.pull(stick)

    def start_stopped_before_the_scan(self):
        """The service stands still with its socket open; between that and the scan it sleeps for 10 ms."""
        for _ in range(10):
            self.unit.run(f"( {STOP_AT_SOCKET} ) > /dev/null 2>&1 &")
            pid = self.unit.start_service({"KA_LOG_LEVEL": str(self.LEVEL)})
            self.unit.run(f"until grep -q '^State:.T' /proc/{pid}/status; do usleep 10000; done")
            self.unit.settle(0.3)
            if not self.logs("NotifyScanToUsb", since=(0, 0)):
                return pid
            self.unit.reset()    # it was faster
        raise HeadUnitError("the service cannot be stopped between socket and scan")

    def test_a_stick_that_comes_between_socket_and_scan_is_told_twice_and_listed_and_mounted_once(self):
        pid = self.start_stopped_before_the_scan()
        stick = self.unit.plug("1.1", Stick(self.one))
        self.unit.wait_path("/sys/block/sda/sda1")
        self.unit.run(f"kill -CONT {pid}")
        # The events that waited in the socket are handled after the scan, as an add like any other. Only the port knows
        # better: what is attached already is not announced to SDCM again.
        self.told(START_REPORTS, SCAN_BEGINS, came(STICK), HUB_HEALTHY, SCAN_ENDS, attached(port=1), mounted(VFAT),
                  state_told(STICK), attached(port=1, mount_path="/tmp/USB/PORT1/PART1/", uuid=DISK_ID))
        self.assert_log("InsertNode: already exists", times=4)     # device, interface, disk, partition
        self.assertEqual(self.nodes(), 10)     # as many as with a stick that came later
        self.assertEqual(self.mounts(), [("/tmp/USB/PORT1/PART1", "/dev/sda1", "vfat")])
        self.pull(stick)
        self.assertEqual(self.nodes(), 6)

    def test_a_stick_that_comes_when_the_scan_has_begun_is_told_once(self):
        # The scan hangs at the first device while nobody answers what its manufacturer is.
        slow = f"/sys{CONTROLLER}/usb1/manufacturer"
        self.unit.run(f"mkfifo /run/slow && mount --bind /run/slow {slow}")
        self.addCleanup(self.unit.run, f"umount -l {slow}; rm /run/slow")
        self.unit.start_service({"KA_LOG_LEVEL": str(self.LEVEL)})
        self.told(START_REPORTS, SCAN_BEGINS)
        stick = self.unit.plug("1.1", Stick(self.one))
        self.unit.wait_path("/sys/block/sda/sda1")
        self.told()
        self.unit.run("echo Linux > /run/slow")
        self.told(HUB_HEALTHY, SCAN_ENDS, came(STICK), attached(port=1), mounted(VFAT))
        self.assert_log("InsertNode: already exists", times=0)
        self.assertEqual(self.nodes(), 10)
        self.pull(stick)
        self.assertEqual(self.nodes(), 6)


class Restart(RoadTest):
    """A service that ended without a chance to clean up. Its volumes stay mounted, and the kernel mounts none of them
    a second time in the same place."""

    def end_with_a_mounted_stick(self):
        self.start()
        self.unit.plug("1.1", Stick(self.one))
        self.told(came(STICK), attached(port=1), mounted(VFAT))
        self.unit.stop_service(signal.SIGKILL)
        self.assertEqual(self.mounts(), [("/tmp/USB/PORT1/PART1", "/dev/sda1", "vfat")])

    def test_a_volume_that_is_still_mounted_is_busy_and_not_announced(self):
        self.end_with_a_mounted_stick()
        self.start(START_REPORTS, SCAN_BEGINS, came(STICK), HUB_HEALTHY, SCAN_ENDS, attached(port=1))
        self.assert_log("TryMount: error in mount 16 Device or resource busy")

    def test_what_the_service_manager_does_before_a_start_releases_it_so_that_it_is_announced_again(self):
        self.end_with_a_mounted_stick()
        unit_file = pathlib.Path(__file__).parents[2] / "packaging" / "usbservice.service.in"
        before_start = re.search(r"^ExecStartPre=-(.*)$", unit_file.read_text(), re.M)[1].replace("$$", "$")
        self.unit.run(before_start, check=False)    # of directories that are not there it complains
        self.assertEqual(self.mounts(), [])
        self.start(START_REPORTS, SCAN_BEGINS, came(STICK), HUB_HEALTHY, SCAN_ENDS, attached(port=1), mounted(VFAT))
        self.assertEqual(self.mounts(), [("/tmp/USB/PORT1/PART1", "/dev/sda1", "vfat")])


class VehicleHub(RoadTest):
    def test_the_vehicles_hub_is_reported_faulty_when_it_leaves_and_healthy_when_it_returns_once_each(self):
        self.start()
        hub = self.unit.vehicle_hub
        for _ in range(2):
            self.unit.unplug(hub)
            self.told(HUB_FAULTY, HUB_NOT_SUPPORTED)
            self.assert_log("PushOverCurrent: isAdd:0 port:0 devpath:\\S+/usb1/1-1$", times=1)
            self.assert_log("NotifyResetHubToUsb: reset hub", times=1)
            self.unit.plug("1", hub)
            self.told(HUB_HEALTHY)

    def test_a_hub_that_leaves_takes_its_sticks_with_it_and_they_mount_again(self):
        self.start()
        second = Plugged(port=2, serial="SECOND")
        other = Volume(port=2)
        self.unit.plug("1.1", Stick(self.one))
        self.told(came(STICK), attached(port=1), mounted(VFAT))
        self.unit.plug("1.2", Stick(self.one, serial="SECOND", read_only=True))
        self.told(came(second), attached(port=2), mounted(other))
        self.unit.unplug(self.unit.vehicle_hub)
        self.told(detached(VFAT), left(STICK), detached(other), left(second), HUB_FAULTY, HUB_NOT_SUPPORTED)
        self.nothing_left()
        self.unit.plug("1", self.unit.vehicle_hub)
        self.told(HUB_HEALTHY)
        stick = self.unit.plug("1.1", Stick(self.one))
        self.told(came(STICK), attached(port=1), mounted(VFAT))
        self.unit.unplug(stick)
        self.told(detached(VFAT), left(STICK))
        self.nothing_left()

    def test_without_the_hub_the_scan_ends_with_one_set_of_reports_and_the_hub_is_healthy_when_it_comes(self):
        self.unit.unplug(self.unit.vehicle_hub)
        self.unit.wait_path(f"/sys{CONTROLLER}/usb1/1-1", present=False)
        self.start(START_REPORTS, SCAN, HUB_NOT_SUPPORTED, HUB_FAULTY)
        self.unit.plug("1", self.unit.vehicle_hub)
        self.told(HUB_HEALTHY)

    def test_nothing_is_told_while_nothing_happens(self):
        self.start(STARTED)
        self.told_nothing(3)


if __name__ == "__main__":
    main()
