"""The programs of all languages talk to each other through a hub, in two versions of an interface.

    matrix.py BUILD LANGUAGE...

Each language (cpp, python, typescript) has one program, a peer: it provides a service
(`provider NAME`), or does as a requester (`requester -`) what standard input asks for, a line each:
`run SERVICE` all kinds of messages and a packet, `bulk SERVICE` many packets, `hold SERVICE` waits
for the end of a link, `flood SERVICE MEGABYTES` and then `go` sends them. It tells on standard
output what has come of it. Here the programs are started, asked, held against what is expected, and
killed.
"""

import contextlib
import itertools
import os
import pathlib
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import zlib

HERE = pathlib.Path(__file__).resolve().parent
TOP = HERE.parent.parent
sys.path.insert(0, str(HERE.parent / "support"))
from program import LIMIT, Program  # noqa: E402

PROMPT = 5  # and for what has no reason to wait, on a busy machine too
FLOOD = 290  # MiB: more than the hub and the sender hold together
CHECKSUM = zlib.adler32(bytes(FLOOD << 20))

GIVEN = {
    "bit": "1", "half": "65535", "word": "-2147483648", "wide": "18446744073709551615",
    "single": "12", "real": "-18", "text": 'ä€😀 "q" \\', "path": "/a b", "note": "in",
    "inner word": "4", "texts": "a,,€", "numbers": "1,9007199254740993", "halves": "0,65535",
    "bytes": "0,255", "added": "new", "inner added": "9"}
MISSING = {"half": "0", "single": "0", "halves": "", "added": "", "inner added": "0"}
# What a version has of that, in the order in which a provider tells it.
FIELDS = {
    1: ("bit", "half", "word", "wide", "single", "real", "text", "path", "note", "inner word",
        "texts", "numbers", "halves", "bytes"),
    2: ("added", "bit", "word", "wide", "real", "text", "path", "note", "inner added",
        "inner word", "texts", "numbers", "bytes")}
REPLY = {"radded": "7", "rbit": "1", "rhalf": "65535", "rword": "-2147483648",
         "rwide": "18446744073709551615", "rsingle": "4", "rreal": "-2", "rtext": "grüß",
         "rpath": "/p"}
REPLY_MISSING = {"radded": "0", "rhalf": "0", "rsingle": "0", "rpath": ""}
REPLY_FIELDS = {1: ("rbit", "rhalf", "rword", "rwide", "rsingle", "rreal", "rtext", "rpath"),
                2: ("radded", "rbit", "rword", "rwide", "rreal", "rtext")}


def expected(requester, provider):
    """What the requester of one version says of the provider of another."""

    def seen(sender, receiver, fields, given, missing):
        return "".join(f"{name.split()[-1]}="
                       f"{given[name] if name in fields[sender] else missing[name]};"
                       for name in fields[receiver])

    lines = [
        "everything: " + seen(requester, provider, FIELDS, GIVEN, MISSING),
        "reply: " + seen(provider, requester, REPLY_FIELDS, REPLY, REPLY_MISSING),
        "chain: 7",
        'refused: not "today" €',
        "total: 500500 progress 10",
        "extra: " + ("known 42" if provider == 2 else "unknown not supported"),
        "knows: " + (("half", "added")[provider - 1] if provider == requester else ""),
        "packet: hello",
        "done"]
    return lines if requester == 2 else lines[:5] + lines[6:]


def compile_interfaces(build, languages):
    """What stpc writes, and for Node tsc makes of it: `python_1/matrix.py`,
    `typescript_2/matrix.js` and so on, beside which the package is found by its name."""
    library = TOP / "languages/typescript"
    made = build / "tests/languages"
    sources = []
    for language, version in itertools.product(("python", "typescript"), (1, 2)):
        if language not in languages:
            continue
        folder = made / f"{language}_{version}"
        folder.mkdir(parents=True, exist_ok=True)
        subprocess.run([build / "bin/stpc", HERE / f"version_{version}/matrix.stp", "--language",
                        language, "--output", folder], check=True)
        if language == "typescript":
            sources.append(folder / "matrix.ts")
    if not sources:
        return
    assert (library / "dist/index.js").exists(), "languages/typescript isn't built"
    (made / "package.json").write_text('{ "type": "module" }\n')
    (made / "node_modules").mkdir(exist_ok=True)
    if not (made / "node_modules/hublink").is_symlink():
        (made / "node_modules/hublink").symlink_to(library)
    subprocess.run([library / "node_modules/.bin/tsc", "--target", "ES2022", "--module", "NodeNext",
                    "--strict", "--skipLibCheck", "--types", "node", "--typeRoots",
                    library / "node_modules/@types", *sources], check=True)


