#!/usr/bin/python3
"""MirrorLink: one command to the phone, which then comes back with its network function, or does not."""
import dataclasses

from phones import (DONE, FAILED, MIRRORLINK, MIRRORLINK_COMMAND, PROTOCOL, PhoneRoad, SAMSUNG, answered, left_the_bus,
                    pulled_in_mode, saw, with_network)
from road import (DETACHED, HUB, Hub, MTP, Plugged, STORAGE, Stick, Volume, attached, came, detached,
                  event_told, hub_came, left, main, mounted, state_told, together)
from headunit import Phone

NETWORK = with_network(SAMSUNG)
LOADER = dataclasses.replace(SAMSUNG, vid=0x0525, pid=0xA4A0)               # the device that wants the command twice
HUB_ON_2 = Plugged(port=2, vid=0x0409, pid=0x55AA, dev_type=HUB, interface=(9, 0, 0), serial="HUB",
                   product="QEMU USB Hub")
ASKED = [PROTOCOL]                              # what an attached phone has seen
COMMANDED = [PROTOCOL, MIRRORLINK_COMMAND]


def returned(device, result=DONE):
    """A phone has left and come back as that device, and the answer is due."""
    return together(left_the_bus(), state_told(device), answered(MIRRORLINK, device, result))


class MirrorLinkRoad(PhoneRoad):
    def attach(self, device=SAMSUNG, **variant):
        """The service runs, and a phone is there."""
        self.start()
        phone = self.unit.plug("1.2", Phone("mirrorlink", **variant))
        self.told(came(device))
        self.went(2, "STATE_DETACH", "STATE_ATTACH")
        self.assertEqual(saw(phone), ASKED)
        return phone

    def refused(self, device=SAMSUNG):
        """The answer is 1, and the phone is still attached."""
        self.told(answered(MIRRORLINK, device, FAILED))
        self.went(device.port)

    def pulled(self, phone, device):
        """In MirrorLink."""
        self.unit.unplug(phone)
        self.told(pulled_in_mode(device))
        self.went(2, "STATE_ML", "STATE_DETACH")


class MirrorLink(MirrorLinkRoad):
    def test_a_phone_takes_the_command_and_comes_back_with_its_network_function(self):
        phone = self.attach()
        self.ask(MIRRORLINK, SAMSUNG)
        self.told(returned(NETWORK))
        self.went(2, "STATE_ATTACH", "STATE_ML_CHANGING", "STATE_ML")
        self.assertEqual(saw(phone), COMMANDED)
        self.assertEqual(self.timers(), [("PushChTimeout", True, 2), ("PushChTimeout", False, 2),
                                         ("PushCutting", True, 2), ("PushCutting", False, 2)])
        self.told_nothing(4)        # an ejection would be due
        self.pulled(phone, NETWORK)

    def test_a_phone_that_refuses_the_command_stays_attached_and_may_be_asked_again(self):
        phone = self.attach(answers={"mirrorlink": ["stall", "ok"]})
        self.ask(MIRRORLINK, SAMSUNG)
        self.refused()
        self.assert_log("error in LIBUSB_ERROR_PIPE$", times=1)
        self.assertEqual(self.timers(), [])
        self.assertEqual(saw(phone), COMMANDED)
        self.ask(MIRRORLINK, SAMSUNG, devid="asked again")
        self.told(left_the_bus(), state_told(NETWORK), answered(MIRRORLINK, NETWORK, devid="asked again"))
        self.went(2, "STATE_ATTACH", "STATE_ML_CHANGING", "STATE_ML")
        self.assertEqual(saw(phone), COMMANDED + [MIRRORLINK_COMMAND])

    def test_a_phone_that_comes_back_without_its_network_function_counts_as_switched(self):
        phone = self.attach(returns=["phone"])
        self.ask(MIRRORLINK, SAMSUNG)
        self.told(returned(SAMSUNG))
        self.went(2, "STATE_ATTACH", "STATE_ML_CHANGING", "STATE_ML")
        self.assertEqual(saw(phone), COMMANDED)
        self.pulled(phone, SAMSUNG)

    def test_a_phone_that_shows_its_network_function_already_is_switched_at_once(self):
        phone = self.attach(NETWORK, starts="network")
        self.ask(MIRRORLINK, NETWORK)
        self.told(answered(MIRRORLINK, NETWORK))
        self.assert_log("port2 already is ncm mode$", times=1)
        self.went(2, "STATE_ATTACH", "STATE_ML")
        self.assertEqual(saw(phone), ASKED)
        self.assertEqual(self.timers(), [])
        self.pulled(phone, NETWORK)

    def test_a_network_function_behind_a_hub_is_not_found_and_the_command_is_sent(self):
        # Deliberate: the node of a network function has the units digit of its port, and is sought by both.
        network = dataclasses.replace(NETWORK, port=32)
        self.start()
        self.unit.plug("1.2", Hub())
        self.told(hub_came(HUB_ON_2))
        phone = self.unit.plug("1.2.3", Phone("mirrorlink", starts="network", answers={"mirrorlink": "stall"}))
        self.told(came(network))
        self.unit.wait_path(self.unit.usb_path("1.2.3") + "/1-1.2.3:1.0/net")
        self.ask(MIRRORLINK, network)
        self.refused(network)
        self.assert_log("already is ncm mode", times=0)
        self.assertEqual(saw(phone), COMMANDED)

    def test_a_phone_in_mirrorlink_is_not_switched_again(self):
        phone = self.attach(NETWORK, starts="network")
        self.ask(MIRRORLINK, NETWORK)
        self.told(answered(MIRRORLINK, NETWORK))
        self.ask(MIRRORLINK, NETWORK)
        self.told(answered(MIRRORLINK, NETWORK, FAILED))
        self.assert_log("port2 STATE_ML, so can't change$", times=1)
        self.went(2)
        self.assertEqual(saw(phone), ASKED)


