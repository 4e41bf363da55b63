#!/usr/bin/python3
"""kipcsend before the real service, which runs in a world of its own. Needs root."""
import json
import pathlib
import signal
import struct
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "service"))

from bench import ServiceCase, board, main, peers, usbrecords, volumes, world  # noqa: E402

PROGRAM = f"{world.BENCH}/bin/kipcsend"
DONE, REFUSED, USAGE, NO_ANSWER, UNREACHABLE, UNHEARD = range(6)
HUB_DIAG = board.CONTROLLER + "/ka_hub_diag"


class SendCase(ServiceCase):
    # The peers that kipcsend plays do not run; the service starts with all of them, and is told so by SDCM.
    PLAYED = ("sdcm", "media", "diag", "test")

    @classmethod
    def start_service(cls, **environment):
        super().start_service(**environment)
        for name in cls.PLAYED:
            cls.peers.stop(name)

    def start(self, *words, **how):
        run = subprocess.Popen([PROGRAM, *map(str, words)], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE, text=True, **how)
        self.addCleanup(lambda: run.poll() is None and run.kill())
        return run

    def end(self, run, expect):
        out, err = run.communicate(timeout=60)
        self.assertEqual(run.returncode, expect, f"{run.args}\n{out}{err}")
        return out, err

    def kipcsend(self, *words, expect=DONE, **how):
        return self.end(self.start(*words, **how), expect)

    def answers(self, *words, expect=DONE):
        """What came, by the JSON of the program."""
        out, _ = self.kipcsend("--json", *words, expect=expect)
        return [json.loads(line) for line in out.splitlines()]

    def settle_all(self):
        self.settle_events()
        self.settle_commands()


