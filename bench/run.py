#!/usr/bin/python3
"""make bench: runs all benchmarks of a build tree, prints one table, and writes it as JSON beside the programs.

    bench/run.py [--tree build/bench] [--parts load inside perf unit] [--peers udevd busybox] [--quick]

Ends with an error only when something could not be measured: what a row is to hold is data (targets.toml), and whether
it does is said, not enforced."""
import argparse
import datetime
import json
import os
import pathlib
import platform
import re
import statistics
import subprocess
import sys
import tomllib

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent
PARTS = ("load", "inside", "perf", "unit")
QUICK = {"load": ["--rounds", "1", "--batches", "1", "--events", "200", "--full", "500", "--warm", "50",
                  "--starts", "1", "--idle", "1", "--roads", "1"],
         "inside": ["--benchmark_min_time=0.01"]}


class NotMeasured(Exception):
    pass


def run(command, **more):
    ran = subprocess.run(command, stdout=subprocess.PIPE, text=True, **more)
    if ran.returncode != 0:
        raise NotMeasured(f"{command[0]} ended with {ran.returncode}")
    return ran.stdout


# --- the parts: each gives values by name, and what else it found ---

def measure_load(tree, arguments):
    command = [sys.executable, "-B", str(HERE / "load" / "load.py"), "--programs", str(tree)]
    peers = ["--peers", *arguments.peers] if arguments.peers else []
    found = json.loads(run(command + (QUICK["load"] if arguments.quick else []) + peers))
    return load_values(found), found


def load_values(found):
    values, spread = {}, {}
    rounds = found["rounds"]
    for key, name in (("batch_ns", "batch"), ("full_ns", "full")):
        for program in ("usbservice", "floor", "threaded"):
            values[f"load/{name}/{program}"] = statistics.median(one[program][key] for one in rounds) / 1000
        for program, ratio in (("usbservice", "ratio"), ("threaded", "threaded_ratio")):
            ratios = [one[program][key] / one["floor"][key] for one in rounds]
            values[f"load/{name}/{ratio}"] = statistics.median(ratios)
            spread[f"load/{name}/{ratio}"] = [min(ratios), max(ratios)]
    # The socket takes some 29,000 events, which come in 40 ms: a round in which others took the processor from the
    # reader for so long loses some. Such rounds are shown, but do not count.
    for program in ("usbservice", "floor"):
        missing = [one[program]["lost"] for one in rounds]
        values[f"load/lost/{program}"] = statistics.median(missing)
        spread[f"load/lost/{program}"] = [min(missing), max(missing)]
    for name in ("pss", "private"):
        values[f"load/idle/{name}"] = found["idle"]["memory_kb"][name] * 1024 / 1e6
    starts = found["starts"]
    values["load/start/ready"] = statistics.median(one["ready"] for one in starts) / 1000
    values["load/start/scan_end"] = statistics.median(one["scan_end"] for one in starts) / 1000
    # The fastest of many: what else runs on the machine only adds.
    values["load/start/scan"] = min(one["scan_end"] - one["scan_begin"] for one in starts) / 1000
    values["load/enumerate"] = min(found["enumerations"]) / 1000
    awake, seconds = dict(found["idle"]["wakeups"]), found["idle"]["seconds"]
    values["load/wakeups/monitor"] = awake.pop("frame-monitor") / seconds
    values["load/wakeups/main"] = awake.pop("main") * 10 / seconds
    values["load/wakeups/others"] = sum(awake.values())
    for name, road in found["roads"].items():
        reads = road["reads"] * road["read_ns"]
        values[f"load/road/{name}/own"] = (road["cpu_ns"] - reads) / 1000
        values[f"load/road/{name}/reads"] = reads / 1000
    for name, peer in found["peers"].items():
        values[f"load/batch/{name}"] = peer["batch_ns"] / 1000
        values[f"load/lost/{name}"] = peer["lost"]
        values[f"load/idle/pss/{name}"] = peer["memory_kb"]["pss"] * 1024 / 1e6
    return values | {f"{name}:spread": both for name, both in spread.items()}


NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


def measure_inside(tree, arguments):
    program = tree / "bench" / "inside" / "bench_inside"
    found = json.loads(run([str(program), "--benchmark_format=json"] + (QUICK["inside"] if arguments.quick else [])))
    return inside_values(found), found


def inside_values(found):
    """Of repeated benchmarks the median."""
    known = {"name", "run_name", "run_type", "family_index", "per_family_instance_index", "repetitions",
             "repetition_index", "threads", "iterations", "real_time", "cpu_time", "time_unit", "aggregate_name",
             "aggregate_unit", "label", "error_occurred", "error_message"}
    values = {}
    for one in found["benchmarks"]:
        if one.get("error_occurred"):
            raise NotMeasured(f"{one['name']}: {one['error_message']}")
        if one["run_type"] == "aggregate" and one["aggregate_name"] != "median":
            continue
        name = "inside/" + one["run_name"].partition("/iterations:")[0].partition("/repeats:")[0] \
            .removesuffix("/manual_time").removesuffix("/real_time")
        values[name] = one["real_time"] * NANOSECONDS[one["time_unit"]]
        values[f"{name}:cpu"] = one["cpu_time"] * NANOSECONDS[one["time_unit"]]
        values |= {f"{name}:{key}": number for key, number in one.items() if key not in known}
    return values


PERF_STEPS = 1000       # of each program
COLLECTED = re.compile(r"Collected : (\d+)")


def measure_perf(tree, arguments):
    """Instructions of one step, counted by callgrind."""
    values = {}
    for name, (program, *words) in arguments.perf.items():
        command = ["valgrind", "--tool=callgrind", "--toggle-collect=Measured", "--callgrind-out-file=/dev/null",
                   str(tree / "bench" / "perf" / program), *words]
        ran = subprocess.run(command, capture_output=True, text=True)
        found = COLLECTED.search(ran.stderr)
        if ran.returncode != 0 or not found:
            raise NotMeasured(f"{' '.join(command)} ended with {ran.returncode}: {ran.stderr[-300:].strip()}")
        values[f"perf/{name}"] = int(found[1]) / PERF_STEPS
    return values, values


def measure_unit(tree, arguments):
    """Roads in the virtual head unit, whose clock counts its instructions."""
    found = json.loads(run([sys.executable, "-B", str(HERE / "unit" / "roads.py")]))
    return unit_values(found), found


def unit_values(found):
    partition = found["partition"]
    values = {f"unit/partition/{name}": partition[f"{name}_us"] / 1000
              for name in ("own", "fork_and_wait", "mount", "tool")}
    for name, road in found["roads"].items():
        spent = road["together"]
        apart = sum(spent.get(what, 0.0) for what in ("attributes", "children", "mount"))
        values[f"unit/road/{name}"] = (sum(spent.values()) - apart) / 1000
        values[f"unit/road/{name}/apart"] = (apart + road["started"]) / 1000
    return values


# --- the table ---

def judge(row, values):
    """What a row shows: a measured value, what it is beside, and whether it holds what it is to hold."""
    measured = values.get(row["measured"])
    reference = values.get(row["reference"]) if "reference" in row else None
    if measured is None or ("reference" in row and reference is None):
        raise NotMeasured(f"{row['what']}: there is no {row['measured'] if measured is None else row['reference']}")
    quotient = values.get(row.get("quotient"), measured / reference if reference else None)
    holds = None
    if "most" in row:
        holds = measured <= row["most"]
    if "ratio" in row:
        holds = holds is not False and quotient is not None and quotient <= row["ratio"]
    return {"what": row["what"], "unit": row.get("unit", ""), "measured": measured, "reference": reference,
            "ratio": quotient, "spread": values.get(f"{row.get('quotient', row['measured'])}:spread"),
            "most": row.get("most"),
            "most_ratio": row.get("ratio"), "holds": holds}


