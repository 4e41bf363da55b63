"""Volumes to plug: images on loop devices that the kernel takes back when the test ends."""
import fcntl
import os
import stat
import struct
import subprocess
import time

from . import world

LOOP_CTL_GET_FREE = 0x4C82
LOOP_CONFIGURE = 0x4C0A
LO_FLAGS_AUTOCLEAR = 4
IMAGES = world.BENCH + "/images"


class Volume:
    """An image as a block device. Made before the service starts: making it is itself an event for the service."""

    def __init__(self, image):
        self.image = image
        self.device, self.minor = attach(image)

    def close(self):
        os.close(self.device)       # the last one: the loop device lets the image go
        os.unlink(self.image)

    def appear_as(self, name):
        """Gives the volume the device file that its event names, as the kernel would."""
        disappear(name)
        os.mknod(f"/dev/{name}", 0o660 | stat.S_IFBLK, os.makedev(7, self.minor))


def disappear(name):
    if os.path.exists(f"/dev/{name}"):
        os.unlink(f"/dev/{name}")


def attach(image):
    """(open descriptor, minor) of a free loop device that now shows the image."""
    backing = os.open(image, os.O_RDWR | os.O_CLOEXEC)
    control = os.open("/dev/loop-control", os.O_RDWR | os.O_CLOEXEC)
    try:
        for _ in range(100):
            minor = fcntl.ioctl(control, LOOP_CTL_GET_FREE)
            path = f"/dev/loop{minor}"
            if not os.path.exists(path):
                os.mknod(path, 0o660 | stat.S_IFBLK, os.makedev(7, minor))
            device = os.open(path, os.O_RDWR | os.O_CLOEXEC)
            # struct loop_config: descriptor, block size, struct loop_info64 (232 bytes, flags at 52), reserved
            info = bytearray(232)
            struct.pack_into("<I", info, 52, LO_FLAGS_AUTOCLEAR)
            try:
                fcntl.ioctl(device, LOOP_CONFIGURE, struct.pack("<II", backing, 512) + bytes(info) + bytes(64))
                return device, minor
            except OSError:         # somebody else was faster
                os.close(device)
                time.sleep(0.02)
        raise RuntimeError("no loop device could be had")
    finally:
        os.close(control)
        os.close(backing)


def blank(megabytes=1, head=b""):
    """A volume without a filesystem that begins with `head`."""
    image = new_image(megabytes)
    with open(image, "r+b") as file:
        file.write(head)
    return Volume(image)


def filesystem(kind="ext4", label="STICK", uuid="6b0c1f2a-0000-4000-8000-000000000001", files=None, megabytes=4):
    """A volume with a filesystem of mkfs. `files`: name: content."""
    image = new_image(megabytes)
    command = [f"mkfs.{kind}", "-q", "-F", "-U", uuid, "-E", "lazy_itable_init=0", "-m", "0"]
    if label:
        command += ["-L", label]
    if files:
        folder = image + ".files"
        os.mkdir(folder)
        for name, content in files.items():
            with open(f"{folder}/{name}", "w") as file:
                file.write(content)
        command += ["-d", folder]
    done = subprocess.run(command + [image], capture_output=True, text=True)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(command)}: {done.stderr}")
    return Volume(image)


def partition_table():
    """The first sector of a disk with an MBR and one partition, whose id is 12345678."""
    entry = struct.pack("<B3sB3sII", 0, b"\0\2\0", 0x83, b"\0\2\0", 2048, 8192)
    return bytes(440) + struct.pack("<IH", 0x12345678, 0) + entry + bytes(48) + b"\x55\xaa"


def new_image(megabytes):
    os.makedirs(IMAGES, exist_ok=True)
    new_image.count = getattr(new_image, "count", 0) + 1
    path = f"{IMAGES}/{new_image.count}.img"
    with open(path, "wb") as file:
        file.truncate(megabytes << 20)
    return path
