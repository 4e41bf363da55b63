#!/usr/bin/python3
"""Resets of Android Auto, CarLife and MirrorLink: with the two-port hub, which cuts the port's power; without it, where
each mode has its own end; and those that are refused."""
import dataclasses

from phones import (ANDROID, FAILED, MIRRORLINK, RESET, SAMSUNG, answered, as_accessory, left_the_bus, pulled_in_mode)
from resets import (AUTO, AWAY, CARLIFE, HUB_ON_2, MIRROR, ResetRoad, asked_for_status, power_cut, removal)
from road import (ATTACHED, DETACHED, Hub, came, event_told, hub_came, hub_left, left, main, said_at, state_told)
from headunit import Phone

class WithTwoPortHub(ResetRoad):
    def was_reset(self, mode):
        port = mode.phone.port
        phone = self.switch(mode, f"1.{port}")
        since = phone.mark()
        board = len(self.unit.board_lines())
        self.reset(mode)
        self.attached_again(mode)
        self.assertEqual(self.commands(), removal(f"1-1.{port}") + power_cut(port))
        self.assertEqual([text for _, text in self.unit.board_lines()[board:]],
                         [f"port_sel <- {port}", "ka_hub_control <- 3", f"port {port} off",
                          f"port_sel <- {port}", "ka_hub_control <- 4", f"port {port} on"])
        self.power_was_cut(port, 1)
        self.assertEqual(self.timers(), [("PushCutting", True, port), ("PushCutting", False, port)])
        # It lost its configuration with its removal, and the bus with its power; it is asked for nothing.
        self.assertEqual([one.what for one in phone.events(since) if one.what != "reset"],
                         ["configured 0", "cut", "left", "restored", "came phone", "configured 1"])
        self.told_nothing(4)        # an ejection would be due
        return phone

    def test_a_phone_in_android_auto_is_back_as_a_phone_and_may_be_switched_again(self):
        self.start()
        self.was_reset(AUTO)
        self.switch_again(AUTO)

    def test_a_phone_in_carlife_is_back_as_a_phone_and_media_hears_of_its_end_when_it_is_pulled_then(self):
        self.start()
        phone = self.was_reset(CARLIFE)
        self.unit.unplug(phone)
        self.told(left(ANDROID))
        self.went(2, "STATE_ATTACH", "STATE_DETACH")

    def test_a_phone_without_a_serial_is_known_by_the_name_that_it_had_when_it_was_attached(self):
        mode = dataclasses.replace(AUTO, phone=dataclasses.replace(ANDROID, serial="18d1_4ee7"),
                                   switched=dataclasses.replace(as_accessory(ANDROID), serial="18d1_2d00"))
        self.start()
        self.switch(mode, serial="")
        self.reset(mode)
        self.attached_again(mode)
        self.assert_log("another device", times=0)

    def test_a_phone_in_mirrorlink_is_back_as_a_phone(self):
        self.start()
        self.was_reset(MIRROR.on(1))

    def test_a_phone_that_comes_back_with_its_network_function_is_attached(self):
        mode = dataclasses.replace(MIRROR, phone=MIRROR.switched)
        self.start()
        self.unit.plug("1.2", Phone("mirrorlink", starts="network"))
        self.told(came(mode.phone))
        self.ask(MIRRORLINK, mode.phone)
        self.told(answered(MIRRORLINK, mode.phone))
        self.reset(mode)
        self.attached_again(mode)
        self.assertEqual(self.commands(), removal() + power_cut(2))

    def test_behind_a_customers_hub_the_hub_loses_its_power_and_the_phone_returns_with_it(self):
        mode = AUTO.on(32)
        self.start()
        self.unit.plug("1.2", Hub())
        self.told(hub_came(HUB_ON_2))
        self.switch(mode, "1.2.3")
        self.reset(mode)
        self.told(left_the_bus(), answered(RESET, mode.switched), hub_left(HUB_ON_2), hub_came(HUB_ON_2),
                  state_told(mode.phone), event_told(mode.phone, ATTACHED))
        self.went(32, mode.running, mode.resetting, "STATE_ATTACH")
        self.assertEqual(self.commands(), removal("1-1.2/1-1.2.3") + power_cut(2))
        self.assertEqual(self.timers(), [("PushCutting", True, 32), ("PushCutting", False, 32)])
        self.power_was_cut(2, 1)

    def test_a_second_request_while_the_phone_is_away_is_refused(self):
        self.start()
        self.switch(AUTO)
        self.reset(AUTO)
        self.ask(RESET, AUTO.switched, devid="asked again")
        self.told(left_the_bus(), answered(RESET, AUTO.switched),
                  answered(RESET, AUTO.switched, FAILED, devid="asked again"), state_told(ANDROID),
                  event_told(ANDROID, ATTACHED))
        self.assert_log("port2 STATE_AA_RESETTING, so can't reset$", times=1)
        self.assertEqual(self.commands(), removal() + power_cut(2))


