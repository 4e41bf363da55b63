#!/usr/bin/python3
"""An iPhone that does not know CarPlay yet is asked again every five seconds, five times."""
import dataclasses

from phones import CARPLAY, CARPLAY_QUERY, FAILED, IPHONE, PhoneRoad, answered, saw
from road import ATTACHED, NOT_SUPPORTED, came, event_told, left, main
from headunit import Phone

YES, NO = b"\1\0\0\0", b"\2\0\0\0"
WAITING = dataclasses.replace(IPHONE, capability=(NOT_SUPPORTED,) * 4)
CHARGING = dataclasses.replace(WAITING, interface=(6, 1, 1))     # without its HID function
UNKNOWN = dataclasses.replace(IPHONE, capability=None)           # refuses the question

PERIOD = 5.0
LATE = 0.3 * 5 + 1.0     # what the passes of the monitor and a busy machine add, all polls together


class Polls(PhoneRoad):
    @classmethod
    def prepare(cls):
        """No image is needed."""

    def attach(self, device, *answers, **variant):
        """Returns the phone, which is attached to port 2 and has been asked."""
        self.start()
        phone = self.unit.plug("1.2", Phone("iphone", answers={"carplay": list(answers)}, **variant))
        self.told(came(device))
        self.went(2, "STATE_DETACH", "STATE_ATTACH")
        return phone

    def assert_asked(self, phone, polls):
        """At the attach, when its HID function is there, and then so many times, five seconds apart."""
        self.assertEqual(saw(phone), [CARPLAY_QUERY] * (2 + polls))
        _, asked_at, *polled_at = [one.time for one in phone.transfers()]
        for count, time in enumerate(polled_at, 1):
            soonest = asked_at + count * PERIOD
            self.assertTrue(soonest < time < soonest + LATE, f"poll {count} after {time - asked_at} s")

    def test_a_phone_that_knows_carplay_at_the_first_poll_is_announced_again_and_left_alone(self):
        phone = self.attach(WAITING, NO, NO, YES)
        self.assert_asked(phone, polls=0)
        self.told(event_told(IPHONE, ATTACHED))
        self.went(2, "STATE_ATTACH", "STATE_CP_SUPPORT")
        self.assert_log("NotifyCarplayCapa: port2 retry:1$", times=1)
        self.assert_log("PushCarplayCapa: isAdd:0 port:2$", times=1)
        self.told_nothing(6)
        self.assert_log("NotifyCarplayCapa", times=0)
        self.assert_asked(phone, polls=1)

    def test_a_phone_that_never_knows_it_is_polled_five_times_and_stays_attached(self):
        phone = self.attach(WAITING, NO)
        begin = self.unit.mark()
        for count in range(1, 6):
            self.unit.wait_log(f"NotifyCarplayCapa: port2 retry:{count}", since=begin)
        self.told_nothing(6)
        self.went(2)
        self.assert_log("NotifyCarplayCapa", times=5)
        self.assert_asked(phone, polls=5)
        self.ask(CARPLAY, IPHONE)
        self.told(answered(CARPLAY, IPHONE, FAILED))
        self.assert_log("port2 STATE_ATTACH, so can't change$", times=1)
        self.unit.unplug(phone)
        self.told(left(WAITING))
        self.went(2, "STATE_ATTACH", "STATE_DETACH")

    def test_a_phone_that_refuses_the_question_is_polled_too_and_stays_unknown(self):
        phone = self.attach(UNKNOWN, "stall", "stall", "stall", NO, YES)
        self.told(event_told(IPHONE, ATTACHED))
        self.went(2, "STATE_ATTACH", "STATE_CP_SUPPORT")
        self.assert_asked(phone, polls=3)
        self.assertEqual([one.answer for one in phone.transfers()], ["stall"] * 3 + ["02000000", "01000000"])

    def test_polling_ends_when_the_phone_is_pulled_and_begins_anew_with_the_next(self):
        phone = self.attach(WAITING, NO)
        self.unit.unplug(phone)
        self.told(left(WAITING))
        self.went(2, "STATE_ATTACH", "STATE_DETACH")
        self.assert_log("PushCarplayCapa: isAdd:0 port:2$", times=1)
        self.told_nothing(6)
        self.assert_log("NotifyCarplayCapa", times=0)
        phone = self.unit.plug("1.2", Phone("iphone", answers={"carplay": [NO, NO, YES]}))
        self.told(came(WAITING))
        self.told(event_told(IPHONE, ATTACHED))
        self.assert_log("NotifyCarplayCapa: port2 retry:1$", times=1)
        self.assert_asked(phone, polls=1)

    def test_a_phone_without_its_hid_function_is_not_polled(self):
        phone = self.attach(CHARGING, NO, starts="charging")
        self.told_nothing(6)
        self.assertEqual(saw(phone), [CARPLAY_QUERY])


if __name__ == "__main__":
    main()
