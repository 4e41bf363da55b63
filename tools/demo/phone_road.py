"""An Android phone goes to Android Auto and is reset; an iPhone goes to CarPlay and is reset. Both on port 2."""
import usbrecords
from headunit import Phone

ATTACHED, DETACHED = 1, 2
AA, CARPLAY, RESET = 12, 14, 17                     # what SDCM asks
AA_RESULT, CARPLAY_RESULT, RESET_RESULT = 5, 7, 10  # and what it is answered
SUPPORTED, ACCESSORY_VID, ACCESSORY_PID = 1, 0x18D1, 0x2D00


def run(show):
    android(show)
    iphone(show)


def request(show, kind, ids, devid):
    """SDCM asks for a mode of the phone whose ids and path a record told it."""
    show.ask("sdcm", usbrecords.mode_request(kind, devid=devid, **ids))


def comes(show, what, phone, **expected):
    show.timeline.happens(f"{what} is plugged into port 2")
    show.plug_phone("1.2", phone)
    show.expect("the device's state", "diag", name="diag_device_state", connected=1)
    show.expect("its attach", "sdcm", name="device_event", id=ATTACHED, port=2, **expected)
    show.device()
    ids = show.told("sdcm", name="device_event", id=ATTACHED)
    return ids


def goes(show, phone):
    show.timeline.happens("the phone is pulled")
    show.unit.unplug(phone)
    show.expect("its detach", "sdcm", name="device_event", id=DETACHED, port=2)
    show.expect_state("STATE_DETACH")
    show.tell()


def android(show):
    phone = Phone("android")
    ids = comes(show, "an Android phone", phone, aa_capa=SUPPORTED)
    show.expect("its attach", "media", name="st_usb_pkt", cmd=2, port=2)
    show.tell()

    show.timeline.happens("SDCM asks for Android Auto")
    request(show, AA, ids, "PHONE-1")
    show.expect_phone(phone, "came accessory")
    show.expect("the result", "sdcm", name="mode_result", id=AA_RESULT, result=0, vid=ACCESSORY_VID, pid=ACCESSORY_PID)
    show.expect_state("STATE_AA")
    ids = show.told("sdcm", name="mode_result", id=AA_RESULT)
    show.tell()

    show.timeline.happens("SDCM resets the phone, by the ids that the result told")
    request(show, RESET, ids, "PHONE-1")
    show.expect_phone(phone, "cut")
    show.expect("the result", "sdcm", name="mode_result", id=RESET_RESULT, result=0)
    show.expect_phone(phone, "came phone")
    show.expect("its attach, as a phone again", "sdcm", name="device_event", id=ATTACHED, port=2)
    show.expect_state("STATE_ATTACH")
    show.tell()
    goes(show, phone)


def iphone(show):
    # The tty of CarPlay is the phone's modem; it appears when its driver does.
    show.unit.run("rmmod cdc_acm")
    phone = Phone("iphone", starts="carplay")
    ids = comes(show, "an iPhone", phone, cp_capa=SUPPORTED)
    show.expect_state("STATE_CP_SUPPORT")
    show.tell()

    show.timeline.happens("media searches for phones")
    show.ask("media", usbrecords.search_phone())
    show.expect("the iPhone", "media", name="st_usb_pkt", cmd=2, port=2)
    show.tell()

    show.timeline.happens("SDCM asks for CarPlay")
    request(show, CARPLAY, ids, "PHONE-2")
    show.expect("the result", "sdcm", name="mode_result", id=CARPLAY_RESULT, result=0)
    show.expect_state("STATE_CP_CHANGING")
    show.tell()

    show.timeline.happens("the driver of the iPhone's modem comes, and with it the tty")
    show.unit.run("modprobe cdc_acm")
    show.expect_state("STATE_CP")
    show.tell()

    show.timeline.happens("SDCM resets the phone")
    request(show, RESET, ids, "PHONE-2")
    show.expect_phone(phone, "cut")
    show.expect("the result", "sdcm", name="mode_result", id=RESET_RESULT, result=0)
    show.expect_phone(phone, "came carplay")
    show.expect("its attach", "sdcm", name="device_event", id=ATTACHED, port=2, cp_capa=SUPPORTED)
    show.expect_state("STATE_CP_SUPPORT")
    show.tell()
    goes(show, phone)
