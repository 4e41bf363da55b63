#!/usr/bin/python3
"""make bench with tiny counts: everything runs and is shown. No time is judged."""
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import tomllib
import unittest

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE / "load"), str(HERE / "unit")]

import events  # noqa: E402
import run  # noqa: E402
import trace_of_threads  # noqa: E402


class Judgement(unittest.TestCase):
    def judge(self, values, **row):
        return run.judge({"what": "w", "measured": "a", **row}, values)

    def test_a_value_is_held_against_its_limit(self):
        self.assertIs(self.judge({"a": 3}, most=3)["holds"], True)
        self.assertIs(self.judge({"a": 3.1}, most=3)["holds"], False)
        self.assertIs(self.judge({"a": 1}, most=0)["holds"], False)

    def test_a_value_is_held_against_its_reference(self):
        self.assertIs(self.judge({"a": 5, "b": 4}, reference="b", ratio=1.25)["holds"], True)
        self.assertIs(self.judge({"a": 5.1, "b": 4}, reference="b", ratio=1.25)["holds"], False)

    def test_both_must_hold(self):
        self.assertIs(self.judge({"a": 5, "b": 4}, reference="b", ratio=2, most=4)["holds"], False)
        self.assertIs(self.judge({"a": 5, "b": 1}, reference="b", ratio=2, most=9)["holds"], False)

    def test_rounds_are_compared_one_by_one_where_the_row_says_so(self):
        row = self.judge({"a": 5, "b": 4, "q": 1.5, "q:spread": [1, 2]}, reference="b", quotient="q", ratio=1.25)
        self.assertEqual((row["ratio"], row["spread"], row["holds"]), (1.5, [1, 2], False))

    def test_what_has_no_target_is_only_shown(self):
        self.assertIsNone(self.judge({"a": 5})["holds"])

    def test_what_was_not_measured_is_an_error(self):
        with self.assertRaisesRegex(run.NotMeasured, "there is no a"):
            self.judge({"b": 4}, most=3)
        with self.assertRaisesRegex(run.NotMeasured, "there is no b"):
            self.judge({"a": 4}, reference="b", ratio=3)

    def test_of_repeated_benchmarks_the_median_counts(self):
        def one(time, **more):
            return {"name": "n", "run_name": "x/y/iterations:3", "run_type": "iteration", "real_time": time,
                    "cpu_time": 0, "time_unit": "us", "iterations": 3} | more
        found = {"benchmarks": [one(9, run_type="aggregate", aggregate_name="mean"),
                                one(2, run_type="aggregate", aggregate_name="median", allocations=4)]}
        self.assertEqual(run.inside_values(found),
                         {"inside/x/y": 2000, "inside/x/y:cpu": 0, "inside/x/y:allocations": 4})

    def test_what_others_do_on_a_road_is_counted_apart(self):
        road = {"together": {"user mode": 700.0, "attributes": 100.0, "children": 40.0, "mount": 60.0}, "started": 800.0}
        found = {"partition": {"own_us": 200.0, "fork_and_wait_us": 240.0, "mount_us": 500.0, "tool_us": 4000.0},
                 "roads": {"r": road}}
        self.assertEqual(run.unit_values(found), {
            "unit/partition/own": 0.2, "unit/partition/fork_and_wait": 0.24, "unit/partition/mount": 0.5,
            "unit/partition/tool": 4.0, "unit/road/r": 0.7, "unit/road/r/apart": 1.0})


