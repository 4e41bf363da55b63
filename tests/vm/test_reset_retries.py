#!/usr/bin/python3
"""Accessories that come back as accessories from a reset: their port is cut again, ten times; what comes back from the
last one is taken as it is. Each time takes some three seconds."""
import re

from phones import ANDROID, RESET, answered, left_the_bus, pulled_in_mode, saw
from resets import AUTO, AWAY, BACK, CARLIFE, ResetRoad, accessory_from_the_start, power_cut, removal
from road import ATTACHED, came, event_told, main, state_told, together
from headunit import Phone

ACCESSORY = accessory_from_the_start(ANDROID)
RETRIES = 10


class Stubborn(ResetRoad):
    """The phone comes as an accessory each time it gets power."""
    PATIENCE = 150

    def is_reset_ten_times(self, phone, mode, arrived):
        since = phone.mark()
        board = len(self.unit.board_lines())
        self.reset(mode)
        away_and_back = [together(left_the_bus(), state_told(mode.switched))] * (RETRIES + 1)
        self.told(*away_and_back, answered(RESET, mode.switched), event_told(arrived, ATTACHED))
        self.went(2, mode.running, mode.resetting, "STATE_ATTACH")
        self.assertEqual(self.retries(), list(range(1, RETRIES + 1)))
        self.assertEqual(self.commands(), removal() + power_cut(2) * (RETRIES + 1))
        self.assertEqual(self.timers(), [AWAY, BACK] * (RETRIES + 1))
        powered = [text for _, text in self.unit.board_lines()[board:] if text.startswith("port 2")]
        self.assertEqual(powered, ["port 2 off", "port 2 on"] * (RETRIES + 1))
        self.assertEqual(saw(phone, since), [])
        self.told_nothing(4)        # an ejection would be due

    def retries(self):
        return [int(re.search(r"(\d+)$", one.text)[1]) for one in self.logs(r"port2 reset_retry:\d+$")]

    def test_after_android_auto_the_eleventh_arrival_is_attached(self):
        self.start()
        phone = self.unit.plug("1.2", Phone("android", starts="accessory"))
        self.told(came(ACCESSORY))
        self.went(2, "STATE_DETACH", "STATE_AA")
        self.is_reset_ten_times(phone, AUTO, ACCESSORY)

    def test_after_carlife_the_eleventh_arrival_is_attached(self):
        self.start()
        phone = self.unit.plug("1.2", Phone("android", starts="accessory"))
        self.told(came(ACCESSORY))
        phone.come("phone")
        self.told(pulled_in_mode(ACCESSORY), came(ANDROID))
        self.switch_again(CARLIFE)
        # What it can do is not asked again, and is that of a phone.
        self.is_reset_ten_times(phone, CARLIFE, CARLIFE.switched)

    def test_a_phone_that_gives_in_is_attached_and_the_next_reset_counts_from_one(self):
        self.start()
        phone = self.switch(AUTO)
        for retries in (2, 1):
            phone = self.reset_of_one_that_gives_in(phone, retries)
            self.switch_again(AUTO)

    def reset_of_one_that_gives_in(self, phone, retries):
        """As an accessory it comes back so often, then as a phone."""
        stubborn, meek = Phone("android", starts="accessory"), Phone("android")
        self.reset_and_replace(AUTO, phone, stubborn)
        since = 0
        for _ in range(retries):
            stubborn.wait("restored", since=since)
            since = stubborn.mark()
            stubborn.wait("cut", since=since)
        self.unit.unplug(stubborn)
        self.unit.plug("1.2", meek)
        away_and_back = [together(left_the_bus(), state_told(AUTO.switched))] * retries
        self.told(*away_and_back, left_the_bus(), state_told(ANDROID), answered(RESET, AUTO.switched),
                  event_told(ANDROID, ATTACHED))
        self.went(2, "STATE_AA", "STATE_AA_RESETTING", "STATE_ATTACH")
        self.assertEqual(self.retries(), list(range(1, retries + 1)))
        self.assertEqual(self.timers(), [AWAY, BACK] * (retries + 1))
        return meek


if __name__ == "__main__":
    main()
