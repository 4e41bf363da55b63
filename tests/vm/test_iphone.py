#!/usr/bin/python3
"""An iPhone comes and goes, and runs CarLife. What it answers later than at once is in test_iphone_polls.py."""
import dataclasses

from phones import (APPLE_CARLIFE, CARPLAY, CARPLAY_QUERY, FAILED, IPHONE, PhoneRoad, RESET, answered, left_the_bus,
                    saw)
from road import ATTACHED, NOT_SUPPORTED, came, event_told, left, main, said_at, state_told
from headunit import Phone

YES, NO = b"\1\0\0\0", b"\2\0\0\0"
# The same phone while it has said that it does not know CarPlay.
WAITING = dataclasses.replace(IPHONE, capability=(NOT_SUPPORTED,) * 4)
CHARGING = dataclasses.replace(WAITING, interface=(6, 1, 1))     # and without its HID function, so that it stays so


class IPhone(PhoneRoad):
    @classmethod
    def prepare(cls):
        """No image is needed."""

    def attach(self, device=IPHONE, start=None, **variant):
        """Returns the phone, which is attached to port 2."""
        (start or self.start)()
        phone = self.unit.plug("1.2", Phone("iphone", **variant))
        self.told(came(device))
        return phone


class Capability(IPhone):
    def test_a_phone_that_knows_carplay_is_asked_once_and_supports_it_at_once(self):
        phone = self.attach()
        self.went(2, "STATE_DETACH", "STATE_CP_SUPPORT")
        self.assertEqual(saw(phone), [CARPLAY_QUERY])
        # Its HID function is heard of, and changes nothing.
        self.assert_log("NotifyHidToUsb: msgID:22 port:2$", times=1)
        self.assert_log("aa_capa:2 ml_capa:2 cp_capa:1 cl_capa:2$", times=1)
        self.assert_log("PushCarplayCapa", times=0)
        self.unit.unplug(phone)
        self.told(left(IPHONE))
        self.went(2, "STATE_CP_SUPPORT", "STATE_DETACH")
        self.assert_log("NotifyHidToUsb: msgID:23 port:2$", times=1)

    def test_a_phone_that_knows_carplay_when_its_hid_function_is_there_is_announced_again(self):
        phone = self.attach_and_ask_again(NO, YES)
        self.told(came(WAITING), event_told(IPHONE, ATTACHED))
        self.went(2, "STATE_DETACH", "STATE_ATTACH", "STATE_CP_SUPPORT")
        self.assertEqual(saw(phone), [CARPLAY_QUERY] * 2)
        self.assert_log("aa_capa:2 ml_capa:2 cp_capa:2 cl_capa:2$", times=1)
        self.assert_log("PushCarplayCapa: isAdd:1", times=0)
        self.unit.unplug(phone)
        self.told(left(IPHONE))
        self.went(2, "STATE_CP_SUPPORT", "STATE_DETACH")

    def test_a_phone_that_refuses_the_question_first_is_announced_as_unknown_and_then_again(self):
        phone = self.attach_and_ask_again("stall", YES)
        self.told(came(dataclasses.replace(IPHONE, capability=None)), event_told(IPHONE, ATTACHED))
        self.went(2, "STATE_DETACH", "STATE_ATTACH", "STATE_CP_SUPPORT")
        self.assertEqual([one.answer for one in phone.transfers()], ["stall", "01000000"])
        self.assert_log("fail to send control transfer$", times=1)

    def attach_and_ask_again(self, *answers):
        self.start()
        return self.unit.plug("1.2", Phone("iphone", answers={"carplay": list(answers)}))

    def test_of_what_a_phone_answers_only_one_means_carplay(self):
        self.start()
        for answer in (b"\0\0\0\0", b"\1\0\0\1", b"\1\1\0\0"):
            phone = self.unit.plug("1.2", Phone("iphone", starts="charging", answers={"carplay": answer}))
            self.told(came(CHARGING))
            self.went(2, "STATE_DETACH", "STATE_ATTACH")
            self.assert_log(rf"not support, data\[{int.from_bytes(answer, 'little')}\]$", times=1)
            self.unit.unplug(phone)
            self.told(left(CHARGING))
            self.went(2, "STATE_ATTACH", "STATE_DETACH")

    def test_two_phones_are_asked_each_on_its_own_port(self):
        first = dataclasses.replace(CHARGING, port=1, serial="SECOND")
        self.start()
        no = self.unit.plug("1.1", Phone("iphone", starts="charging", serial="SECOND", answers={"carplay": NO}))
        self.told(came(first))
        yes = self.unit.plug("1.2", Phone("iphone"))
        self.told(came(IPHONE))
        self.went(1)
        self.went(2, "STATE_DETACH", "STATE_CP_SUPPORT")
        self.assertEqual((saw(no), saw(yes)), ([CARPLAY_QUERY], [CARPLAY_QUERY]))
        self.unit.unplug(no)
        self.told(left(first))
        self.went(1, "STATE_ATTACH", "STATE_DETACH")
        self.went(2)


