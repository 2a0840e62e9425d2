"""Measures, and writes the document. Called by scripts/bench, which says how it is used."""

import argparse
import json
import os
import pathlib
import sys
import time

import measure
import plan
import report

ROUNDS = 5
BUSY_PERCENT = 5
WORKLOADS = ("W1", "W2", "W3", "W4", "W5", "W6", "W7")


def arguments():
    parser = argparse.ArgumentParser(prog="scripts/bench")
    parser.add_argument("--quick", action="store_true", help="one short run of every program")
    parser.add_argument("--only", default=",".join(WORKLOADS), help="workloads, such as W1,W3")
    parser.add_argument("--rounds", type=int, default=ROUNDS, help="runs of every program")
    parser.add_argument("--report", action="store_true", help="write the last figures again")
    parser.add_argument("--root", type=pathlib.Path, required=True, help=argparse.SUPPRESS)
    parser.add_argument("--build", type=pathlib.Path, required=True, help=argparse.SUPPRESS)
    chosen = parser.parse_args()
    chosen.workloads = chosen.only.split(",")
    for workload in chosen.workloads:
        if workload not in WORKLOADS:
            parser.error(f"no such workload: {workload}")
    return chosen


def measured(options, figures):
    rounds = 1 if options.quick else options.rounds
    bench = measure.Bench(options.build / "bin", options.quick)
    runs = [run for run in plan.runs(options.quick) if run.workload in options.workloads]
    busy = bench.busy_percent()
    if busy > BUSY_PERCENT:
        print(f"== other work takes {busy:.0f} % of the CPU: figures will be off", file=sys.stderr)
    start = time.monotonic()
    results = measure.collect(bench, runs, rounds)
    print(f"== measured in {time.monotonic() - start:.0f} s", file=sys.stderr)
    whole = rounds >= ROUNDS and len(options.workloads) == len(WORKLOADS)
    saved = {"rounds": rounds, "cpu": bench.cpu, "busy": busy, "whole": whole, "rows": list(results.items())}
    figures.write_text(json.dumps(saved), encoding="utf-8")


def main():
    options = arguments()
    figures = options.build / "figures.json"
    if not options.report:
        measured(options, figures)
    saved = json.loads(figures.read_text(encoding="utf-8"))
    results = {tuple(key): row for key, row in saved["rows"]}
    # A part of the figures must not replace the whole document.
    folder = options.root / "docs" if saved["whole"] else options.build
    os.makedirs(folder / "charts", exist_ok=True)
    text = report.Report(results, saved["rounds"], saved["cpu"], saved["busy"],
                         folder / "charts").document()
    document = folder / "performance.md"
    document.write_text(text, encoding="utf-8")
    print(f"== written: {document}", file=sys.stderr)


if __name__ == "__main__":
    try:
        main()
    except (measure.Failed, OSError) as error:
        sys.exit(f"scripts/bench: {error}")