def number(value):
    if value is None:
        return "-"
    if value == int(value) and abs(value) < 1e7:
        return f"{int(value):,}"
    return f"{value:,.0f}" if abs(value) >= 100 else f"{value:.2f}" if abs(value) >= 0.1 else f"{value:.4f}"


def with_unit(value, unit):
    return number(value) + (f" {unit}" if unit and value is not None else "")


def cells(row):
    target = []
    if row["most_ratio"] is not None:
        target.append(f"≤ {number(row['most_ratio'])} ×")
    if row["most"] is not None:
        target.append(f"≤ {with_unit(row['most'], row['unit'])}" if row["most"] else "0")
    ratio = number(row["ratio"])
    measured = with_unit(row["measured"], row["unit"])
    if row["spread"] and row["spread"][0] != row["spread"][1]:
        both = f" ({number(row['spread'][0])} to {number(row['spread'][1])})"
        ratio, measured = (ratio + both, measured) if row["ratio"] is not None else (ratio, measured + both)
    return [row["what"], measured, with_unit(row["reference"], row["unit"]), ratio,
            ", ".join(target) or "-", {True: "holds", False: "does not", None: "-"}[row["holds"]]]


def table(head, rows):
    widths = [max(len(row[column]) for row in [head, *rows]) for column in range(len(head))]
    lines = [head, ["-" * width for width in widths], *rows]
    return "\n".join("| " + " | ".join(cell.ljust(width) for cell, width in zip(line, widths)) + " |" for line in lines)


def peer_table(values, found):
    rows = []
    for name in ["floor", "usbservice", *found["peers"]]:
        pss = values["load/idle/pss"] if name == "usbservice" else values.get(f"load/idle/pss/{name}")
        rows.append([name, number(values[f"load/batch/{name}"]), number(values[f"load/lost/{name}"]), number(pss)])
    return table(["reader", "CPU µs an event", "lost at full speed", "PSS idle MB"], rows)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--tree", type=pathlib.Path, default=ROOT / "build" / "bench")
    parser.add_argument("--out", type=pathlib.Path, help="results.json in the tree")
    parser.add_argument("--parts", nargs="+", choices=PARTS, default=PARTS)
    parser.add_argument("--peers", nargs="*", default=[], help="Debian's programs to run as well, by name")
    parser.add_argument("--quick", action="store_true", help="tiny counts: shows that all runs, and measures nothing")
    arguments = parser.parse_args()
    if "load" in arguments.parts and os.geteuid() != 0:
        sys.exit("make bench needs root: the service runs in namespaces of its own. Nothing was measured.")
    with open(HERE / "targets.toml", "rb") as file:
        targets = tomllib.load(file)
    rows = [row for row in targets["row"] if row["measured"].partition("/")[0] in arguments.parts]
    arguments.perf = targets["perf"]
    tree = arguments.tree.resolve()
    values, found = {}, {}
    try:
        for part in arguments.parts:
            print(f"-- {part}", file=sys.stderr, flush=True)
            part_values, found[part] = globals()[f"measure_{part}"](tree, arguments)
            values |= part_values
    except NotMeasured as reason:
        sys.exit(f"not measured: {reason}")
    judged, missing = [], []
    for row in rows:
        try:
            judged.append(judge(row, values))
        except NotMeasured as reason:
            missing.append(str(reason))
    print(table(["what", "measured", "reference", "ratio", "target", ""], [cells(row) for row in judged]))
    if arguments.peers and "load" in found:
        print()
        print(peer_table(values, found["load"]))
        for name, why in found["load"]["missing_peers"].items():
            print(f"{name} {why}")
    out = arguments.out or tree / "results.json"
    machine = {"machine": platform.machine(), "processors": os.cpu_count(), "kernel": platform.release()}
    out.write_text(json.dumps({"when": datetime.datetime.now().astimezone().isoformat(timespec="seconds"), **machine,
                               "quick": arguments.quick, "rows": judged, "values": values, "found": found}, indent=1))
    print(f"\n{out}", file=sys.stderr)
    if missing:
        sys.exit("\n".join(f"not measured: {reason}" for reason in missing))


if __name__ == "__main__":
    main()