class Refused(ResetRoad):
    def refused(self, device, log=None):
        self.ask(RESET, device)
        self.told(answered(RESET, device, FAILED))
        self.went(2)
        self.assertEqual(self.commands(), [])
        if log:
            self.assert_log(log, times=1)

    def test_a_phone_that_runs_no_mode_and_one_that_is_gone(self):
        self.start()
        phone = self.unit.plug("1.2", Phone("android"))
        self.told(came(ANDROID))
        self.refused(ANDROID, "port2 STATE_ATTACH, so can't reset$")
        self.unit.unplug(phone)
        self.told(left(ANDROID))
        self.refused(ANDROID, "port2 STATE_DETACH, so can't reset$")

    def refused_as_it_was(self, mode):
        """A request names the phone by the ids that it has now, not by those it was switched with."""
        self.start()
        self.switch(mode)
        self.refused(mode.phone, "is different$")

    def test_with_the_ids_of_the_phone_instead_of_the_android_auto_accessory(self):
        self.refused_as_it_was(AUTO)

    def test_with_the_ids_of_the_phone_instead_of_the_carlife_accessory(self):
        self.refused_as_it_was(CARLIFE)

    def test_with_the_ids_of_the_phone_before_it_had_its_network_function(self):
        self.refused_as_it_was(MIRROR)

    def refused_while_changing(self, mode, log=None):
        self.start()
        self.unit.plug("1.2", Phone(mode.description, returns=["stays"]))
        self.told(came(mode.phone))
        self.ask(mode.request, mode.phone)
        self.told()
        self.went(2, "STATE_ATTACH", f"STATE_{mode.name}_CHANGING")
        self.refused(mode.phone, log)

    def test_while_it_changes_to_android_auto(self):
        self.refused_while_changing(AUTO, "port2 STATE_AA_CHANGING, so can't reset$")

    def test_while_it_changes_to_mirrorlink(self):
        self.refused_while_changing(MIRROR, "port2 STATE_ML_CHANGING, so can't reset$")

    def test_while_it_changes_to_carlife(self):
        self.refused_while_changing(CARLIFE)
        self.assert_log("so can't reset", times=0)


class WithoutTwoPortHub(ResetRoad):
    """The kernel forgets the phone here too, and then there is nothing left to reset."""

    def removed(self, mode):
        self.start_without_two_port_hub()
        phone = self.switch(mode)
        since = phone.mark()
        self.reset(mode)
        self.told(answered(RESET, mode.switched, FAILED), pulled_in_mode(mode.switched))
        self.went(2, mode.running, "STATE_DETACH")
        self.assertEqual(self.commands(), removal())
        self.assert_log("failed to open dev_handle$", times=1)
        self.assertEqual(self.timers(), [])
        # It is still plugged in, but nobody looks at it.
        self.told_nothing(4)
        self.assertEqual([one.what for one in phone.events(since)], ["configured 0"])
        self.assertFalse(self.unit.exists(self.unit.usb_path("1.2")))
        self.unit.unplug(phone)
        self.told()
        self.unit.plug("1.2", phone)
        self.told(came(mode.phone))
        self.went(2, "STATE_DETACH", "STATE_ATTACH")

    def test_a_phone_in_android_auto_is_refused_its_reset_and_detached_until_it_is_plugged_again(self):
        self.removed(AUTO)

    def test_a_phone_in_carlife_is_refused_its_reset_and_detached_until_it_is_plugged_again(self):
        self.removed(CARLIFE)

    def test_a_phone_in_mirrorlink_is_bound_anew_which_does_not_bring_it_back(self):
        self.start_without_two_port_hub()
        phone = self.switch(MIRROR)
        since = phone.mark()
        self.reset(MIRROR)
        self.told(left_the_bus(), answered(RESET, MIRROR.switched), event_told(MIRROR.switched, DETACHED))
        self.went(2, "STATE_ML", "STATE_ML_RESETTING", "STATE_DETACH")
        drivers = "/sys/bus/usb/drivers/usb"
        self.assertEqual(self.commands(), removal() + [f"echo 1-1.2 > {drivers}/unbind",
                                                         f"echo 1-1.2 > {drivers}/bind"] + asked_for_status(2))
        unbound, bound = [said_at(line) for line in self.logs("echo 1-1.2 > ")]
        self.assertTrue(1.0 <= bound - unbound < 2.0, (unbound, bound))
        self.assertEqual(self.timers(), [AWAY])
        self.ejected_in_time(self.unit.records("sdcm")[-1])
        self.assertEqual([one.what for one in phone.events(since)], ["configured 0"])
        self.unit.unplug(phone)
        self.told()
        self.unit.plug("1.2", phone)
        self.told(came(SAMSUNG))
        self.went(2, "STATE_DETACH", "STATE_ATTACH")


if __name__ == "__main__":
    main()
