"""Measures links between machines beside plain NATS, and what a large realm costs.

A round trip, a stream of small messages and one of large ones go over two hubs and two bridges,
over one hub, and plainly over NATS by its C client, through one nats-server. The runs are
interleaved, and a ratio is the median of the ratios of the same run. Then a realm of many bridges
is put up: how long a new service takes until all others can have it, and what a bridge costs that
does nothing. `./dev bench --bridge` builds and installs what this needs.
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

TOP = pathlib.Path(__file__).resolve().parent.parent.parent
BIN = TOP / "build/release/bin"
sys.path.insert(0, str(TOP / "languages/python/src"))
import hublink.blocking  # noqa: E402

ROUND_TRIPS, STREAM, BULK = 3000, 300000, 6000
PATIENCE = 60  # seconds


class Place:
    """Processes on loopback with a directory of their own, ended with it."""

    def __init__(self, stack, directory):
        self.stack = stack
        self.directory = pathlib.Path(directory)
        self.number = 0
        self.nats = None
        os.environ["TMP"] = str(directory)  # where hubs leave their records

    def start(self, *command, line=None):
        """Starts a program; with `line` waits for an output line that holds that text."""
        self.number += 1
        log = self.directory / f"{self.number}.log"
        with log.open("w") as output:
            process = subprocess.Popen(
                list(map(str, command)), stdout=subprocess.PIPE if line else output,
                stderr=output, text=True)
        self.stack.callback(self.end, process)
        if line and line not in process.stdout.readline():
            sys.exit(f"{command[0]} has failed: {log.read_text()}")
        return process

    @staticmethod
    def end(process):
        process.kill()
        process.wait()

    def start_nats(self):
        ports = self.directory / "ports"
        ports.mkdir()
        self.start("nats-server", "-a", "127.0.0.1", "-p", "-1", "--ports_file_dir", ports)
        until(lambda: list(ports.glob("*.ports")), "nats-server")
        found = json.loads(next(ports.glob("*.ports")).read_text())
        self.nats = found["nats"][0]

    def hub(self, zone):
        with socket.create_server(("127.0.0.1", 0)) as free:
            port = free.getsockname()[1]
        self.start(BIN / "hublink", "-hl_zone", zone, "-loopback_only", "-port", port)
        until(lambda: (self.directory / f"svc_{zone}").exists(), f"the hub of {zone}")

    def bridge(self, zone, *options):
        return self.start(BIN / "hublink-bridge", "--realm", "bench", "--nats", self.nats,
                          "--name", zone, "-hl_zone", zone, *options, line="bridge: machine")


@contextlib.contextmanager
def realm_place():
    with contextlib.ExitStack() as stack:
        place = Place(stack, stack.enter_context(tempfile.TemporaryDirectory()))
        place.start_nats()
        yield place


def until(condition, what):
    end = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > end:
            sys.exit(f"{what} takes too long")
        time.sleep(0.01)


def measured(*command):
    output = subprocess.run(list(map(str, command)), capture_output=True, text=True, check=True,
                            timeout=PATIENCE)
    return json.loads(output.stdout)


def quartiles(values):
    low, middle, high = statistics.quantiles(values, n=4)
    return f"{middle:.2f} ({low:.2f}..{high:.2f})"


def measure_links(place, runs):
    for zone in ("here", "there"):
        place.hub(zone)
    place.bridge("here")
    place.bridge("there", "--export", "BridgeBench")
    place.start(BIN / "bridge_bench", "hub-serve", "-hl_zone", "there", line="ready")
    place.start(BIN / "bridge_bench", "nats-serve", place.nats, line="ready")
    ask = [BIN / "hublinkctl", "--zone", "here", "provider", "BridgeBench"]
    until(lambda: subprocess.run(ask, capture_output=True).returncode == 0,
          "the service of the other hub")
    roads = {
        "NATS": ("nats-measure", place.nats, ROUND_TRIPS, STREAM, BULK),
        "one hub": ("hub-measure", ROUND_TRIPS, STREAM, BULK, "-hl_zone", "there"),
        "bridge": ("hub-measure", ROUND_TRIPS, STREAM, BULK, "-hl_zone", "here"),
    }
    results = {road: [] for road in roads}
    for run in range(runs):
        names = list(roads)
        for road in names[run % len(names):] + names[:run % len(names)]:
            results[road].append(measured(BIN / "bridge_bench", *roads[road]))
    for quantity, title in (("median", "round trip, 64 bytes, us"), ("p99", "the same, p99"),
                            ("small", "64 bytes, messages/s"), ("large", "64 KiB, MB/s")):
        row = "   ".join(f"{road} {statistics.median(one[quantity] for one in results[road]):,.0f}"
                         for road in roads)
        print(f"{title:26} {row}")
    runs = list(zip(results["bridge"], results["NATS"], results["one hub"]))
    print("round trip over 1.3 x NATS's and two local hub hops (at most 1): " + quartiles(
        [own["median"] / (1.3 * nats["median"] + 2 * hub["median"]) for own, nats, hub in runs]))
    for quantity, least in (("small", 0.7), ("large", 0.8)):
        print(f"{quantity} messages over NATS's (at least {least}): " + quartiles(
            [own[quantity] / nats[quantity] for own, nats, _ in runs]))


def processor_seconds(process):
    fields = pathlib.Path(f"/proc/{process.pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def resident_megabytes(process):
    status = pathlib.Path(f"/proc/{process.pid}/status").read_text()
    return int(status.split("VmRSS:")[1].split()[0]) / 1024


def measure_realm(place, machines, services, seconds):
    zones = [f"m{number}" for number in range(machines)]
    bridges, plugins = [], []
    for zone in zones:
        place.hub(zone)
        bridges.append(place.bridge(zone, "--export", "*"))
        plugin = hublink.blocking.connect(["bench", "-hl_zone", zone])
        place.stack.callback(plugin.close)
        for number in range(services):
            plugin.provide(f"{zone}.service{number}", lambda link: link.close())
        plugins.append(plugin)
    last = f"{zones[-1]}.service{services - 1}"
    until(lambda: all(plugin.find_provider(last) is not None for plugin in plugins), "the realm")

    times = []
    for number in range(5):
        name = f"new{number}"
        begin = time.monotonic()
        plugins[number].provide(name, lambda link: link.close())
        waiting = [plugin for at, plugin in enumerate(plugins) if at != number]
        while waiting:
            waiting = [plugin for plugin in waiting if plugin.find_provider(name) is None]
            if time.monotonic() - begin > PATIENCE:
                sys.exit("a new service isn't found everywhere")
        times.append(time.monotonic() - begin)
    print(f"{machines} bridges, {services} services each: a new one is found everywhere after "
          f"{statistics.median(times) * 1000:,.0f} ms (worst {max(times) * 1000:,.0f}; goal 1,000)")
    time.sleep(35)  # stand-ins that only those questions were for go
    before = [processor_seconds(bridge) for bridge in bridges]
    time.sleep(seconds)
    used = [100 * (processor_seconds(bridge) - start) / seconds
            for bridge, start in zip(bridges, before)]
    memory = [resident_megabytes(bridge) for bridge in bridges]
    print(f"an idle bridge: {statistics.mean(used):.2f} % of a processor (goal 0.5), "
          f"{statistics.median(memory):.1f} MB, worst {max(memory):.1f} (goal 20)")


def main():
    parser = argparse.ArgumentParser(prog="./dev bench --bridge",
                                     description=__doc__.splitlines()[0])
    parser.add_argument("--runs", type=int, default=7)
    parser.add_argument("--machines", type=int, default=100,
                        help="of the large realm; 0 leaves it out")
    parser.add_argument("--services", type=int, default=50)
    parser.add_argument("--seconds", type=int, default=20, help="that idle bridges are watched")
    arguments = parser.parse_args()
    with realm_place() as place:
        measure_links(place, arguments.runs)
    if arguments.machines:
        with realm_place() as place:
            measure_realm(place, arguments.machines, arguments.services, arguments.seconds)


if __name__ == "__main__":
    main()
