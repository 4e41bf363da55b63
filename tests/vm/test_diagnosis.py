#!/usr/bin/python3
"""What vehicle diagnosis sets, coding and adaption, and who then hears of what is plugged; and the test interface."""
import re

from asking import AskingRoad
from overcurrents import PRESENT, REPORTED
from phones import AA, ANDROID, CARPLAY, as_accessory, left_the_bus
from road import (CONTROLLER, DETACHED, HUB_HEALTHY, Plugged, SCAN_BEGINS, SCAN_ENDS, START_REPORTS, Stick, Volume,
                  attached, came, detached, event_told, left, main, mounted, state_told, to, together, usbrecords)
from headunit import Phone

GATED = ("media", "speech", "navi")   # of the listeners to storage; in the order of the log's lines
ALL_GATED = "sdcm", *GATED            # diagnosis and the other six listeners are not
ACTIVE, INACTIVE = 1, 2
ACCESSORY = as_accessory(ANDROID)
SERIALS = {1: "FIRST", 2: "SECOND"}


def without(told, *receivers):
    return {receiver: records for receiver, records in told.items() if receiver not in receivers}


def stick_on(port):
    return Plugged(port=port, serial=SERIALS[port])


class DiagnosisRoad(AskingRoad):
    def plug_stick(self, port):
        return self.unit.plug(f"1.{port}", Stick(self.one, serial=SERIALS[port], read_only=True))

    def ask_by_diagnosis(self, request, last_line):
        since = self.unit.mark()
        self.unit.send("diag", request)
        self.unit.wait_log(last_line, since=since)
        self.told()     # nobody is told, diagnosis neither

    def set_coding(self, coding):
        self.ask_by_diagnosis(usbrecords.coding(coding), f"SetUsbCoding: usb_coding is {coding}")
        self.assert_log(f"media usb configuration: {coding}$", times=1)

    def set_adaption(self, *ports):
        """Of ports 1 and 2; the two that the unit does not have are active."""
        ports += ACTIVE, ACTIVE
        self.ask_by_diagnosis(usbrecords.adaption(*ports), "SetUsbAdaption: usb_adaption of port4 is 1")
        bits = " ".join(f"interface_{i}:{int(value == ACTIVE)}" for i, value in enumerate(ports, 1))
        self.assert_log(f"activiation for hub {bits}$", times=1)
        for port, value in enumerate(ports, 1):
            self.assert_log(f"SetUsbAdaption: usb_adaption of port{port} is {value}$", times=1)

    def kept_back(self, *lines):
        """Exactly these were not sent in the last step. Of several threads, so in no order."""
        found = [re.search(r" (\w+: not send (?:to \w+ )?because of .*)$", one.text)
                 for one in self.unit.logs(self._step)]
        self.assertEqual(sorted(one[1] for one in found if one), sorted(lines), self.heard())


def refused(port, adaption, coding):
    return f"not active port{port} adaption({adaption}) or invalid coding({coding})"


def not_to_sdcm(port, adaption, coding):
    return f"Push2SDCM: not send because of {refused(port, adaption, coding)}"


def no_usb_packet(port, adaption, coding):
    return f"Send: not send because of {refused(port, adaption, coding)}"


def no_storage_packet(port, adaption, coding):
    """Of one packet: each gated listener has its line."""
    return [f"Send: not send to {receiver} because of {refused(port, adaption, coding)}" for receiver in GATED]


def not_queued(queue, port):
    return f"{queue}: not send because of not active port{port} adaption(2)"


