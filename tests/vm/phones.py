"""A bench for roads of phones: what SDCM and media ask, what the phone sees of it, through which states its port goes.

    class Auto(PhoneRoad):
        def test_an_android_phone_goes_to_android_auto(self):
            self.start()
            phone = self.unit.plug("1.2", Phone("android"))
            self.told(came(ANDROID))
            self.ask(AA, ANDROID)
            self.told(left_the_bus(), state_told(ACCESSORY_ON_2), answered(AA, ACCESSORY_ON_2))
            self.went(2, "STATE_ATTACH", "STATE_AA_CHANGING", "STATE_AA")
            self.assertEqual(saw(phone), [PROTOCOL] + START_AA)
"""
import dataclasses
import re

from road import (APPLE, CONTROLLER, DETACHED, HUB_FAULTY, HUB_NOT_SUPPORTED, NOT_SUPPORTED, PHONE, Plugged, RoadTest,
                  SCAN, START_REPORTS, SUPPORTED, event_told, said_at, to, together)
import usbrecords

# Requests of SDCM, and the answer's id.
AA, MIRRORLINK, CARPLAY, ANDROID_CARLIFE, APPLE_CARLIFE, RESET = 12, 13, 14, 15, 16, 17
ANSWER = {AA: 5, MIRRORLINK: 6, CARPLAY: 7, ANDROID_CARLIFE: 8, APPLE_CARLIFE: 9, RESET: 10}
DONE, FAILED = 0, 1
SEARCH = 18

DEVID = "SDCM's name of it"

# --- phones as they show themselves ---
# Phone("android"), attached as a phone.
ANDROID = Plugged(port=2, vid=0x18D1, pid=0x4EE7, dev_type=PHONE, interface=(0xFF, 0x42, 0x01),
                  serial="0123456789ABCDEF", product="Nexus", manufacturer="Google",
                  capability=(SUPPORTED, SUPPORTED, NOT_SUPPORTED, NOT_SUPPORTED))
# Phone("mirrorlink"), attached as a phone.
SAMSUNG = Plugged(port=2, vid=0x04E8, pid=0x6860, dev_type=PHONE, interface=(0xFF, 0x42, 0x01),
                  serial="4DF1A2B3C4D5E6F7", product="GT-I9300", manufacturer="SAMSUNG")
# Phone("iphone"), which knows CarPlay.
IPHONE = Plugged(port=2, vid=0x05AC, pid=0x12A8, dev_type=APPLE, interface=(3, 0, 0),
                 serial="00008030001A2B3C4D5E6F70", product="iPhone", manufacturer="Apple Inc.",
                 capability=(NOT_SUPPORTED, NOT_SUPPORTED, SUPPORTED, NOT_SUPPORTED))


def as_accessory(device):
    """The same Android phone after it has switched. What it can do was found out before and is kept."""
    return dataclasses.replace(device, pid=0x2D00, interface=(0xFF, 0xFF, 0x00))


def with_network(device):
    """The same MirrorLink phone after it has switched."""
    return dataclasses.replace(device, pid=0x6863, interface=(2, 6, 0))


# --- transfers, as Transfer.setup has them: type, request, value, index, data ---
TO_PHONE, FROM_PHONE = 0x40, 0xC0
PROTOCOL = (FROM_PHONE, 51, 0, 0, b"")
START = (TO_PHONE, 53, 0, 0, b"")
CARPLAY_QUERY = (FROM_PHONE, 0x53, 0, 0, b"")
MIRRORLINK_COMMAND = (TO_PHONE, 0xF0, 0x0101, 0x1004, b"")


def introduced(*texts):
    """The names that a phone is told, each with its end."""
    return [(TO_PHONE, 52, 0, index, text.encode() + b"\0") for index, text in enumerate(texts)]


AA_NAMES = introduced("Android", "Android Open Automotive Protocol", "Android Open Automotive Protocol", "1.0",
                      "https://www.android.com", "0000000012345678")
CARLIFE_NAMES = introduced("Baidu", "CarLife", "Baidu CarLife", "1.0.0", "https://carlife.baidu.com",
                           "0720000012345678")
START_AA = [PROTOCOL] + AA_NAMES + [START]
START_CARLIFE = [PROTOCOL] + CARLIFE_NAMES + [START]


def saw(phone, since=0):
    """The vendor requests that a phone saw, in order."""
    return [one.setup for one in phone.transfers(since)]


# --- records ---

