"""A bench for resets: SDCM ends the projection mode of a phone. The kernel forgets the phone, its port loses its power
for a second, and what comes back then is attached."""
import dataclasses

from phones import (AA, ANDROID, ANDROID_CARLIFE, MIRRORLINK, PhoneRoad, RESET, SAMSUNG, answered, as_accessory,
                    left_the_bus, with_network)
from road import (ACCESSORY, ATTACHED, CONTROLLER, HUB, INPUT, NOT_SUPPORTED, Plugged, SUPPORTED, came, event_told,
                  said_at, state_told)
from headunit import Phone


HUB_ON_2 = Plugged(port=2, vid=0x0409, pid=0x55AA, dev_type=HUB, interface=(9, 0, 0), serial="HUB",
                   product="QEMU USB Hub")
KEYBOARD = Plugged(port=2, vid=0x0627, pid=0x0001, dev_type=INPUT, interface=(3, 1, 1), serial="KEYBOARD",
                   product="QEMU USB Keyboard")


def accessory_from_the_start(phone):
    """The same phone, coming as an accessory: that is what it can do, then."""
    return dataclasses.replace(as_accessory(phone),
                               capability=(ACCESSORY, SUPPORTED, NOT_SUPPORTED, NOT_SUPPORTED))


@dataclasses.dataclass(frozen=True)
class Mode:
    """A projection mode: who runs it, how it is asked for, and how it shows itself."""
    description: str
    phone: Plugged
    switched: Plugged
    request: int
    name: str           # in states

    @property
    def running(self):
        return f"STATE_{self.name}"

    @property
    def resetting(self):
        return f"STATE_{self.name}_RESETTING"

    def on(self, port):
        """The same on another port."""
        return dataclasses.replace(self, phone=dataclasses.replace(self.phone, port=port),
                                   switched=dataclasses.replace(self.switched, port=port))


AUTO = Mode("android", ANDROID, as_accessory(ANDROID), AA, "AA")
CARLIFE = Mode("android", ANDROID, as_accessory(ANDROID), ANDROID_CARLIFE, "CL")
MIRROR = Mode("mirrorlink", SAMSUNG, with_network(SAMSUNG), MIRRORLINK, "ML")

AWAY, BACK = ("PushCutting", True, 2), ("PushCutting", False, 2)    # the ejection of port 2, armed and cancelled


def removal(device="1-1.2"):
    """What makes the kernel forget a device."""
    return [f"echo 1 > /sys{CONTROLLER}/usb1/1-1/{device}/remove"]


def power_cut(port):
    """What cuts the power of a port, and restores it."""
    return [f"echo {number} > /sys{CONTROLLER}/{file}" for number, file in
            [(port, "port_sel"), (3, "ka_hub_control"), (port, "port_sel"), (4, "ka_hub_control")]]


def asked_for_status(port):
    return [f"echo {port} > /sys{CONTROLLER}/port_sel"]


class ResetRoad(PhoneRoad):
    def switch(self, mode, place="1.2", **variant):
        """A phone is plugged in and runs the mode."""
        phone = self.unit.plug(place, Phone(mode.description, **variant))
        self.told(came(mode.phone))
        self.switch_again(mode)
        return phone

    def switch_again(self, mode):
        self.ask(mode.request, mode.phone)
        self.told(left_the_bus(), state_told(mode.switched), answered(mode.request, mode.switched))
        self.went(mode.phone.port, "STATE_ATTACH", f"STATE_{mode.name}_CHANGING", mode.running)

    def reset(self, mode):
        """SDCM asks for the end of the mode, of the phone as it is now."""
        self.ask(RESET, mode.switched)

    def attached_again(self, mode):
        """What is told when the phone is back. Media, which never heard of its end, does not hear of it."""
        self.told(left_the_bus(), answered(RESET, mode.switched), state_told(mode.phone),
                  event_told(mode.phone, ATTACHED))
        self.went(mode.phone.port, mode.running, mode.resetting, "STATE_ATTACH")

    def reset_and_replace(self, mode, phone, replacement=None):
        """SDCM asks for the end of the mode; the phone is pulled while its port has no power, and something else may
        be plugged in."""
        since = phone.mark()
        self.reset(mode)
        phone.wait("cut", since=since)
        self.unit.unplug(phone)
        if replacement:
            self.unit.plug("1.2", replacement)

    def ejected_in_time(self, record):
        """Three seconds, and some passes of the monitor, from the removal's turn to the record."""
        armed, = self.assert_log("PushCutting: isAdd:1 port:2$", times=1)
        self.assert_log("deferred ejection$", times=1)
        self.assertTrue(3.0 < record.time - said_at(armed) < 4.0, (record, armed))
