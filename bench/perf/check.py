#!/usr/bin/python3
"""Counts the instructions of the programs beside this one and compares them with what targets.toml allows.

    bench/perf/check.py [TREE]      ends with an error when more are needed; TREE: build/bench or $BENCH_TREE

The counts are the machine's own only in the C library's text functions, which choose by processor: the bounds are for
processors with AVX2, others get a quarter more."""
import argparse
import os
import pathlib
import sys
import tomllib

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent))
import run      # noqa: E402

MORE_WITHOUT_AVX2 = 1.25


def allowance():
    with open("/proc/cpuinfo") as file:
        return 1 if "avx2" in file.read().split() else MORE_WITHOUT_AVX2


def main():
    tree = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else os.environ.get("BENCH_TREE", run.ROOT / "build/bench"))
    with open(HERE.parent / "targets.toml", "rb") as file:
        targets = tomllib.load(file)
    rows = [row for row in targets["row"] if row["measured"].startswith("perf/")]
    if any("most" not in row for row in rows):
        sys.exit("a row of perf has no bound")
    more = allowance()
    try:
        values, _ = run.measure_perf(tree.resolve(), argparse.Namespace(perf=targets["perf"]))
        judged = [run.judge(row | {"most": row["most"] * more}, values) for row in rows]
    except run.NotMeasured as reason:
        sys.exit(f"not measured: {reason}")
    print(run.table(["what", "measured", "reference", "ratio", "target", ""], [run.cells(row) for row in judged]))
    return 0 if all(row["holds"] for row in judged) else 1


if __name__ == "__main__":
    sys.exit(main())
