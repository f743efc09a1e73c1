"""Machines for tests: network namespaces, each with a hub and a bridge of its own, and one with
nats-servers, to which every machine has a cable. Nothing of it can be reached from outside, and all
of it goes with the realm."""

import os
import pathlib
import shutil
import subprocess
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
TOP = HERE.parent.parent
sys.path.insert(0, str(HERE.parent / "support"))
from program import LIMIT, Program  # noqa: E402


def run(*command):
    subprocess.run([str(word) for word in command], check=True, stdout=subprocess.DEVNULL)


def until(condition, what, seconds=LIMIT):
    end = time.monotonic() + seconds
    while not (found := condition()):
        assert time.monotonic() < end, f"in vain: {what}"
        time.sleep(0.02)
    return found


class Machine:
    """A namespace with its own loopback interface and a cable to the servers, which may be poor:
    that many ms late, with a loss in percent, and with no more than so many bytes per second."""

    def __init__(self, realm, name, number, delay=0, loss=0, rate=0):
        self.realm = realm
        self.name = name
        self.number = number
        self.space = f"{realm.prefix}{name}"
        self.directory = realm.directory / name
        self.directory.mkdir()
        self.zone = f"zone-{name}"
        self.environment = dict(
            os.environ, TMP=str(self.directory), PYTHONDONTWRITEBYTECODE="1",
            PYTHONPATH=str(TOP / "languages/python/src"))
        self.cable = f"to-{name}"  # at the servers' end
        self.log = (self.directory / "log").open("w")
        realm.stack.callback(self.log.close)
        realm.add_namespace(self.space)
        inner, outer = "cable", self.cable
        spaces = [(self.space, inner), (realm.servers, outer)]
        if delay or loss or rate:
            self.lay_poor_cable(spaces, delay, loss, rate)
        else:
            self.lay_cable(*spaces)
        for space, end, host in ((self.space, inner, 2), (realm.servers, outer, 1)):
            run("ip", "-n", space, "addr", "add", f"10.77.{number}.{host}/24", "dev", end)
            run("ip", "-n", space, "link", "set", end, "up")

    @staticmethod
    def lay_cable(one, other):
        run("ip", "link", "add", one[1], "netns", one[0], "type", "veth", "peer", "name", other[1],
            "netns", other[0])

    def lay_poor_cable(self, ends, *faults):
        """Two cables with a program between them. The kernel is to write the checksums, which it
        leaves out where it sees nothing but memory."""
        middle = self.space + "-cable"
        self.realm.add_namespace(middle)
        for (space, name), here in zip(ends, ("in", "out")):
            self.lay_cable((space, name), (middle, here))
            run("ip", "netns", "exec", space, "ethtool", "-K", name, "tx", "off")
            run("ip", "-n", middle, "link", "set", here, "up")
        program = self.start("python3", HERE / "cable.py", "in", "out", *faults, space=middle)
        program.expect("ready")

    def start(self, *command, space=None):
        return Program(self.realm.stack, ["ip", "netns", "exec", space or self.space, *command],
                       self.environment, self.log)

    def start_hub(self, *programs):
        """A hub that knows how to start each of the programs: (service, command)."""
        place = self.directory / "installed"
        services = place / "defaults/services"
        services.mkdir(parents=True, exist_ok=True)
        hub = shutil.copy(self.realm.bin / "hublink", place)  # it looks beside itself
        blocks = []
        for service, command in programs:
            program = place / f"start-{service}"
            program.write_text("#!/bin/sh\nexec " + " ".join(map(str, command)) + ' "$@"\n')
            program.chmod(0o755)
            blocks.append(f'{{ ExecName = "{program}" '
                          f'ServicesProvided {{ {{ ServiceName = "{service}" }} }} }}\n')
        (services / "test.kvs").write_text("Services {\n" + "".join(blocks) + "}\n")
        port = 7000  # the namespace has no others
        self.hub = self.start(hub, "-hl_zone", self.zone, "-loopback_only", "-port", port)
        until(lambda: (self.directory / f"svc_{self.zone}").exists(), f"the hub of {self.name}")

    def start_bridge(self, *options, urls=None, grace=2, realm="test"):
        self.bridge = self.start(
            self.realm.bin / "hublink-bridge", "--realm", realm, "--name", self.name,
            "--nats", urls or self.url(), "--grace", grace, "-hl_zone", self.zone, *options)
        self.bridge.expect_beginning("bridge: machine " + self.name)

    def url(self, server=0):
        """Of one of the servers, from here."""
        return f"nats://10.77.{self.number}.1:{self.realm.ports[server]}"

    def peer(self, version, *arguments):
        """A program of the matrix of languages: tests/languages/peer.cpp."""
        peer = self.start(self.realm.bin / f"language_peer_{version}", *arguments,
                          "-hl_zone", self.zone)
        peer.expect("ready")
        return peer

    def streamer(self, *arguments):
        peer = self.start("python3", HERE / "streamer.py", *arguments, "-hl_zone", self.zone)
        peer.expect("ready")
        return peer

    def control(self, *arguments):
        """Exit code and output of hublinkctl."""
        done = subprocess.run(
            ["ip", "netns", "exec", self.space, self.realm.bin / "hublinkctl", "--zone", self.zone,
             *map(str, arguments)], capture_output=True, text=True, env=self.environment)
        return done.returncode, done.stdout

    def await_service(self, name):
        until(lambda: self.control("provider", name)[0] == 0, f"{name} at {self.name}")

    def network_table(self, name):
        return subprocess.run(["ip", "netns", "exec", self.space, "cat", f"/proc/net/{name}"],
                              capture_output=True, text=True, check=True).stdout

    def received(self):
        """Bytes, so far, from the servers (proc_pid_net(5))."""
        return int(self.network_table("dev").split("cable:")[1].split()[0])

    def segments_sent_again(self):
        """By TCP, so far (proc_pid_net(5))."""
        rows = self.network_table("snmp").splitlines()
        names, values = (row.split() for row in rows if row.startswith("Tcp:"))
        return int(values[names.index("RetransSegs")])

    def cut(self):
        run("ip", "-n", self.realm.servers, "link", "set", self.cable, "down")

    def mend(self):
        run("ip", "-n", self.realm.servers, "link", "set", self.cable, "up")


