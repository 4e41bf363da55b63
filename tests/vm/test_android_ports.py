#!/usr/bin/python3
"""Android phones on their ports: pulled in each state, two equal ones, and one behind a customer's hub."""
import dataclasses

from android import AndroidRoad, TIMERS_OF_A_DETACH, HUB_ON_2, LEFT_FOR_A_WHILE
from phones import (AA, ANDROID, ANDROID_CARLIFE, MIRRORLINK, MIRRORLINK_COMMAND, PROTOCOL, START_AA, START_CARLIFE,
                    answered, as_accessory, left_the_bus, pulled_in_mode, saw)
from road import Hub, PHONE, Plugged, came, hub_came, hub_left, left, main, state_told
from headunit import Phone


class Pulled(AndroidRoad):
    """For good, in each state that a phone can be in without a reset."""
    SAMSUNG = Plugged(port=2, vid=0x04E8, pid=0x6860, dev_type=PHONE, interface=(0xFF, 0x42, 0x01),
                      serial="4DF1A2B3C4D5E6F7", product="GT-I9300", manufacturer="SAMSUNG")
    NETWORK = dataclasses.replace(SAMSUNG, pid=0x6863, interface=(2, 6, 0))

    def test_attached(self):
        self.start()
        phone = self.plugged()
        self.pulled(phone)
        self.assertEqual(self.timers(), TIMERS_OF_A_DETACH)

    def test_in_android_auto(self):
        self.start()
        phone = self.plugged()
        self.switched(AA, "STATE_AA_CHANGING", "STATE_AA")
        self.pulled_in("STATE_AA", phone)

    def test_in_carlife(self):
        self.start()
        phone = self.plugged()
        self.switched(ANDROID_CARLIFE, "STATE_CL_CHANGING", "STATE_CL")
        self.pulled_in("STATE_CL", phone)

    def test_in_mirrorlink(self):
        self.start()
        phone = self.unit.plug("1.2", Phone("mirrorlink"))
        self.told(came(self.SAMSUNG))
        self.ask(MIRRORLINK, self.SAMSUNG)
        self.told(left_the_bus(), state_told(self.NETWORK), answered(MIRRORLINK, self.NETWORK))
        self.pulled_in("STATE_ML", phone, self.NETWORK)

    def pulled_while(self, changing, phone, device, request, transfers):
        """The phone has taken the request and is pulled before it leaves by itself: about 3 s later it is detached."""
        self.ask(request, device)
        self.unit.wait_log(f"STATE_ATTACH->{changing}", since=self._heard)
        self.told()
        self.assertEqual(saw(phone), transfers)
        self.unit.unplug(phone)
        self.told(pulled_in_mode(device))
        self.went(2, changing, "STATE_DETACH")
        self.assertEqual(self.timers(), LEFT_FOR_A_WHILE)
        self.assert_log("CheckEjection: deferred ejection$", times=1)

    def test_while_it_changes_to_android_auto(self):
        self.start()
        phone = self.plugged(returns=["stays"])
        self.pulled_while("STATE_AA_CHANGING", phone, ANDROID, AA, [PROTOCOL] + START_AA)

    def test_while_it_changes_to_carlife(self):
        self.start()
        phone = self.plugged(returns=["stays"])
        self.pulled_while("STATE_CL_CHANGING", phone, ANDROID, ANDROID_CARLIFE, [PROTOCOL] + START_CARLIFE)

    def test_while_it_changes_to_mirrorlink(self):
        self.start()
        phone = self.unit.plug("1.2", Phone("mirrorlink", returns=["stays"]))
        self.told(came(self.SAMSUNG))
        self.pulled_while("STATE_ML_CHANGING", phone, self.SAMSUNG, MIRRORLINK, [PROTOCOL, MIRRORLINK_COMMAND])