class Trace(unittest.TestCase):
    """A thread that handles an event, a child of it, and the slices in which both have the processor."""
    TEXT = """
     frame-event-159     [000] .....     5.000010: sys_exit: NR 207 = 301
     frame-event-159     [000] .....     5.000030: sys_enter: NR 56 (ffffffffffffff9c, ffff939de410, 80000, 0, 0, 73)
     frame-event-159     [000] .....     5.000040: sys_exit: NR 56 = 17
     frame-event-159     [000] .....     5.000041: sys_enter: NR 63 (11, ffff939de408, 1, 0, 0, 73)
     frame-event-159     [000] .....     5.000044: sys_exit: NR 63 = 1
     frame-event-159     [000] .....     5.000045: sys_enter: NR 220 (1200011, 0, 0, 0, 0, 0)
     frame-event-159     [000] .....     5.000085: sys_exit: NR 220 = 170
     frame-event-159     [000] .....     5.000086: sys_enter: NR 63 (12, ffff939de408, 400, 0, 0, 73)
     frame-event-159     [000] d....     5.000090: sched_switch: prev_comm=frame-event prev_pid=159 prev_prio=120 \
prev_state=S ==> next_comm=blkid2 next_pid=170 next_prio=120
          blkid2-170     [000] .....     5.000100: sys_enter: NR 56 (0, 0, 0, 0, 0, 0)
          blkid2-170     [000] d....     5.000190: sched_switch: prev_comm=blkid2 prev_pid=170 prev_prio=120 \
prev_state=S ==> next_comm=frame-event next_pid=159 next_prio=120
     frame-event-159     [000] .....     5.000195: sys_exit: NR 63 = 40
     frame-event-159     [000] .....     5.000200: sys_enter: NR 40 (0, 0, 0, 0, 0, 0)
     frame-event-159     [000] .....     5.000300: sys_exit: NR 40 = 0
     frame-event-159     [000] .....     5.000310: sys_enter: NR 64 (2, 0, 0, 0, 0, 0)
     frame-event-159     [000] .....     5.000315: sys_exit: NR 64 = 90
""".replace("\\\n", "")

    def test_time_goes_to_what_the_thread_was_at_while_it_had_the_processor(self):
        slices, calls = trace_of_threads.read(self.TEXT)
        self.assertEqual(trace_of_threads.total(slices, {159}), {
            "user mode": 38.0, "attributes": 13.0, "children": 49.0, "mount": 100.0, "log": 5.0})
        self.assertEqual(trace_of_threads.total(slices, {170}), {"attributes": 90.0})
        self.assertEqual([one.name for one in calls if one.thread == 159],
                         ["recvfrom", "openat", "read", "clone", "read", "mount", "write"])

    def test_only_what_lies_between_two_moments_counts(self):
        slices, _ = trace_of_threads.read(self.TEXT)
        self.assertEqual(trace_of_threads.total(slices, {159}, 5.00025, 5.000312), {"mount": 50.0, "user mode": 10.0,
                                                                                    "log": 2.0})


class Events(unittest.TestCase):
    def test_they_have_the_size_that_the_targets_are_for(self):
        made = events.messages(events.templates())
        self.assertEqual(round(events.mean_bytes(made)), 279)
        self.assertLess(max(map(len, made)), 2048)

    def test_none_makes_a_node(self):
        for _, text in events.templates():
            keys = dict(line.split("=", 1) for line in text.split("\0")[1:-1])
            makes = {"usb", "block", "hid", "tty", "net"} if keys["ACTION"] == "add" else {"tty"}
            self.assertNotIn(keys["SUBSYSTEM"] if keys["ACTION"] in ("add", "change") else "", makes)

    def test_rare_ones_lie_between_the_others(self):
        made = events.messages([(1, "rare\0"), (4, "usual\0")])
        self.assertEqual([one.decode().rstrip("\0") for one in made], ["usual", "usual", "rare", "usual", "usual"])


class Quick(unittest.TestCase):
    def test_everything_runs_and_is_shown(self):
        with open(HERE / "targets.toml", "rb") as file:
            rows = [row["what"] for row in tomllib.load(file)["row"] if row["measured"].startswith("load/")]
        with tempfile.TemporaryDirectory() as folder:
            out = os.path.join(folder, "results.json")
            ran = subprocess.run([sys.executable, "-B", str(HERE / "run.py"), "--quick", "--parts", "load", "--peers",
                                  "nobody", "--tree", os.environ["BENCH_TREE"], "--out", out],
                                 capture_output=True, text=True)
            self.assertEqual(ran.returncode, 0, ran.stderr)
            with open(out) as file:
                results = json.load(file)
        shown = [line.split("|")[1].strip() for line in ran.stdout.splitlines() if line.startswith("| ")]
        self.assertEqual(shown[:len(rows) + 2][2:], rows)
        self.assertIn("nobody is no peer that is known here", ran.stdout)
        self.assertEqual([row["what"] for row in results["rows"]], rows)
        for row in results["rows"]:
            self.assertGreaterEqual(row["measured"], 0)
        self.assertGreater(results["values"]["load/batch/usbservice"], 0)
        self.assertGreater(results["values"]["load/batch/floor"], 0)


if __name__ == "__main__":
    unittest.main(verbosity=2)
