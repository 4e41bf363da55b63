#!/usr/bin/python3
"""Phones that are pulled while they are reset, and what is on their port then: nothing, something else, another
phone."""
import dataclasses

from phones import ANDROID, PROTOCOL, RESET, SAMSUNG, answered, as_accessory, left_the_bus, saw
from resets import (AUTO, AWAY, BACK, CARLIFE, KEYBOARD, MIRROR, ResetRoad, accessory_from_the_start,
                    asked_for_status, power_cut, removal)
from road import ATTACHED, DETACHED, Keyboard, came, event_told, main, state_told, unsupported
from headunit import Phone

OTHER_SERIAL = "FEDCBA9876543210"


class Nothing(ResetRoad):
    """The deferred ejection ends it."""

    def pulled_for_good(self, mode):
        self.start()
        phone = self.switch(mode)
        self.reset_and_replace(mode, phone)
        self.told(left_the_bus(), answered(RESET, mode.switched), event_told(mode.switched, DETACHED))
        self.went(2, mode.running, mode.resetting, "STATE_DETACH")
        self.assertEqual(self.timers(), [AWAY])
        self.assertEqual(self.commands(), removal() + power_cut(2) + asked_for_status(2))
        self.assert_log("E_HUB_PORT_STATUS_DISCONNECTED$", times=1)
        self.ejected_in_time(self.unit.records("sdcm")[-1])

    def test_a_phone_that_was_in_android_auto_is_detached(self):
        self.pulled_for_good(AUTO)

    def test_a_phone_that_was_in_carlife_is_detached(self):
        self.pulled_for_good(CARLIFE)

    def test_a_phone_that_was_in_mirrorlink_is_detached_and_the_next_is_attached(self):
        self.pulled_for_good(MIRROR)
        self.unit.plug("1.2", Phone("mirrorlink"))
        self.told(came(SAMSUNG))
        self.went(2, "STATE_DETACH", "STATE_ATTACH")


class SomethingElse(ResetRoad):
    """When the ejection is due the port is taken, by what no port knows: that counts as the phone."""

    def replaced_by_a_keyboard(self, mode):
        self.start()
        phone = self.switch(mode)
        self.reset_and_replace(mode, phone, Keyboard())
        self.told(left_the_bus(), answered(RESET, mode.switched), unsupported(KEYBOARD), came(KEYBOARD),
                  event_told(mode.phone, ATTACHED))
        self.went(2, mode.running, mode.resetting, "STATE_ATTACH")
        self.assertEqual(self.timers(), [AWAY])
        self.assertEqual(self.commands(), removal() + power_cut(2) + asked_for_status(2))
        self.assert_log("E_HUB_PORT_STATUS_CONNECTED$", times=1)
        self.ejected_in_time(self.unit.records("sdcm")[-1])

    def test_a_phone_that_was_in_android_auto_is_told_as_attached(self):
        self.replaced_by_a_keyboard(AUTO)

    def test_a_phone_that_was_in_carlife_is_told_as_attached(self):
        self.replaced_by_a_keyboard(CARLIFE)

    def test_a_phone_that_was_in_mirrorlink_is_told_as_attached(self):
        self.replaced_by_a_keyboard(MIRROR)


class AnotherPhone(ResetRoad):
    """It is recognised by its serial: SDCM hears that one is gone and one is there, media of neither."""

    def replaced(self, mode, device, last, seen, **variant):
        self.start()
        phone = self.switch(mode)
        other = Phone(mode.description, **variant)
        self.reset_and_replace(mode, phone, other)
        self.told(left_the_bus(), answered(RESET, mode.switched), event_told(mode.phone, DETACHED), state_told(device),
                  event_told(device, ATTACHED))
        self.went(2, mode.running, mode.resetting, "STATE_DETACH", last)
        self.assertEqual(self.timers(), [AWAY, BACK])
        self.assertEqual(self.commands(), removal() + power_cut(2))
        self.assertEqual(saw(other), seen)
        self.assert_log(f"port2 serial {device.serial} > {mode.phone.serial}, so another device$", times=1)

    def replaced_by_its_like(self, mode):
        self.replaced(mode, dataclasses.replace(mode.phone, serial=OTHER_SERIAL), "STATE_ATTACH", [PROTOCOL],
                      serial=OTHER_SERIAL)

    def test_after_android_auto(self):
        self.replaced_by_its_like(AUTO)

    def test_after_carlife(self):
        self.replaced_by_its_like(CARLIFE)

    def test_after_mirrorlink(self):
        self.replaced_by_its_like(MIRROR)

    def replaced_by_an_accessory(self, mode):
        """Which runs Android Auto at once, whatever ran before."""
        device = accessory_from_the_start(dataclasses.replace(ANDROID, serial=OTHER_SERIAL))
        self.replaced(mode, device, "STATE_AA", [], serial=OTHER_SERIAL, starts="accessory")

    def test_an_accessory_after_android_auto(self):
        self.replaced_by_an_accessory(AUTO)

    def test_an_accessory_after_carlife(self):
        self.replaced_by_an_accessory(CARLIFE)

    def test_a_phone_without_a_serial_that_comes_back_as_an_accessory_is_taken_for_another(self):
        named = dataclasses.replace(AUTO, phone=dataclasses.replace(ANDROID, serial="18d1_4ee7"),
                                    switched=dataclasses.replace(as_accessory(ANDROID), serial="18d1_2d00"))
        device = accessory_from_the_start(dataclasses.replace(ANDROID, serial="18d1_2d00"))
        self.start()
        phone = self.switch(named, serial="")
        self.reset_and_replace(named, phone, Phone("android", serial="", starts="accessory"))
        self.told(left_the_bus(), answered(RESET, named.switched), event_told(named.phone, DETACHED),
                  state_told(device), event_told(device, ATTACHED))
        self.went(2, "STATE_AA", "STATE_AA_RESETTING", "STATE_DETACH", "STATE_AA")


if __name__ == "__main__":
    main()
