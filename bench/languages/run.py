"""Measures the libraries of Python and Node beside what their people would take otherwise.

Each path has a broker, and two programs of one language between which it carries messages. The runs
are interleaved, each path is the first one in its turn, and a ratio is the median of the ratios of
the same run. `./dev bench --languages` builds and installs what this needs.
"""

import argparse
import contextlib
import json
import os
import pathlib
import socket
import statistics
import subprocess
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).resolve().parent
TOP = HERE.parent.parent
BIN = TOP / "build/release/bin"
MADE = TOP / "build/bench_languages"  # what stpc and tsc write
SMALL, LARGE = 64, 65536
# What a run of each path takes, and what it is at first.
SECONDS = 0.4
FIRST = {"round trips": 200, "small": 4096, "large": 16}

# Language, name, module of the path, broker. Those of other makers are what ours are held against.
PATHS = [
    ("Python", "hublink, packets", "packets", "hub"),
    ("Python", "hublink, interface", "calls", "hub"),
    ("Python", "dbus-next", "dbus", "dbus"),
    ("Node", "hublink, packets", "packets", "hub"),
    ("Node", "hublink, interface", "calls", "hub"),
    ("Node", "dbus-next", "dbus", "dbus"),
    ("Node", "nats", "nats", "nats"),
]
QUANTITIES = [
    ("round trip, 64 bytes, us", "median", 1, False),
    ("round trip, 64 bytes, p99, us", "p99", 1, False),
    ("one way, 64 bytes, messages/s", "small", 0, True),
    ("one way, 64 KiB, MB/s", "large", 0, True),
]


class Brokers:
    """The brokers that have been started, each once, on places of their own."""

    def __init__(self, stack, directory):
        self.stack = stack
        self.directory = pathlib.Path(directory)
        self.places = {}

    def address(self, kind):
        if kind not in self.places:
            self.places[kind] = getattr(self, kind)()
        return self.places[kind]

    def start(self, *command, **options):
        return running(self.stack, list(map(str, command)), **options)

    def hub(self):
        zone = f"bench{os.getpid()}"
        # A child of this process like the other brokers, so that the system treats them alike.
        with socket.create_server(("127.0.0.1", 0)) as free:
            port = free.getsockname()[1]
        self.start(BIN / "hublink", "-hl_zone", zone, "-loopback_only", "-port", port)
        self.wait_for(BIN / "hublinkctl", "--zone", zone, "find")
        return zone

    def dbus(self):
        path = self.directory / "bus"
        config = self.directory / "bus.conf"
        limits = "".join(f'<limit name="{name}">1000000000</limit>' for name in (
            "max_incoming_bytes", "max_outgoing_bytes", "max_message_size"))
        config.write_text(
            f"<busconfig><listen>unix:path={path}</listen>"
            '<auth>EXTERNAL</auth><policy context="default"><allow send_destination="*"/>'
            f'<allow receive_sender="*"/><allow own="*"/></policy>{limits}</busconfig>')
        self.start("dbus-daemon", f"--config-file={config}", "--nofork", "--nopidfile")
        self.wait_until(path.exists)
        return f"unix:path={path}"

    def nats(self):
        self.start("/usr/sbin/nats-server", "-a", "127.0.0.1", "-p", "-1", "--ports_file_dir",
                   self.directory, "-l", self.directory / "nats.log")
        self.wait_until(lambda: any(self.directory.glob("nats-server_*.ports")))
        ports = next(self.directory.glob("nats-server_*.ports"))
        self.wait_until(lambda: ports.read_text().endswith("}"))
        return json.loads(ports.read_text())["nats"][0]

    def wait_for(self, *command):
        self.wait_until(lambda: subprocess.run(
            list(map(str, command)), stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL).returncode == 0)

    @staticmethod
    def wait_until(done):
        end = time.monotonic() + 10
        while not done():
            if time.monotonic() > end:
                sys.exit("a broker hasn't come up")
            time.sleep(0.02)


def running(stack, command, **options):
    process = subprocess.Popen(command, **options)

    def finish():
        process.terminate()
        process.wait()

    stack.callback(finish)
    return process


