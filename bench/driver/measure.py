"""Runs the programs, interleaved and pinned to one CPU, and collects their figures."""

import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import time

TIMEOUT_S = 120
TRACED_MS = (200, 600)


class Failed(Exception):
    pass


class Bench:
    def __init__(self, folder, quick):
        self.folder = pathlib.Path(folder)
        self.quick = quick
        self.cpu = max(os.sched_getaffinity(0))

    def command(self, run, ms=None):
        ms = ms or (max(60, run.ms // 4) if self.quick else run.ms)
        words = ["taskset", "-c", str(self.cpu), str(self.folder / run.program), *run.words]
        return words + [f"ms={ms}"]

    def busy_percent(self):
        """What others take of the CPU, over a second."""
        def ticks():
            with open("/proc/stat", encoding="ascii") as lines:
                fields = next(line for line in lines if line.startswith(f"cpu{self.cpu} ")).split()
            numbers = [int(field) for field in fields[1:]]
            return sum(numbers), numbers[3] + numbers[4]  # all, idle and waiting for a disk

        (total, idle), _, (total_later, idle_later) = ticks(), time.sleep(1), ticks()
        return 100 - 100 * (idle_later - idle) / max(1, total_later - total)

    def start(self, command):
        log = tempfile.TemporaryFile("w+")
        process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                   stderr=log, text=True)
        process.log = log
        return process

    def output(self, process, command):
        """Standard output of a program that must end well."""
        try:
            out, _ = process.communicate(timeout=TIMEOUT_S)
        except subprocess.TimeoutExpired:
            process.kill()
            process.communicate()
            raise Failed(f"no end after {TIMEOUT_S} s: {' '.join(command)}") from None
        if process.returncode != 0:
            process.log.seek(0)
            last = "".join(process.log.readlines()[-1:]).strip()
            raise Failed(f"exit status {process.returncode}: {' '.join(command)}: {last}")
        return out

    def figures(self, run):
        if run.program == "bench_splitting":
            return self.splitting(run)
        command = self.command(run)
        out = self.output(self.start(command), command)
        return {run.key: json.loads(out.splitlines()[-1])}

    def splitting(self, run):
        """Google Benchmark: one row for each of its benchmarks."""
        with tempfile.NamedTemporaryFile("r") as result:
            seconds = 0.01 if self.quick else 0.05
            command = self.command(run)[:-1]
            command += [f"--benchmark_out={result.name}", "--benchmark_out_format=json",
                        f"--benchmark_min_time={seconds}"]
            self.output(self.start(command), command)
            benchmarks = json.load(result)["benchmarks"]
        rows = {}
        for one in benchmarks:
            if "error_occurred" in one:
                raise Failed(f"{one['name']}: {one['error_message']}")
            if "p50_us" in one:
                row = {"p50_us": one["p50_us"]}
            else:
                clock = "real_time" if "manual_time" in one["name"] else "cpu_time"
                row = {"ms": one[clock] / 1e6, "gb_per_s": one["bytes_per_second"] / 1e9}
                if one["items_per_second"] > 1e3:
                    row["ns_each"] = 1e9 / one["items_per_second"]
            rows["/".join(one["name"].split("/")[:2])] = row
        for size in ("64", "16384"):
            over = rows[f"recieveMsg/{size}"]["p50_us"] - rows[f"plainRecv/{size}"]["p50_us"]
            rows[f"recieveMsg/{size}"]["over_plain_us"] = over
        return {(run.workload, run.part, name): row for name, row in rows.items()}

    def held(self, run, rounds):
        """Connecting takes its time, so all rounds do it together; each is measured alone."""
        command = self.command(run) + ["hold=1"]
        processes = [self.start(command) for _ in range(rounds)]
        for process in processes:
            for line in process.stdout:
                if line.strip() == "ready":
                    break
        for process in processes:
            process.stdin.write("go\n")
            process.stdin.flush()
            out = self.output(process, command)
            yield {run.key: json.loads(out.splitlines()[-1])}

    def calls_per_s(self, run):
        """System calls of a run that is longer less those of a shorter one."""
        counts = []
        for ms in TRACED_MS:
            with tempfile.NamedTemporaryFile("r") as summary:
                command = ["strace", "-f", "-c", "-o", summary.name] + self.command(run, ms)
                self.output(self.start(command), command)
                total = re.search(r"^\s*100\.00\s+\S+\s+\S+\s+(\d+).*total", summary.read(), re.M)
            if total is None:
                raise Failed("strace counted nothing: " + " ".join(command))
            counts.append(int(total[1]))
        return (counts[1] - counts[0]) / (TRACED_MS[1] - TRACED_MS[0]) * 1e3


def collect(bench, runs, rounds, log=sys.stderr):
    """{key: {figure: [one value a round]}}; the rounds of a workload interleave its programs."""
    results = {}

    def add(figures):
        for key, row in figures.items():
            for name, value in row.items():
                results.setdefault(key, {}).setdefault(name, []).append(value)

    workloads = {}
    for run in runs:
        workloads.setdefault(run.workload, []).append(run)
    for workload, its_runs in sorted(workloads.items()):
        start = time.monotonic()
        for number in range(rounds):
            print(f"\r== {workload}, round {number + 1} of {rounds}", end="", file=log, flush=True)
            for run in its_runs:
                if not run.held:
                    add(bench.figures(run))
        for run in its_runs:
            if run.held:
                for figures in bench.held(run, rounds):
                    add(figures)
            if run.traced:
                add({run.key: {"calls_per_s": bench.calls_per_s(run)}})
        print(f", {time.monotonic() - start:.0f} s", file=log)
    return results