class TwoEqualPhones(AndroidRoad):
    """Their ids are the same: only the port tells which one is meant."""

    def plugged_both(self, serials):
        on_1, on_2 = [dataclasses.replace(ANDROID, port=port, serial=serial) for port, serial in enumerate(serials, 1)]
        self.start()
        first = self.plugged(on_1, "1.1", serial=on_1.serial)
        second = self.plugged(on_2, "1.2", serial=on_2.serial)
        return (first, on_1), (second, on_2)

    def each_is_switched_on_its_own_port(self, one, other):
        (phone, device), (other_phone, other_device) = one, other
        self.switched(AA, "STATE_AA_CHANGING", "STATE_AA", device)
        self.went(other_device.port)
        self.assertEqual((saw(phone), saw(other_phone)), ([PROTOCOL] + START_AA, [PROTOCOL]))
        self.switched(ANDROID_CARLIFE, "STATE_CL_CHANGING", "STATE_CL", other_device)
        self.went(device.port)
        self.assertEqual((saw(phone), saw(other_phone)), ([PROTOCOL] + START_AA, [PROTOCOL] + START_CARLIFE))
        self.pulled_in("STATE_AA", phone, as_accessory(device))
        self.pulled_in("STATE_CL", other_phone, as_accessory(other_device))

    def test_with_serials_of_their_own_the_first_is_switched_before_the_second(self):
        first, second = self.plugged_both(["FIRST", "SECOND"])
        self.each_is_switched_on_its_own_port(first, second)

    def test_with_the_same_serial_the_second_is_switched_before_the_first(self):
        first, second = self.plugged_both(["SAME", "SAME"])
        self.each_is_switched_on_its_own_port(second, first)


class BehindAHub(AndroidRoad):
    """Port 32: transfers go to the phone on port 3 of a hub, everything else concerns port 2 of the unit."""
    ON_32 = dataclasses.replace(ANDROID, port=32)
    ON_42 = dataclasses.replace(ANDROID, port=42, serial="BESIDE")

    def start_with_hub(self):
        self.start()
        hub = self.unit.plug("1.2", Hub())
        self.told(hub_came(HUB_ON_2))
        return hub

    def test_a_phone_is_switched_and_media_knows_it_by_the_units_port(self):
        hub = self.start_with_hub()
        phone = self.plugged(self.ON_32, "1.2.3")
        beside = self.plugged(self.ON_42, "1.2.4", serial="BESIDE")
        self.switched(AA, "STATE_AA_CHANGING", "STATE_AA", self.ON_32)
        self.assert_log("ModulateMsg: port 32 > 32$", times=1)
        self.assert_log("StartAOAP: v:18d1 p:4ee7 port:3$", times=1)
        self.assertEqual(self.timers(), [("PushChTimeout", True, 32), ("PushChTimeout", False, 32),
                                         ("PushCutting", True, 32), ("PushCutting", False, 32)])
        self.went(2)
        self.assertEqual((saw(phone), saw(beside)), ([PROTOCOL] + START_AA, [PROTOCOL]))
        self.pulled_in("STATE_AA", phone, as_accessory(self.ON_32))
        self.pulled(beside, self.ON_42)
        self.unit.unplug(hub)
        self.told(hub_left(HUB_ON_2))

    def test_a_search_does_not_find_it(self):
        self.start_with_hub()
        self.plugged(self.ON_32, "1.2.3")
        self.search_from_sdcm()
        self.told()
        self.search_from_media()
        self.told()
        self.assert_log("ProcessSearch: port_state is null$", times=2)     # ports 1 and 2, exactly

    def test_a_hub_that_is_pulled_takes_it_along(self):
        hub = self.start_with_hub()
        self.plugged(self.ON_32, "1.2.3")
        self.unit.unplug(hub)
        self.told(left(self.ON_32), hub_left(HUB_ON_2))
        self.went(32, "STATE_ATTACH", "STATE_DETACH")


if __name__ == "__main__":
    main()
