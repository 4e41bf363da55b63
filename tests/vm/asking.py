"""For roads that ask more than they plug: phones on either port, refusals, and a mode that runs."""
import dataclasses

from phones import ANDROID, FAILED, IPHONE, PhoneRoad, answered, left_the_bus
from road import HUB, NOT_SUPPORTED, Plugged, came, state_told
from headunit import Phone

# An iPhone that does not know CarPlay, and without its HID function so that it is not asked again.
CHARGING = dataclasses.replace(IPHONE, interface=(6, 1, 1), capability=(NOT_SUPPORTED,) * 4)
HUB_ON_2 = Plugged(port=2, vid=0x0409, pid=0x55AA, dev_type=HUB, interface=(9, 0, 0), serial="HUB",
                   product="QEMU USB Hub")


class AskingRoad(PhoneRoad):
    def plug_iphone(self, device=IPHONE, **variant):
        return self._plug(device, Phone("iphone", serial=device.serial, **variant))

    def plug_charging(self, device=CHARGING):
        """It stays in STATE_ATTACH."""
        return self.plug_iphone(device, starts="charging", answers={"carplay": b"\2\0\0\0"})

    def plug_android(self, device=ANDROID, **variant):
        return self._plug(device, Phone("android", serial=device.serial, **variant))

    def _plug(self, device, phone):
        self.unit.plug(f"1.{device.port}", phone)
        self.told(came(device))
        return phone

    def refuse(self, device, requests, text):
        """Each is answered with result 1; text: the end of a line of the log that says why."""
        for request in requests:
            self.ask(request, device)
            self.told(answered(request, device, FAILED))
            self.assert_log(text + "$", times=1)
            self.went(device.port)

    def run_mode(self, request, device, state, shown=None):
        """Asks for a mode and waits until it runs; shown: what the device has become by then."""
        since = self.unit.mark()
        self.ask(request, device)
        self.unit.wait_log(lambda text: text.endswith("->" + state), since=since)
        change = [left_the_bus(), state_told(shown)] if shown else []
        self.told(*change, answered(request, shown or device))
