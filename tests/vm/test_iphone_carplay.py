#!/usr/bin/python3
"""CarPlay: the request, the modem that makes it real, and everything that ends it."""
import dataclasses

from phones import (APPLE_CARLIFE, CARPLAY, CARPLAY_QUERY, FAILED, IPHONE, PhoneRoad, RESET, answered, left_the_bus,
                    saw)
from road import DETACHED, NOT_SUPPORTED, came, event_told, left, main, said_at, state_told
from headunit import Phone

MODEM = 2       # the configuration that has one
CHARGING = dataclasses.replace(IPHONE, interface=(6, 1, 1), capability=(NOT_SUPPORTED,) * 4)
SECOND = dataclasses.replace(IPHONE, port=1, serial="SECOND")
QUERIED = [CARPLAY_QUERY]     # what an attached phone has seen; CarPlay adds nothing


class CarPlay(PhoneRoad):
    @classmethod
    def prepare(cls):
        """No image is needed."""

    def setUp(self):
        super().setUp()
        # As on a unit that loads drivers on demand: a modem gets its tty after its interfaces are known.
        self.unit.run("rmmod cdc_acm")
        self.addCleanup(self.load_modem_driver)

    def load_modem_driver(self):
        self.unit.run("test -d /sys/module/cdc_acm || insmod /usr/lib/modules/$(uname -r)/cdc_acm.ko")

    def attach(self):
        """Returns the phone, which supports CarPlay."""
        phone = self.unit.plug("1.2", Phone("iphone"))
        self.told(came(IPHONE))
        self.went(2, "STATE_DETACH", "STATE_CP_SUPPORT")
        return phone

    def ask_carplay(self):
        self.ask(CARPLAY, IPHONE)
        self.told(answered(CARPLAY, IPHONE))
        self.went(2, "STATE_CP_SUPPORT", "STATE_CP_CHANGING")
        self.assert_log("carplay port set 2$", times=1)

    def show_modem(self, phone):
        """The phone's interfaces change, the phone stays."""
        since = phone.mark()
        self.unit.configure("1.2", MODEM)
        phone.wait(f"configured {MODEM}", since=since)
        self.told(state_told(IPHONE))
        self.went(2)
        self.assert_log("port2 STATE_CP_CHANGING, so not send$", times=1)    # its interfaces are complete again
        self.load_modem_driver()
        self.told()
        self.assert_log("NotifyTtyToUsb: msgID:24$", times=1)
        self.went(2, "STATE_CP_CHANGING", "STATE_CP")

    def run_carplay(self):
        """Returns the phone, which runs CarPlay."""
        phone = self.attach()
        self.ask_carplay()
        self.show_modem(phone)
        return phone

    def change_tty(self):
        self.unit.run("echo change > /sys/class/tty/ttyACM0/uevent")

    def cut_and_restored(self, phone, since):
        self.assertEqual([one.what for one in phone.events(since) if one.what in ("cut", "restored", "came phone")],
                         ["cut", "restored", "came phone"])