def left_the_bus():
    """Diagnosis hears that a device left; whatever the port makes of it."""
    return to(["diag"], "diag_device_state", power=0xFF, speed=0xFF, usb_class=0xFF, sub_class=0xFF, protocol=0xFF,
              vid=0xFFFF, pid=0xFFFF, connected=0)


def answered(request, device, result=DONE, devid=DEVID, **changes):
    """SDCM gets the answer to a request, about that device."""
    fields = {"port": device.port, "vid": device.vid, "pid": device.pid, "serial": device.serial,
              "devpath": device.devpath, "devid": devid} | changes
    return to(["sdcm"], "mode_result", id=ANSWER[request], result=result, **fields)


def pulled_in_mode(device):
    """A device is gone that was in a projection mode: unlike SDCM, media is not told."""
    return together(left_the_bus(), event_told(device, DETACHED))


class PhoneRoad(RoadTest):
    def start_without_two_port_hub(self):
        """The vehicle's hub is one that nobody knows: ports keep their numbers, but their power cannot be cut."""
        self.unit.rewrite("1", "1d6b:0002")
        self._plug_hub_again()
        self.addCleanup(self._plug_hub_again)
        self.addCleanup(self.unit.forget_rewrites)
        self.start(START_REPORTS, SCAN, HUB_NOT_SUPPORTED, HUB_FAULTY)

    def _plug_hub_again(self):
        folder = f"/sys{CONTROLLER}/usb1/1-1"
        self.unit.unplug(self.unit.vehicle_hub)
        self.unit.wait_path(folder, present=False)
        self.unit.plug("1", self.unit.vehicle_hub)
        self.unit.wait_path(f"{folder}/1-1:1.0")

    def ask(self, request, device, devid=DEVID, **changes):
        """SDCM asks for a mode of that device."""
        fields = {"port": device.port, "vid": device.vid, "pid": device.pid, "serial": device.serial,
                  "devpath": device.devpath, "devid": devid} | changes
        self.unit.send("sdcm", usbrecords.mode_request(request, **fields))

    def search_from_sdcm(self):
        self.unit.send("sdcm", usbrecords.message(SEARCH))

    def search_from_media(self):
        self.unit.send("media", usbrecords.search_phone())

    def states(self, port, since=(0, 0)):
        """The states of a port in order, the first one included. An entered state that was there already counts."""
        changes = [re.search(rf"SetState: port{port} (STATE_\w+)->(STATE_\w+)$", one.text)
                   for one in self.unit.logs(since)]
        changes = [one.groups() for one in changes if one]
        return [before for before, _ in changes[:1]] + [after for _, after in changes]

    def went(self, port, *states, since=None):
        """Through exactly these states, in the last step or since a place in the stream."""
        self.assertEqual(self.states(port, self._step if since is None else since), list(states), self.heard())

    def commands(self, since=None):
        """What the service wrote into files of the kernel and the board, in order, as its log has it."""
        found = [re.search(r": (echo .* > .*)$", one.text)
                 for one in self.unit.logs(self._step if since is None else since)]
        return [one[1] for one in found if one]

    def timers(self, since=None):
        """What the port's state armed (True) and cancelled (False), with the port: [("PushCutting", True, 2), ...]"""
        found = [re.search(r"(Push\w+): isAdd:(\d) port:(\d+)$", one.text)
                 for one in self.unit.logs(self._step if since is None else since)]
        return [(one[1], one[2] == "1", int(one[3])) for one in found if one]

    def power_was_cut(self, port, seconds):
        """Once in the last step, for so long; the shell that restores it takes its time too."""
        selected, controls = None, []
        for _, text in self.unit.board_lines():
            name, _, value = text.partition(" <- ")
            if name == "port_sel":
                selected = int(value)
            elif name == "ka_hub_control":
                controls.append((selected, int(value)))
        self.assertEqual(controls[-2:], [(port, 3), (port, 4)])
        self.assert_log(f"ControlKaHub: port{port} mode:HUB_OFF$", times=1)
        restoring, = self.assert_log(f"ControlKaHub: port{port} mode:HUB_ON$", times=1)
        # The kernel's clock and the service's are some hundredths apart.
        off, on = [time for time, text in self.unit.board_lines() if re.fullmatch(f"port {port} (off|on)", text)][-2:]
        self.assertTrue(off + seconds < on, (off, on))
        self.assertTrue(said_at(restoring) - off < seconds + 0.45, (off, restoring))
