"""What is known of the service by what is heard from it: states of ports, mounts, and what stands on each port.

Pure data: no thread, no clock, no unit. Times are seconds on the unit's clock.
"""
import re

from . import states

ATTACHED = 1
RESULTS = range(5, 11)          # ids of answers to requests of a mode or a reset
DONE = 0
MOUNTED, EJECTED = 3, 5         # cmd of a storage packet

SET_STATE = re.compile(r"SetState: port(\d+) (STATE_\w+)->(STATE_\w+)$")
TRAIL = 40                      # states that are remembered for each port


class Model:
    def __init__(self):
        self.ports = {}         # number: {"state", "since", "trail": [(time, state)]}
        self.mounts = {}        # mount path: {"port", "partition", "fs_type", "label", "uuid"}
        self.known = {}         # number: ids and path of the device that SDCM was told last
        self.status = None      # the service's own report, when it gives one

    def clear(self):
        """The service has ended: nothing of it is true any more."""
        self.ports.clear()
        self.mounts.clear()
        self.known.clear()
        self.status = None

    def log_line(self, time, text):
        """True when it told something."""
        found = SET_STATE.search(text)
        if found:
            self._enter(int(found[1]), found[3], time)
        return bool(found)

    def record(self, record):
        """A decoded record of the service. True when it told something."""
        if record.name == "device_event":
            port = record["port"]
            if record["id"] == ATTACHED:
                self.known[port] = _addressed(record)
            else:
                self.known.pop(port, None)
            return True
        if record.name == "mode_result" and record["id"] in RESULTS and record["result"] == DONE:
            # It tells the ids that the phone has after a switch.
            self.known[record["port"]] = {**self.known.get(record["port"], {}), **_addressed(record)}
            return True
        if record.name == "st_storage_pkt" and record["mount_path"]:
            return self._storage(record)
        return False

    def _storage(self, record):
        if record["cmd"] == MOUNTED:
            self.mounts[record["mount_path"]] = {name: record[name] for name in ("port", "partition", "fs_type",
                                                                                   "label", "uuid")}
        elif record["cmd"] == EJECTED:
            self.mounts.pop(record["mount_path"], None)
        else:
            return False
        return True

    def _enter(self, number, state, time):
        port = self.ports.setdefault(number, {"state": states.FIRST, "since": None, "trail": [(None, states.FIRST)]})
        port["trail"] = [*port["trail"], (time, state)][-TRAIL:]
        port["state"], port["since"] = state, time

    def describe(self):
        """For the page."""
        return {"ports": {str(number): {**port, "trail": list(port["trail"])} for number, port in
                          sorted(self.ports.items())},
                "mounts": [{"path": path, **about} for path, about in sorted(self.mounts.items())],
                "known": [{"port": port, **about} for port, about in sorted(self.known.items())]}


def _addressed(record):
    """What a request about the device needs."""
    told = {name: record[name] for name in ("vid", "pid", "serial", "devpath")}
    if "product" in record.fields:
        told["product"] = record["product"]
    return told
