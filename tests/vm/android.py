"""Roads of Android phones: what they have in common."""
import dataclasses

from phones import (ANDROID, FAILED, PROTOCOL, PhoneRoad, answered, as_accessory, left_the_bus, pulled_in_mode, saw)
from road import ACCESSORY, HUB, NOT_SUPPORTED, Plugged, SUPPORTED, came, left, state_told
from headunit import Phone

SWITCHED = as_accessory(ANDROID)
# A phone that comes as an accessory.
ARRIVED = dataclasses.replace(SWITCHED, capability=(ACCESSORY, SUPPORTED, NOT_SUPPORTED, NOT_SUPPORTED))
# A customer's hub.
HUB_ON_2 = Plugged(port=2, vid=0x0409, pid=0x55AA, dev_type=HUB, interface=(9, 0, 0), serial="HUB",
                   product="QEMU USB Hub")

# Timers of a phone on port 2.
STARTED = [("PushChTimeout", True, 2)]
LEFT_FOR_A_WHILE = [("PushChTimeout", False, 2), ("PushCutting", True, 2)]
RETURNED = [("PushCutting", False, 2)]
TIMERS_OF_A_DETACH = [("PushCarplayCapa", False, 2)]   # of an attached device, whatever it is


# Seconds that a timer may be late: three passes of the monitor frame, and what a busy machine adds.
LATE = 0.9


class AndroidRoad(PhoneRoad):
    """Steps that several roads have."""

    def plugged(self, device=ANDROID, place="1.2", **variant):
        """A phone is plugged in and attached; all that it has seen is the question for its protocol."""
        phone = self.unit.plug(place, Phone("android", **variant))
        self.told(came(device))
        self.went(device.port, "STATE_DETACH", "STATE_ATTACH")
        self.assertEqual(saw(phone), [PROTOCOL])
        return phone

    def switched(self, request, changing, mode, device=ANDROID):
        """SDCM asks for a mode, and the phone comes back in it."""
        accessory = as_accessory(device)
        self.ask(request, device)
        self.told(left_the_bus(), state_told(accessory), answered(request, accessory))
        self.went(device.port, "STATE_ATTACH", changing, mode)

    def refused(self, request, device=ANDROID):
        """SDCM asks for a mode, and is told that it failed; the port stays as it is."""
        self.ask(request, device)
        self.told(answered(request, device, FAILED))
        self.went(device.port)
        self.assertEqual(self.timers(), [])

    def pulled(self, phone, device=ANDROID):
        """While attached."""
        self.unit.unplug(phone)
        self.told(left(device))
        self.went(device.port, "STATE_ATTACH", "STATE_DETACH")

    def pulled_in(self, mode, phone, device=SWITCHED):
        self.unit.unplug(phone)
        self.told(pulled_in_mode(device))
        self.went(device.port, mode, "STATE_DETACH")
        self.assertEqual(self.timers(), [])

    def assert_between(self, seconds, measured):
        """Not too early, and at most a little late."""
        self.assertGreaterEqual(measured, seconds, self.heard())
        self.assertLess(measured, seconds + LATE, self.heard())