class Requests(SendCase):
    @classmethod
    def prepare(cls):
        cls.volume("stick", volumes.filesystem())
        cls.board.present_before_start(board.vehicle_hub())

    def plug(self, nodes):
        self.board.plug(nodes)
        self.addCleanup(self.settle_all)
        self.addCleanup(self.board.unplug, nodes)
        self.settle_all()
        return nodes

    def test_a_mount_check_without_a_stick_and_with_one(self):
        out, _ = self.kipcsend("test", "mount-check", "--port", 1, expect=REFUSED)
        self.assertEqual(out, "usb -> test  mount_check_result mounted=no\n")
        self.volumes["stick"].appear_as("sda1")
        self.plug(board.stick("1-1.1"))
        out, _ = self.kipcsend("test", "mount-check", "--port", 1)
        self.assertEqual(out, 'usb -> test  mount_check_result mounted=yes mount_path="/tmp/USB/PORT1/PART1/"\n')

    def test_the_self_test_tells_of_each_socket(self):
        self.board.write(HUB_DIAG, "0")     # a file: the service reads the 1 that it wrote
        records = [one["record"] for one in self.answers("diag", "self-test")]
        self.assertEqual(records, [f"diag_socket{i}_{fault}" for i in (1, 2, 3, 4) for fault in ("open", "short")]
                         + ["diag_test_result"])

    def test_a_search_finds_the_phones_that_are_plugged(self):
        self.assertEqual(self.answers("sdcm", "search", "--timeout", 0.5, expect=NO_ANSWER), [])
        phone = self.plug(board.phone("1-1.1"))
        iphone = self.plug(board.iphone("1-1.2"))
        found = self.answers("sdcm", "search")
        self.assertEqual([(one["fields"]["port"], one["words"]["dev_type"], one["fields"]["devpath"]) for one in found],
                         [(1, "phone", phone[0].devpath), (2, "Apple", iphone[0].devpath)])
        found = self.answers("media", "search")
        self.assertEqual([(one["fields"]["port"], one["fields"]["product"]) for one in found], [(2, "iPhone")])

    def test_modes_are_refused_where_no_phone_can_be_asked(self):
        phone = self.plug(board.phone("1-1.1"))
        for name in ("android-auto", "carplay", "carlife-android", "carlife-iphone", "reset"):
            with self.subTest(name):
                answer = self.answers("sdcm", name, "--devpath", phone[0].devpath, "--vid", "04e8", "--pid", "6860",
                                      "--devid", "mine", expect=REFUSED)[-1]
                self.assertEqual((answer["words"]["result"], answer["fields"]["devid"], answer["fields"]["port"]),
                                 ("failed", "mine", 1))

    def test_carlife_begins_on_an_iphone_that_is_named_by_its_port(self):
        iphone = self.plug(board.iphone("1-1.2"))
        self.mark()
        answer = self.answers("sdcm", "carlife-iphone", "--port", 2)[-1]
        self.assertEqual((answer["fields"]["vid"], answer["fields"]["pid"], answer["fields"]["devpath"],
                          answer["fields"]["serial"]), (0x05AC, 0x12A8, iphone[0].devpath, "00008030001A2B3C"))
        self.expect_log("port2 STATE_CL_CHANGING->STATE_CL")
        self.board.write(board.PORT_STATUS, "0")
        self.addCleanup(self.board.write, board.PORT_STATUS, "1")

    def test_mirrorlink_of_a_phone_with_a_network_function_is_done(self):
        phone = self.plug(board.phone("1-1.1"))
        network = board.network("1-1.1")
        self.plug([network])
        self.assertEqual(self.answers("sdcm", "mirrorlink", "--port", 1)[-1]["words"]["result"], "done")
        self.assertEqual(phone[0].name, "1-1.1")

    def test_a_port_without_a_phone_has_none_to_name(self):
        _, err = self.kipcsend("sdcm", "carplay", "--port", 4, expect=USAGE)
        self.assertEqual(err, "kipcsend: no phone is plugged at port 4 (usbservice-ports shows what is)\n")

    def test_a_port_that_never_saw_a_device_is_not_answered(self):
        self.kipcsend("sdcm", "reset", "--devpath", board.path_of("1-1.4"), "--vid", 1, "--pid", 2, "--timeout", 0.5,
                      expect=NO_ANSWER)

    def test_what_diagnosis_sets_is_set(self):
        self.kipcsend("diag", "adaption", "--port2", "off")
        self.expect_log("activiation for hub interface_1:1 interface_2:0 interface_3:1 interface_4:1")
        self.kipcsend("diag", "adaption")
        self.expect_log("usb_adaption of port2 is 1")
        self.kipcsend("diag", "coding", "--value", 3)
        self.expect_log("media usb configuration: 3")

    def test_what_power_management_tells_is_heard(self):
        self.kipcsend("power", "states", "--hmi-state", 1, "--hmi-event", 2, "--mmi-state", 3, "--mmi-event", 4)
        self.expect_log("hmi_power_state:1 hmi_power_event:2 mmi_power_state:3 mmi_power_event:4")
        self.kipcsend("power", "terminals", "--terminal15", 1, "--terminal-s", 1)
        self.expect_log("clamp 15:1 50:0 S:1 X:0")

    def test_the_switches_of_the_engineering_menu_are_written_and_told(self):
        out, _ = self.kipcsend("settings", "switches", "--signal-test1", "on")
        self.assertIn("written: signal-test1=1 signal-test2=0 device-mode1=0 device-mode2=0\n", out)
        self.expect_log("test_force_enable1:0>1 test_force_enable2:0>0 device_mode1:0>0 device_mode2:0>0")
        self.kipcsend("settings", "switches", "--signal-test1", "off", "--device-mode2", 2)
        self.expect_log("test_force_enable1:1>0 test_force_enable2:0>0 device_mode1:0>0 device_mode2:0>2")
        with open("/dev/shm/shm_usb_cert", "rb") as file:
            self.assertEqual(struct.unpack("<5I", file.read()), (16, 0, 0, 0, 2))
        self.kipcsend("settings", "switches", "--device-mode2", "off")
        self.expect_log("test_force_enable1:0>0 test_force_enable2:0>0 device_mode1:0>0 device_mode2:2>0")

    def test_a_dry_run_writes_no_switch(self):
        with open("/dev/shm/shm_usb_cert", "rb") as file:
            before = file.read()
        self.kipcsend("-n", "settings", "switches", "--signal-test2", "on")
        with open("/dev/shm/shm_usb_cert", "rb") as file:
            self.assertEqual(file.read(), before)

    def test_support_of_customers_hubs_is_written_and_told(self):
        for word, value in (("off", 0), ("on", 1)):
            self.mark()
            self.kipcsend("settings", "customer-hub", "--support", word)
            self.expect_log(f"customer_hub_support:{value}")

    def test_a_changed_record_is_told(self):
        self.kipcsend("settings", "changed", "--record", "shm_radio")
        self.expect_log("unknown str:shm_radio")

    def test_raw_bytes_arrive_as_they_are(self):
        self.kipcsend("raw", "diag", "83 60 99 12 34")
        self.expect_log("unknown diag packet cmd:83 subcmd:60,99 rdid:12,34")
        self.kipcsend("raw", "sdcm", "--record", "command", "id=99")
        self.expect_log("unknown msgID:99")

    def test_silence_ends_with_the_timeout(self):
        _, err = self.kipcsend("raw", "diag", "83 60 99 12 34", "--timeout", 0.3, expect=NO_ANSWER)
        self.assertEqual(err, "kipcsend: no answer within 0.3 s\n")

    def test_who_is_not_of_the_group_is_told_of_it(self):
        _, err = self.kipcsend("power", "states", expect=UNREACHABLE, user=65534, group=65534, extra_groups=[])
        self.assertIn(f"no permission to connect to {peers.ROOT}/usb/power (srw-rw---- root root)", err)

    def test_more_connections_than_the_service_takes(self):
        self.settle_all()
        many = [self.peers.connect("power") for _ in range(16)]
        try:
            for one in many:
                one.send(usbrecords.terminal_states(0, 0, 0, 0))
            self.settle_all()
            _, err = self.kipcsend("power", "states", expect=UNREACHABLE)
            self.assertIn("power has too many", err)
        finally:
            for one in many:
                one.close()


