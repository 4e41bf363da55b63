#!/usr/bin/python3
"""Phones on the ports: what SDCM and media hear of them, and how requests of SDCM are answered.

No device here has a file in /dev, so the service can ask no phone anything: it takes the roads that need no answer, and
those of a phone that does not answer."""
import re

from bench import (ACCESSORY_MODES, APPLE_MODES, PHONE_MODES, STORAGE_MODES, ServiceCase, board, device, event, ids,
                   main, request, result, usbrecords, volumes)

ATTACHED, DETACHED = 1, 2
AA, ML, CP, ACL, ICL, RESET = 12, 13, 14, 15, 16, 17
RESULTS = {AA: 5, ML: 6, CP: 7, ACL: 8, ICL: 9, RESET: 10}
STORAGE, APPLE, SHUTTLE, PHONE, MTP = 5, 6, 8, 9, 10
SEARCH = usbrecords.message(18)

OFF, ON = "3", "4"


class Ports(ServiceCase):
    @classmethod
    def prepare(cls):
        cls.volume("stick", volumes.filesystem())

    def setUp(self):
        super().setUp()
        self.plugged = []
        self.addCleanup(self.leave_all_detached)
        self.board.written()

    def leave_all_detached(self):
        """Takes away what is plugged. Nothing is deferred or running afterwards."""
        for nodes in reversed(self.plugged):
            self.board.unplug(nodes)
        self.settle()
        for port in (1, 2):
            self.assertIn(self.state(port), ("STATE_DETACH", None), f"port {port}")

    def state(self, port):
        """The port's state, as the log says it; None: there was never anything."""
        change = re.compile(rf"port{port} STATE_\w+->(STATE_\w+)")
        found = [match.group(1) for match in map(change.fullmatch, self.service.texts()) if match]
        return found[-1] if found else None

    def assert_state(self, name, port=1):
        self.assertEqual(self.state(port), name)

    def plug(self, nodes):
        self.mark()
        self.board.plug(nodes)
        self.plugged.append(nodes)
        self.settle()
        return nodes

    def unplug(self, nodes):
        self.mark()
        self.plugged.remove(nodes)
        self.board.unplug(nodes)
        self.settle()

    def ask(self, asked):
        """Marks, sends as SDCM, and waits until it is worked off."""
        self.mark()
        self.send("sdcm", asked)
        self.settle_requests()

    def expect_result(self, asked, outcome, **other):
        id = usbrecords.parse("mode_request", asked)["id"]
        self.expect("sdcm", result(RESULTS[id], asked, outcome, **other))

    def refuse(self, *asked):
        """Each is answered with 1, echoed, and changes nothing."""
        for one in asked:
            state = self.state(1)
            self.ask(one)
            self.expect_result(one, 1)
            self.assertEqual(self.state(1), state)
            self.expect_nothing("media")


