#!/usr/bin/python3
"""Builds the guest's initramfs into build/headunit/: busybox, kernel modules, the board's own, blkid, agent, service,
the driver of /dev/css, and the programs for those who work with the service.

    tools/headunit/make-image.py [--build build/arm64] [--output build/headunit]

Needs what tools/fetch-guest.sh put into .cache, and the cross build in --build: its guest/agent, guest/usbcontrol, and
the others of OPTIONAL when they exist (without them the guest boots, but has no service or no /dev/css). Needs no root.
"""
import argparse
import fcntl
import hashlib
import os
import pathlib
import re
import shutil
import stat
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
HERE = pathlib.Path(__file__).resolve().parent
CACHE = ROOT / ".cache"

# Loaded at boot in this order, each after what it depends on. Arguments follow the name.
MODULES = """
    virtio_pci virtio_console
    crc32c_generic crct10dif_generic
    nls_cp437 nls_ascii nls_utf8 nls_iso8859-1
    vfat exfat ext4 isofs
    sd_mod usb-storage
    hid-generic usbhid
    cdc-acm ftdi_sio
    cdc_ether rndis_host
    cuse
    headunit_board xhci-plat-hcd
""".split()

# In the image, but loaded only by a test that wants them.
SPARE_MODULES = "hfsplus loop".split()

# Programs of the cross build that are put into the image when they are there.
OPTIONAL = """
    usbservice/usbservice platform/css/css guest/settings
    tools/kipc/monitor/kipcmon tools/kipc/send/kipcsend tools/kipc/ports/usbservice-ports
""".split()

# Debian's busybox has more; these are what the service, init and the tests call.
APPLETS = """
    sh ash awk basename blockdev cat chmod chown cmp cp cut date dd df dirname dmesg du echo env expr false find free
    fuser grep head hexdump id insmod ip kill killall ln ls lsmod lsof md5sum mkdir mkfifo mknod modprobe mount mv nc
    od pgrep pidof pkill poweroff printf ps pwd readlink realpath rm rmdir rmmod sed seq setsid sha256sum sleep sort
    stat strings sync tail tee test time timeout top touch tr true truncate umount uname uniq unlink usleep wc which
    xargs xxd yes
""".split()


def fail(text):
    print(f"make-image: {text}", file=sys.stderr)
    sys.exit(1)


def call(*command, **options):
    """Runs a quiet tool; its output is shown only when it fails."""
    done = subprocess.run([str(word) for word in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          check=False, **options)
    if done.returncode:
        fail(f"{command[0]} failed with {done.returncode}:\n{done.stdout}")
    return done.stdout


def board_module(release, folder):
    """The board's kernel module, built when its sources have changed."""
    sources = sorted((HERE / "board").iterdir())
    folder.mkdir(parents=True, exist_ok=True)
    key = hashlib.sha256(release.encode() + b"".join(source.read_bytes() for source in sources)).hexdigest()
    stamp = folder / "stamp"
    module = folder / "headunit_board.ko"
    if not (module.exists() and stamp.exists() and stamp.read_text() == key):
        for source in sources:
            shutil.copy(source, folder / source.name)
        headers = CACHE / "kernel/usr/src" / f"linux-headers-{release}"
        call("make", "-C", headers, f"M={folder}", "ARCH=arm64", "CROSS_COMPILE=aarch64-linux-gnu-", "modules")
        stamp.write_text(key)
    return module


def module_tree(release, folder, board):
    """Modules without signatures and debug data (both only cost boot time), and depmod's files; in <folder>."""
    available = {path.stem.replace("-", "_"): path
                 for path in (CACHE / "kernel/lib/modules" / release / "kernel").rglob("*.ko")}
    names = [name.replace("-", "_") for name in MODULES + SPARE_MODULES if name != "headunit_board"]
    key = hashlib.sha256(f"{release} {names} {board.stat().st_mtime_ns}".encode()).hexdigest()
    stamp = folder / "stamp"
    if stamp.exists() and stamp.read_text() == key:
        return
    shutil.rmtree(folder, ignore_errors=True)
    place = folder / "lib/modules" / release
    place.mkdir(parents=True)
    for name in ("modules.order", "modules.builtin", "modules.builtin.modinfo"):
        shutil.copy(CACHE / "kernel/lib/modules" / release / name, place / name)
    wanted, done = list(names), set()
    while wanted:
        name = wanted.pop()
        if name in done:
            continue
        if name not in available:
            fail(f"the kernel has no module {name}")
        done.add(name)
        target = place / f"{name}.ko"
        call("aarch64-linux-gnu-strip", "--strip-debug", "-o", target, available[name])
        depends = call("/sbin/modinfo", "-F", "depends", available[name]).strip()
        wanted += [other.replace("-", "_") for other in depends.split(",") if other]
    call("aarch64-linux-gnu-strip", "--strip-debug", "-o", place / "headunit_board.ko", board)
    call("/sbin/depmod", "-b", folder, release)
    stamp.write_text(key)


def load_order(release, folder):
    """Lines of /etc/modules.order: every module of MODULES after its dependencies."""
    place = folder / "lib/modules" / release
    depends = {}
    for line in (place / "modules.dep").read_text().splitlines():
        module, _, others = line.partition(":")
        depends[module] = list(reversed(others.split()))   # depmod names the nearest first
    order = []
    for name in MODULES:
        module = name.replace("-", "_") + ".ko"
        for one in depends[module] + [module]:
            if one not in order:
                order.append(one)
    return "".join(f"/lib/modules/{release}/{module}\n" for module in order)


def libraries(programs):
    """Shared libraries that the programs need, from the cache, as {name: path}."""
    folder = CACHE / "arm64/usr/lib/aarch64-linux-gnu"
    found, pending = {}, list(programs)
    while pending:
        dynamic = call("readelf", "-d", pending.pop())
        for name in re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic):
            if name in found:
                continue
            path = folder / name
            if not path.exists():
                fail(f"no library {name} in {folder}: does tools/packages.txt list its package in group arm64?")
            found[name] = path.resolve()
            pending.append(path.resolve())
    return found


