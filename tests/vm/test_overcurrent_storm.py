#!/usr/bin/python3
"""A thousand reports of one over-current in a few seconds: what waits behind them, and what does not."""
from overcurrents import GONE, OverCurrentRoad, PRESENT, REPORTED, times
from road import Plugged, Stick, Volume, attached, came, detached, left, main, mounted

STICK = Plugged(port=1)
VFAT = Volume(port=1)


class Storm(OverCurrentRoad):
    LEVEL = 160         # lines of a thousand reports would only fill the log
    PATIENCE = 230      # the monitor takes ten messages a second, less when it switches on in between

    def settle(self):
        self.unit.settle_records(0.6)   # while the monitor refuses one report after another

    def heard_of(self, since):
        """When diagnosis heard that an over-current is there."""
        return [one.time for one in self.unit.records("diag", since) if one.bytes == bytes.fromhex("016022247cff")]

    def storm(self):
        """As many at once as wait for a receiver that shares its processor with the service; then it has them all."""
        for count in (200, 400, 600, 800, 1000):
            self.unit.report_overcurrent(2, 200)
            self._await({"media": count, "speech": count})

    def test_a_storm_is_one_over_current_and_the_monitor_alone_is_late_by_it(self):
        self.unit.overcurrent(2)
        self.start()
        began = self.unit.mark()
        self.storm()
        self.unit.report_overcurrent(1)
        self.told(times(1001, REPORTED), PRESENT)
        first, = self.heard_of(began)
        self.within(self.unit.now() - first, 0, 25)

        # Everything else goes on.
        stick = self.unit.plug("1.1", Stick(self.one))
        self.told(came(STICK), attached(port=1), mounted(VFAT))
        self.unit.unplug(stick)
        self.told(detached(VFAT), left(STICK))
        # So does the over-current itself: its port is switched on in time, while reports of it still wait.
        self.unit.wait_board("1-1-port2/overcurrent <- 1", timeout=40)
        self.within(self.switch_ons(2)[0] - first, 29, 31.5)   # the storm delays who hears of it
        waited = self.refused(2, began)
        self.assertTrue(200 < waited < 310, waited)

        # The last report stands behind the storm.
        self.told(PRESENT)
        self.assertEqual(self.refused(2, began), 999)
        self.assertGreater(self.heard_of(began)[-1] - first, 100)
        self.unit.overcurrent()
        self.told(GONE)
        self.assertEqual(self.switch_ons(1), [])


if __name__ == "__main__":
    main()