class ComingAndGoing(Ports):
    def come_and_go(self, nodes, dev_type, usb_class, modes, port=1):
        """SDCM hears of both; media of neither."""
        for id, change in ((ATTACHED, self.plug), (DETACHED, self.unplug)):
            change(nodes)
            self.expect("sdcm", event(id, dev_type, nodes[0], port, usb_class, modes))
            self.expect_nothing("media")

    def test_a_phone_is_told_to_sdcm_and_media(self):
        for place, port in {"1-1.1": 1, "1-1.2": 2, "1-1.4": 4}.items():
            with self.subTest(place):
                phone = board.phone(place)
                self.plug(phone)
                self.expect("sdcm", event(ATTACHED, PHONE, phone[0], port, 8, PHONE_MODES))
                for receiver in usbrecords.USB_LISTENERS:
                    self.expect(receiver, device(2, 0, PHONE, phone[0], port, 8))
                self.assert_state("STATE_ATTACH", port)
                self.unplug(phone)
                self.expect("sdcm", event(DETACHED, PHONE, phone[0], port, 8, PHONE_MODES))
                for receiver in usbrecords.USB_LISTENERS:
                    self.expect(receiver, device(5, 0, PHONE, phone[0], port, 8))
                self.assert_state("STATE_DETACH", port)

    def test_the_record_of_a_phone_is_laid_out_byte_by_byte(self):
        phone = self.plug(board.phone("1-1.1", speed="480"))
        numbers = bytes.fromhex("00000000 01000000 01000000 09000000 e804 6068 08000000 02000000"
                                "00000000 01000000 02000000 02000000")
        texts = b"R58M1234567".ljust(64, b"\0") + b"Galaxy".ljust(64, b"\0") + b"SAMSUNG".ljust(64, b"\0") + \
            phone[0].devpath.encode().ljust(128, b"\0")
        self.assertEqual([record.data for record in self.await_records("sdcm", 1)], [numbers + texts])

    def test_an_iphone_a_player_and_a_stick_are_told_to_sdcm_only(self):
        for nodes, dev_type, usb_class, modes in (
                (board.iphone(), APPLE, 3, APPLE_MODES),
                (board.usb_device("1-1.1", 0x05AC, 0x1300), SHUTTLE, 8, APPLE_MODES),
                (board.mtp_player(), MTP, 6, PHONE_MODES),
                (board.usb_device("1-1.1", 0x0951, 0x1666), STORAGE, 8, STORAGE_MODES)):
            with self.subTest(dev_type):
                self.come_and_go(nodes, dev_type, usb_class, modes)

    def test_a_phone_behind_a_hub_has_the_ports_of_both(self):
        hub = self.plug(board.hub("1-1.2"))
        phone = self.plug(board.phone("1-1.2.3"))
        self.expect("sdcm", event(ATTACHED, PHONE, phone[0], 32, 8, PHONE_MODES))
        self.expect("media", device(2, 0, PHONE, phone[0], 2, 8))
        asked = request(AA, phone[0], port=2)
        self.ask(asked)
        self.expect_log("port 2 > 32")
        self.expect_log("v:4e8 p:6860 port:3")
        self.expect_result(asked, 1, port=32)
        self.unplug(phone)
        self.expect("sdcm", event(DETACHED, PHONE, phone[0], 32, 8, PHONE_MODES))
        self.expect("media", device(5, 0, PHONE, phone[0], 2, 8))
        self.unplug(hub)

    def test_a_phone_that_cannot_be_asked_can_do_nothing_by_itself(self):
        self.plug(board.phone())
        self.assertTrue({"failed to initialize libusb", "failed to open dev_handle"} &
                        set(self.service.texts(self.log_from)))
        self.expect_log("aa_capa:0 ml_capa:1 cp_capa:2 cl_capa:2")

    def test_a_second_phone_on_a_port_is_announced_only_when_the_first_has_left(self):
        first = self.plug(board.phone("1-1.1"))
        self.mark()
        self.board.tell("add", first[1])
        self.settle()
        self.expect_nothing("sdcm", "media")
        self.expect_log("port1 STATE_ATTACH, so not send", level=160)

    def test_phones_on_both_ports_do_not_meet(self):
        one, two = self.plug(board.phone("1-1.1")), self.plug(board.phone("1-1.2"))
        self.unplug(one)
        self.expect("sdcm", event(DETACHED, PHONE, one[0], 1, 8, PHONE_MODES))
        self.assert_state("STATE_ATTACH", 2)
        self.unplug(two)
        self.expect("sdcm", event(DETACHED, PHONE, two[0], 2, 8, PHONE_MODES))

    def test_hidraw_and_tty_of_an_android_phone_change_nothing(self):
        self.plug(board.phone())
        self.plug([board.hid()])
        self.expect_log("ignore if not an apple device", level=64)
        self.plug([board.tty()])
        self.expect_nothing("sdcm", "media")
        self.assert_state("STATE_ATTACH")

    def test_an_iphone_is_asked_again_after_its_hidraw_node_came_until_it_leaves(self):
        phone = board.iphone()
        self.plug(phone)
        hid = self.plug([board.hid()])
        self.expect_log("isAdd:1 port:1")
        came = self.expect_log("port1 1 STATE_ATTACH", timeout=7)
        self.expect_log("port1 retry:1")
        armed = self.expect_log("isAdd:1 port:1")
        self.assertGreaterEqual(came.time - armed.time, 5)
        self.expect_no_log("port1 retry:2")
        self.expect_nothing("sdcm", "media")
        self.unplug(hid)
        self.unplug(phone)
        self.expect("sdcm", event(DETACHED, APPLE, phone[0], 1, 3, APPLE_MODES))
        self.expect_log("item:7 port:1 terminated list_size:0")