class Begin(CarPlay):
    def test_carplay_is_answered_at_once_and_runs_when_the_tty_is_there(self):
        self.start()
        phone = self.run_carplay()
        self.assertEqual(saw(phone), QUERIED)

    def test_it_is_refused_before_the_phone_has_said_that_it_knows_it(self):
        self.start()
        phone = self.unit.plug("1.2", Phone("iphone", starts="charging", answers={"carplay": b"\2\0\0\0"}))
        self.told(came(CHARGING))
        self.ask(CARPLAY, CHARGING)
        self.told(answered(CARPLAY, CHARGING, FAILED))
        self.went(2)
        self.assert_log("port2 STATE_ATTACH, so can't change$", times=1)
        self.assert_log("carplay port set", times=0)
        self.assertEqual(saw(phone), QUERIED)

    def test_it_is_refused_while_it_is_changing_and_while_it_runs(self):
        self.start()
        phone = self.attach()
        self.ask_carplay()
        for request in (CARPLAY, APPLE_CARLIFE):
            self.ask(request, IPHONE)
            self.told(answered(request, IPHONE, FAILED))
            self.assert_log("port2 STATE_CP_CHANGING, so can't change$", times=1)
        self.show_modem(phone)
        for request in (CARPLAY, APPLE_CARLIFE):
            self.ask(request, IPHONE)
            self.told(answered(request, IPHONE, FAILED))
            self.assert_log("port2 STATE_CP, so can't change$", times=1)
        self.went(2)

    def test_an_interface_that_comes_after_the_tty_ends_carplay_unheard(self):
        self.start()
        self.load_modem_driver()
        self.attach()
        self.ask_carplay()
        self.unit.configure("1.2", MODEM)
        self.told(state_told(IPHONE))
        # The modem's data interface is behind its tty, and completes the phone once more.
        self.went(2, "STATE_CP_CHANGING", "STATE_CP", "STATE_CP_SUPPORT")
        self.assert_log("defense code for healing, please check!!$", times=1)
        self.ask_carplay()

    def test_a_tty_that_is_there_before_the_request_is_not_waited_for(self):
        self.start()
        self.load_modem_driver()
        self.attach()
        self.unit.configure("1.2", MODEM)
        self.told(state_told(IPHONE))
        self.went(2)
        self.ask_carplay()
        self.told_nothing()
        self.went(2)

    def test_a_tty_of_another_phone_counts_for_the_port_of_carplay(self):
        self.start()
        self.load_modem_driver()
        self.attach()
        self.ask_carplay()
        other = self.plug_second_with_modem()
        self.went(2, "STATE_CP_CHANGING", "STATE_CP")
        self.went(1, "STATE_DETACH", "STATE_CP_SUPPORT")
        self.unit.unplug(other)
        self.told(left(SECOND))
        self.went(2)
        self.assert_log("port2 STATE_CP$", times=1)

    def plug_second_with_modem(self):
        other = self.unit.plug("1.1", Phone("iphone", serial="SECOND", starts="carplay"))
        self.told(came(SECOND))
        return other

    def test_a_phone_that_is_pulled_before_its_tty_came_is_detached(self):
        self.start()
        phone = self.attach()
        self.ask_carplay()
        self.unit.unplug(phone)
        self.told(left(IPHONE))
        self.went(2, "STATE_CP_CHANGING", "STATE_DETACH")
        self.attach()

    def test_a_phone_that_is_pulled_while_changing_is_not_missed_as_long_as_there_is_a_tty(self):
        self.start()
        self.load_modem_driver()
        phone = self.attach()
        self.ask_carplay()
        self.plug_second_with_modem()
        # The phone's interfaces come again, and end CarPlay; the other phone's tty stays.
        self.unit.configure("1.2", 1)
        self.told(state_told(IPHONE))
        self.went(2, "STATE_CP", "STATE_CP_SUPPORT")
        self.ask_carplay()
        self.unit.unplug(phone)
        self.told(left_the_bus())
        self.went(2)
        self.told_nothing(4)
        self.assert_log("port2 STATE_CP_CHANGING", times=0)     # nothing is deferred


class End(CarPlay):
    def test_a_phone_that_is_pulled_during_carplay_is_not_missed_and_supports_it_when_it_is_back(self):
        self.start()
        phone = self.run_carplay()
        self.unit.unplug(phone)
        self.told(left_the_bus())
        self.assert_log("NotifyTtyToUsb: msgID:25$", times=1)
        self.went(2)
        phone = self.unit.plug("1.2", Phone("iphone"))
        self.told(state_told(IPHONE))
        self.went(2, "STATE_CP", "STATE_CP_SUPPORT")
        self.assert_log("defense code for healing, please check!!$", times=1)
        self.assertEqual(saw(phone), [])
        self.unit.unplug(phone)
        self.told(left(IPHONE))

    def test_a_change_of_the_tty_resets_the_port_and_detaches_before_the_phone_is_missed(self):
        self.start()
        phone = self.run_carplay()
        since = phone.mark()
        self.change_tty()
        self.told(left_the_bus(), event_told(IPHONE, DETACHED), came(IPHONE))
        self.went(2, "STATE_CP", "STATE_DETACH", "STATE_CP_SUPPORT")
        self.power_was_cut(2, 0.5)
        self.cut_and_restored(phone, since)
        self.assertEqual(saw(phone, since), QUERIED)
        # By the time that its removal is looked at, it is detached.
        detached, removed = self.logs("port2 STATE_CP->STATE_DETACH$|port2 STATE_DETACH, so not send$")
        self.assertRegex(detached.text, "->STATE_DETACH$")
        self.assertRegex(removed.text, "so not send$")

    def test_a_change_of_the_tty_while_changing_detaches_too(self):
        self.start()
        self.load_modem_driver()
        phone = self.attach()
        self.ask_carplay()
        other = self.unit.plug("1.1", Phone("iphone", serial="SECOND", starts="carplay"))
        self.told(came(SECOND))
        self.unit.configure("1.2", 1)
        self.told(state_told(IPHONE))
        self.ask_carplay()
        since = phone.mark()
        self.change_tty()
        self.told(event_told(IPHONE, DETACHED), left_the_bus(), came(IPHONE))
        self.went(2, "STATE_CP_CHANGING", "STATE_DETACH", "STATE_CP_SUPPORT")
        self.cut_and_restored(phone, since)
        self.assertEqual([one.what for one in other.events() if one.what in ("cut", "restored")], [])

    def test_a_change_of_the_tty_without_carplay_does_nothing(self):
        self.start()
        self.load_modem_driver()
        self.attach()
        self.unit.configure("1.2", MODEM)
        self.told(state_told(IPHONE))
        self.change_tty()
        self.told()
        self.assert_log("NotifyTtyToUsb: msgID:26$", times=1)
        self.assert_log("ControlKaHub", times=0)
        self.went(2)