class LivePeer(SendCase):
    PLAYED = ("test", "diag")

    def test_a_self_test_without_the_units_hub_is_answered_with_failure_at_once(self):
        self.assertEqual([one["words"] for one in self.answers("diag", "self-test", expect=REFUSED)],
                         [{"result": "bad"}])

    def test_a_peer_that_runs_gets_the_answer_and_is_told_of(self):
        phone = board.phone("1-1.1")
        self.board.plug(phone)
        self.settle()
        self.mark()
        _, err = self.kipcsend("sdcm", "reset", "--port", 1, "--devid", "d", expect=UNHEARD)
        self.assertIn("sdcm itself is running: the answer goes there", err)
        answer = self.await_records("sdcm", 1)[0]
        self.assertEqual((answer.name, answer["devid"], answer.word("result")), ("mode_result", "d", "failed"))
        self.board.unplug(phone)
        self.settle()
        self.assert_records_are_sound()

    def test_the_peer_that_comes_afterwards_gets_what_comes_afterwards(self):
        self.kipcsend("test", "mount-check", "--port", 1, expect=REFUSED)
        self.peers.start("test")
        self.mark()
        self.send("test", usbrecords.mount_check(1))
        self.assertEqual(self.await_records("test", 1)[0]["mounted"], 0)
        self.peers.stop("test")


class Ending(SendCase):
    def test_a_service_that_dies_while_its_answer_is_awaited(self):
        run = self.start("raw", "diag", "83 60 99 12 34", "--timeout", 30)
        self.expect_log("unknown diag packet cmd:83 subcmd:60,99 rdid:12,34")
        began = time.monotonic()
        self.service.process.kill()
        _, err = self.end(run, NO_ANSWER)
        self.assertLess(time.monotonic() - began, 5)
        self.assertEqual(err, "kipcsend: the service ended before it answered\n")
        _, err = self.kipcsend("test", "mount-check", "--port", 1, expect=UNREACHABLE)
        self.assertIn("nobody listens", err)
        for name in self.PLAYED:
            self.peers.start(name)
        type(self).restart_service()
        self.kipcsend("test", "mount-check", "--port", 1, expect=REFUSED)

    def test_a_service_that_hangs(self):
        self.service.process.send_signal(signal.SIGSTOP)
        try:
            _, err = self.kipcsend("power", "states", expect=UNREACHABLE)
            self.assertEqual(err, "kipcsend: the service does not read what power sends\n")
            self.kipcsend("test", "mount-check", "--port", 1, "--timeout", 0.5, expect=NO_ANSWER)
        finally:
            self.service.process.send_signal(signal.SIGCONT)


if __name__ == "__main__":
    main()