class Search(Ports):
    def test_sdcm_hears_again_of_what_is_attached(self):
        phone = self.plug(board.phone("1-1.1"))
        player = self.plug(board.mtp_player("1-1.2"))
        self.ask(SEARCH)
        self.expect("sdcm", event(ATTACHED, PHONE, phone[0], 1, 8, PHONE_MODES),
                    event(ATTACHED, MTP, player[0], 2, 6, PHONE_MODES))
        self.expect_nothing("media")

    def search_of_media(self):
        self.mark()
        self.send("media", usbrecords.search_phone(dev_type=9, port=7))
        self.expect_log("SEARCH_PHONE dev_type:9 port:7", level=128)
        self.settle()

    def test_media_hears_again_of_iphones_and_players_only(self):
        one, two = self.plug(board.iphone("1-1.1")), self.plug(board.mtp_player("1-1.2"))
        self.search_of_media()
        self.expect("media", device(2, 0, APPLE, one[0], 1, 3), device(2, 0, MTP, two[0], 2, 6))
        self.expect_nothing("sdcm")
        self.unplug(one)
        self.unplug(two)
        self.plug(board.phone("1-1.1"))
        self.plug(board.stick("1-1.2"))
        self.search_of_media()
        self.expect_log("port1 dev_type:9, so not send", level=160)
        self.expect_log("port2 dev_type:5, so not send", level=160)
        self.expect_nothing("sdcm", "media")

    def test_nobody_hears_of_a_phone_that_left_or_runs_a_mode(self):
        phone = self.plug(board.phone("1-1.1"))
        self.unplug(phone)
        self.plug(board.accessory("1-1.2"))
        self.ask(SEARCH)
        self.expect_log("port1 STATE_DETACH, so not send", level=160)
        self.expect_log("port2 STATE_AA, so not send", level=160)
        self.search_of_media()
        self.expect_log("port2 STATE_AA, so not send", level=160)
        self.expect_nothing("sdcm", "media")


class BeforeAnyDevice(Ports):
    def test_ports_that_never_had_a_device_answer_nothing(self):
        """The service has just started."""
        phone = board.phone("1-1.4")
        self.assertIsNone(self.state(4))
        for id in RESULTS:
            with self.subTest(id):
                self.ask(request(id, phone[0]))
                self.expect_log("port 1 > 4")
                self.expect_log("port_state is null", level=192)
                self.expect_nothing("sdcm", "media")
        self.ask(SEARCH)
        levels = [line.level for line in self.service.since(self.log_from) if line.text == "port_state is null"]
        self.assertEqual(levels, [160, 160])
        self.expect_nothing("sdcm", "media")

    def test_serial_functions_belong_to_the_port_of_carplay_which_never_ran(self):
        tty = board.tty("1-1.1")
        self.plug([tty])
        self.expect_log("port0 is invalid", level=192)
        self.mark()
        self.board.tell("change", tty)
        self.settle()
        self.expect_log("port0 is invalid")

    def test_a_request_that_names_no_port_is_not_answered(self):
        phone = board.phone("1-1.1")
        for devpath in ("", "/devices/platform/other/usb1/1-1/1-1.1", board.CONTROLLER + "/usb9/9-1/9-1.1"):
            self.ask(request(AA, phone[0], devpath=devpath))
            self.expect_log("port 1 > 0")
            self.expect_log("port0 is invalid", level=192)
            self.expect_nothing("sdcm")


