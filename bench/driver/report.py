"""Figures to a document: medians, ratios of the same round, goals, charts."""

import os
import platform
import statistics
import subprocess

import charts
import plan

PACKAGES = {"Asio": "libasio-dev", "libevent": "libevent-dev", "ZeroMQ": "libzmq3-dev",
            "nng": "libnng-dev", "Google Benchmark": "libbenchmark-dev"}

INTRO = """# Performance

Written by `scripts/bench`, which installs what it needs, builds and measures; run it to repeat these
figures. Do not edit.

Each figure is the median of {rounds} runs. The programs of a workload take turns, and server and
clients share one process and one CPU (number {cpu}), because latencies between two CPUs of a virtual
machine are bimodal. A ratio is the median of the ratios of the runs of one turn. All traffic is
loopback. Rows of this library begin with tcp_com.

"""

ABOUT = {
    "W1": """## W1: request and reply

A JSON text of 64 bytes each way, the next request when the reply is there. Callbacks send it: those
of `CommunicationClient`, Asio and libevent; ZeroMQ (REQ, REP) and nng (req, rep) send and receive in
turn. The limit is two threads that block in `recv`. The literal path is a model of threads that
`usleep` and look, with the same hops and periods as the library's default; how such threads fall in
step is chance, so these rows spread over eight connections a run.""",
    "W2": """## W2: ingest

Messages of 64 bytes into the server's listener, counted there. Clients are plain sockets that send
64 KiB at a time, since the server is what is measured, for all that speak CR LF; ZeroMQ and nng feed
their PULL socket from PUSH sockets of their own. "Own clients" send each message through the
library's client, 500 on their way at most. Two limits: plain sockets that send 64 KiB at a time, and
one message at a time.""",
    "W3": """## W3: fan-out

Texts of 200 bytes to every client, at most 500 texts on their way; deliveries are counted at the
clients. These are plain sockets that one thread reads, for all that speak CR LF; ZeroMQ (PUB, SUB) and
nng (pub, sub) have their own, as has each row that says so.

At 1 kHz every client is the library's own, and the time runs from the call that publishes to the
client's listener. 64 clients that poll at the default rates ask for more than the one CPU, so they are
left out.""",
    "W4": """## W4: splitting and large messages

In one process, by Google Benchmark. The limit searches each byte once (`memchr`) and copies it once
(`memcpy`) into memory that is there already. The receivers get their bytes through a socket and hand
messages to a listener; "2 MiB of one-byte messages" are 699,050 of them. `TcpClientWrapper` delivers
one message a millisecond, so only a large one is given to it.""",
    "W5": """## W5: idle

One side only: what it is connected to is a plain socket that says nothing. Threads and memory are
what the objects add. Wake-ups are voluntary context switches; system calls are counted by strace,
which slows what it counts.""",
    "W6": """## W6: pacing

The time from one event to the next at default rates: calls of the broadcast function of a
`CommunicationServer`; messages of a backlog at its listener; texts of a backlog at a client's
socket. A period is the set rate plus the work of one cycle.""",
    "W7": """## W7: scale

`BrixTcpServer` at rate 0 with plain clients. Memory is what each client adds to the process, threads
are those of the process, deliveries are texts of 200 bytes, the stop is that of a server whose
clients are still there.""",
}

LATENCY = (("p50, µs", "p50_us"), ("p99, µs", "p99_us"))
COLUMNS = {
    "W1": LATENCY + (("CPU, µs each", "cpu_us_each"),),
    "W2": (("messages/s", "per_s"), ("CPU, µs each", "cpu_us_each")),
    "W3": (("deliveries/s", "per_s"), ("CPU, µs each", "cpu_us_each")),
    "1 kHz": LATENCY,
    "W4": (("ns a message", "ns_each"), ("GB/s", "gb_per_s"), ("ms", "ms"),
           ("p50, µs", "p50_us"), ("µs over `recv`", "over_plain_us")),
    "W5": (("CPU, %", "cpu_percent"), ("wake-ups/s", "wake_ups_per_s"),
           ("system calls/s", "calls_per_s"), ("threads", "threads"), ("KiB", "resident_kib")),
    "W6": LATENCY + (("max, µs", "max_us"),),
    "W7": (("KiB a client", "kib_per_client"), ("threads", "threads"), ("deliveries/s", "per_s"),
           ("CPU, µs each", "cpu_us_each"), ("stop, ms", "stop_ms")),
}

