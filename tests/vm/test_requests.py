#!/usr/bin/python3
"""Requests that are refused or not answered, and what the engineering menu asks of a port."""
import dataclasses

from asking import CHARGING, AskingRoad
from phones import (AA, ANDROID, ANDROID_CARLIFE, APPLE_CARLIFE, CARPLAY, FAILED, IPHONE, MIRRORLINK, RESET, answered,
                    left_the_bus)
from road import Plugged, Stick, Volume, attached, came, left, main, mounted
import usbrecords

SWITCHES = (AA, MIRRORLINK, CARPLAY, ANDROID_CARLIFE, APPLE_CARLIFE)
REQUESTS = SWITCHES + (RESET,)
STICK = Plugged(port=1)


class WrongRequests(AskingRoad):
    def test_a_request_for_a_port_that_never_had_a_device_is_not_answered(self):
        self.start()
        self.plug_iphone()
        elsewhere = dataclasses.replace(IPHONE, port=1)
        for request in REQUESTS:
            self.ask(request, elsewhere)
            self.told()
            self.assert_log("ModulateMsg: port 1 > 1$", times=1)
            self.assert_log("ProcessMode: port_state is null$", times=1)

    def test_a_request_without_a_path_is_for_port_0_which_does_not_exist(self):
        self.start()
        self.plug_iphone()
        for request in REQUESTS:
            self.ask(request, IPHONE, devpath="")
            self.told()
            self.assert_log("ModulateMsg: port 2 > 0$", times=1)
            self.assert_log("port0 is invalid$", times=1)
            self.assert_log("ProcessMode: port_state is null$", times=1)

    def test_a_request_for_a_phone_that_has_left_is_refused(self):
        self.start()
        self.unit.unplug(self.plug_iphone())
        self.told(left(IPHONE))
        self.refuse(IPHONE, SWITCHES, "port2 STATE_DETACH, so can't change")
        self.refuse(IPHONE, [RESET], "port2 STATE_DETACH, so can't reset")

    def test_a_request_for_a_phone_whose_leaving_was_not_told_is_refused(self):
        self.start()
        phone = self.plug_iphone()
        self.pull_unheard(phone)
        self.refuse(IPHONE, [CARPLAY, APPLE_CARLIFE], "apple device doesn't exist")
        phone = self.plug_android(dataclasses.replace(ANDROID, port=1))
        self.pull_unheard(phone)
        device = dataclasses.replace(ANDROID, port=1)
        self.refuse(device, [AA, ANDROID_CARLIFE, MIRRORLINK], "android device doesn't exist")

    def pull_unheard(self, phone):
        """While its port is not active for the vehicle, what is said of it is dropped."""
        self.unit.send("diag", usbrecords.adaption(2, 2, 2, 2))
        self.unit.wait_log("usb_adaption of port4 is 2", since=self._heard)
        self.unit.unplug(phone)
        self.unit.settle(1)
        self.unit.send("diag", usbrecords.adaption(1, 1, 1, 1))
        self.unit.wait_log("usb_adaption of port4 is 1", since=self._heard)
        self.told(left_the_bus())
        self.went(2)

    def test_a_request_with_another_phones_ids_is_refused_and_answered_with_them(self):
        self.start()
        self.plug_charging()
        for changes in ({"vid": 0x18D1}, {"pid": 0x12A9}):
            other = dataclasses.replace(CHARGING, **changes)
            self.refuse(other, [APPLE_CARLIFE],
                        rf"vid\({other.vid:x} 5ac\) or pid\({other.pid:x} 12a8\) is different")
            self.assert_log("apple device doesn't exist$", times=1)

    def test_a_request_for_a_mode_of_the_other_kind_of_phone_is_refused(self):
        self.start()
        self.plug_charging()
        self.refuse(CHARGING, [AA, ANDROID_CARLIFE, MIRRORLINK], "android device doesn't exist")
        android = dataclasses.replace(ANDROID, port=1)
        phone = self.plug_android(android)
        self.refuse(android, [APPLE_CARLIFE], "apple device doesn't exist")
        self.refuse(android, [CARPLAY], "port1 STATE_ATTACH, so can't change")
        self.refuse(android, [RESET], "port1 STATE_ATTACH, so can't reset")
        self.assertEqual([one.request for one in phone.transfers()], [51])

    def test_a_phone_that_supports_carplay_is_not_switched_to_what_android_phones_run(self):
        self.start()
        self.plug_iphone()
        self.refuse(IPHONE, [AA, MIRRORLINK, ANDROID_CARLIFE], "port2 STATE_CP_SUPPORT, so can't change")
        self.refuse(IPHONE, [RESET], "port2 STATE_CP_SUPPORT, so can't reset")

    def test_nothing_is_done_while_a_carplay_reset_is_under_way(self):
        self.start_without_two_port_hub()      # it stays so
        self.plug_iphone()
        self.ask(CARPLAY, IPHONE)
        self.told(answered(CARPLAY, IPHONE))
        self.refuse(IPHONE, SWITCHES, "port2 STATE_CP_CHANGING, so can't change")
        self.ask(RESET, IPHONE)
        self.told(answered(RESET, IPHONE))
        self.went(2, "STATE_CP_CHANGING", "STATE_CP_RESETTING")
        self.refuse(IPHONE, SWITCHES, "port2 STATE_CP_RESETTING, so can't change")
        self.refuse(IPHONE, [RESET], "port2 STATE_CP_RESETTING, so can't reset")

    def test_a_request_is_answered_by_the_port_of_its_path_whatever_its_port_says(self):
        self.start()
        first = dataclasses.replace(CHARGING, port=1, serial="FIRST")
        self.plug_charging(first)
        self.plug_iphone()
        for port in (0, 1, 32, 255):
            # The record goes back with the port that was computed.
            self.ask(AA, IPHONE, port=port)
            self.told(answered(AA, IPHONE, FAILED))
            self.assert_log(f"ModulateMsg: port {port} > 2$", times=1)
            self.assert_log("port2 STATE_CP_SUPPORT, so can't change$", times=1)
        self.ask(CARPLAY, IPHONE, port=1)
        self.told(answered(CARPLAY, IPHONE))
        self.went(1)
        self.went(2, "STATE_CP_SUPPORT", "STATE_CP_CHANGING")

    def test_a_path_behind_a_hub_is_another_port(self):
        self.start()
        self.plug_iphone()
        self.ask(CARPLAY, dataclasses.replace(IPHONE, port=32), port=2)
        self.told()
        self.assert_log("ModulateMsg: port 2 > 32$", times=1)
        self.assert_log("ProcessMode: port_state is null$", times=1)
        self.went(2)

    def test_another_serial_and_another_path_on_the_port_are_remarked_only(self):
        self.start()
        self.plug_iphone()
        other = {"serial": "OTHER", "devpath": IPHONE.devpath + "/1-1.2:1.0"}
        # Behind a colon there is a '.' that reads as a hub's: that path is port 2 + 10 * 0.
        self.ask(CARPLAY, IPHONE, **other)
        self.told(answered(CARPLAY, IPHONE, **other))
        self.assert_log("why is difference\\? vid:5ac,5ac pid:12a8,12a8 serial:OTHER,00008030001A2B3C4D5E6F70 "
                        "devpath:\\S+/1-1.2/1-1.2:1.0,\\S+/1-1.2$", times=1)
        self.went(2, "STATE_CP_SUPPORT", "STATE_CP_CHANGING")

    def test_the_name_of_the_device_is_given_back(self):
        self.start()
        self.plug_iphone()
        for devid in ("", "x" * 31):
            self.ask(RESET, IPHONE, devid=devid)
            self.told(answered(RESET, IPHONE, FAILED, devid=devid))

    def test_a_stick_knows_no_mode_but_mirrorlink(self):
        self.start()
        self.unit.plug("1.1", Stick(self.one))
        volume = Volume(port=1)
        self.told(came(STICK), attached(port=1), mounted(volume))
        self.refuse(STICK, [AA, ANDROID_CARLIFE], "android device doesn't exist")
        self.refuse(STICK, [APPLE_CARLIFE], "apple device doesn't exist")
        self.refuse(STICK, [CARPLAY], "port1 STATE_ATTACH, so can't change")
        self.refuse(STICK, [MIRRORLINK], "error in LIBUSB_ERROR_PIPE")     # it was asked
        self.assertEqual(self.mounts(), [("/tmp/USB/PORT1/PART1", "/dev/sda1", "vfat")])