class Requests(Ports):
    def test_a_phone_that_left_is_refused(self):
        phone = self.plug(board.phone())
        self.unplug(phone)
        self.refuse(*(request(id, phone[0], devid="phone-1") for id in RESULTS))
        self.expect_log("port1 STATE_DETACH, so can't reset", level=160)

    def test_the_answer_to_a_refused_request_is_laid_out_byte_by_byte(self):
        phone = self.plug(board.phone())
        self.ask(request(CP, phone[0], devid="phone-1", result=77))
        answer = bytes.fromhex("00000000 07000000 01 00 e804 6068") + b"R58M1234567".ljust(64, b"\0") + \
            phone[0].devpath.encode().ljust(128, b"\0") + b"phone-1".ljust(32, b"\0") + bytes.fromhex("0000 01000000")
        self.assertEqual([record.data for record in self.await_records("sdcm", 1)], [answer])

    def test_a_phone_that_does_not_answer_cannot_be_switched(self):
        phone = self.plug(board.phone())
        self.refuse(*(request(id, phone[0]) for id in (AA, ACL, ML)))
        self.assert_state("STATE_ATTACH")

    def test_a_mode_of_another_kind_of_phone_is_refused(self):
        phone = self.plug(board.phone())
        self.refuse(request(CP, phone[0]))
        self.expect_log("port1 STATE_ATTACH, so can't change", level=160)
        self.refuse(request(ICL, phone[0]))
        self.expect_log("apple device doesn't exist", level=160)
        self.refuse(request(RESET, phone[0]))
        self.expect_log("port1 STATE_ATTACH, so can't reset", level=160)
        self.unplug(phone)
        phone = self.plug(board.iphone())
        for id in (AA, ACL, ML):
            self.refuse(request(id, phone[0]))
            self.expect_log("android device doesn't exist", level=160)
        self.refuse(request(CP, phone[0]))
        self.expect_log("port1 STATE_ATTACH, so can't change", level=160)

    def test_a_request_with_another_phones_ids_is_refused(self):
        phone = self.plug(board.phone())
        for id in (AA, ACL, ML):
            self.refuse(request(id, phone[0], vid=0x1234))
            self.expect_log("vid(1234 4e8) or pid(6860 6860) is different", level=160)
        self.refuse(request(AA, phone[0], pid=1))
        self.expect_log("vid(4e8 4e8) or pid(1 6860) is different")

    def test_a_request_belongs_to_the_port_of_its_path(self):
        one, two = self.plug(board.phone("1-1.1")), self.plug(board.mtp_player("1-1.2"))
        asked = request(CP, one[0], port=2)
        self.ask(asked)
        self.expect_log("port 2 > 1", level=128)
        self.expect_result(asked, 1, port=1)
        asked = request(CP, two[0], port=99)
        self.ask(asked)
        self.expect_log("port 99 > 2")
        self.expect_result(asked, 1, port=2)

    def test_a_timer_that_nobody_waits_for_is_ignored(self):
        self.plug(board.phone())
        for id in (45, 46):
            self.ask(usbrecords.message(id, port=1, sender=4))
            self.expect_log("port1 1 STATE_ATTACH")
            self.expect_log("port1 STATE_ATTACH, so not send", level=160)
        self.ask(usbrecords.message(47, port=1, sender=4))
        self.expect_log("ignore if not an apple device", level=64)
        self.expect_nothing("sdcm", "media")
        self.assert_state("STATE_ATTACH")
        self.assertEqual(self.board.written(), [])