class Reset(CarPlay):
    def test_a_reset_cuts_the_power_for_half_a_second_and_the_phone_is_attached_again(self):
        self.start()
        phone = self.run_carplay()
        since = phone.mark()
        self.ask(RESET, IPHONE)
        self.told(answered(RESET, IPHONE), left_the_bus(), came(IPHONE))
        self.went(2, "STATE_CP", "STATE_CP_RESETTING", "STATE_CP_SUPPORT")
        self.power_was_cut(2, 0.5)
        self.assertEqual(self.timers(), [("PushCarplayTimeout", True, 2), ("PushCarplayTimeout", False, 2)])
        self.cut_and_restored(phone, since)
        self.assertEqual(saw(phone, since), [])     # what the port knows of it still counts
        self.told_nothing(3)
        self.assert_log("CARPLAY_TIMEOUT", times=0)

    def test_a_phone_that_stays_away_from_a_reset_is_detached_after_two_seconds(self):
        self.start()
        phone = self.run_carplay()
        begin = self.unit.mark()
        self.ask(RESET, IPHONE)
        self.unit.wait_board("port 2 off")
        self.unit.unplug(phone)
        self.unit.wait_log("STATE_CP_RESETTING->STATE_DETACH", since=begin)
        self.told(answered(RESET, IPHONE), left_the_bus(), event_told(IPHONE, DETACHED))
        self.went(2, "STATE_CP", "STATE_CP_RESETTING", "STATE_DETACH")
        self.assertEqual(self.timers(), [("PushCarplayTimeout", True, 2)])
        armed, fired = self.logs("PushCarplayTimeout: isAdd:1|NotifyTimeout: CARPLAY_TIMEOUT port2$")
        self.assertTrue(2.0 < said_at(fired) - said_at(armed) < 3.0, (armed, fired))
        self.assert_log("E_HUB_PORT_STATUS_DISCONNECTED$", times=1)
        self.attach()

    def test_a_reset_while_changing_is_the_same(self):
        self.start()
        phone = self.attach()
        self.ask_carplay()
        since = phone.mark()
        self.ask(RESET, IPHONE)
        self.told(answered(RESET, IPHONE), left_the_bus(), came(IPHONE))
        self.went(2, "STATE_CP_CHANGING", "STATE_CP_RESETTING", "STATE_CP_SUPPORT")
        self.power_was_cut(2, 0.5)
        self.cut_and_restored(phone, since)

    def test_whatever_arrives_in_a_reset_is_taken_for_the_phone(self):
        self.start()
        phone = self.run_carplay()
        self.ask(RESET, IPHONE)
        self.unit.wait_board("port 2 off")
        self.unit.unplug(phone)
        self.unit.plug("1.2", Phone("iphone", serial="OTHER"))
        other = dataclasses.replace(IPHONE, serial="OTHER")
        self.told(answered(RESET, IPHONE), left_the_bus(), came(other))
        self.went(2, "STATE_CP", "STATE_CP_RESETTING", "STATE_CP_SUPPORT")
        self.assert_log("another device", times=0)

    def test_a_hub_that_cannot_cut_leaves_the_port_in_reset_until_the_phone_is_plugged_again(self):
        self.start_without_two_port_hub()
        phone = self.run_carplay()
        since = phone.mark()
        self.ask(RESET, IPHONE)
        phone.wait("reset", since=since)
        self.told(answered(RESET, IPHONE))
        self.assert_log("ResetPort: port2 vid:5ac pid:12a8$", times=1)
        self.assert_log(r"reset result \[0\]$", times=1)
        self.assert_log("ControlKaHub", times=0)
        self.went(2, "STATE_CP", "STATE_CP_RESETTING")
        # The phone never left: nobody misses it, nobody announces it.
        self.unit.wait_log("CARPLAY_TIMEOUT port2", since=self._step)
        self.told_nothing()
        self.went(2)
        self.assert_log("port2 2 STATE_CP_RESETTING$", times=1)
        self.unit.unplug(phone)
        self.told(left_the_bus())
        self.went(2)
        self.unit.plug("1.2", phone)
        self.told(came(IPHONE))
        self.went(2, "STATE_CP_RESETTING", "STATE_CP_SUPPORT")


if __name__ == "__main__":
    main()