class Coding(DiagnosisRoad):
    def walk(self, coding, port, silent):
        """A stick on that port, then a phone on port 2. silent: who hears nothing."""
        self.start()
        self.set_coding(coding)
        stick, volume = stick_on(port), Volume(port=port)
        to_sdcm = [not_to_sdcm(port, 0, coding)] if "sdcm" in silent else []
        packet = no_storage_packet(port, 0, coding) if "media" in silent else []
        plugged = self.plug_stick(port)
        self.told(without(together(came(stick), attached(port=port), mounted(volume)), *silent))
        self.kept_back(*to_sdcm, *packet, *packet)
        self.unit.unplug(plugged)
        self.told(without(together(detached(volume), left(stick)), *silent))
        self.kept_back(*to_sdcm, *packet)

        to_sdcm = [not_to_sdcm(2, 0, coding)] if "sdcm" in silent else []
        packet = [no_usb_packet(2, 0, coding)] if "media" in silent else []
        phone = self.unit.plug("1.2", Phone("android"))
        self.told(without(came(ANDROID), *silent))
        self.kept_back(*to_sdcm, *packet)
        self.went(2, "STATE_DETACH", "STATE_ATTACH")
        self.unit.unplug(phone)
        self.told(without(left(ANDROID), *silent))
        self.kept_back(*to_sdcm, *packet)
        self.went(2, "STATE_ATTACH", "STATE_DETACH")

    def test_0_tells_diagnosis_and_six_listeners_of_storage_only(self):
        self.walk(0, port=1, silent=ALL_GATED)

    def test_1_tells_sdcm_too(self):
        self.walk(1, port=2, silent=GATED)

    def test_2_tells_everybody(self):
        self.walk(2, port=1, silent=())

    def test_3_tells_everybody(self):
        self.walk(3, port=2, silent=())

    def test_it_counts_from_the_next_record_on_and_a_restart_forgets_it(self):
        stick, volume = stick_on(1), Volume(port=1)
        self.start()
        plugged = self.plug_stick(1)
        self.told(came(stick), attached(port=1), mounted(volume))
        self.set_coding(0)
        self.unit.unplug(plugged)
        self.told(without(together(detached(volume), left(stick)), *ALL_GATED))
        self.unit.stop_service()
        self.start()
        self.plug_stick(1)
        self.told(came(stick), attached(port=1), mounted(volume))
        self.kept_back()

    def test_the_end_of_the_scan_passes_with_coding_0_and_what_it_finds_does_not(self):
        stick, volume = stick_on(1), Volume(port=1)
        self.plug_stick(1)
        self.unit.wait_path("/sys/block/sda/sda1")
        # The scan hangs at the first device while nobody answers what its manufacturer is.
        slow = f"/sys{CONTROLLER}/usb1/manufacturer"
        self.unit.run(f"mkfifo /run/slow && mount --bind /run/slow {slow}")
        self.addCleanup(self.unit.run, f"umount -l {slow}; rm /run/slow")
        self.start(START_REPORTS, SCAN_BEGINS)
        self.set_coding(0)
        self.set_adaption(INACTIVE, INACTIVE)
        self.unit.run("echo Linux > /run/slow")
        self.told(SCAN_ENDS, state_told(stick), HUB_HEALTHY,
                  without(together(attached(port=1), mounted(volume)), *ALL_GATED))
        packet = no_storage_packet(1, 2, 0)
        self.kept_back(not_queued("Push2USB", 1), *packet, *packet)


class Adaption(DiagnosisRoad):
    def walk(self, inactive):
        """A stick on the inactive port and one on the other, then both once more when both are active again."""
        active = 3 - inactive
        stick, volume = stick_on(inactive), Volume(port=inactive)
        other, other_volume = stick_on(active), Volume(port=active)
        self.start()
        self.set_adaption(*(INACTIVE if port == inactive else ACTIVE for port in (1, 2)))
        one = self.plug_stick(inactive)
        self.told(without(together(came(stick), attached(port=inactive), mounted(volume)), *ALL_GATED))
        packet = no_storage_packet(inactive, 2, 3)
        self.kept_back(not_queued("Push2USB", inactive), *packet, *packet)
        self.went(inactive)
        two = self.plug_stick(active)
        self.told(came(other), attached(port=active), mounted(other_volume))
        self.kept_back()
        self.assertEqual(len(self.mounts()), 2)
        self.unit.unplug(one)
        self.told(without(together(detached(volume), left(stick)), *ALL_GATED))
        self.kept_back(not_queued("Push2USB", inactive), *packet)
        self.unit.unplug(two)
        self.told(detached(other_volume), left(other))
        self.kept_back()

        self.set_adaption(ACTIVE, ACTIVE)
        one = self.plug_stick(inactive)
        self.told(came(stick), attached(port=inactive), mounted(volume))
        self.unit.unplug(one)
        self.told(detached(volume), left(stick))
        self.kept_back()

    def test_port_1_without_and_with(self):
        self.walk(inactive=1)

    def test_port_2_without_and_with(self):
        self.walk(inactive=2)

    def test_a_removal_that_was_dropped_leaves_the_port_attached_and_the_next_device_unannounced(self):
        stick, volume = stick_on(1), Volume(port=1)
        self.start()
        plugged = self.plug_stick(1)
        self.told(came(stick), attached(port=1), mounted(volume))
        self.set_adaption(INACTIVE, ACTIVE)
        self.unit.unplug(plugged)
        self.told(without(together(detached(volume), left(stick)), *ALL_GATED))
        self.kept_back(not_queued("Push2USB", 1), *no_storage_packet(1, 2, 3))
        self.went(1)
        self.set_adaption(ACTIVE, ACTIVE)
        plugged = self.plug_stick(1)
        self.told(state_told(stick), attached(port=1), mounted(volume))
        self.assert_log("port1 STATE_ATTACH, so not send$", times=1)
        self.kept_back()
        self.unit.unplug(plugged)
        self.told(detached(volume), left(stick))
        self.went(1, "STATE_ATTACH", "STATE_DETACH")
        self.plug_stick(1)
        self.told(came(stick), attached(port=1), mounted(volume))

    def test_a_mode_change_on_a_port_that_became_inactive_is_seen_by_nobody_and_ends_when_the_phone_leaves(self):
        self.start()
        phone = self.plug_android()
        self.set_adaption(ACTIVE, INACTIVE)
        self.ask(CARPLAY, ANDROID)
        self.told()
        self.kept_back(not_to_sdcm(2, 2, 3))    # the refusal
        self.ask(AA, ANDROID)
        self.told(left_the_bus(), state_told(ACCESSORY))
        # The timer that is armed; then leaving and returning.
        self.kept_back(not_queued("Push2Umonitor", 2), not_queued("Push2USB", 2), not_queued("Push2USB", 2))
        self.went(2, "STATE_ATTACH", "STATE_AA_CHANGING")
        self.set_adaption(ACTIVE, ACTIVE)
        self.unit.unplug(phone)
        # Its port takes it for a phone on its way, and waits its three seconds.
        self.told(left_the_bus(), event_told(ACCESSORY, DETACHED))
        self.assertEqual(self.timers(), [("PushChTimeout", False, 2), ("PushCutting", True, 2)])
        self.went(2, "STATE_AA_CHANGING", "STATE_DETACH")
        self.kept_back()

    def test_an_over_current_of_an_inactive_port_starts_nothing(self):
        self.start()
        self.set_adaption(INACTIVE, ACTIVE)
        self.unit.report_overcurrent(1)
        # Media hears of them as of the hub's, whose port is 1.
        self.told()
        self.kept_back(not_queued("Push2Umonitor", 1), no_usb_packet(1, 2, 3))
        self.unit.report_overcurrent(2)
        self.told(PRESENT)
        self.kept_back(no_usb_packet(1, 2, 3))
        self.set_adaption(ACTIVE, INACTIVE)
        self.unit.report_overcurrent(2)
        self.told(REPORTED)
        self.kept_back(not_queued("Push2Umonitor", 2))