class Modes(Ports):
    """Without the two-port hub."""

    def start_mirrorlink(self, phone):
        network = self.plug([board.network()])
        asked = request(ML, phone[0], devid="phone-1")
        self.ask(asked)
        self.expect_log("port1 already is ncm mode", level=128)
        self.expect_result(asked, 0)
        self.assert_state("STATE_ML")
        return network

    def test_mirrorlink_runs_when_the_phone_has_its_network_function(self):
        for phone, dev_type, usb_class in ((board.phone(), PHONE, 8), (board.mtp_player(), MTP, 6)):
            with self.subTest(dev_type):
                self.plug(phone)
                network = self.start_mirrorlink(phone)
                self.refuse(*(request(id, phone[0]) for id in (AA, ML, CP, ACL, ICL)))
                self.unplug(network)
                self.unplug(phone)
                self.expect("sdcm", event(DETACHED, dev_type, phone[0], 1, usb_class, PHONE_MODES))
                self.expect_nothing("media")
                self.assert_state("STATE_DETACH")

    def test_the_network_function_of_a_phone_behind_a_hub_is_another_ports(self):
        hub = self.plug(board.hub("1-1.1"))
        phone = self.plug(board.phone("1-1.1.3"))
        network = self.plug([board.network("1-1.1.3")])
        asked = request(ML, phone[0])
        self.ask(asked)
        self.expect_result(asked, 1, port=31)
        self.assert_state("STATE_ATTACH", 31)
        for nodes in (network, phone, hub):
            self.unplug(nodes)

    def test_the_port_of_mirrorlink_is_bound_anew_on_reset(self):
        phone = self.plug(board.phone())
        self.start_mirrorlink(phone)
        self.board.written()
        asked = request(RESET, phone[0])
        self.ask(asked)
        self.expect_result(asked, 0)
        self.assertEqual(self.board.read(phone[0].devpath + "/remove"), "1")
        self.assertEqual(self.board.written(), [("unbind", "1-1.1"), ("bind", "1-1.1")])
        self.assert_state("STATE_ML_RESETTING")
        self.mark()
        self.board.tell("add", phone[1])
        self.settle()
        self.expect("sdcm", event(ATTACHED, PHONE, phone[0], 1, 8, PHONE_MODES))
        self.expect_nothing("media")
        self.assert_state("STATE_ATTACH")

    def test_an_accessory_runs_android_auto_at_once(self):
        for pid in (0x2D00, 0x2D01, 0x2D04, 0x2D05):
            with self.subTest(f"{pid:x}"):
                phone = self.plug(board.accessory(pid=pid))
                self.expect("sdcm", event(ATTACHED, PHONE, phone[0], 1, 0xFF, ACCESSORY_MODES))
                self.expect_log("aoap mode")
                self.assert_state("STATE_AA")
                asked = request(AA, phone[0])
                self.ask(asked)
                self.expect_log("already aoap", level=128)
                self.expect_result(asked, 0)
                self.refuse(*(request(id, phone[0]) for id in (ML, CP, ACL, ICL)))
                self.unplug(phone)
                self.expect("sdcm", event(DETACHED, PHONE, phone[0], 1, 0xFF, ACCESSORY_MODES))
                self.expect_nothing("media")

    def test_android_auto_stays_when_the_phone_cannot_be_reset(self):
        phone = self.plug(board.accessory())
        self.refuse(request(RESET, phone[0]))
        self.expect_log("port1 vid:18d1 pid:2d00")
        self.assertEqual(self.board.read(phone[0].devpath + "/remove"), "1")
        self.assertEqual(self.board.written(), [])
        self.assert_state("STATE_AA")

    def test_a_deferred_removal_counts_when_the_port_is_empty(self):
        self.addCleanup(self.board.write, board.PORT_STATUS, "1")
        for make, dev_type, usb_class, modes, network in (
                (board.phone, PHONE, 8, PHONE_MODES, False), (board.accessory, PHONE, 0xFF, ACCESSORY_MODES, False),
                (board.mtp_player, MTP, 6, PHONE_MODES, True)):
            with self.subTest(make.__name__):
                phone = self.plug(make())
                if network:
                    self.unplug(self.start_mirrorlink(phone))
                state = self.state(1)
                shown = phone[0].attributes
                left = usbrecords.node_message(
                    21, sender=4, port=1, dev_type=dev_type, vid=ids(phone[0])[0], pid=ids(phone[0])[1], speed=2,
                    usb_class=usb_class, serial=shown["serial"], product=shown["product"],
                    manufacturer=shown["manufacturer"], devpath=phone[0].devpath)
                self.board.written()
                for status in ("1", "2", "ff"):
                    self.board.write(board.PORT_STATUS, status)
                    self.ask(left)
                    self.expect_log(f"port1 1 {state}")
                    self.expect_nothing("sdcm", "media")
                    self.assert_state(state)
                self.board.write(board.PORT_STATUS, "0")
                self.ask(left)
                self.expect("sdcm", event(DETACHED, dev_type, phone[0], 1, usb_class, modes))
                self.expect_nothing("media")
                self.assert_state("STATE_DETACH")
                self.assertEqual(self.board.written(), [("port_sel", "1")] * 4)
                self.unplug(phone)

    def test_a_reset_with_another_phones_ids_touches_nothing(self):
        phone = self.plug(board.accessory())
        self.refuse(request(RESET, phone[0], pid=0x2D01))
        self.expect_log("vid(18d1 18d1) or pid(2d01 2d00) is different")
        self.expect_log("android device doesn't exist")
        self.assertEqual(self.board.read(phone[0].devpath + "/remove"), "")
        self.assert_state("STATE_AA")

    def test_carlife_runs_on_an_iphone_after_a_second_and_outlives_its_removal(self):
        phone = self.plug(board.iphone())
        self.plugged.remove(phone)
        asked = request(ICL, phone[0], devid="iphone-1")
        self.ask(asked)
        self.expect_result(asked, 0)
        self.expect_log("devid:iphone-1")
        changing = self.expect_log("port1 STATE_ATTACH->STATE_CL_CHANGING")
        running = self.expect_log("port1 STATE_CL_CHANGING->STATE_CL")
        self.assertGreaterEqual(running.time - changing.time, 1)
        self.mark()
        self.board.unplug(phone)
        self.settle()
        self.expect_nothing("sdcm", "media")
        self.assert_state("STATE_CL")
        self.board.plug(phone)
        self.settle()
        self.expect_log("port1 STATE_CL, so not send", level=160)
        self.refuse(*(request(id, phone[0]) for id in (AA, ML, CP, ICL, RESET)))
        asked = request(ACL, phone[0])
        self.ask(asked)
        self.expect_result(asked, 0)        # CarLife runs, whichever
        self.assert_state("STATE_CL")
        self.board.unplug(phone)
        self.restart_service()              # nothing else ends it without the two-port hub