class Archive:
    """A cpio archive in the kernel's "newc" form; every entry belongs to root."""

    def __init__(self, path):
        self._file = open(path, "wb")
        self._inode = 1
        self._folders = set()

    def _entry(self, name, mode, data=b"", device=(0, 0)):
        fields = [self._inode, mode, 0, 0, 1, 0, len(data), 0, 0, *device, len(name) + 1, 0]
        self._inode += 1
        head = "070701" + "".join(f"{field:08x}" for field in fields)
        self._write(head.encode() + name.encode() + b"\0")
        self._write(data)

    def _write(self, data):
        self._file.write(data + b"\0" * (-len(data) % 4))

    def folder(self, name):
        if not name or name in self._folders:
            return
        self.folder(os.path.dirname(name))
        self._folders.add(name)
        self._entry(name, stat.S_IFDIR | 0o755)

    def file(self, name, data, mode=0o644):
        self.folder(os.path.dirname(name))
        self._entry(name, stat.S_IFREG | mode, data)

    def link(self, name, target):
        self.folder(os.path.dirname(name))
        self._entry(name, stat.S_IFLNK | 0o777, target.encode())

    def device(self, name, major, minor):
        self.folder(os.path.dirname(name))
        self._entry(name, stat.S_IFCHR | 0o600, device=(major, minor))

    def close(self):
        self._entry("TRAILER!!!", 0)
        self._file.close()


def write_image(path, release, modules, build):
    arm64 = CACHE / "arm64"
    programs = {"usr/bin/blkid2": arm64 / "usr/sbin/blkid", "usr/bin/agent": build / "guest/agent",
                "usr/bin/usbcontrol": build / "guest/usbcontrol"}
    for program in OPTIONAL:
        if (build / program).exists():
            programs[f"usr/bin/{os.path.basename(program)}"] = build / program
    archive = Archive(path)
    for folder in "dev proc sys tmp run data root etc usr/bin usr/sbin usr/lib".split():
        archive.folder(folder)
    for folder in "bin sbin lib".split():
        archive.link(folder, f"usr/{folder}")
    archive.device("dev/console", 5, 1)
    archive.device("dev/null", 1, 3)
    archive.file("init", (HERE / "guest/init").read_bytes(), 0o755)
    archive.file("usr/bin/busybox", (arm64 / "usr/bin/busybox").read_bytes(), 0o755)
    for applet in APPLETS:
        archive.link(f"usr/bin/{applet}", "busybox")
    for name, program in programs.items():
        archive.file(name, stripped(program), 0o755)
    for name, library in libraries(programs.values()).items():
        archive.file(f"usr/lib/aarch64-linux-gnu/{name}", library.read_bytes(), 0o755)
    archive.link("usr/lib/ld-linux-aarch64.so.1", "aarch64-linux-gnu/ld-linux-aarch64.so.1")
    for file in sorted((modules / "lib/modules" / release).iterdir()):
        archive.file(f"usr/lib/modules/{release}/{file.name}", file.read_bytes())
    archive.file("etc/modules.order", load_order(release, modules).encode())
    archive.close()
    return "usr/bin/usbservice" in programs


def stripped(program):
    """A program without debug data: the guest's memory is small, and the build folder keeps the file with symbols."""
    with tempfile.NamedTemporaryFile() as target:
        call("aarch64-linux-gnu-strip", "-o", target.name, program)
        return pathlib.Path(target.name).read_bytes()


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build/arm64", help="folder of the cross build")
    parser.add_argument("--output", type=pathlib.Path, default=ROOT / "build/headunit")
    arguments = parser.parse_args()

    if not (CACHE / "kernel-release").exists():
        fail("nothing in .cache: run tools/fetch-guest.sh first")
    release = (CACHE / "kernel-release").read_text().strip()
    agent = arguments.build / "guest/agent"
    if not (agent.exists() and agent.with_name("usbcontrol").exists()):
        fail(f"no programs in {agent.parent}: make the cross build first")

    output = arguments.output.resolve()
    output.mkdir(parents=True, exist_ok=True)
    with open(output / "lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        board = board_module(release, output / "board")
        module_tree(release, output / "modules", board)
        image = output / "initramfs.cpio"
        has_service = write_image(image.with_suffix(".new"), release, output / "modules", arguments.build)
        image.with_suffix(".new").rename(image)
        kernel = output / "vmlinuz"
        kernel.unlink(missing_ok=True)
        kernel.symlink_to(CACHE / "kernel/boot" / f"vmlinuz-{release}")
    print(f"make-image: {image} {image.stat().st_size >> 20} MiB, kernel {release}"
          + ("" if has_service else ", WITHOUT the service"))


if __name__ == "__main__":
    main()
