#!/usr/bin/python3
"""The console as a person sees it: a browser clicks through roads of phones and sticks on the virtual head unit."""
import pathlib
import subprocess
import tempfile
import unittest

import paths  # noqa: F401
from browser import Console, Page, until
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

HOSTILE = "<img src=x onerror=alert(1)><script>alert(2)</script>"


class OnThePage(unittest.TestCase):
    """One unit serves all tests; each finds it as after booting."""

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="console-test-")
        cls.addClassCleanup(folder.cleanup)
        cls.console = Console(folder.name)
        cls.addClassCleanup(cls.console.end)
        cls.page = Page(cls.console.address)
        cls.addClassCleanup(cls.page.close)
        cls.is_fresh = True

    def setUp(self):
        self.page.open()
        self.page.wait_text("#service", "Service runs")
        if not self.is_fresh:
            self.page.press("[data-what='reset']")
            until(lambda: self.page.one("[data-what='reset']").is_enabled(), "the unit's reset")
            self.assertEqual(self.page.text("#controls .said"), "")
            self.page.press("#clear")
        type(self).is_fresh = False
        self.page.wait_text("#list-status", "staterunning")

    def tearDown(self):
        self.assertEqual(self.page.complaints(), [])
        self.assertEqual([url for url in self.page.asked() if not url.startswith(self.console.address)], [])

    def test_an_android_phone_goes_to_android_auto_and_is_pulled(self):
        page = self.page
        page.plug("1.2", "phone android")
        page.wait_state(2, "STATE_ATTACH")
        page.wait_record("usb → sdcm", "device_event", "id=device attached", "aa_capa=supported", 'product="Nexus"')
        page.wait_text("[data-port='2'] .device", "phone 18d1:4ee7 Nexus")

        # The form knows the phone that has come.
        form = "form[data-request='mode']"
        until(lambda: page.one(f"{form} [name='serial']").get_attribute("value") == "0123456789ABCDEF", "the ids")
        page.ask("mode", id="Android Auto", devid="MINE")
        page.wait_text(f"{form} .said", "done")
        page.wait_record("sdcm → usb", "mode_request", "id=request Android Auto", 'devid="MINE"')
        page.wait_record("usb → sdcm", "mode_result", "id=result of Android Auto", "pid=0x2d00", "result=done")
        page.wait_state(2, "STATE_AA")
        self.assertEqual(page.trail(2), ["DETACH", "ATTACH", "AA_CHANGING", "AA"])
        taken = page.one("[data-port='2'] .taken")
        self.assertEqual((taken.get_attribute("data-from"), taken.get_attribute("data-to")),
                         ("STATE_AA_CHANGING", "STATE_AA"))
        page.wait_text("[data-place='1.2'] .shows", "as accessory")
        self.assertEqual(page.state(1), "STATE_DETACH")

        page.press("#tab-phone")
        seen = page.texts("#list-phone .vendor .text")
        self.assertEqual(seen[:2] + seen[-2:], ["which accessory protocol do you speak?"] * 2 + [
            'the serial number is "0000000012345678"', "become an accessory"])
        page.press("#tab-record")

        page.pull("1.2")
        page.wait_state(2, "STATE_DETACH")
        page.wait_record("usb → sdcm", "device_event", "id=device detached")
        self.assertEqual(page.trail(2)[-2:], ["AA", "DETACH"])

    def test_a_stick_is_mounted_and_its_record_can_be_looked_into(self):
        page = self.page
        page.plug("1.1", "vfat", label="MUSIC")
        page.wait_record("media, navi, speech + 6 others", "st_storage_pkt", "cmd=mounted", 'label="MUSIC"')
        page.wait_text("#port1 .mounts", "/tmp/USB/PORT1/PART1/vfatMUSIC1234-ABCD")
        page.wait_state(1, "STATE_ATTACH")
        page.ask("mount_check")
        page.wait_record("usb → test", "mount_check_result", "mounted=yes", "/tmp/USB/PORT1/PART1/")
        page.ask("command", command="ls /tmp/USB/PORT1/PART1")
        page.wait_text("form[data-request='command'] .said", "song.mp3")

        page.one("#filter").send_keys("st_storage_pkt mounted")
        line, = until(lambda: [one for one in page.all("#list-record .line") if one.is_displayed()], "the record")
        line.find_element(By.TAG_NAME, "summary").send_keys(Keys.ENTER)
        until(lambda: "0000  03 00 00 00 03 00 00 00" in line.text, "the record's bytes")
        self.assertIn("53 32 label \"MUSIC\"", line.text)
        page.one("#filter").send_keys(Keys.CONTROL, "a", Keys.DELETE)
        self.assertGreater(len(page.records()), 3)

        page.pull("1.1")
        page.wait_record("st_storage_pkt", "cmd=detach")
        page.wait_text("#port1 .mounts", "Nothing is mounted")
        page.wait_state(1, "STATE_DETACH")

    def test_a_phone_behind_a_hub_has_a_state_machine_of_its_own(self):
        page = self.page
        page.plug("1.2", "hub")
        page.plug("1.2.3", "phone iphone")
        page.wait_state(32, "STATE_CP_SUPPORT")
        self.assertIn("port 3 of the hub", page.text("[data-port='32'] h3"))
        page.pull("1.2")
        page.wait_state(32, "STATE_DETACH")
        self.assertEqual(page.texts("#port2 .place"), ["1.2"])

    def test_texts_of_a_hostile_phone_are_only_texts(self):
        page = self.page
        page.plug("1.2", "phone android", product=HOSTILE, serial="<b>S</b>")
        page.wait_record("device_event", f'product="{HOSTILE}"', 'serial="<b>S</b>"')
        page.wait_text("[data-port='2'] .device", HOSTILE)
        page.wait_text("#about-mode", HOSTILE)
        page.wait_text("#list-status", HOSTILE)
        page.wait_text("#list-log", HOSTILE)
        self.assertEqual(page.all("img, main script, b b, td b"), [])

    def test_another_browser_sees_the_same(self):
        page = self.page
        page.plug("1.2", "phone android")
        page.wait_state(2, "STATE_ATTACH")
        page.wait_record("st_usb_pkt", "cmd=attach")
        other = Page(self.console.address)
        self.addCleanup(other.close)
        other.wait_state(2, "STATE_ATTACH")
        self.assertEqual(other.text("#port2 .tree"), page.text("#port2 .tree"))
        until(lambda: page.records() == other.records()[-len(page.records()):], "the same records")
        other.pull("1.2")
        page.one("[data-plug='1.2']")
        page.wait_state(2, "STATE_DETACH")
        self.assertEqual(other.complaints(), [])

    def test_what_cannot_be_done_is_said_where_it_was_asked(self):
        page = self.page
        page.ask("mode", vid="many")
        page.wait_text("form[data-request='mode'] .said", "Vendor: 'many' is no number")
        page.press("[data-plug='1.1']")
        page.choose("#plug-kind", "Phone: android")
        page.fill("#plug", {"answer protocol": "perhaps"})
        page.press("#plug button.main")
        page.wait_text("#plug .said", 'answer: must be "ok", "stall", "never" or bytes')
        self.assertTrue(page.one("#plug").is_displayed())
        page.press("#plug-cancel")
        page.plug("1.1", "keyboard")
        self.forget_refusals()

    def forget_refusals(self):
        """The browser notes answers that are errors; others would be faults of the page."""
        notes = self.page.complaints()
        self.assertTrue(notes)
        for note in notes:
            self.assertRegex(note, r"/do/\w+ - Failed to load resource")

    def test_the_monitor_pauses_and_filters(self):
        page = self.page
        page.press("#pause")
        before = page.records()
        page.ask("search")
        page.wait_text("form[data-request='search'] .said", "done")
        until(lambda: "+ 1" in page.text("#tab-record"), "a record that waits")
        self.assertEqual(page.records(), before)
        page.press("#pause")
        page.wait_record("sdcm → usb", "search")
        self.assertEqual(len(page.records()), len(before) + 1)
        page.choose("#direction", "to the service")
        until(lambda: not any(line.startswith("usb") for line in page.records()), "only what was sent")
        page.wait_record("sdcm → usb", "search")
        page.choose("#direction", "both")
        self.assertEqual(len(page.records()), len(before) + 1)

    def test_the_service_and_the_unit_are_stopped_and_started(self):
        page = self.page
        page.plug("1.1", "keyboard")
        page.press("[data-action='service'][data-what='stop']")
        page.wait_text("#service", "has ended")
        page.wait_text("#list-status", "The service does not run.")
        page.ask("search")
        page.wait_text("form[data-request='search'] .said", "sdcm")
        self.forget_refusals()
        page.press("[data-action='service'][data-what='start']")
        page.wait_text("#service", "Service runs")
        page.wait_text("#list-status", "QEMU USB Keyboard")
        page.press("[data-action='unit'][data-what='restart']")
        page.wait_text("#service", "does not run")
        page.one("[data-plug='1.1']")
        page.wait_text("#service", "Service runs")

    def test_the_page_is_used_by_keys_alone(self):
        page = self.page
        page.one("[data-plug='1.1']").send_keys(Keys.ENTER)
        until(lambda: page.one("#plug").is_displayed(), "the dialog")
        self.assertEqual(page.driver.switch_to.active_element.get_attribute("id"), "plug-kind")
        page.driver.switch_to.active_element.send_keys("Keyb", Keys.TAB)
        page.one("#plug-fields input").send_keys(Keys.ENTER)
        page.one("[data-place='1.1'] strong")
        page.wait_record("diag_device_state", "connected=yes")
        page.one("#tab-record").send_keys(Keys.ARROW_RIGHT)
        self.assertEqual(page.driver.switch_to.active_element.get_attribute("id"), "tab-log")
        self.assertTrue(page.one("#list-log").is_displayed())
        page.driver.switch_to.active_element.send_keys(Keys.ARROW_LEFT)


class Ending(unittest.TestCase):
    def test_by_ctrl_c_nothing_is_left_behind(self):
        with tempfile.TemporaryDirectory(prefix="console-test-") as folder:
            console = Console(folder)
            self.addCleanup(console.end)
            console.do("plug", kind="phone android", place="1.2")
            console.do("plug", kind="vfat", place="1.1")
            started = console.processes()
            for name in ("qemu-system-aarch64", "headunit_phone"):
                self.assertTrue(any(name in line for line in started), started)
            self.assertNotEqual(list(pathlib.Path(folder).iterdir()), [])
            text, code = console.end()
            self.assertEqual((text, code), ("ending the head unit\n", 0))
            alive = {line.split()[0] for line in started} & set(running())
            self.assertEqual((alive, list(pathlib.Path(folder).iterdir())), (set(), []))


def running():
    return subprocess.run(["ps", "-eo", "pid="], stdout=subprocess.PIPE, text=True, check=True).stdout.split()


if __name__ == "__main__":
    unittest.main(verbosity=2)