SPLITTING_ROWS = {
    "limitSmall/64": "limit, 2 MiB of 64-byte messages",
    "cutSmall/64": "splitter, 2 MiB of 64-byte messages",
    "limitSmall/1": "limit, 2 MiB of one-byte messages",
    "cutSmall/1": "splitter, 2 MiB of one-byte messages",
    "limitLarge/16": "limit, 16 MiB in 16 KiB chunks",
    "cutLarge/16": "splitter, 16 MiB in 16 KiB chunks",
    "limitLarge/64": "limit, 64 MiB in 16 KiB chunks",
    "cutLarge/64": "splitter, 64 MiB in 16 KiB chunks",
    "handlerReceives/1": "`TcpServerHandler`, 2 MiB of one-byte messages",
    "clientReceives/1": "`CommunicationClient`, 2 MiB of one-byte messages",
    "commandServerReceives/1": "`TcpServer`, 2 MiB of one-byte messages",
    "handlerReceives/64": "`TcpServerHandler`, one message of 64 MiB",
    "clientReceives/64": "`CommunicationClient`, one message of 64 MiB",
    "commandServerReceives/64": "`TcpServer`, one message of 64 MiB",
    "commandClientReceives/16": "`TcpClientWrapper`, one message of 16 MiB",
    "plainRecv/64": "`recv`, 64 bytes",
    "plainRecv/16384": "`recv`, 16 KiB",
    "recieveMsg/64": "`TcpClient::recieveMsg`, 64 bytes",
    "recieveMsg/16384": "`TcpClient::recieveMsg`, 16 KiB",
}


def number(value):
    """Three digits that count."""
    if value is None:
        return ""
    if abs(value) >= 1e6:
        return f"{value / 1e6:.3g} M" if value < 1e9 else f"{value:.3g}"
    if abs(value) >= 100:
        return f"{value:,.0f}"
    return f"{value:.3g}" if abs(value) >= 0.01 else f"{value:.2g}"


def columns_of(workload, part):
    return COLUMNS["1 kHz" if part.startswith("1 kHz") else workload]


