#!/usr/bin/python3
"""The self-test of the vehicle's hub, which vehicle diagnosis asks for: a bit for each socket's wires."""
from phones import PhoneRoad
from road import HUB_FAULTY, HUB_HEALTHY, HUB_NOT_SUPPORTED, main, said_at, to, together, usbrecords

OPEN = {1: 0x80, 2: 0x40, 3: 0x20, 4: 0x10}    # set: the socket's circuit is closed
SHORT = {1: 0x08, 2: 0x04, 3: 0x02, 4: 0x01}
IN_ORDER = 0xF0
GOOD, BAD = 1, 2

# In the order of sockets, each time the open circuit first.
RESULT_GOOD = to(["diag"], "diag_test_result", result=GOOD)
RESULT_BAD = to(["diag"], "diag_test_result", result=BAD)


def sockets(opened=(), short=()):
    """What diagnosis hears of the four sockets, and that the test went well."""
    told = []
    for socket in (1, 2, 3, 4):
        told.append(to(["diag"], f"diag_socket{socket}_open", open=int(socket in opened)))
        told.append(to(["diag"], f"diag_socket{socket}_short", short=int(socket in short)))
    return together(*told, RESULT_GOOD)


class SelfTest(PhoneRoad):
    def ask_for_test(self):
        self.unit.send("diag", usbrecords.run_hub_test())

    def measured(self, reading, *expected):
        """The hub's answer to a self-test, and what diagnosis then hears."""
        before = len(self.switched())
        self.unit.board("diag_result", reading)
        self.ask_for_test()
        self.told(*expected)
        (began, on), (ended, off) = self.switched()[before:]
        self.assertEqual((on, off), ("ka_hub_diag <- 1", "ka_hub_diag <- 0"))
        self.assertTrue(0.99 <= ended - began < 2.0, (began, ended))
        read, = self.assert_log(f"RunDiagnosisTest: result is 0x{reading:x}$", times=1)
        self.assertTrue(0.99 <= said_at(read) - began < 2.0, (began, read))   # the clocks differ by a little

    def switched(self):
        return [line for line in self.unit.board_lines() if line[1].startswith("ka_hub_diag")]

    def test_four_sockets_in_order(self):
        self.start()
        self.measured(IN_ORDER, sockets())

    def test_no_bit_at_all_means_four_open_circuits(self):
        self.start()
        self.measured(0x00, sockets(opened=OPEN))

    def test_all_bits_mean_that_the_hub_could_not_test(self):
        self.start()
        self.measured(0xFF, RESULT_BAD)
        self.measured(0xFE, sockets(short=(1, 2, 3)))   # the nearest that is a result

    def test_each_socket_that_alone_has_an_open_circuit(self):
        self.start()
        for socket, bit in OPEN.items():
            with self.subTest(socket):
                self.measured(IN_ORDER & ~bit, sockets(opened=[socket]))

    def test_each_socket_that_alone_has_a_short_circuit(self):
        self.start()
        for socket, bit in SHORT.items():
            with self.subTest(socket):
                self.measured(IN_ORDER | bit, sockets(short=[socket]))

    def test_each_bit_alone(self):
        self.start()
        for socket, bit in OPEN.items():
            with self.subTest(bit=bit):
                self.measured(bit, sockets(opened=set(OPEN) - {socket}))
        for socket, bit in SHORT.items():
            with self.subTest(bit=bit):
                self.measured(bit, sockets(opened=OPEN, short=[socket]))

    def test_requests_that_come_during_a_test_are_answered_one_after_another(self):
        self.start()
        for _ in range(3):
            self.ask_for_test()
        self.told(sockets(), sockets(), sockets())
        self.assertEqual([text for _, text in self.switched()], ["ka_hub_diag <- 1", "ka_hub_diag <- 0"] * 3)

    def test_another_routine_state_than_start_tests_nothing(self):
        self.start()
        self.unit.send("diag", usbrecords.build("diag_run_test", start=2))
        self.told_nothing()
        self.assert_log("HandleDiag: unknown diag packet cmd:83 subcmd:60,31 rdid:80,aa$", times=1)
        self.assertEqual(self.switched(), [])

    def test_another_hub_than_the_vehicles_is_not_tested(self):
        self.start_without_two_port_hub()
        self.ask_for_test()
        self.told(RESULT_BAD)
        self.assert_log("RunDiagnosisTest: the ka hub doesn't exist.$", times=1)
        self.assertEqual(self.switched(), [])

    def test_a_hub_that_left_is_not_tested_until_it_is_back(self):
        self.start()
        self.unit.unplug(self.unit.vehicle_hub)
        self.told(HUB_FAULTY, HUB_NOT_SUPPORTED)
        self.ask_for_test()
        self.told(RESULT_BAD)
        self.assertEqual(self.switched(), [])
        self.unit.plug("1", self.unit.vehicle_hub)
        self.told(HUB_HEALTHY)
        self.measured(IN_ORDER, sockets())


if __name__ == "__main__":
    main()