class CarLife(IPhone):
    def started(self, start=None):
        """Returns the phone, which runs CarLife. The answer comes at once, the state a second later."""
        phone = self.attach(start=start)
        asked_at = self.unit.now()
        self.ask_carlife(IPHONE)
        self.went(2, "STATE_CP_SUPPORT", "STATE_CL_CHANGING", "STATE_CL")
        begin, end = (said_at(one) for one in self.logs("SetState: "))
        self.assertTrue(0.99 < end - begin < 1.5, (begin, end))
        answer = self.unit.records("sdcm")[-1].time
        self.assertTrue(asked_at < answer < end - 0.5, (asked_at, answer, end))
        # Its numbers on the bus are looked for where another board has them.
        self.assert_log("busno:-1 devno:-1 port:2 interfaceId:3111$", times=1)
        return phone

    def ask_carlife(self, device):
        since = self.unit.mark()
        self.ask(APPLE_CARLIFE, device)
        self.unit.wait_log("STATE_CL_CHANGING->STATE_CL", since=since)
        self.told(answered(APPLE_CARLIFE, device))

    def test_carlife_runs_a_second_after_the_answer_without_a_transfer(self):
        phone = self.started()
        self.assertEqual(saw(phone), [CARPLAY_QUERY])

    def test_a_phone_without_carplay_may_run_carlife(self):
        self.attach(CHARGING, starts="charging", answers={"carplay": NO})
        self.ask_carlife(CHARGING)
        self.went(2, "STATE_ATTACH", "STATE_CL_CHANGING", "STATE_CL")

    def test_carlife_is_refused_while_it_runs(self):
        self.started()
        self.ask(APPLE_CARLIFE, IPHONE)
        self.told(answered(APPLE_CARLIFE, IPHONE, FAILED))
        self.went(2)
        self.assert_log("port2 STATE_CL, so can't change$", times=1)

    def test_a_phone_that_is_pulled_and_plugged_again_is_not_heard_of_until_a_reset(self):
        phone = self.started()
        self.unit.unplug(phone)
        self.told(left_the_bus())
        self.went(2)
        self.told_nothing(4)     # nor does anything defer it
        phone = self.unit.plug("1.2", Phone("iphone"))
        self.told(state_told(IPHONE))
        self.went(2)
        self.assert_log("port2 STATE_CL, so not send$")
        self.assertEqual(saw(phone), [])
        self.reset(phone)

    def test_after_a_reset_of_an_absent_phone_the_next_one_is_attached(self):
        phone = self.started()
        self.unit.unplug(phone)
        self.told(left_the_bus())
        self.ask(RESET, IPHONE)
        self.told(answered(RESET, IPHONE))
        self.went(2, "STATE_CL", "STATE_CL_RESETTING")
        self.power_was_cut(2, 1.0)
        self.assertEqual(self.timers(), [("PushChTimeout", True, 2)])
        phone = self.unit.plug("1.2", Phone("iphone"))
        self.told(came(IPHONE))
        self.went(2, "STATE_CL_RESETTING", "STATE_CP_SUPPORT")
        self.assertEqual(self.timers(), [("PushChTimeout", False, 2)])
        self.assertEqual(saw(phone), [])     # what the port knows of it still counts

    def test_a_reset_cuts_the_power_for_a_second_and_the_phone_is_attached_again(self):
        phone = self.started()
        self.reset(phone)
        # The ejection that its leaving has begun is not cancelled, and says nothing when it fires.
        self.told_nothing(4)
        self.went(2)
        self.assert_log("port2 STATE_CP_SUPPORT, so not send$", times=1)

    def test_a_hub_that_cannot_cut_leaves_the_port_in_reset_until_the_phone_is_plugged_again(self):
        phone = self.started(self.start_without_two_port_hub)
        since = phone.mark()
        self.ask(RESET, IPHONE)
        phone.wait("reset", since=since)
        self.told(answered(RESET, IPHONE))
        self.went(2, "STATE_CL", "STATE_CL_RESETTING")
        self.assert_log(r"reset result \[0\]$", times=1)
        self.assertEqual(self.timers(), [("PushChTimeout", True, 2)])
        armed, = self.logs("PushChTimeout: isAdd:1")
        # The phone never left. What the reset has armed is of no use in this state.
        fired = self.unit.wait_log("NotifyTimeout: CH_TIMEOUT port2", timeout=40, since=self._step)
        self.assertTrue(20.0 < said_at(fired) - said_at(armed) < 21.0, (armed, fired))
        self.told_nothing()
        self.assert_log("port2 STATE_CL_RESETTING, so not send$", times=1)
        self.went(2)
        self.unit.unplug(phone)
        self.told(left_the_bus())
        self.unit.plug("1.2", phone)
        self.told(came(IPHONE))
        self.went(2, "STATE_CL_RESETTING", "STATE_CP_SUPPORT")

    def test_a_phone_that_is_not_there_cannot_be_reset_without_a_hub_that_cuts(self):
        phone = self.started(self.start_without_two_port_hub)
        self.unit.unplug(phone)
        self.told(left_the_bus())
        self.ask(RESET, IPHONE)
        self.told(answered(RESET, IPHONE, FAILED))
        self.went(2)
        self.assert_log("failed to open dev_handle$", times=1)
        self.assertEqual(self.timers(), [])

    def reset(self, phone):
        """The phone is there, leaves with the power, and is back."""
        since = phone.mark()
        self.ask(RESET, IPHONE)
        self.told(answered(RESET, IPHONE), left_the_bus(), came(IPHONE))
        self.went(2, "STATE_CL", "STATE_CL_RESETTING", "STATE_CP_SUPPORT")
        self.power_was_cut(2, 1.0)
        self.assertEqual(self.timers(), [("PushChTimeout", True, 2), ("PushCutting", True, 2),
                                         ("PushChTimeout", False, 2)])
        self.assertEqual([one.what for one in phone.events(since) if one.what in ("cut", "restored", "came phone")],
                         ["cut", "restored", "came phone"])
        self.assertEqual(saw(phone, since), [])


if __name__ == "__main__":
    main()
