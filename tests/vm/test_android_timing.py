#!/usr/bin/python3
"""What takes long with Android phones: the 20 s of a mode change, and a phone that does not answer at all."""
import dataclasses

from android import AndroidRoad, LEFT_FOR_A_WHILE, RETURNED, STARTED, SWITCHED
from phones import (AA, ANDROID, ANDROID_CARLIFE, FAILED, PROTOCOL, RESET, START_AA, START_CARLIFE, answered,
                    left_the_bus, pulled_in_mode, saw)
from road import (ATTACH, ATTACHED, DETACH, DETACHED, NOT_SUPPORTED, PHONE, Plugged, Stick, SUPPORTED, Volume, attached,
                  detached, device_told, event_told, left, main, mounted, said_at, state_told, together)
from headunit import Phone


class ModeChange(AndroidRoad):
    def lasted(self, first, last):
        """20 s between these lines of the log, the last that is like the first being meant."""
        begin, end = self.assert_log(first)[-1], self.assert_log(last, times=1)[0]
        self.assert_between(20, said_at(end) - said_at(begin))

    def test_a_phone_that_takes_the_start_and_stays_is_given_up_and_can_be_asked_again(self):
        self.start()
        phone = self.plugged(returns=["stays", "accessory"])
        self.ask(AA, ANDROID)
        self.told(answered(AA, ANDROID, FAILED))
        self.went(2, "STATE_ATTACH", "STATE_AA_CHANGING", "STATE_ATTACH")
        self.assertEqual(self.timers(), STARTED)
        self.lasted("PushChTimeout: isAdd:1 port:2$", "STATE_AA_CHANGING->STATE_ATTACH$")
        self.assertEqual(saw(phone), [PROTOCOL] + START_AA)

        self.switched(AA, "STATE_AA_CHANGING", "STATE_AA")
        self.assertEqual(self.timers(), STARTED + LEFT_FOR_A_WHILE + RETURNED)
        self.assertEqual(saw(phone), [PROTOCOL] + START_AA * 2)
        self.pulled_in("STATE_AA", phone)

    def test_whether_it_could_be_started_again_does_not_count_the_first_times(self):
        self.start()
        phone = self.plugged(returns=["phone"], answers={"start": ["ok", "stall"]})
        self.ask(ANDROID_CARLIFE, ANDROID)
        self.told(left_the_bus(), state_told(ANDROID), answered(ANDROID_CARLIFE, ANDROID, FAILED))
        self.went(2, "STATE_ATTACH", "STATE_CL_CHANGING", "STATE_ATTACH")
        self.assertEqual(self.timers(), STARTED + LEFT_FOR_A_WHILE + RETURNED + STARTED)
        self.lasted("PushChTimeout: isAdd:1 port:2$", "STATE_CL_CHANGING->STATE_ATTACH$")
        self.assertEqual(saw(phone), [PROTOCOL] + START_CARLIFE * 2)
        self.pulled(phone)

    def test_of_a_phone_that_did_not_return_nothing_is_heard_when_the_20_s_are_over(self):
        self.start()
        phone = self.plugged(returns=["never"])
        self.ask(AA, ANDROID)
        self.told(pulled_in_mode(ANDROID))
        self.went(2, "STATE_ATTACH", "STATE_AA_CHANGING", "STATE_DETACH")
        self.told_nothing(21)
        self.went(2)
        self.assert_log("CH_TIMEOUT", times=0, since=(0, 0))
        self.assertEqual(saw(phone), [PROTOCOL] + START_AA)


class NoAnswer(AndroidRoad):
    """A transfer has no time limit. The frame that talks to phones waits, all others go on."""
    SILENT = dataclasses.replace(ANDROID, port=1, serial="SILENT",
                                 capability=(NOT_SUPPORTED, SUPPORTED, NOT_SUPPORTED, NOT_SUPPORTED))
    STICK = Plugged(port=2)
    VOLUME = Volume(port=2)

    def test_a_phone_that_answers_nothing_holds_up_sdcm_alone_until_it_is_pulled(self):
        self.start()
        leaver = self.plugged(returns=["never"])
        self.ask(AA, ANDROID)
        armed = self.unit.wait_log("PushCutting: isAdd:1 port:2", since=self._heard)
        silent = self.unit.plug("1.1", Phone("android", serial="SILENT", answers={"protocol": "never"}))
        question = silent.wait_transfer(request=51)

        # The other phone's ejection comes in time.
        ejection = self.unit.wait_log("CheckEjection: deferred ejection", since=self._heard)
        self.assertLess(question.time, said_at(ejection))
        self.assert_between(3, said_at(ejection) - said_at(armed))
        self.unit.unplug(leaver)
        self.told(left_the_bus(), state_told(self.SILENT))

        # A stick is mounted, announced and pulled; what SDCM asks has to wait.
        stick = self.unit.plug("1.2", Stick(self.one))
        self.told(state_told(self.STICK), attached(port=2), mounted(self.VOLUME))
        self.assertEqual(self.mounts(), [("/tmp/USB/PORT2/PART1", "/dev/sda1", "vfat")])
        self.search_from_sdcm()
        self.ask(RESET, self.SILENT)
        self.told()
        self.unit.unplug(stick)
        self.told(detached(self.VOLUME), left_the_bus())
        self.nothing_left()
        self.assertEqual(self.states(1), [])

        # Then everything is handled in the order in which it came.
        self.unit.unplug(silent)
        self.told(left_the_bus(),
                  event_told(self.SILENT, ATTACHED), device_told(self.SILENT, ATTACH, 0, PHONE),
                  event_told(ANDROID, DETACHED),
                  event_told(self.STICK, ATTACHED),
                  event_told(self.SILENT, ATTACHED), event_told(self.STICK, ATTACHED),   # the search
                  answered(RESET, self.SILENT, FAILED),
                  event_told(self.STICK, DETACHED),
                  event_told(self.SILENT, DETACHED), device_told(self.SILENT, DETACH, 0, PHONE))
        self.assert_log("failed to get protocol with the error:LIBUSB_ERROR_NO_DEVICE$", times=1)
        self.went(1, "STATE_DETACH", "STATE_ATTACH", "STATE_DETACH")
        self.went(2, "STATE_AA_CHANGING", "STATE_DETACH", "STATE_ATTACH", "STATE_DETACH")
        self.assertEqual([(one.request, one.answer) for one in silent.transfers()], [(51, "never")])

        phone = self.plugged()
        self.pulled(phone)

    def test_a_request_that_waits_for_the_phone_fails_when_the_phone_is_pulled(self):
        self.start()
        phone = self.plugged(answers={"start": "never"})
        self.ask(AA, ANDROID)
        phone.wait_transfer(request=53)
        self.told_nothing()
        self.went(2)
        self.unit.unplug(phone)
        self.told(together(answered(AA, ANDROID, FAILED), left(ANDROID)))
        self.assert_log("failed to Send ACCESSORY_START$", times=1)
        self.went(2, "STATE_ATTACH", "STATE_DETACH")
        self.assertEqual(saw(phone), [PROTOCOL] + START_AA)


if __name__ == "__main__":
    main()
