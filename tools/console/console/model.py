"""What is known of the service by what is heard from it: states of ports, mounts, and what stands on each port.

Pure data: no thread, no clock, no unit. Times are seconds on the unit's clock. A port's state is what the service's
status says; states that it passed between two looks are in its log, as long as the log's level lets them through.
"""
import re

from . import states, status

ATTACHED = 1
RESULTS = range(5, 11)          # ids of answers to requests of a mode or a reset
DONE = 0

SET_STATE = re.compile(r"SetState: port(\d+) (STATE_\w+)->(STATE_\w+)$")
TRAIL = 40                      # states that are remembered for each port


class Model:
    def __init__(self):
        self.ports = {}         # number: {"state", "since", "trail": [(time, state)], "device"}
        self.mounts = []
        self.known = {}         # number: ids and path of the device that SDCM was told last
        self.tables = []        # the rest of the status

    def clear(self):
        """The service has ended: nothing of it is true any more."""
        self.ports.clear()
        self.mounts.clear()
        self.known.clear()
        self.tables.clear()

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
        return False

    def status(self, snapshot):
        """A decoded status of the service."""
        for row in snapshot["ports"]:
            self._port_is(row["port"], row["state_name"], row["since_ns"] / 1e9, row["device"])
        self.mounts = [{"path": row["mount_path"], **{name: row[name] for name in
                                                      ("port", "partition", "fs_type", "label", "uuid")}}
                       for row in sorted(snapshot["mounts"], key=lambda row: row["mount_path"])]
        self.tables = status.tables(snapshot)

    def _port_is(self, number, state, since, device):
        port = self._port(number)
        last = port["trail"][-1][0]
        if last is not None and since < last:
            return      # older than what the log has told since
        if port["state"] != state or last is None:
            self._enter(number, state, since)
        port["device"] = {"product": device["product"], "serial": device["serial"], "type": status.type_word(device),
                          "ids": f"{device['vid']:04x}:{device['pid']:04x}"} if device["vid"] else None

    def _port(self, number):
        return self.ports.setdefault(number, {"state": states.FIRST, "since": None, "trail": [(None, states.FIRST)],
                                              "device": None})

    def _enter(self, number, state, time):
        port = self._port(number)
        if state != port["state"]:
            port["trail"] = [*port["trail"], (time, state)][-TRAIL:]
        port["state"], port["since"] = state, time

    def describe(self):
        """For the page."""
        return {"ports": {str(number): dict(port) for number, port in sorted(self.ports.items())},
                "mounts": list(self.mounts), "status": list(self.tables),
                "known": [{"port": port, **about} for port, about in sorted(self.known.items())]}


def _addressed(record):
    """What a request about the device needs."""
    told = {name: record[name] for name in ("vid", "pid", "serial", "devpath")}
    if "product" in record.fields:
        told["product"] = record["product"]
    return told
