#!/usr/bin/python3
"""Android phones: asked for their accessory protocol, switched into Android Auto and CarLife, or not."""
import dataclasses

from android import ARRIVED, AndroidRoad, LEFT_FOR_A_WHILE, RETURNED, STARTED, SWITCHED
from phones import (AA, AA_NAMES, ANDROID, ANDROID_CARLIFE, CARLIFE_NAMES, PROTOCOL, START, START_AA, START_CARLIFE,
                    answered, left_the_bus, saw)
from road import NOT_SUPPORTED, SUPPORTED, came, main, state_told
from headunit import Phone

MUTE = dataclasses.replace(ANDROID, capability=(NOT_SUPPORTED, SUPPORTED, NOT_SUPPORTED, NOT_SUPPORTED))


class Switched(AndroidRoad):
    def test_a_phone_goes_to_android_auto_and_media_does_not_hear_of_its_end(self):
        self.start()
        phone = self.plugged()
        self.switched(AA, "STATE_AA_CHANGING", "STATE_AA")
        self.assertEqual(self.timers(), STARTED + LEFT_FOR_A_WHILE + RETURNED)
        self.assert_log("UpdateNode: devtype:", times=0)    # Deliberate: the accessory is not recorded.
        self.assertEqual(saw(phone), [PROTOCOL] + START_AA)
        self.pulled_in("STATE_AA", phone)

    def test_a_second_request_in_android_auto_is_done_already_and_one_for_another_mode_refused(self):
        self.start()
        phone = self.plugged()
        self.switched(AA, "STATE_AA_CHANGING", "STATE_AA")
        seen = saw(phone)
        self.ask(AA, SWITCHED, devid="asked again")
        self.told(answered(AA, SWITCHED, devid="asked again"))
        self.assert_log(": already aoap$", times=1)
        self.went(2, "STATE_AA", "STATE_AA")
        self.refused(ANDROID_CARLIFE, SWITCHED)
        self.assert_log("port2 STATE_AA, so can't change$", times=1)
        self.assertEqual(saw(phone), seen)

    def test_a_phone_goes_to_carlife_with_other_names_and_another_result(self):
        self.start()
        phone = self.plugged()
        self.switched(ANDROID_CARLIFE, "STATE_CL_CHANGING", "STATE_CL")
        self.assertEqual(self.timers(), STARTED + LEFT_FOR_A_WHILE + RETURNED)
        # The folders of these numbers are those of another board.
        self.assert_log("busno:-1 devno:-1 port:2 interfaceId:3111$", times=1)
        self.assertEqual(saw(phone), [PROTOCOL] + START_CARLIFE)
        self.ask(ANDROID_CARLIFE, SWITCHED)
        self.told(answered(ANDROID_CARLIFE, SWITCHED))
        self.assert_log(": already aoap$", times=1)
        self.pulled_in("STATE_CL", phone)
        self.assertEqual(saw(phone), [PROTOCOL] + START_CARLIFE)

    def test_a_phone_that_comes_as_an_accessory_is_in_android_auto_at_once_and_is_asked_nothing(self):
        self.start()
        phone = self.unit.plug("1.2", Phone("android", starts="accessory"))
        self.told(came(ARRIVED))
        self.went(2, "STATE_DETACH", "STATE_AA")
        self.assert_log(": aoap mode$", times=1)
        self.ask(AA, ARRIVED)
        self.told(answered(AA, ARRIVED))
        self.pulled_in("STATE_AA", phone, ARRIVED)
        self.assertEqual(saw(phone), [])

    def test_an_accessory_with_audio_is_an_accessory_as_well(self):
        audio = dataclasses.replace(ARRIVED, pid=0x2D05)
        self.start()
        phone = self.unit.plug("1.2", Phone("android", starts="accessory", modes={"accessory": {"pid": 0x2D05}}))
        self.told(came(audio))
        self.went(2, "STATE_DETACH", "STATE_AA")
        self.assertEqual(saw(phone), [])

    def test_a_phone_without_a_serial_is_named_after_its_ids_which_change_with_its_mode(self):
        nameless = dataclasses.replace(ANDROID, serial="18d1_4ee7")
        accessory = dataclasses.replace(SWITCHED, serial="18d1_2d00")
        self.start()
        phone = self.plugged(nameless, serial="")
        self.ask(AA, nameless)
        self.told(left_the_bus(), state_told(accessory), answered(AA, accessory))
        self.went(2, "STATE_ATTACH", "STATE_AA_CHANGING", "STATE_AA")
        self.assertEqual(saw(phone), [PROTOCOL] + START_AA)
        self.pulled_in("STATE_AA", phone, accessory)


class NotSwitched(AndroidRoad):
    def test_a_phone_with_protocol_0_can_by_its_answer_but_is_not_introduced_to(self):
        self.start()
        phone = self.plugged(answers={"protocol": b"\0\0"})
        self.refused(AA)
        self.assertEqual(saw(phone), [PROTOCOL, PROTOCOL])
        self.assert_log("succeed to get protocol \\(ver=0\\)$", times=1)
        self.refused(ANDROID_CARLIFE)
        self.assertEqual(saw(phone), [PROTOCOL] * 3)
        self.pulled(phone)

    def test_a_phone_that_answers_one_byte_cannot_and_is_not_introduced_to(self):
        self.start()
        phone = self.plugged(MUTE, answers={"protocol": b"\1"})
        self.assertEqual([one.answer for one in phone.transfers()], ["01"])
        self.refused(AA, MUTE)
        self.assertEqual(saw(phone), [PROTOCOL, PROTOCOL])
        self.assert_log("failed to getAOAPProtocol$", times=1)
        self.pulled(phone, MUTE)

    def test_a_phone_that_does_not_know_the_protocol_cannot(self):
        self.start()
        phone = self.plugged(MUTE, answers={"protocol": "stall"})
        self.assert_log("not support, failed to get protocol with the error:LIBUSB_ERROR_PIPE$", times=1)
        self.refused(AA, MUTE)
        self.assertEqual(saw(phone), [PROTOCOL, PROTOCOL])
        self.pulled(phone, MUTE)

    def stopped_at(self, request, sent, name, **answers):
        """A request ends with the text that the phone does not take."""
        self.start()
        phone = self.plugged(answers=answers)
        self.refused(request)
        self.assertEqual(saw(phone), [PROTOCOL, PROTOCOL] + sent)
        self.assertEqual([one.answer for one in phone.transfers()][2:], ["ok"] * (len(sent) - 1) + ["stall"])
        self.assert_log(f"failed to Send {name}$", times=1)
        self.pulled(phone)

    def test_after_a_model_that_the_phone_does_not_take_nothing_is_sent(self):
        self.stopped_at(AA, AA_NAMES[:2], "kAccessoryModelName", model="stall")

    def test_after_a_description_that_the_phone_does_not_take_nothing_is_sent(self):
        self.stopped_at(AA, AA_NAMES[:3], "kAccessoryDescription", description="stall")

    def test_after_a_carlife_description_that_the_phone_does_not_take_nothing_is_sent(self):
        self.stopped_at(ANDROID_CARLIFE, CARLIFE_NAMES[:3], "kCarLifeAccessoryDescription", description="stall")

    def test_a_phone_that_does_not_take_the_start_stays_attached(self):
        self.stopped_at(AA, AA_NAMES + [START], "ACCESSORY_START", start="stall")


if __name__ == "__main__":
    main()