class Path:
    def __init__(self, stack, brokers, spec):
        self.language, self.name, self.module, broker = spec
        self.is_ours = broker == "hub"
        address = brokers.address(broker)
        self.far = self.end(stack, "far", address)
        self.driver = self.end(stack, "driver", address)
        self.counts = dict(FIRST)
        self.values = {quantity[1]: [] for quantity in QUANTITIES}

    def end(self, stack, role, address):
        command = (["node", HERE / "node/end.mjs"] if self.language == "Node" else
                   ["/usr/bin/python3", "-B", HERE / "python/end.py"])
        environment = dict(os.environ, PYTHONPATH=f"{TOP / 'languages/python/src'}:{MADE}")
        process = running(stack, [*map(str, command), self.module, role, address], text=True,
                          env=environment, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        if process.stdout.readline() != "ready\n":
            sys.exit(f"{self.language}, {self.name}: the {role} end hasn't come up")
        return process

    def ask(self, **order):
        print(json.dumps(order), file=self.driver.stdin, flush=True)
        answer = self.driver.stdout.readline()
        if not answer:
            sys.exit(f"{self.language}, {self.name}: it has ended early")
        return json.loads(answer)

    def measure(self, what):
        """One run of what is asked for, and its seconds."""
        count = self.counts[what]
        if what == "round trips":
            start = time.monotonic()
            times = self.ask(count=count)
            return times, time.monotonic() - start
        size = SMALL if what == "small" else LARGE
        seconds = self.ask(size=size, count=count)["seconds"]
        return {what: count / seconds * (1 if size == SMALL else size / 1e6)}, seconds

    def calibrate(self, seconds):
        """Finds how many make a run, and warms up what compiles itself."""
        for what in FIRST:
            for _ in range(3):
                spent = self.measure(what)[1]
                self.counts[what] = max(FIRST[what], int(self.counts[what] * seconds / spent))

    def run(self, what):
        for name, value in self.measure(what)[0].items():
            self.values[name].append(value)


def spread(values):
    if len(values) < 2:
        return values[0], values[0], values[0]
    quartiles = statistics.quantiles(values, n=4, method="inclusive")
    return statistics.median(values), quartiles[0], quartiles[2]


def print_table(paths, runs):
    print(f"{os.cpu_count()} processors, {runs} interleaved runs; medians, ratios with quartiles")
    for language in dict.fromkeys(path.language for path in paths):
        mine = [path for path in paths if path.language == language]
        others = [path for path in mine if not path.is_ours]
        for title, name, decimals, more_is_better in QUANTITIES:
            print(f"\n{language + ': ' + title:44}{'median':>10}{'least':>10}{'most':>10}"
                  + "".join(f"{'over ' + other.name:>26}" for other in others))
            for path in mine:
                values = path.values[name]
                line = f"  {path.name:42}" + "".join(
                    f"{value:10.{decimals}f}"
                    for value in (statistics.median(values), min(values), max(values)))
                for other in others:
                    if path is other:
                        continue
                    middle, low, high = spread(
                        [a / b for a, b in zip(values, other.values[name])])
                    cell = f"{middle:.2f} ({low:.2f}..{high:.2f})"
                    line += f"{cell:>26}" if path.is_ours else ""
                print(line)


def make_interfaces():
    library = TOP / "languages/typescript"
    (MADE / "node_modules").mkdir(parents=True, exist_ok=True)
    if not (MADE / "node_modules/hublink").exists():
        (MADE / "node_modules/hublink").symlink_to(library)
    (MADE / "package.json").write_text('{ "type": "module" }\n')
    for language in ("python", "typescript"):
        subprocess.run([BIN / "stpc", HERE / "bench.stp", "--language", language, "--output", MADE],
                       check=True)
    subprocess.run([library / "node_modules/.bin/tsc", "--target", "ES2022", "--module", "NodeNext",
                    "--strict", "--skipLibCheck", "--types", "node", "--typeRoots",
                    library / "node_modules/@types", MADE / "bench.ts"], check=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--runs", type=int, default=7)
    parser.add_argument("--quick", action="store_true",
                        help="one short run: shows that it works, the figures mean little")
    parser.add_argument("--only", default="", help="a part of the names of the paths to measure")
    parser.add_argument("--json", help="a file for all values")
    options = parser.parse_args()
    make_interfaces()
    seconds, runs = (0.05, 1) if options.quick else (SECONDS, options.runs)
    with contextlib.ExitStack() as stack:
        directory = stack.enter_context(tempfile.TemporaryDirectory())
        brokers = Brokers(stack, directory)
        paths = [Path(stack, brokers, spec) for spec in PATHS
                 if options.only in f"{spec[0]} {spec[1]}"]
        for path in paths:
            path.calibrate(seconds)
        for run in range(runs):
            for what in FIRST:
                for i in range(len(paths)):
                    paths[(i + run) % len(paths)].run(what)
        print_table(paths, runs)
        if options.json:
            values = {f"{path.language}: {path.name}": path.values for path in paths}
            pathlib.Path(options.json).write_text(json.dumps(values, indent=1))


main()
