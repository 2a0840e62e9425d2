"""Which programs run, and the goals that their figures are held against."""

from dataclasses import dataclass

PEERS = ("Asio", "libevent", "ZeroMQ", "nng")
RATE0, DIRECT, WAKE = "rate 0", "Direct", "WakeOnData, 0.5 ms"
DEFAULT, LITERAL = "default rates", "literal path, 0.5 ms"
MODES = {DEFAULT: "default", RATE0: "rate0", WAKE: "wake", DIRECT: "direct"}
OWN = " (own clients)"
OURS = "tcp_com, "
POLLED = ("repeats=8", "warmup_ms=10")


@dataclass(frozen=True)
class Run:
    """One program call; the key of its figures is (workload, part, row)."""

    workload: str
    part: str
    row: str
    program: str
    words: tuple
    ms: int = 250
    held: bool = False  # started together with the other rounds, measured one after the other
    traced: bool = False  # once more under strace, which counts system calls

    @property
    def key(self):
        return (self.workload, self.part, self.row)


@dataclass(frozen=True)
class Goal:
    """A figure of a run, over the same figure of `over` in the same round unless that is None."""

    key: tuple
    figure: str
    sign: str  # "<=" or ">="
    limit: float
    over: tuple = None
    unit: str = "×"


def clients_part(clients):
    return f"{clients} client" + ("s" if clients > 1 else "")


def request_reply():
    def run(row, program, *words):
        ms = 400 if "repeats=8" in words else 250
        return Run("W1", "", row, program, ("request_reply",) + words, ms)

    yield run("raw sockets, two threads", "bench_raw")
    yield run("raw sockets, one more hop a side", "bench_raw", "hops=1")
    for row, mode in MODES.items():
        paced = row in (DEFAULT, WAKE)
        yield run(OURS + row, "bench_brix", f"mode={mode}", *(POLLED if paced else ()))
    yield run(LITERAL, "bench_literal", *POLLED)
    yield run("literal path, rate 0", "bench_literal", "rate_ms=0")
    for peer in PEERS:
        yield run(peer, f"bench_{peer.lower()}")


def throughput(workload, program_workload, counts):
    for clients in counts:
        def run(row, program, *words):
            words = (program_workload, f"clients={clients}") + words
            return Run(workload, clients_part(clients), row, program, words, 130)

        yield run("raw sockets, batched", "bench_raw")
        yield run("raw sockets, one send a text", "bench_raw", "batch_bytes=0")
        for row, mode in MODES.items():
            if row != WAKE:
                yield run(OURS + row, "bench_brix", f"mode={mode}")
        yield run(OURS + RATE0 + OWN, "bench_brix", "mode=rate0", "clients_are=own")
        for peer in PEERS:
            own = peer in ("ZeroMQ", "nng")
            yield run(peer, f"bench_{peer.lower()}", *(("clients_are=own",) if own else ()))
        yield run("Asio" + OWN, "bench_asio", "clients_are=own")


def publishing():
    for clients in (1, 8, 64):
        def run(row, program, *words):
            part = f"1 kHz, {clients_part(clients)}"
            return Run("W3", part, row, program, ("publish", f"clients={clients}") + words, 200)

        yield run("raw sockets", "bench_raw")
        for row, mode in MODES.items():
            if row in (RATE0, DIRECT) or clients < 64:  # 64 clients that poll leave no CPU for it
                yield run(OURS + row, "bench_brix", f"mode={mode}")
        for peer in PEERS:
            yield run(peer, f"bench_{peer.lower()}")


def idle():
    names = {"server": "`CommunicationServer`", "client": "`CommunicationClient`",
             "command_server": "`TcpServerWrapper`", "command_client": "`TcpClientWrapper`"}
    for clients in (1, 50):
        def run(row, program, *words, traced=False):
            words = ("idle", f"clients={clients}") + words
            return Run("W5", clients_part(clients), row, program, words, 250, traced=traced)

        yield run(LITERAL, "bench_literal", traced=clients == 1)
        for name, title in names.items():
            modes = MODES if not name.startswith("command") else {DEFAULT: "default"}
            if name == "command_server" and clients > 1:  # it takes four
                continue
            for row, mode in modes.items():
                words = (f"object={name}",) + ((f"mode={mode}",) if len(modes) > 1 else ())
                traced = clients == 1 and row == DEFAULT
                yield run(f"{title}, {row}", "bench_brix", *words, traced=traced)


