"""A bench for roads of over-currents: who hears of one, and when its port gets its power again."""
import dataclasses

from road import CONTROLLER, ERROR, HUB, NONE, Plugged, RoadTest, device_told, said_at, to, together

OVER_CURRENT = 8    # sub_cmd
MONITOR = "diag, by the monitor"


class VehicleHub(Plugged):
    @property
    def devpath(self):
        return CONTROLLER + "/usb1/1-1"


VEHICLE_HUB = VehicleHub(port=1, vid=0x0424, pid=0x4504, dev_type=HUB, interface=(9, 0, 0), serial="VEHICLE",
                         product="QEMU USB Hub")
PRESENT = to(["diag"], "diag_over_current", present=0xFF)
GONE = to(["diag"], "diag_over_current", present=0)
# Media hears of one that the host driver reports as of the hub's, whichever port it is.
REPORTED = device_told(VEHICLE_HUB, ERROR, OVER_CURRENT, HUB)


def found_at(device):
    """Media hears that a device arrived at a port whose sensor reads an over-current, before it is known what it is."""
    return device_told(dataclasses.replace(device, interface=(0, 0, 0)), ERROR, OVER_CURRENT, NONE)


def times(count, told):
    return together(*[told] * count)


def apart(told):
    """What diagnosis hears of over-currents leaves by another thread than the rest, and is not ordered with it."""
    records = told.get("diag", [])
    return told | {"diag": [one for one in records if one.name != "diag_over_current"],
                   MONITOR: [one for one in records if one.name == "diag_over_current"]}


class OverCurrentRoad(RoadTest):
    PATIENCE = 50    # 30 s pass before the first switch-on
    QUIET = 0.4      # an item that switches on says so every 0.7 s

    def told(self, *expected):
        super().told(apart(together(*expected)))

    def _await(self, counts):
        counts = dict(counts)
        counts["diag"] = counts.get("diag", 0) + counts.pop(MONITOR, 0)
        super()._await(counts)

    def _records_since(self, place):
        return apart(super()._records_since(place))

    def switch_ons(self, port):
        """When the service wrote into the attribute of the port."""
        return [time for time, text in self.unit.board_lines() if text == f"1-1-port{port}/overcurrent <- 1"]

    def reports(self, present, since=(0, 0)):
        """When diagnosis was told that an over-current is there, or is gone."""
        text = f"SendOverCurrent: over_current[{'ff' if present else '0'}]"
        return [said_at(one) for one in self.unit.logs(since) if one.text.endswith(text)]

    def refused(self, port, since=None):
        """How often the monitor had an item of that port already."""
        return len(self.logs(f"port:{port} already exists$", since))

    def within(self, seconds, least, most):
        self.assertTrue(least <= seconds < most, f"{seconds} s, not {least} to {most}\n" + self.heard())