class ModesOnTheTwoPortHub(Ports):
    CUT = 3.0           # seconds until a removal counts

    @classmethod
    def prepare(cls):
        super().prepare()
        cls.board.present_before_start(board.root_hub() + board.vehicle_hub())

    def setUp(self):
        super().setUp()
        self.addCleanup(self.board.write, board.PORT_STATUS, "1")

    def power_cut(self, port):
        return [("port_sel", port), ("ka_hub_control", OFF), ("port_sel", port), ("ka_hub_control", ON)]

    def reset(self, phone, port=1):
        asked = request(RESET, phone[0], port, devid="phone-1")
        self.board.written()
        self.ask(asked)
        self.expect_result(asked, 0)
        self.assertEqual(self.board.written(), self.power_cut(str(port)))

    def fall_off(self, phone):
        """The phone falls off the bus, and may come back."""
        self.plugged.remove(phone)
        self.mark()
        self.board.unplug(phone)
        self.settle()
        self.expect_nothing("sdcm", "media")

    def mirrorlink(self, place="1-1.1", port=1):
        phone = self.plug(board.phone(place))
        network = self.plug([board.network(place)])
        asked = request(ML, phone[0], port)
        self.ask(asked)
        self.expect_result(asked, 0)
        self.unplug(network)
        return phone

    def test_mirrorlink_is_left_by_a_power_cut_after_which_the_phone_is_back(self):
        phone = self.mirrorlink("1-1.2", 2)
        self.reset(phone, 2)
        self.assertEqual(self.board.read(phone[0].devpath + "/remove"), "1")
        self.assert_state("STATE_ML_RESETTING", 2)
        self.fall_off(phone)
        self.expect_log("isAdd:1 port:2")
        phone = self.plug(board.phone("1-1.2"))
        self.expect_log("isAdd:0 port:2")
        self.expect("sdcm", event(ATTACHED, PHONE, phone[0], 2, 8, PHONE_MODES))
        self.expect_nothing("media")
        self.assert_state("STATE_ATTACH", 2)

    def test_a_phone_that_does_not_return_is_detached_after_three_seconds(self):
        phone = self.mirrorlink()
        self.reset(phone)
        self.fall_off(phone)
        self.board.write(board.PORT_STATUS, "0")
        gone = self.expect_log("deferred ejection", timeout=5)
        armed = self.expect_log("isAdd:1 port:1")
        self.assertGreaterEqual(gone.time - armed.time, self.CUT)
        self.settle()
        self.expect_log("port1 1 STATE_ML_RESETTING")
        self.expect_log("E_HUB_PORT_STATUS_DISCONNECTED", level=128)
        self.expect("sdcm", event(DETACHED, PHONE, phone[0], 1, 8, PHONE_MODES))
        self.expect_nothing("media")
        self.assertEqual(self.board.written(), [("port_sel", "1")])
        self.assert_state("STATE_DETACH")

    def test_a_phone_that_does_not_return_to_a_port_that_is_taken_counts_as_attached(self):
        one, two = self.mirrorlink("1-1.1", 1), self.mirrorlink("1-1.2", 2)
        for phone, port in ((one, 1), (two, 2)):
            self.reset(phone, port)
            self.fall_off(phone)
        self.board.write(board.PORT_STATUS, "5")
        self.expect_log("port2 2 STATE_ML_RESETTING", timeout=5)
        self.settle()
        for port in (1, 2):
            self.assert_state("STATE_ATTACH", port)
        self.expect_log("error in ka_hub_port_status port:2", level=192)
        self.expect("sdcm", event(ATTACHED, PHONE, one[0], 1, 8, PHONE_MODES),
                    event(ATTACHED, PHONE, two[0], 2, 8, PHONE_MODES))
        for phone in (one, two):
            self.plug(phone)

    def test_android_auto_is_left_by_a_power_cut_repeated_while_an_accessory_returns(self):
        phone = self.plug(board.accessory())
        self.reset(phone)
        self.assert_state("STATE_AA_RESETTING")
        self.fall_off(phone)
        phone = self.plug(board.accessory())
        self.expect_log("port1 reset_retry:1", level=160)
        self.expect_nothing("sdcm")
        self.assertEqual(self.board.written(), self.power_cut("1"))
        self.assert_state("STATE_AA_RESETTING")
        self.fall_off(phone)
        phone = self.plug(board.phone())
        self.expect("sdcm", event(ATTACHED, PHONE, phone[0], 1, 8, ACCESSORY_MODES))
        self.expect_nothing("media")
        self.assert_state("STATE_ATTACH")

    def test_another_phone_that_comes_while_resetting_is_announced_after_the_first_ones_detach(self):
        first = self.plug(board.accessory())
        self.reset(first)
        self.fall_off(first)
        other = self.plug(board.phone(serial="OTHER"))
        self.expect_log("port1 serial OTHER > R58M1234567, so another device", level=160)
        self.expect("sdcm", event(DETACHED, PHONE, first[0], 1, 0xFF, ACCESSORY_MODES),
                    event(ATTACHED, PHONE, other[0], 1, 8, PHONE_MODES))
        self.assert_state("STATE_ATTACH")

    def test_resetting_refuses_every_request(self):
        phone = self.plug(board.accessory())
        self.reset(phone)
        self.refuse(*(request(id, phone[0]) for id in RESULTS))
        self.expect_log("port1 STATE_AA_RESETTING, so can't reset", level=160)
        self.fall_off(phone)
        self.plug(board.phone())

    def test_carlife_on_an_iphone_is_left_by_a_power_cut(self):
        phone = self.plug(board.iphone())
        asked = request(ICL, phone[0])
        self.ask(asked)
        self.assert_state("STATE_CL")
        self.reset(phone)
        self.assert_state("STATE_CL_RESETTING")
        self.fall_off(phone)
        phone = self.plug(board.iphone())
        self.expect("sdcm", event(ATTACHED, APPLE, phone[0], 1, 3, APPLE_MODES))
        self.expect_log("isAdd:0 port:1")       # the timer's end; that of the removal stays
        self.assert_state("STATE_ATTACH")
        self.mark()
        self.expect_log("deferred ejection", timeout=5)
        self.settle()
        self.expect_log("port1 1 STATE_ATTACH")
        self.expect_log("E_HUB_PORT_STATUS_CONNECTED", level=128)
        self.expect_nothing("sdcm", "media")
        self.assert_state("STATE_ATTACH")


