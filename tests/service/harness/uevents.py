"""Kernel uevents, made by hand: through the kernel as it would send them, or raw, as it never would."""
import errno
import socket
import struct

NETLINK_KOBJECT_UEVENT = 15
GROUP = 1                   # the kernel's own multicast group
NLMSG_MIN_TYPE = 16
NLM_F_REQUEST, NLM_F_ACK = 1, 4
NLMSG_ERROR = 2


def text(action, devpath, head=None, **keys):
    """The bytes of a uevent as the kernel lays them out, or with another first line. A key whose value is None is
    left out."""
    lines = [head or f"{action}@{devpath}", f"ACTION={action}", f"DEVPATH={devpath}"]
    lines += [f"{key}={value}" for key, value in keys.items() if value is not None]
    return "".join(line + "\0" for line in lines).encode("utf-8", "surrogateescape")


class Injector:
    def __init__(self):
        self.socket = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW | socket.SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT)
        self.socket.bind((0, 0))
        self.socket.settimeout(5)

    def close(self):
        self.socket.close()

    def by_kernel(self, message):
        """The kernel checks it, adds SEQNUM and tells everybody in this network namespace."""
        head = struct.pack("<IHHII", 16 + len(message), NLMSG_MIN_TYPE, NLM_F_REQUEST | NLM_F_ACK, 1, 0)
        self.socket.sendto(head + message, (0, 0))
        answer = self.socket.recv(65536)
        length, kind, _, _, _, error = struct.unpack_from("<IHHIIi", answer)
        if kind != NLMSG_ERROR or error != 0:
            raise OSError(-error, f"the kernel refused the uevent: {errno.errorcode.get(-error)}", message[:80])

    def raw(self, message, port=None):
        """As it is: to the group, or to one socket's port id."""
        self.socket.sendto(message, (0, GROUP) if port is None else (port, 0))

    def emit(self, action, devpath, **keys):
        self.by_kernel(text(action, devpath, **keys))
