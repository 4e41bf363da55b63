#!/usr/bin/python3
"""Android phones that were told to switch, left the bus and come back: as accessories, as phones, late, or never."""
import dataclasses

from android import ARRIVED, AndroidRoad, HUB_ON_2, LEFT_FOR_A_WHILE, RETURNED, STARTED, SWITCHED
from phones import (AA, ANDROID, ANDROID_CARLIFE, FAILED, PROTOCOL, START_AA, START_CARLIFE, answered, as_accessory,
                    left_the_bus, pulled_in_mode, saw)
from road import Hub, came, hub_came, main, said_at, state_told, together

BACK_AS_A_PHONE = together(left_the_bus(), state_told(ANDROID))
BACK_AS_AN_ACCESSORY = together(left_the_bus(), state_told(SWITCHED))
STARTED_AGAIN = LEFT_FOR_A_WHILE + RETURNED + STARTED


class Unswitched(AndroidRoad):
    """A phone that comes back as it was is started again, a second later."""
    PATIENCE = 60

    def returns_as_a_phone(self, phone, times, request=AA, changing="STATE_AA_CHANGING", mode="STATE_AA", start=None):
        """Each time the phone is started again; then it switches."""
        self.ask(request, ANDROID)
        self.told(*[BACK_AS_A_PHONE] * times, BACK_AS_AN_ACCESSORY, answered(request, SWITCHED))
        self.went(2, "STATE_ATTACH", changing, mode)
        self.assertEqual(self.timers(), STARTED + STARTED_AGAIN * times + LEFT_FOR_A_WHILE + RETURNED)
        self.assertEqual(saw(phone), [PROTOCOL] + (start or START_AA) * (times + 1))
        self.started_after_a_second(range(1, times + 1))

    def started_after_a_second(self, numbers):
        returned = self.assert_log("PushCutting: isAdd:0 port:2$")[:len(numbers)]
        started = self.assert_log("port2 aoap_retry:", times=len(numbers))
        for number, before, after in zip(numbers, returned, started):
            self.assertRegex(after.text, f"port2 aoap_retry:{number} vid:18d1 pid:4ee7$")
            self.assert_between(1, said_at(after) - said_at(before))

    def test_once_and_the_next_time_is_counted_from_one_again(self):
        self.start()
        for _ in range(2):
            phone = self.plugged(returns=["phone", "accessory"])
            self.returns_as_a_phone(phone, 1)
            self.pulled_in("STATE_AA", phone)

    def test_once_on_the_way_to_carlife(self):
        self.start()
        phone = self.plugged(returns=["phone", "accessory"])
        self.returns_as_a_phone(phone, 1, ANDROID_CARLIFE, "STATE_CL_CHANGING", "STATE_CL", START_CARLIFE)

    def test_five_times(self):
        self.start()
        self.returns_as_a_phone(self.plugged(returns=["phone"] * 5 + ["accessory"]), 5)

    def test_six_times(self):
        self.start()
        self.returns_as_a_phone(self.plugged(returns=["phone"] * 6 + ["accessory"]), 6)

    def test_a_sixth_start_that_fails_ends_it_and_so_does_any_later_one(self):
        self.start()
        phone = self.plugged(returns=["phone"], answers={"start": ["ok"] * 6 + ["stall", "ok", "stall"]})
        self.ask(AA, ANDROID)
        self.told(*[BACK_AS_A_PHONE] * 6, answered(AA, ANDROID, FAILED))
        self.went(2, "STATE_ATTACH", "STATE_AA_CHANGING", "STATE_ATTACH")
        self.assertEqual(self.timers(), STARTED + STARTED_AGAIN * 5 + LEFT_FOR_A_WHILE + RETURNED)
        self.assertEqual(saw(phone), [PROTOCOL] + START_AA * 7)
        self.started_after_a_second(range(1, 7))

        # Only an accessory clears the count.
        self.ask(AA, ANDROID, devid="asked again")
        self.told(BACK_AS_A_PHONE, answered(AA, ANDROID, FAILED, devid="asked again"))
        self.went(2, "STATE_ATTACH", "STATE_AA_CHANGING", "STATE_ATTACH")
        self.started_after_a_second([7])
        self.assertEqual(saw(phone), [PROTOCOL] + START_AA * 9)
        self.pulled(phone)