class Gates(Ports):
    def setUp(self):
        super().setUp()
        self.addCleanup(self.open_all)

    def open_all(self):
        self.diagnose(usbrecords.coding(3), usbrecords.adaption(1, 1, 1, 1))

    def diagnose(self, *requests):
        self.mark()
        for one in requests:
            self.send("diag", one)
        self.send("diag", bytes.fromhex("8360220000"))      # answered last
        self.expect_log("unknown diag packet cmd:83 subcmd:60,22 rdid:0,0")

    def test_a_phone_on_an_inactive_port_is_not_known(self):
        self.diagnose(usbrecords.adaption(2, 1, 1, 1))
        phone = self.plug(board.phone())
        self.expect_nothing("sdcm", "media")
        self.expect_log("not send because of not active port1 adaption(2)", level=128)
        self.unplug(phone)
        self.expect_nothing("sdcm", "media")
        two = board.phone("1-1.2")
        self.plug(two)
        self.expect("sdcm", event(ATTACHED, PHONE, two[0], 2, 8, PHONE_MODES))

    def test_a_removal_from_an_inactive_port_is_lost_and_the_next_phone_too(self):
        phone = self.plug(board.phone())
        self.diagnose(usbrecords.adaption(2, 1, 1, 1))
        self.unplug(phone)
        self.expect_nothing("sdcm", "media")
        self.open_all()
        self.plug(board.mtp_player())
        self.expect_log("port1 STATE_ATTACH, so not send", level=160)
        self.expect_nothing("sdcm", "media")

    def test_an_answer_about_an_inactive_port_is_dropped(self):
        phone = self.plug(board.phone())
        self.diagnose(usbrecords.adaption(2, 1, 1, 1))
        self.ask(request(CP, phone[0]))
        self.expect_log("port1 STATE_ATTACH, so can't change")
        self.expect_log("not send because of not active port1 adaption(2) or invalid coding(3)", level=128)
        self.expect_nothing("sdcm")
        self.open_all()

    def test_sdcm_hears_with_a_coding_of_one_media_does_not(self):
        for coding, heard in ((0, 0), (1, 1)):
            self.diagnose(usbrecords.coding(coding))
            phone = self.plug(board.phone())
            self.assertEqual(len(self.await_records("sdcm", heard)), heard)
            self.expect_nothing("media")
            self.unplug(phone)
            self.assertEqual(len(self.await_records("sdcm", heard)), heard)
            self.expect_nothing("media")


if __name__ == "__main__":
    main()