class EngineeringMenu(AskingRoad):
    def change(self, test1=0, test2=0, mode1=0, mode2=0):
        """What the menu's process writes; returns what the board hears of it."""
        begin = self.unit.now()
        since = self.unit.mark()
        self.unit.run(f"settings write shm_usb_cert {test1} {test2} {mode1} {mode2}")
        self.unit.wait_log(f">{test1} test_force_enable2:", since=since)
        self.told()
        return [text for _, text in self.unit.board_lines(begin)]

    def test_a_signal_test_is_switched_on_and_off_whatever_hangs_on_the_port(self):
        self.start()
        self.assertEqual(self.change(test2=1), ["port_sel <- 2", "testmode <- 4"])
        self.assert_log("port2 STATE_DETACH trigger:1$", times=1)
        self.plug_iphone()
        self.assertEqual(self.change(test1=1), ["port_sel <- 1", "testmode <- 4", "port_sel <- 2", "testmode <- 0"])
        self.assert_log("port1 STATE_DETACH trigger:1$", times=1)
        self.assert_log("port2 STATE_CP_SUPPORT trigger:0$", times=1)
        self.assertEqual(self.change(test1=2), [])
        self.assertEqual(self.change(), [])
        self.went(2)

    def test_a_hub_mode_is_chosen_during_carplay_only(self):
        self.start()
        self.plug_iphone()
        self.assertEqual(self.change(mode2=1), [])
        self.assert_log("port2 STATE_CP_SUPPORT, so can't change$", times=1)
        self.change()
        self.ask(CARPLAY, IPHONE)
        self.told(answered(CARPLAY, IPHONE))
        self.assertEqual(self.change(mode2=1), [])
        self.assert_log("port2 STATE_CP_CHANGING, so can't change$", times=1)
        self.change()
        first = dataclasses.replace(IPHONE, port=1, serial="FIRST")
        self.plug_iphone(first, starts="carplay")     # with a tty
        self.assertEqual(self.change(mode1=1, mode2=1), ["port_sel <- 2", "ka_hub_control <- 2"])
        self.assert_log("port1 STATE_CP_SUPPORT, so can't change$", times=1)
        self.assert_log("port2 STATE_CP mode:2$", times=1)
        self.assertEqual(self.change(), ["port_sel <- 2", "ka_hub_control <- 1"])
        self.assert_log("port2 STATE_CP mode:1$", times=1)
        self.went(2)


if __name__ == "__main__":
    main()
