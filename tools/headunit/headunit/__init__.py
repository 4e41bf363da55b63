"""A virtual head unit: a guest with the board's USB device paths, sticks to plug in, and the service's peers.

    from headunit import HeadUnit, Stick, sticks

    image = sticks.mbr(folder / "a.img", [sticks.Vfat(label="STICK", uuid=0x1234ABCD, files={"a.mp3": b"x"})])
    with HeadUnit() as unit:
        unit.start_service()
        stick = unit.plug("1.1", Stick(image))
        unit.wait_record("media", lambda record: record.bytes[4] == 3)
        unit.unplug(stick)
        phone = unit.plug("1.2", Phone("android"))
        phone.wait_transfer(request=51)

Standard library only; the tools called are listed in tools/packages.txt, group guest.
"""
from .devices import CardReader, Device, Hub, Keyboard, Mtp, NetworkAdapter, SerialAdapter, Sound, Stick
from .phones import Phone, Transfer
from .unit import CommandFailed, HeadUnit, HeadUnitError, LogLine, Output, Record

__all__ = ["CardReader", "CommandFailed", "Device", "HeadUnit", "HeadUnitError", "Hub", "Keyboard", "LogLine", "Mtp",
           "NetworkAdapter", "Output", "Phone", "Record", "SerialAdapter", "Sound", "Stick", "Transfer"]
