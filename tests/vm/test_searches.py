#!/usr/bin/python3
"""A search of SDCM, and one of media, in each state of a port."""
import dataclasses

from asking import CHARGING, AskingRoad, HUB_ON_2
from phones import (AA, ANDROID, ANDROID_CARLIFE, APPLE_CARLIFE, CARPLAY, IPHONE, MIRRORLINK, RESET, answered,
                    as_accessory, left_the_bus)
from road import (APPLE_SHUTTLE, ATTACH, ATTACHED, DETACHED, Hub, Keyboard, MTP, Mtp, NOT_SUPPORTED, PHONE, Plugged,
                  Stick, UNKNOWN, Volume, attached, came, device_told, event_told, hub_came, left, main, mounted,
                  together)
from headunit import Phone

# Phone("mirrorlink") with its network function.
NETWORK = Plugged(port=2, vid=0x04E8, pid=0x6863, dev_type=PHONE, interface=(2, 6, 0), serial="4DF1A2B3C4D5E6F7",
                  product="GT-I9300", manufacturer="SAMSUNG")


class Searches(AskingRoad):
    def search(self, sdcm=None, media=None, refused=()):
        """What each of them is told; `refused`: ends of log lines, the same for both."""
        for ask, answer in ((self.search_from_sdcm, sdcm), (self.search_from_media, media)):
            ask()
            self.told(answer or {})
            for text in refused:
                self.assert_log(text + "$", times=1)
            self.went(1)
            self.went(2)

    def search_one(self, device, media):
        """Of a device on port 2; media hears of it, or not."""
        self.search_from_sdcm()
        self.told(event_told(device, ATTACHED))
        self.search_from_media()
        self.told(device_told(device, ATTACH, 0, device.dev_type) if media else {})
        self.assert_log(f"port2 dev_type:{device.dev_type}, so not send$", times=0 if media else 1)
        self.went(2)

    def test_nothing_is_told_of_ports_that_never_had_a_device(self):
        self.start()
        for search in (self.search_from_sdcm, self.search_from_media):
            search()
            self.told()
            self.assert_log("ProcessSearch: port_state is null$", times=2)
        self.assert_log("SEARCH_PHONE dev_type:0 port:0$", times=1)

    def test_nothing_is_told_of_a_phone_that_has_left(self):
        self.start()
        self.unit.unplug(self.plug_iphone())
        self.told(left(IPHONE))
        self.search(refused=["port2 STATE_DETACH, so not send", "port_state is null"])

    def test_an_iphone_with_and_without_carplay_is_told_to_who_asks(self):
        self.start()
        phone = self.plug_charging()
        self.search_one(CHARGING, media=True)
        self.unit.unplug(phone)
        self.told(left(CHARGING))
        self.plug_iphone()
        self.search_one(IPHONE, media=True)

    def test_an_android_phone_is_told_to_sdcm_only_as_media_heard_when_it_came(self):
        self.start()
        self.plug_android()
        self.search_one(ANDROID, media=False)

    def test_a_media_player_is_told_to_who_asks(self):
        self.start()
        folder = self.folder / "player"
        folder.mkdir()
        player = Plugged(port=2, pid=0x0004, dev_type=MTP, interface=(6, 1, 1), serial="MTP",
                         product="QEMU filesharing")
        self.unit.plug("1.2", Mtp(folder))
        self.told(came(player))
        self.search_one(player, media=True)

    def test_a_shuttle_is_told_to_who_asks(self):
        self.unit.rewrite("1.2", "05ac:1300")
        self.start()
        shuttle = Plugged(port=2, vid=0x05AC, pid=0x1300, dev_type=APPLE_SHUTTLE, interface=(3, 1, 1),
                          serial="KEYBOARD", product="QEMU USB Keyboard",
                          capability=(NOT_SUPPORTED, NOT_SUPPORTED, UNKNOWN, NOT_SUPPORTED))
        self.unit.plug("1.2", Keyboard())
        self.told(came(shuttle))
        self.search_one(shuttle, media=True)

    def test_a_stick_is_told_to_sdcm_only(self):
        self.start()
        stick = Plugged(port=2)
        self.unit.plug("1.2", Stick(self.one))
        self.told(came(stick), attached(port=2), mounted(Volume(port=2)))
        self.search_one(stick, media=False)

    def test_both_ports_are_told_the_first_one_first(self):
        self.start()
        first = dataclasses.replace(CHARGING, port=1, serial="FIRST")
        self.plug_iphone()
        self.plug_charging(first)
        self.search(sdcm=together(event_told(first, ATTACHED), event_told(IPHONE, ATTACHED)),
                    media=together(*(device_told(one, ATTACH, 0, one.dev_type) for one in (first, IPHONE))))

    def test_nothing_is_told_of_phones_in_carplay_and_android_auto(self):
        self.start()
        self.plug_iphone()
        self.ask(CARPLAY, IPHONE)
        self.told(answered(CARPLAY, IPHONE))
        self.search(refused=["port2 STATE_CP_CHANGING, so not send", "port_state is null"])
        device = dataclasses.replace(ANDROID, port=1)
        self.plug_android(device)
        self.run_mode(AA, device, "STATE_AA", as_accessory(device))
        self.search(refused=["port1 STATE_AA, so not send", "port2 STATE_CP_CHANGING, so not send"])

    def test_nothing_is_told_of_an_iphone_in_carlife(self):
        self.start()
        self.plug_iphone()
        self.run_mode(APPLE_CARLIFE, IPHONE, "STATE_CL")
        self.search(refused=["port2 STATE_CL, so not send"])

    def test_nothing_is_told_of_an_android_phone_in_carlife(self):
        self.start()
        self.plug_android()
        self.run_mode(ANDROID_CARLIFE, ANDROID, "STATE_CL", as_accessory(ANDROID))
        self.search(refused=["port2 STATE_CL, so not send"])

    def test_nothing_is_told_of_a_phone_that_has_a_network_function(self):
        self.start()
        self.unit.plug("1.2", Phone("mirrorlink", starts="network"))
        self.told(came(NETWORK))
        self.run_mode(MIRRORLINK, NETWORK, "STATE_ML")
        self.search(refused=["port2 STATE_ML, so not send"])

    def test_nothing_is_told_of_a_phone_that_is_changing(self):
        first = dataclasses.replace(ANDROID, port=1)
        self.start()
        self.plug_android(first, returns=["stays"])
        self.plug_android(returns=["stays"])
        since = self.unit.mark()
        self.ask(AA, first)
        self.ask(ANDROID_CARLIFE, ANDROID)
        self.unit.wait_log("->STATE_CL_CHANGING", since=since)
        self.told()
        self.search(refused=["port1 STATE_AA_CHANGING, so not send", "port2 STATE_CL_CHANGING, so not send"])

    def test_nothing_is_told_of_a_phone_that_changes_to_mirrorlink(self):
        phone = dataclasses.replace(NETWORK, pid=0x6860, interface=(0xFF, 0x42, 0x01))
        self.start()
        self.unit.plug("1.2", Phone("mirrorlink", returns=["stays"]))
        self.told(came(phone))
        self.ask(MIRRORLINK, phone)
        self.unit.wait_log("->STATE_ML_CHANGING", since=self._heard)
        self.told()
        self.search(refused=["port2 STATE_ML_CHANGING, so not send"])

    def test_nothing_is_told_of_iphones_that_are_reset_and_do_not_leave(self):
        first = dataclasses.replace(CHARGING, port=1, serial="FIRST")
        self.start_without_two_port_hub()
        self.plug_iphone()
        self.plug_charging(first)
        self.run_mode(CARPLAY, IPHONE, "STATE_CP_CHANGING")
        self.run_mode(APPLE_CARLIFE, first, "STATE_CL")
        self.run_mode(RESET, IPHONE, "STATE_CP_RESETTING")
        self.run_mode(RESET, first, "STATE_CL_RESETTING")
        self.search(refused=["port1 STATE_CL_RESETTING, so not send", "port2 STATE_CP_RESETTING, so not send"])

    def test_nothing_is_told_of_a_phone_that_is_reset_from_android_auto(self):
        self.start()
        phone = self.plug_android()
        self.run_mode(AA, ANDROID, "STATE_AA", as_accessory(ANDROID))
        self.search_in_reset(phone, as_accessory(ANDROID), "STATE_AA", "STATE_AA_RESETTING")

    def test_nothing_is_told_of_a_phone_that_is_reset_from_carlife(self):
        self.start()
        phone = self.plug_android()
        self.run_mode(ANDROID_CARLIFE, ANDROID, "STATE_CL", as_accessory(ANDROID))
        self.search_in_reset(phone, as_accessory(ANDROID), "STATE_CL", "STATE_CL_RESETTING")

    def test_nothing_is_told_of_a_phone_that_is_reset_from_mirrorlink(self):
        self.start()
        phone = self.unit.plug("1.2", Phone("mirrorlink", starts="network"))
        self.told(came(NETWORK))
        self.run_mode(MIRRORLINK, NETWORK, "STATE_ML")
        self.search_in_reset(phone, NETWORK, "STATE_ML", "STATE_ML_RESETTING")

    def search_in_reset(self, phone, device, running, resetting):
        """It is pulled meanwhile, so that there are three seconds for both searches."""
        since = self.unit.mark()
        self.ask(RESET, device)
        self.unit.wait_board("port 2 off")
        self.unit.unplug(phone)
        self.unit.wait_log("->" + resetting, since=since)
        self.search_from_sdcm()
        self.search_from_media()
        self.told(left_the_bus(), answered(RESET, device), event_told(device, DETACHED))
        self.went(2, running, resetting, "STATE_DETACH")
        self.assert_log(f"port2 {resetting}, so not send$", times=2)

    def test_nothing_is_told_of_an_iphone_in_carplay(self):
        second = dataclasses.replace(IPHONE, port=1, serial="SECOND")
        self.start()
        self.plug_iphone()
        self.run_mode(CARPLAY, IPHONE, "STATE_CP_CHANGING")
        self.plug_iphone(second, starts="carplay")    # with a tty, which is all that CarPlay waits for
        self.search(sdcm=event_told(second, ATTACHED), media=device_told(second, ATTACH, 0, second.dev_type),
                    refused=["port2 STATE_CP, so not send"])

    def test_a_phone_behind_a_hub_is_not_found(self):
        self.start()
        self.unit.plug("1.2", Hub())
        self.told(hub_came(HUB_ON_2))
        device = dataclasses.replace(IPHONE, port=32)
        self.unit.plug("1.2.3", Phone("iphone"))
        self.told(came(device))
        self.went(32, "STATE_DETACH", "STATE_CP_SUPPORT")
        # Its HID function counts for the unit's port, which has no device.
        self.assert_log("NotifyHidToUsb: msgID:22 port:2$", times=1)
        self.assert_log("ignore if not an apple device$", times=1)
        self.search(refused=["port_state is null", "port2 STATE_DETACH, so not send"])


if __name__ == "__main__":
    main()