def pacing():
    rows = {"broadcast function, 10 ms": ("pace_broadcast", 1000),
            "receive pump, 0.5 ms": ("pace_receive", 300), "send pump, 0.5 ms": ("pace_send", 300)}
    for row, (workload, ms) in rows.items():
        yield Run("W6", "", row, "bench_brix", (workload,), ms)


def scale(largest):
    for clients in (1, 10, 100, 1000):
        if clients > largest:
            continue
        words = ("fanout", "mode=rate0", f"clients={clients}", "first=16")
        yield Run("W7", "", clients_part(clients), "bench_brix", words, 200, held=clients == 1000)


def runs(quick):
    yield from request_reply()
    yield from throughput("W2", "ingest", (1, 8))
    yield from throughput("W3", "fanout", (1, 8, 64))
    yield from publishing()
    yield Run("W4", "", "", "bench_splitting", ())
    yield from idle()
    yield from pacing()
    yield from scale(100 if quick else 1000)


def goals():
    def w1(row, sign, limit, over):
        return Goal(("W1", "", OURS + row), "p50_us", sign, limit, ("W1", "", over))

    raw = "raw sockets, two threads"
    yield w1(RATE0, "<=", 3.2, raw)
    yield w1(RATE0, "<=", 1, "ZeroMQ")
    yield w1(RATE0, "<=", 1, "nng")
    yield w1(DIRECT, "<=", 1.8, raw)
    yield w1(DIRECT, "<=", 1, "Asio")
    yield w1(DEFAULT, "<=", 1.05, LITERAL)  # 5 %: what two runs of one program differ by
    yield Goal(("W1", "", OURS + WAKE), "p50_us", "<=", 650, unit="µs")

    def rate(workload, clients, limit, over):
        part = clients_part(clients)
        return Goal((workload, part, OURS + RATE0), "per_s", ">=", limit, (workload, part, over))

    yield rate("W2", 1, 3, "Asio")
    for peer in PEERS:
        yield rate("W2", 8, 0.5, peer)
    for clients in (8, 64):
        for peer in ("ZeroMQ", "Asio"):
            yield rate("W3", clients, 1, peer)
    for clients in (1, 8, 64):
        part = f"1 kHz, {clients_part(clients)}"
        for peer in ("ZeroMQ", "nng"):
            yield Goal(("W3", part, OURS + RATE0), "p50_us", "<=", 1, ("W3", part, peer))
    yield Goal(("W4", "", "cutSmall/64"), "ns_each", "<=", 35, unit="ns")
    yield Goal(("W4", "", "cutLarge/16"), "gb_per_s", ">=", 1.9, unit="GB/s")
    for receiver in ("handler", "client", "commandServer"):
        yield Goal(("W4", "", f"{receiver}Receives/1"), "ms", "<=", 100, unit="ms")
    yield Goal(("W4", "", "recieveMsg/64"), "over_plain_us", "<=", 1, unit="µs")
    for title in ("`CommunicationServer`", "`CommunicationClient`"):
        for row in (RATE0, WAKE, DIRECT):
            key = ("W5", "50 clients", f"{title}, {row}")
            yield Goal(key, "cpu_percent", "<=", 0.2, unit="% of a CPU")
    key = ("W6", "", "broadcast function, 10 ms")
    yield Goal(key, "p99_us", "<=", 10500, unit="µs")
    yield Goal(("W7", "", "1000 clients"), "kib_per_client", "<=", 40, unit="KiB")
    yield Goal(("W7", "", "1000 clients"), "stop_ms", "<=", 1000, unit="ms")