class Unanswered(MirrorLinkRoad):
    def test_a_phone_that_does_not_answer_the_command_is_given_a_second(self):
        phone = self.attach(answers={"mirrorlink": "never"})
        self.ask(MIRRORLINK, SAMSUNG)
        self.refused()
        self.assert_log("error in LIBUSB_ERROR_TIMEOUT$", times=1)
        commands = [one for one in phone.transfers() if one.setup == MIRRORLINK_COMMAND]
        self.assertEqual([one.answer for one in commands], ["never"])
        answer = [one for one in self.unit.records("sdcm") if one.time > commands[0].time][0]
        self.assertAlmostEqual(answer.time - commands[0].time, 1.0, delta=0.5)

    def test_a_phone_that_takes_the_command_and_stays_is_given_twenty_seconds(self):
        phone = self.attach(returns=["stays"])
        self.ask(MIRRORLINK, SAMSUNG)
        self.told_nothing(18)
        self.went(2, "STATE_ATTACH", "STATE_ML_CHANGING")
        self.told(answered(MIRRORLINK, SAMSUNG, FAILED))
        self.went(2, "STATE_ML_CHANGING", "STATE_ATTACH")
        self.assertEqual(saw(phone), COMMANDED)

    def test_a_phone_that_takes_the_command_and_never_returns_is_detached_after_three_seconds(self):
        phone = self.attach(returns=["never"])
        self.ask(MIRRORLINK, SAMSUNG)
        self.told(left_the_bus(), event_told(SAMSUNG, DETACHED))
        self.went(2, "STATE_ATTACH", "STATE_ML_CHANGING", "STATE_DETACH")
        self.assertEqual(saw(phone), COMMANDED)
        self.assert_log("E_HUB_PORT_STATUS_DISCONNECTED", times=1)
        detach = self.unit.records("sdcm")[-1]
        self.assertAlmostEqual(detach.time - phone.wait("left").time, 3.3, delta=0.6)