class Matrix:
    def __init__(self, stack, build, languages, directory):
        self.stack = stack
        self.bin = build / "bin"
        self.modules = build / "tests/languages"
        self.languages = languages
        self.directory = directory
        self.log = directory / "hub.log"
        self.zone = f"matrix{os.getpid()}"
        self.environment = dict(os.environ, TMP=str(directory), PYTHONDONTWRITEBYTECODE="1",
                                PYTHONPATH=str(TOP / "languages/python/src"))

    def command(self, language, version, *arguments):
        programs = {"cpp": [self.bin / f"language_peer_{version}"],
                    "python": ["/usr/bin/env", "python3", HERE / "peer.py",
                               self.modules / f"python_{version}"],
                    "typescript": ["/usr/bin/env", "node", HERE / "peer.mjs",
                                   self.modules / f"typescript_{version}"]}
        return [str(word) for word in (*programs[language], *arguments)]

    def peer(self, language, version, *arguments):
        command = self.command(language, version, *arguments, "-hl_zone", self.zone)
        peer = Program(self.stack, command, self.environment)
        peer.expect("ready")
        return peer

    def start_hub(self):
        """A hub that knows how to start each language's program, under a name of its own."""
        place = self.directory / "installed"
        services = place / "defaults/services"
        services.mkdir(parents=True)
        hub = shutil.copy(self.bin / "hublink", place)  # it looks beside itself
        blocks = []
        for language in self.languages:
            # The hub's own arguments come first, which an interpreter would take for its.
            program = place / f"launched-{language}"
            command = shlex.join(self.command(language, 1, "provider", program.name))
            program.write_text(f'#!/bin/sh\nexec {command} "$@"\n')
            program.chmod(0o755)
            blocks.append(f'{{ ExecName = "{program}" '
                          f'ServicesProvided {{ {{ ServiceName = "{program.name}" }} }} }}\n')
        (services / "matrix.kvs").write_text("Services {\n" + "".join(blocks) + "}\n")
        keeper = Program(self.stack, list(map(str, [
            self.bin / "hublinkctl", "--zone", self.zone, "--hub", hub, "start", "--stay",
            "--internal-log", self.log])), self.environment)
        keeper.expect("started: yes")
        name = ""
        while name != "process":
            name, _, value = keeper.line().partition(": ")
        # Those that it has started end with it.
        self.stack.callback(os.kill, int(value), signal.SIGTERM)

    # --- What is tested ---

    def all_pairs(self):
        """Each requester has all providers do all they can, one after the other."""
        versions = [(language, version) for language in self.languages for version in (1, 2)]
        self.providers = {key: self.peer(*key, "provider", f"{key[0]}-{key[1]}")
                          for key in versions}
        self.requesters = {key: self.peer(*key, "requester", "-") for key in versions}
        for asking, requester in self.requesters.items():
            for offering, provider in self.providers.items():
                check((asking, offering), requester.answers(f"run {offering[0]}-{offering[1]}"),
                      expected(asking[1], offering[1]))
                provider.expect("ended")
                if (asking[1], offering[1]) == (1, 1):
                    check((asking, offering), requester.answers(f"bulk {offering[0]}-1"),
                          ["bulk: intact", "done"])
                    provider.expect("ended")

    def launches(self):
        for language in self.languages:
            check(language, self.requesters["cpp", 1].answers(f"run launched-{language}"),
                  expected(1, 1))

    def neighbours(self):
        """Each language, with another one."""
        return zip(self.languages, self.languages[1:] + self.languages[:1])

    def deaths(self):
        """Who is killed is missed at once by the other side, long before any time-out."""
        for mortal, other in self.neighbours():
            provider = self.peer(mortal, 1, "provider", f"mortal-{mortal}")
            requester = self.requesters[other, 2]
            requester.ask(f"hold mortal-{mortal}")
            requester.expect("held")
            provider.end()
            for line in ("ended", "call: link ended", "done"):
                requester.expect(line, PROMPT)
            requester = self.peer(mortal, 2, "requester", "-")
            requester.ask(f"hold {other}-1")
            requester.expect("held")
            requester.end()
            self.providers[other, 1].expect("ended", PROMPT)

    def slow_readers(self):
        """A provider stands still. When the hub holds as much for it as it may, the sender waits
        and has no more memory than before; nothing is lost when the provider goes on."""
        for sender, reader in self.neighbours():
            requester, provider = self.requesters[sender, 1], self.providers[reader, 1]
            requester.ask(f"flood {reader}-1 {FLOOD}")
            requester.expect("flooding")
            provider.signal(signal.SIGSTOP)
            before, place = requester.resident(), self.log.stat().st_size
            requester.ask("go")
            self.await_log(place, "doesn't read: those who send to it wait")
            grown = requester.resident() - before
            provider.signal(signal.SIGCONT)
            requester.expect("handed over")
            lines = [requester.line(), requester.line()]
            check((sender, reader), lines, [f"flooded: {CHECKSUM} of {FLOOD * 16}", "done"])
            provider.expect("ended")
            assert grown < 64 << 20, f"{sender} keeps {grown >> 20} MiB for {reader}"

    def await_log(self, place, text):
        end = time.monotonic() + LIMIT
        while text not in self.log.read_text(errors="replace")[place:]:
            assert time.monotonic() < end, f"the hub doesn't say that somebody {text}"
            time.sleep(0.05)


def check(what, lines, wanted):
    if lines != wanted:
        raise AssertionError(f"{what}:\n" + "\n".join(
            f"  {a}\n  not {b}" for a, b in itertools.zip_longest(lines, wanted) if a != b))


def main():
    build, *languages = sys.argv[1:]
    build = pathlib.Path(build).resolve()
    begin = time.monotonic()
    compile_interfaces(build, languages)
    print(f"compiled: {time.monotonic() - begin:.1f} s", flush=True)
    with tempfile.TemporaryDirectory() as directory, contextlib.ExitStack() as stack:
        matrix = Matrix(stack, build, languages, pathlib.Path(directory))
        matrix.start_hub()
        for test in (matrix.all_pairs, matrix.launches, matrix.deaths, matrix.slow_readers):
            begin = time.monotonic()
            test()
            print(f"{test.__name__}: {time.monotonic() - begin:.1f} s", flush=True)


main()