class Realm:
    def __init__(self, stack, build, directory):
        self.stack = stack
        self.bin = pathlib.Path(build).resolve() / "bin"
        self.directory = pathlib.Path(directory)
        self.prefix = f"hl{os.getpid()}-"
        self.servers = self.prefix + "nats"
        self.add_namespace(self.servers)
        self.ports = [4222, 4223, 4224]
        self.nats = {}
        self.machines = 0
        stack.callback(self.show_logs)

    def add_namespace(self, name):
        run("ip", "netns", "add", name)
        self.stack.callback(run, "ip", "netns", "del", name)
        run("ip", "-n", name, "link", "set", "lo", "up")

    def machine(self, name, **cable):
        self.machines += 1
        return Machine(self, name, self.machines, **cable)

    def start_nats(self, server=0, cluster=False, *options):
        """One of three servers; those of a cluster know each other."""
        routes = []
        if cluster:
            others = ",".join(f"nats://127.0.0.1:{port + 2000}" for port in self.ports)
            routes = ["--cluster_name", "test", "--cluster",
                      f"nats://127.0.0.1:{self.ports[server] + 2000}", "--routes", others]
        log = self.directory / f"nats{server}.log"
        place = log.stat().st_size if log.exists() else 0
        self.nats[server] = Program(self.stack, [
            "ip", "netns", "exec", self.servers, "nats-server", "-a", "0.0.0.0",
            "-p", self.ports[server], "-l", log, *routes, *options])
        until(lambda: log.exists() and "Server is ready" in log.read_text()[place:], "nats-server")

    def show_logs(self):
        if sys.exc_info()[0] is None:
            return
        for log in sorted(self.directory.glob("*/log")) + sorted(self.directory.glob("*.log")):
            print(f"--- {log.name} of {log.parent.name}:\n{log.read_text()[-3000:]}")


def can_make_namespaces():
    """Root can. Elsewhere the test is run again as the root of a user namespace of its own."""
    name = f"hl{os.getpid()}-try"
    if os.geteuid() != 0 or subprocess.run(["ip", "netns", "add", name],
                                           capture_output=True).returncode != 0:
        return False
    run("ip", "netns", "del", name)
    return True