class MountCheck(DiagnosisRoad):
    def check(self, selector, path=None):
        """path: of the mount that is found; None: there is none."""
        self.unit.send("test", usbrecords.mount_check(selector))
        self.told(to(["test"], "mount_check_result", mounted=int(path is not None), mount_path=path or ""))
        node = "0x\\w+" if path else "\\(nil\\)"
        self.assert_log(f"usb{selector + 1} mount check node:{node}$", times=1)
        self.assert_log(f"SendMountCheckResult: result:{int(path is not None)} mnt_path:{path or '.null.'}$", times=1)

    def refuse(self, request, text):
        self.unit.send("test", request)
        self.told()
        self.assert_log(f": {text}$", times=1)

    def test_the_path_decides_and_below_the_vehicles_hub_it_is_the_first_selectors(self):
        first, second = Volume(port=1), Volume(port=2)
        self.start()
        self.check(0)
        self.check(1)
        one = self.plug_stick(1)
        self.told(came(stick_on(1)), attached(port=1), mounted(first))
        self.check(0, first.mount_path)
        self.check(1)
        self.plug_stick(2)
        self.told(came(stick_on(2)), attached(port=2), mounted(second))
        self.check(0, first.mount_path)     # the first of two in the list
        self.check(1)
        self.unit.unplug(one)
        self.told(detached(first), left(stick_on(1)))
        self.check(0, second.mount_path)
        self.check(1)

    def test_it_answers_whatever_diagnosis_has_set(self):
        volume = Volume(port=2)
        self.start()
        self.set_coding(0)
        self.set_adaption(INACTIVE, INACTIVE)
        self.check(0)
        self.plug_stick(2)
        self.told(without(together(came(stick_on(2)), attached(port=2), mounted(volume)), *ALL_GATED))
        self.check(0, volume.mount_path)
        self.check(1)

    def test_other_commands_and_selectors_are_refused_without_an_answer(self):
        self.start()
        for extra, selector in ((9, 0), (7, 1), (0, 0), (8, 2), (8, 255)):
            self.refuse(usbrecords.build("test_command", extra_command=extra, port=selector),
                        f"unknown extra_cmd:{extra} port:{selector}")
        whole = usbrecords.mount_check(0)
        self.refuse(whole[:3], "unknown extra_cmd:0 port:0")    # what is missing counts as zero
        self.refuse(b"\2\x31\3" + whole[3:], "unknown cmd")
        self.refuse(whole[:2], r"wrong size\(2\) or no str\(0x\w+\)")
        self.check(0)


if __name__ == "__main__":
    main()
