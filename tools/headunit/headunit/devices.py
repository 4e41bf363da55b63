"""What can be plugged into the unit. A device may be plugged, unplugged and plugged again, one place at a time."""
import itertools
import pathlib
import time

from .qmp import QmpError

_numbers = itertools.count(1)


class Device:
    """Any USB device that QEMU has: Device("usb-mouse")."""

    def __init__(self, driver, **properties):
        self.driver = driver
        self.properties = properties
        self.id = f"device{next(_numbers)}"
        self.port = None   # "1.2" while plugged in

    def __repr__(self):
        return f"<{type(self).__name__} {self.id}" + (f" at {self.port}>" if self.port else ">")

    # Called by HeadUnit only.
    def attach(self, qmp, bus, port):
        self._before(qmp)
        try:
            qmp.call("device_add", driver=self.driver, id=self.id, bus=bus, port=port, **self.properties)
        except QmpError:
            self._after(qmp)
            raise
        self.port = port

    def detach(self, qmp):
        qmp.call("device_del", id=self.id)
        qmp.wait_deleted(self.id)
        self.gone(qmp)

    def gone(self, qmp):
        """It is no longer in the machine, be it that the hub above it was pulled."""
        self.port = None
        self._after(qmp)

    def meets(self, unit, powered):
        """Before it is plugged into the unit; powered: whether the port has power."""

    def power(self, on):
        """The port where it hangs has lost its power, or has it back."""

    def end(self):
        """The machine is gone."""

    def _before(self, qmp):
        """Makes what the device needs."""

    def _after(self, qmp):
        """Takes away what _before has made."""


class Stick(Device):
    """A stick (or a disk) with the given image; writes go to the image. serial: the serial text of its descriptor."""

    def __init__(self, image, serial="0123456789", read_only=False):
        super().__init__("usb-storage", serial=serial, drive="")
        self.image = pathlib.Path(image)
        self.read_only = read_only

    def _before(self, qmp):
        self.properties["drive"] = f"{self.id}-medium"
        qmp.call("blockdev-add", driver="raw", node_name=self.properties["drive"], read_only=self.read_only,
                 file={"driver": "file", "filename": str(self.image), "locking": "off"})

    def _after(self, qmp):
        # The device lets go of the medium a moment after it was reported deleted.
        for attempt in itertools.count():
            try:
                return qmp.call("blockdev-del", node_name=self.properties["drive"])
            except QmpError:
                if attempt == 50:
                    raise
                time.sleep(0.02)


class CardReader(Device):
    """A reader whose medium can be changed; image None: no card inside.

    The kernel notices a change only when somebody asks the reader: see HeadUnit.poll_media(). It then says "change",
    and takes partitions away or adds them when somebody opens the disk next.
    """

    def __init__(self, image=None, serial="9876543210"):
        super().__init__("usb-storage", serial=serial, drive="", removable=True)
        self.image = image
        self._qmp = None

    def _before(self, qmp):
        self._qmp = qmp
        self.properties["drive"] = f"{self.id}-slot"
        # Only the monitor can make a slot that is empty; it goes away with the device.
        medium = f",file={self.image},format=raw,file.locking=off" if self.image else ""
        qmp.monitor(f"drive_add 0 if=none,id={self.properties['drive']}{medium}")

    def _after(self, qmp):
        self._qmp = None

    def insert(self, image):
        self._qmp.call("blockdev-change-medium", device=self.properties["drive"], filename=str(image), format="raw",
                       read_only_mode="read-write")
        self.image = image

    def eject(self):
        self._qmp.call("eject", device=self.properties["drive"], force=True)
        self.image = None


class Hub(Device):
    """A customer's hub, 0409:55aa; what is behind it has one digit more: "1.2.1"."""

    def __init__(self, ports=4, serial="HUB"):
        super().__init__("usb-hub", ports=ports, serial=serial, port_power=True)


class Keyboard(Device):
    """0627:0001, class 3. Serial texts are given everywhere: QEMU's own contain the place in the machine."""

    def __init__(self, serial="KEYBOARD"):
        super().__init__("usb-kbd", serial=serial)


class Sound(Device):
    """46f4:0002, class 1: a class that no list of the service knows."""

    def __init__(self, serial="SOUND"):
        super().__init__("usb-audio", audiodev="silence", serial=serial)


class SerialAdapter(Device):
    """0403:6001."""

    def __init__(self, serial="SERIAL"):
        super().__init__("usb-serial", chardev="", always_plugged=True, serial=serial)

    def _before(self, qmp):
        self.properties["chardev"] = f"{self.id}-line"
        qmp.call("chardev-add", id=self.properties["chardev"], backend={"type": "null", "data": {}})

    def _after(self, qmp):
        qmp.call("chardev-remove", id=self.properties["chardev"])


class Mtp(Device):
    """46f4:0004, shows a folder of this machine."""

    def __init__(self, folder, serial="MTP"):
        super().__init__("usb-mtp", rootdir=str(folder), serial=serial)


class NetworkAdapter(Device):
    """0525:a4a2; no cable in it."""

    def __init__(self, serial="NETWORK"):
        super().__init__("usb-net", serial=serial)