class Report:
    def __init__(self, results, rounds, cpu, busy, charts_folder):
        self.results = results
        self.rounds = rounds
        self.cpu = cpu
        self.busy = busy
        self.charts_folder = charts_folder

    def median(self, key, figure):
        values = self.results.get(key, {}).get(figure)
        return statistics.median(values) if values else None

    def ratio(self, key, over, figure):
        values = zip(self.results.get(key, {}).get(figure, ()),
                     self.results.get(over, {}).get(figure, ()))
        ratios = [value / base for value, base in values if base]
        return statistics.median(ratios) if ratios else None

    def rows(self, workload, part):
        return [key for key in self.results if key[:2] == (workload, part)]

    def parts(self, workload):
        return list(dict.fromkeys(key[1] for key in self.results if key[0] == workload))

    def table(self, workload, part):
        columns = columns_of(workload, part)
        keys = self.rows(workload, part)
        bases = []
        if workload in ("W1", "W2", "W3"):
            raw = next(key[2] for key in keys if key[2].startswith("raw"))
            bases = [((workload, part, row), title)
                     for row, title in [(raw, "raw"), *((peer, peer) for peer in plan.PEERS)]]
        if workload == "W4":
            keys = [key for row in SPLITTING_ROWS for key in keys if key[2] == row]
        heads = [title for title, _ in columns] + ["× " + title for _, title in bases]
        lines = ["| | " + " | ".join(heads) + " |", "|---|" + "---:|" * len(heads)]
        for key in keys:
            cells = [number(self.median(key, figure)) for _, figure in columns]
            cells += [number(self.ratio(key, base, columns[0][1])) for base, _ in bases]
            name = SPLITTING_ROWS.get(key[2], key[2])
            lines.append(f"| {name} | " + " | ".join(cells) + " |")
        return "\n".join(lines) + "\n"

    def chart(self, name, title, axis, workload, parts, figure, log=True, only=None):
        rows = list(dict.fromkeys(
            key[2] for part in parts for key in self.rows(workload, part)
            if self.median(key, figure) and (only is None or key[2] in only)))
        series = [(part, [self.median((workload, part, row), figure) for row in rows])
                  for part in parts]
        titles = [SPLITTING_ROWS.get(row, row).replace("`", "") for row in rows]
        path = os.path.join(self.charts_folder, name + ".svg")
        charts.bars(path, title, axis, titles, series, log)
        return f"\n![{title}](charts/{name}.svg)\n"

    def charts_of(self, workload):
        parts = self.parts(workload)
        if workload == "W1":
            yield self.chart("w1", "Round trip, median", "µs", "W1", parts, "p50_us")
        elif workload == "W2":
            yield self.chart("w2", "Ingest", "messages/s", "W2", parts, "per_s")
        elif workload == "W3":
            paced = [part for part in parts if part.startswith("1 kHz")]
            unpaced = [part for part in parts if part not in paced]
            yield self.chart("w3-unpaced", "Fan-out", "deliveries/s", "W3", unpaced, "per_s")
            yield self.chart("w3-1khz", "Publish to listener at 1 kHz, median", "µs", "W3", paced,
                             "p50_us")
        elif workload == "W4":
            yield self.chart("w4", "Splitting", "GB/s", "W4", parts, "gb_per_s", False,
                             [row for row in SPLITTING_ROWS if row.startswith(("limit", "cut"))])
        elif workload == "W5":
            yield self.chart("w5", "Idle", "% of a CPU", "W5", parts, "cpu_percent", False)
        elif workload == "W7":
            yield self.chart("w7", "Deliveries at rate 0", "deliveries/s", "W7", parts, "per_s")

    def goals(self):
        lines = ["## Goals", "", "| | measured | goal | |", "|---|---:|---:|---|"]
        for goal in plan.goals():
            if goal.key[0] not in {key[0] for key in self.results}:
                continue
            if goal.over is None:
                value = self.median(goal.key, goal.figure)
            else:
                value = self.ratio(goal.key, goal.over, goal.figure)
            met = value is not None and (
                value <= goal.limit if goal.sign == "<=" else value >= goal.limit)
            verdict = "not measured" if value is None else "met" if met else "**missed**"
            sign = "≤" if goal.sign == "<=" else "≥"
            lines.append(f"| {self.goal_name(goal)} | {number(value)} {goal.unit} | "
                         f"{sign} {number(goal.limit)} {goal.unit} | {verdict} |")
        return "\n".join(lines) + "\n"

    @staticmethod
    def goal_name(goal):
        workload, part, row = goal.key
        titles = {figure: title for title, figure in columns_of(workload, part)}
        words = [workload, part, SPLITTING_ROWS.get(row, row), titles[goal.figure].split(",")[0]]
        name = ", ".join(word for word in words if word)
        return name + (f", over {goal.over[2]}" if goal.over else "")

    def document(self):
        sections = [INTRO.format(rounds=self.rounds, cpu=self.cpu) + machine(self.busy),
                    self.goals()]
        for workload in sorted(ABOUT):
            parts = self.parts(workload)
            if not parts:
                continue
            section = ABOUT[workload] + "\n"
            for part in parts:
                section += (f"\n### {workload}, {part}\n" if part else "")
                section += "\n" + self.table(workload, part)
            sections.append(section + "".join(self.charts_of(workload)))
        return "\n".join(sections)


def output_of(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout.strip()


def machine(busy):
    with open("/proc/cpuinfo", encoding="ascii") as lines:
        names = [line.split(":")[1].strip() for line in lines if line.startswith("model name")]
    with open("/proc/meminfo", encoding="ascii") as lines:
        memory = int(next(lines).split()[1]) / 1024 / 1024
    versions = ", ".join(
        f"{name} {output_of('dpkg-query', '-W', '-f', '${Version}', package)}"
        for name, package in PACKAGES.items())
    rows = {
        "CPU": f"{names[0] if names else platform.machine()}, {os.cpu_count()} cores",
        "Memory": f"{memory:.0f} GiB",
        "Kernel": f"{platform.system()} {platform.release()}",
        "Compiler": output_of("c++", "--version").splitlines()[0] + ", Release",
        "Other work": f"{busy:.0f} % of the CPU before the start",
        "Compared with": versions,
    }
    lines = ["## Machine", "", "| | |", "|---|---|"]
    return "\n".join(lines + [f"| {name} | {value} |" for name, value in rows.items()]) + "\n"
