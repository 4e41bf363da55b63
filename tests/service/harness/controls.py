"""What the service writes into the attributes that control the hub and its ports, in the order of the writes.

Each attribute is a named pipe, so that no value is lost; inotify tells the order between them."""
import ctypes
import os
import struct

IN_CLOSE_WRITE, IN_OPEN = 0x08, 0x20       # opens keep two writes of one attribute from being told as one
EVENT = struct.Struct("iIII")

libc = ctypes.CDLL(None, use_errno=True)


class Controls:
    """`paths`: name of an attribute: its file, which is made here."""

    def __init__(self, paths):
        self.pipes, self.rests, self.watches = {}, {}, {}
        self.inotify = checked(libc.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC))
        for name, path in paths.items():
            os.makedirs(os.path.dirname(path), exist_ok=True)
            os.mkfifo(path)
            self.pipes[name] = os.open(path, os.O_RDWR | os.O_NONBLOCK | os.O_CLOEXEC)
            self.rests[name] = b""
            watch = libc.inotify_add_watch(self.inotify, path.encode(), IN_CLOSE_WRITE | IN_OPEN)
            self.watches[checked(watch)] = name

    def close(self):
        for one in [self.inotify, *self.pipes.values()]:
            os.close(one)

    def written(self):
        """(name of the attribute, text) of each write since the last call."""
        return [(name, self.next_line(name)) for name in self.closed()]

    def closed(self):
        out = []
        while events := read(self.inotify, 1 << 16):
            at = 0
            while at < len(events):
                watch, mask, _, length = EVENT.unpack_from(events, at)
                at += EVENT.size + length
                if watch not in self.watches:
                    raise OverflowError("writes were missed: ask more often")
                if mask & IN_CLOSE_WRITE:
                    out.append(self.watches[watch])
        return out

    def next_line(self, name):
        while data := read(self.pipes[name], 1 << 16):
            self.rests[name] += data
        line, _, self.rests[name] = self.rests[name].partition(b"\n")
        return line.decode()


def read(descriptor, most):
    try:
        return os.read(descriptor, most)
    except BlockingIOError:
        return b""


def checked(result):
    if result < 0:
        error = ctypes.get_errno()
        raise OSError(error, os.strerror(error))
    return result
