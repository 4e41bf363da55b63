"""A root, a network and a process table of the test's own, so that nothing that the service does reaches the machine.

    world.enter()      # runs this program again inside; needs root

What the service mounts, makes or removes is gone with the test, whichever way the test ends."""
import ctypes
import os
import shutil
import stat
import sys

INSIDE = "USB_TEST_WORLD"           # set in the environment once we are inside
BENCH = "/bench"                    # programs and images of the test
OWN = {"dev", "proc", "sys", "tmp", "run", "data", "usr", "var", "bench", "lost+found"}   # not the machine's
MOVED_PROGRAMS = "/usr/bin-of-the-machine"
SHELL_SAYS = BENCH + "/shell.log"   # what the shells of commands complain about

MS_RDONLY, MS_NOSUID, MS_REMOUNT, MS_BIND, MS_REC = 1, 2, 32, 4096, 16384

DEVICES = {"null": (1, 3), "zero": (1, 5), "full": (1, 7), "random": (1, 8), "urandom": (1, 9), "tty": (5, 0),
           "loop-control": (10, 237)}

libc = ctypes.CDLL(None, use_errno=True)


def mount(source, target, kind="none", flags=0, options=""):
    if libc.mount(source.encode(), target.encode(), kind.encode(), ctypes.c_ulong(flags), options.encode()) != 0:
        error = ctypes.get_errno()
        raise OSError(error, f"mount {source} on {target}: {os.strerror(error)}")


def unmount(target, flags=0):
    if libc.umount2(target.encode(), flags) != 0:
        error = ctypes.get_errno()
        raise OSError(error, f"umount {target}: {os.strerror(error)}")


def mounts():
    """(source, directory, filesystem, options) of everything mounted that we can see."""
    with open("/proc/self/mountinfo") as file:
        rows = [line.split() for line in file]
    out = []
    for row in rows:
        rest = row[row.index("-") + 1:]
        out.append((rest[1], row[4], rest[0], row[5]))
    return out


def enter(programs):
    """Returns inside the world. `programs`: name in /bench/bin: program on the machine."""
    if os.geteuid() != 0:
        sys.exit("These tests need root: they make namespaces, loop devices and mounts. Nothing was tested.")
    if os.environ.get(INSIDE) != "1":
        missing = [path for path in programs.values() if not os.access(path, os.X_OK)]
        if missing:
            sys.exit(f"not there, build it first: {', '.join(missing)}. Nothing was tested.")
        os.environ[INSIDE] = "1"
        # The process table goes with its first process, so a test that is killed leaves nothing running.
        os.execvp("unshare", ["unshare", "--net", "--mount", "--propagation", "private", "--pid", "--fork",
                              "--kill-child=KILL", "--", sys.executable] + sys.argv)
    build(programs)


def build(programs):
    root = "/mnt" if os.path.isdir("/mnt") else "/tmp"
    opened = {name: open(path, "rb") for name, path in programs.items()}
    mount("root", root, "tmpfs", 0, "mode=755")
    for entry in os.scandir("/"):
        here = root + entry.path
        if entry.is_symlink():
            os.symlink(os.readlink(entry.path), here)
        elif entry.is_dir() and entry.name not in OWN and entry.path != root:
            os.mkdir(here)
            mount(entry.path, here, flags=MS_BIND | MS_REC)
    build_programs(root)
    build_devices(root)
    for name, mode in {"proc": 0o555, "sys": 0o755, "tmp": 0o1777, "run": 0o755, "data": 0o775, "var": 0o755,
                       "bench": 0o755}.items():
        os.mkdir(f"{root}/{name}")
        if name not in ("proc", "var"):
            mount(name, f"{root}/{name}", "tmpfs", 0, f"mode={mode:o}")
    mount("proc", f"{root}/proc", "proc")
    for name in ("var/lib", "var/tmp", "bench/bin"):
        os.mkdir(f"{root}/{name}")
    for name, source in opened.items():
        with source, open(f"{root}/bench/bin/{name}", "wb") as copy:
            shutil.copyfileobj(source, copy, 1 << 20)
        os.chmod(f"{root}/bench/bin/{name}", 0o755)
    os.chroot(root)
    os.chdir("/")
    os.environ["TMPDIR"] = "/var/tmp"


def build_programs(root):
    """/usr as on the machine, but /usr/bin a folder of links, so that a program can be added: blkid2."""
    os.mkdir(f"{root}/usr")
    for entry in os.scandir("/usr"):
        if entry.is_symlink():
            os.symlink(os.readlink(entry.path), root + entry.path)
        elif entry.name != "bin":
            os.mkdir(root + entry.path)
            mount(entry.path, root + entry.path, flags=MS_BIND | MS_REC)
    os.mkdir(root + MOVED_PROGRAMS)
    mount("/usr/bin", root + MOVED_PROGRAMS, flags=MS_BIND)
    os.mkdir(f"{root}/usr/bin")
    for name in os.listdir("/usr/bin"):
        if name not in ("blkid2", "sh"):
            os.symlink(f"{MOVED_PROGRAMS}/{name}", f"{root}/usr/bin/{name}")
    build_shell(f"{root}/usr/bin/sh")


def build_shell(path):
    """The machine's shell. Run for a command it writes its complaints into a file of their own: it writes them in
    pieces, which in the service's standard error would come amid lines of the log."""
    with open(path, "w") as file:
        file.write(f"#!{MOVED_PROGRAMS}/sh\n"
                   f'[ "$1" != -c ] || exec 2>>{SHELL_SAYS}\n'
                   f'exec {MOVED_PROGRAMS}/sh "$@"\n')
    os.chmod(path, 0o755)


def shell_said():
    """What shells complained about since the last call."""
    if not os.path.exists(SHELL_SAYS):
        return []
    with open(SHELL_SAYS) as file:
        said = file.read().splitlines()
    os.unlink(SHELL_SAYS)
    return said


def build_devices(root):
    os.mkdir(f"{root}/dev")
    mount("dev", f"{root}/dev", "tmpfs", 0, "mode=755")
    for name, (major, minor) in DEVICES.items():
        path = f"{root}/dev/{name}"
        os.mknod(path, 0o666 | stat.S_IFCHR, os.makedev(major, minor))
        os.chmod(path, 0o666)
    os.symlink("/proc/self/fd", f"{root}/dev/fd")
    os.mkdir(f"{root}/dev/shm")
    mount("shm", f"{root}/dev/shm", "tmpfs", 0, "mode=1777")


# --- the program that the service runs to identify volumes ---

BLKID2 = "/usr/bin/blkid2"
BLKID = next((path for path in ("/usr/sbin/blkid", "/sbin/blkid", "/usr/bin/blkid") if os.path.exists(path)), None)


def set_blkid(script=None):
    """The platform's program is util-linux's under another name; with `script`, that shell script instead."""
    remove_blkid()
    if script is None:
        os.symlink(BLKID, BLKID2)
        return
    with open(BLKID2, "w") as file:
        file.write("#!/bin/sh\n" + script + "\n")
    os.chmod(BLKID2, 0o755)


def remove_blkid():
    if os.path.lexists(BLKID2):
        os.unlink(BLKID2)