class Late(AndroidRoad):
    """The removal of a phone that was told to switch waits 3 s for its return."""

    def returns_in_time(self, milliseconds, waited=0.2):
        """The ejection has waited at least so many seconds when the phone is back."""
        phone = self.plugged(returns=[f"accessory after {milliseconds}"])
        self.switched(AA, "STATE_AA_CHANGING", "STATE_AA")
        self.assertEqual(self.timers(), STARTED + LEFT_FOR_A_WHILE + RETURNED)
        armed, = self.assert_log("PushCutting: isAdd:1 port:2$", times=1)
        cancelled, = self.assert_log("PushCutting: isAdd:0 port:2$", times=1)
        self.assert_between(waited, said_at(cancelled) - said_at(armed))
        self.assertEqual(saw(phone), [PROTOCOL] + START_AA)
        self.pulled_in("STATE_AA", phone)

    def test_at_once_or_after_200_ms_it_is_in_time(self):
        self.start()
        self.returns_in_time(0)
        self.returns_in_time(200)

    def test_seen_after_2900_ms_it_is_in_time(self):
        self.start()
        # The kernel takes 0.4 s from the phone's return until the service hears of it.
        self.returns_in_time(2500, waited=2.6)

    def test_after_the_ejection_it_is_another_phone_which_comes_as_an_accessory(self):
        self.start()
        phone = self.plugged(returns=["accessory after 4500"])
        self.ask(AA, ANDROID)
        self.told(pulled_in_mode(ANDROID), came(ARRIVED))
        self.went(2, "STATE_ATTACH", "STATE_AA_CHANGING", "STATE_DETACH", "STATE_AA")
        self.assertEqual(self.timers(), STARTED + LEFT_FOR_A_WHILE)
        self.assertEqual(saw(phone), [PROTOCOL] + START_AA)
        self.pulled_in("STATE_AA", phone, ARRIVED)

    def test_a_phone_that_does_not_return_is_ejected_after_3_s(self):
        self.start()
        phone = self.plugged(returns=["never"])
        self.ask(AA, ANDROID)
        self.told(pulled_in_mode(ANDROID))
        self.went(2, "STATE_ATTACH", "STATE_AA_CHANGING", "STATE_DETACH")
        self.assertEqual(self.timers(), STARTED + LEFT_FOR_A_WHILE)
        armed, = self.assert_log("PushCutting: isAdd:1 port:2$", times=1)
        ended, = self.assert_log("port2 STATE_AA_CHANGING->STATE_DETACH$", times=1)
        self.assert_between(3, said_at(ended) - said_at(armed))
        self.assert_log(": E_HUB_PORT_STATUS_DISCONNECTED$", times=1)
        self.assertEqual(saw(phone), [PROTOCOL] + START_AA)

    def test_behind_a_hub_which_keeps_the_port_connected_the_ejection_ends_nothing(self):
        device = dataclasses.replace(ANDROID, port=32)
        self.start()
        self.unit.plug("1.2", Hub())
        self.told(hub_came(HUB_ON_2))
        phone = self.plugged(device, "1.2.3", returns=["never"])
        self.ask(AA, device)
        self.told(left_the_bus())
        self.unit.wait_log(": E_HUB_PORT_STATUS_CONNECTED", since=self._step)
        self.told_nothing()
        self.went(32)
        phone.come("accessory")
        accessory = as_accessory(device)
        self.told(state_told(accessory), answered(AA, accessory))
        self.went(32, "STATE_AA_CHANGING", "STATE_AA")


if __name__ == "__main__":
    main()
