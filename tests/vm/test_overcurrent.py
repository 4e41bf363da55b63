#!/usr/bin/python3
"""Over-currents on the ports of the vehicle's hub, and how their power comes back."""
from overcurrents import GONE, OverCurrentRoad, PRESENT, REPORTED, VEHICLE_HUB, found_at, times
from road import (HUB_FAULTY, HUB_HEALTHY, HUB_NOT_SUPPORTED, Plugged, Stick, Volume, attached, came, detached, left,
                  main, mounted, usbrecords)

STICK = Plugged(port=1)
VFAT = Volume(port=1)


class OverCurrent(OverCurrentRoad):
    def start_with_report(self, *ports):
        """The service's start, and a report for each port. When diagnosis heard of the first."""
        self.start()
        before = self.unit.mark()
        for port in ports:
            self.unit.report_overcurrent(port)
        self.told(*[REPORTED] * len(ports), *[PRESENT] * len(ports))
        for port in ports:
            self.assert_log(f"PushOverCurrent: isAdd:1 port:{port} devpath:{VEHICLE_HUB.devpath}$", times=1)
            self.assert_log(f"MakeOCPath: oc_path:/usb1/1-1/1-1:1.0/1-1-port{port}/overcurrent$", times=1)
        return self.reports(True, before)

    def test_one_that_the_first_switch_on_ends(self):
        self.unit.overcurrent(1, clears={1: 1})
        reported, = self.start_with_report(1)
        after = self.unit.mark()
        self.told(GONE)
        switched, = self.switch_ons(1)
        gone, = self.reports(False, after)
        # The pass that starts its clock, the one that sees the time, and the shell.
        self.within(switched - reported, 29.99, 31.0)
        self.within(gone - switched, 0.19, 1.0)
        self.assertEqual(self.switch_ons(2), [])
        self.assert_log("port1 terminated list_size:0$", times=1)
        self.assert_log("port1 step2 overcurrent:", times=0)    # it never read another value than the first, 0
        self.told_nothing()

    def test_both_ports_one_ended_by_its_first_switch_on_and_the_other_by_its_third(self):
        self.unit.overcurrent(1, 2, clears={1: 1, 2: 3})
        after = self.unit.mark()
        first, second = self.start_with_report(1, 2)
        self.told(GONE, GONE)
        one, (two, again, third) = self.switch_ons(1), self.switch_ons(2)
        self.assertEqual(len(one), 1)
        # Deliberate: diagnosis is not told of which port; the first that ends counts as the end of both.
        gone = self.reports(False, after)[-2:]
        self.within(one[0] - first, 29.99, 31.0)
        self.within(two - second, 29.99, 31.5)
        self.within(gone[0] - one[0], 0.19, 1.0)
        # A check after 200 ms, the next switch-on 500 ms behind it; each a pass late.
        for before, behind in ((two, again), (again, third)):
            self.within(behind - before, 0.69, 1.5)
        self.within(gone[1] - third, 0.19, 1.0)
        self.assert_log("GetOverCurrent: port2 step2 overcurrent:1$", times=1, since=(0, 0))
        self.assert_log("GetOverCurrent: port2 step2 overcurrent:0$", times=1, since=(0, 0))

    def test_one_that_never_ends_while_the_device_that_has_it_leaves_and_returns(self):
        self.unit.overcurrent(1)
        self.start()
        before = self.unit.mark()
        stick = self.unit.plug("1.1", Stick(self.one))
        self.told(found_at(STICK), PRESENT, came(STICK), attached(port=1), mounted(VFAT))
        reported, = self.reports(True, before)
        self.assert_log("CheckUdevOvercurrent: \\S+/1-1-port1/overcurrent overcurrent:1$", times=1)
        # The hub takes the port's power. Pulling or losing a device does not end it.
        self.unit.hub_control(1, 3)
        self.told(detached(VFAT), left(STICK))
        self.told_nothing()
        # With the power the device comes back, and meets its sensor again. There is one report to diagnosis.
        self.told(found_at(STICK), came(STICK), attached(port=1), mounted(VFAT))
        self.assertEqual(self.refused(1), 1)
        self.within(self.switch_ons(1)[0] - reported, 29.99, 31.0)
        self.unit.unplug(stick)
        self.told(detached(VFAT), left(STICK))
        self.told_nothing(2)
        self.assertGreater(len(self.switch_ons(1)), 3)
        self.unit.overcurrent()
        self.told(GONE)
        switched = len(self.switch_ons(1))
        self.told_nothing()
        self.assertEqual(len(self.switch_ons(1)), switched)

    def test_a_hub_that_leaves_ends_what_was_reported_of_it_and_not_what_a_device_met(self):
        self.unit.overcurrent(1, 2)
        self.start()
        before = self.unit.mark()
        self.unit.plug("1.1", Stick(self.one))
        self.told(found_at(STICK), PRESENT, came(STICK), attached(port=1), mounted(VFAT))
        met, = self.reports(True, before)
        self.unit.report_overcurrent(2)
        self.told(REPORTED, PRESENT)
        # What the host driver reported has the hub's path and goes with it. The other one has its device's path, which
        # nobody deletes.
        self.unit.unplug(self.unit.vehicle_hub)
        self.told(detached(VFAT), left(STICK), HUB_FAULTY, HUB_NOT_SUPPORTED, GONE)
        self.assert_log(f"DeleteOverCurrentItem: devpath:{VEHICLE_HUB.devpath}$", times=1)
        self.assert_log("DeleteOverCurrentItem: port:2 terminated list_size:1$", times=1)
        # There is no attribute to write to, nor one that could read 0: it goes on until the hub is back.
        self.unit.wait_log("GetOverCurrent: port1 step2 overcurrent:-1", timeout=40)
        self.within(self.unit.now() - met, 30.0, 33.0)
        self.told_nothing(2)
        self.unit.plug("1", self.unit.vehicle_hub)
        self.told(HUB_HEALTHY)
        self.told_nothing(2)
        self.assertGreater(len(self.switch_ons(1)), 1)
        self.unit.overcurrent()
        self.told(GONE)
        self.assertEqual(self.switch_ons(2), [])

    def test_reports_of_an_inactive_port_reach_media_by_the_port_of_the_hub_and_diagnosis_not_at_all(self):
        self.start()
        self.unit.send("diag", usbrecords.adaption(1, 2, 1, 1))
        self.unit.report_overcurrent(2)
        self.told(REPORTED)
        self.assert_log("Push2Umonitor: not send because of not active port2 adaption\\(2\\)$", times=1)
        self.unit.send("diag", usbrecords.adaption(2, 1, 1, 1))
        self.unit.report_overcurrent(2)
        self.told(PRESENT)
        self.assert_log("Send: not send because of not active port1 adaption\\(2\\) or invalid coding\\(3\\)$", times=1)
        self.unit.report_overcurrent(1)
        self.told()

    def test_ten_reports_at_once_are_one_over_current(self):
        self.start()
        before = self.unit.mark()
        self.unit.report_overcurrent(2, 10)
        self.told(times(10, REPORTED), PRESENT)
        self.told_nothing()
        self.assertEqual(self.refused(2, before), 9)


if __name__ == "__main__":
    main()
