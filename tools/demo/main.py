#!/usr/bin/python3
"""The virtual head unit's show: the service starts, two sticks are plugged in and pulled, an Android phone goes to
Android Auto and back, an iPhone to CarPlay and back. Everything that the service tells the other services is printed as
a timeline, field by field, with what the phones see of it. Exits non-zero when something expected did not come."""
import pathlib
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "tools" / "headunit"), str(ROOT / "tools" / "records")]

import phone_road  # noqa: E402
import stick_road  # noqa: E402
from headunit import HeadUnit, HeadUnitError  # noqa: E402
from show import Show, Timeline  # noqa: E402


def start(show):
    show.timeline.happens("usbservice starts")
    # Attributes that a stock kernel lacks are on the unit's: the number of a disk's partitions is one.
    show.unit.disk_partno(True)
    show.unit.start_service()
    show.expect("the start-up report of the optical status", "diag", name="diag_external_optical_status")
    show.expect("the beginning of the scan", "sdcm", id=3)
    show.expect("the end of the scan", "sdcm", id=4)
    show.expect("healthy communication with the hub", "diag", name="diag_faulty_communication", result=0)
    show.tell()


def run(timeline, folder):
    images = stick_road.images(folder)
    timeline.wait_for("the virtual head unit boots")
    with HeadUnit() as unit:
        timeline.wait_for("")
        timeline.happens(f"the head unit has booted: {unit.sh('uname -srm')}, in {unit.boot_seconds:.1f} s")
        timeline.say(f"the vehicle's hub: {unit.usb_path('1')}")
        show = Show(unit, timeline)
        show.mounts("before")
        start(show)
        stick_road.run(show, *images)
        phone_road.run(show)
        show.require(unit.service_pid is not None, "a service that still runs")
        return show.missing


def main():
    timeline = Timeline()
    try:
        with tempfile.TemporaryDirectory(prefix="demo-") as folder:
            missing = run(timeline, pathlib.Path(folder))
    except HeadUnitError as error:
        timeline.ends(f"FAILED: {error}")
        return 1
    finally:
        timeline.over.set()
    if missing:
        timeline.ends("FAILED, this did not come: " + "; ".join(missing))
        return 1
    timeline.ends("Everything expected came.")
    return 0


sys.exit(main())
