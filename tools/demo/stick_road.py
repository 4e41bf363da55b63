"""Two sticks come and go: one on each port of the unit."""
from headunit import Stick, sticks

EXT4_UUID = "0f0f0f0f-1111-2222-3333-444444444444"


def images(folder):
    first = sticks.mbr(folder / "first", [sticks.Vfat(label="STICK", uuid=0x1234ABCD, files={"song.mp3": b"la"})])
    # exfat carries another name on the unit's kernel, so ext4 it is for the second one.
    second = sticks.mbr(folder / "second", [sticks.Ext4(label="MUSIC", uuid=EXT4_UUID)])
    return first, second


def run(show, first, second):
    one = comes(show, 1, "a vfat stick", first, "STICK", "1234-ABCD", "vfat")
    two = comes(show, 2, "an ext4 stick", second, "MUSIC", EXT4_UUID[:31], "ext4")
    show.mounts("with both sticks")
    show.timeline.say("the first stick's files: " + show.unit.sh("ls /tmp/USB/PORT1/PART1"))
    show.require(len(show.unit.mounts()) == 2 and show.unit.exists("/tmp/USB/PORT1/PART1/song.mp3"),
                 "two mounts and a readable file")
    goes(show, 1, one)
    goes(show, 2, two)
    show.mounts("after")
    show.require(not show.unit.mounts() and not show.unit.exists("/tmp/USB"),
                 "an empty mount table and no directory left over")


def comes(show, port, name, image, label, uuid, fs_type):
    show.timeline.happens(f"{name} is plugged into port {port}")
    stick = show.unit.plug(f"1.{port}", Stick(image, serial=f"STICK{port}"))
    show.expect("the device's state", "diag", name="diag_device_state", connected=1)
    show.device()
    show.expect("its attach", "sdcm", name="device_event", id=1, port=port)
    show.expect("its insertion", "media", name="st_storage_pkt", cmd=2, port=port)
    show.expect("its mount", "media", name="st_storage_pkt", cmd=3, port=port, partition=1, label=label, uuid=uuid,
                fs_type=fs_type, mount_path=f"/tmp/USB/PORT{port}/PART1/")
    show.tell()
    return stick


def goes(show, port, stick):
    show.timeline.happens(f"the stick is pulled from port {port}")
    show.unit.unplug(stick)
    show.expect("its ejection", "media", name="st_storage_pkt", cmd=5, port=port, partition=1)
    show.expect("the device's state", "diag", name="diag_device_state", connected=0)
    show.expect("its detach", "sdcm", name="device_event", id=2, port=port)
    show.tell()