class CommandedTwice(MirrorLinkRoad):
    """The loader, 0525:a4a0, gets the command twice, and the second result counts."""

    def attach_loader(self, *answers):
        network = {"vid": 0x0525, "pid": 0xA4A0}
        # It leaves late enough to hear the command for the second time.
        return self.attach(LOADER, vid=0x0525, pid=0xA4A0, modes={"network": network}, leaves_after=1500,
                           answers={"mirrorlink": list(answers)})

    def asked(self, phone, *answers):
        self.assertEqual(saw(phone), COMMANDED + [MIRRORLINK_COMMAND])
        self.assertEqual([one.answer for one in phone.transfers()[1:]], list(answers))
        self.assert_log("duplicate command$", times=1)

    def test_it_is_switched_when_it_takes_both(self):
        phone = self.attach_loader("ok")
        self.ask(MIRRORLINK, LOADER)
        self.told(returned(dataclasses.replace(LOADER, interface=(2, 6, 0))))
        self.went(2, "STATE_ATTACH", "STATE_ML_CHANGING", "STATE_ML")
        self.asked(phone, "ok", "ok")

    def test_it_is_switched_when_it_refuses_the_first(self):
        phone = self.attach_loader("stall", "ok")
        self.ask(MIRRORLINK, LOADER)
        self.told(returned(dataclasses.replace(LOADER, interface=(2, 6, 0))))
        self.went(2, "STATE_ATTACH", "STATE_ML_CHANGING", "STATE_ML")
        self.asked(phone, "stall", "ok")
        self.assert_log("error in LIBUSB_ERROR_PIPE$", times=1)

    def test_it_is_refused_when_it_refuses_the_second_and_what_it_does_then_is_a_detach_and_an_attach(self):
        network = dataclasses.replace(LOADER, interface=(2, 6, 0))
        phone = self.attach_loader("ok", "stall")
        self.ask(MIRRORLINK, LOADER)
        self.told(answered(MIRRORLINK, LOADER, FAILED), left(LOADER), came(network))
        self.went(2, "STATE_ATTACH", "STATE_DETACH", "STATE_ATTACH")
        self.assertEqual(saw(phone), COMMANDED + [MIRRORLINK_COMMAND, PROTOCOL])
        self.assertEqual([one.answer for one in phone.transfers()[1:3]], ["ok", "stall"])
        self.assert_log("duplicate command$", times=1)

    def test_an_ordinary_phone_gets_it_once(self):
        self.attach(answers={"mirrorlink": "stall"})
        self.ask(MIRRORLINK, SAMSUNG)
        self.refused()
        self.assert_log("duplicate command", times=0)


class NoPhones(MirrorLinkRoad):
    """MirrorLink may be asked of a media player and of storage; a phone on the same port of the unit goes first."""

    STICK = Plugged(port=12)
    VOLUME = Volume(port=2)

    def switched(self, device, function, seen):
        """Comes back as a phone: nobody hears of a network function whose vendor makes no phones."""
        self.start()
        modes = {"phone": {"vid": device.vid, "pid": device.pid, "configurations": [[function]]}}
        phone = self.unit.plug("1.2", Phone("mirrorlink", modes=modes))
        self.told(came(device))
        self.assertEqual(saw(phone), seen)
        self.ask(MIRRORLINK, device)
        self.told(returned(NETWORK))
        self.went(2, "STATE_ATTACH", "STATE_ML_CHANGING", "STATE_ML")
        self.assertEqual(saw(phone), seen + [MIRRORLINK_COMMAND])
        self.pulled(phone, NETWORK)

    def test_a_media_player_is_switched(self):
        self.switched(dataclasses.replace(SAMSUNG, dev_type=MTP, interface=(6, 1, 1)), "mtp", ASKED)

    def test_storage_is_switched_and_was_not_asked_for_anything_before(self):
        self.switched(dataclasses.replace(SAMSUNG, vid=0x1234, dev_type=STORAGE, interface=(8, 6, 0x50)), "storage", [])

    def test_a_stick_refuses_but_is_not_asked_while_a_phone_hangs_on_the_same_port(self):
        phone_on_32 = dataclasses.replace(SAMSUNG, port=32)
        self.start()
        self.unit.plug("1.2", Hub())
        self.told(hub_came(HUB_ON_2))
        stick = self.unit.plug("1.2.1", Stick(self.one))
        self.told(came(self.STICK), attached(port=2), mounted(self.VOLUME))
        self.ask(MIRRORLINK, self.STICK)
        self.refused(self.STICK)
        self.assert_log("error in LIBUSB_ERROR_PIPE$", times=1)

        phone = self.unit.plug("1.2.3", Phone("mirrorlink"))
        self.told(came(phone_on_32))
        self.ask(MIRRORLINK, self.STICK)
        self.refused(self.STICK)
        self.assert_log(r"vid\(46f4 4e8\) or pid\(1 6860\) is different$", times=1)
        self.assert_log("android device doesn't exist$", times=1)
        self.assert_log("error in LIBUSB_ERROR", times=0)
        self.assertEqual(saw(phone), ASKED)
        self.unit.unplug(stick)
        self.told(detached(self.VOLUME), left(self.STICK))


if __name__ == "__main__":
    main()
