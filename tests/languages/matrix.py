"""The programs of all languages talk to each other through a hub, in two versions of an interface.

    matrix.py BUILD TYPESCRIPT

Each language has one program, a peer: it provides a service (`provider NAME`), or does as a requester
(`requester -`) what standard input asks for, a line each: `run SERVICE` all kinds of messages and
packets, `hold SERVICE` waits for the end of a link, `flood SERVICE MEGABYTES` sends them. It tells on
standard output what has come of it. Here are the programs started, asked, held against what is
expected, and killed.
"""

import contextlib
import os
import pathlib
import queue
import signal
import subprocess
import sys
import tempfile
import threading
import time

HERE = pathlib.Path(__file__).resolve().parent
TOP = HERE.parent.parent
LANGUAGES = ("cpp", "python", "typescript")
LIMIT = 40  # seconds for any one thing that is waited for

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
        "knows: " + ("added" if provider == 2 else "half"),
        "packet: hello",
        "bulk: intact",
        "done"]
    return lines if requester == 2 else lines[:5] + lines[6:]


class Peer:
    """A program that has been started, and what it says."""

    def __init__(self, stack, command, environment):
        self.command = command
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        text=True, env=environment)
        stack.callback(self.end)
        self.lines = queue.Queue()
        threading.Thread(target=self.read, daemon=True).start()

    def read(self):
        for line in self.process.stdout:
            self.lines.put(line.rstrip("\n"))
        self.lines.put(None)

    def end(self):
        self.process.kill()
        self.process.wait()

    def signal(self, number):
        os.kill(self.process.pid, number)

    def ask(self, text):
        print(text, file=self.process.stdin, flush=True)

    def line(self, seconds=LIMIT):
        try:
            line = self.lines.get(timeout=seconds)
        except queue.Empty:
            raise AssertionError(f"{self.command}: it says nothing") from None
        if line is None:
            raise AssertionError(f"{self.command}: it has ended")
        return line

    def expect(self, text, seconds=LIMIT):
        line = self.line(seconds)
        if line != text:
            raise AssertionError(f"{self.command}:\n  says   {line}\n  not    {text}")

    def answers(self, text):
        """What it says up to its "done"."""
        self.ask(text)
        lines = []
        while not lines or lines[-1] != "done":
            lines.append(self.line())
        return lines

    def resident(self):
        pages = pathlib.Path(f"/proc/{self.process.pid}/statm").read_text().split()[1]
        return int(pages) * 4096


class Matrix:
    def __init__(self, stack, build, typescript, directory):
        self.stack = stack
        self.bin = build / "bin"
        self.modules = build / "tests/languages"
        self.typescript = typescript
        self.directory = directory
        self.hub_options = ["-hl_zone", f"matrix{os.getpid()}"]
        self.environment = dict(os.environ, TMP=str(directory), PYTHONDONTWRITEBYTECODE="1",
                                PYTHONPATH=str(TOP / "languages/python/src"))

    def command(self, language, version, *arguments):
        programs = {"cpp": [self.bin / f"language_peer_{version}"],
                    "python": ["/usr/bin/env", "python3", HERE / "peer.py",
                               self.modules / f"python_{version}"],
                    "typescript": ["/usr/bin/env", "node", HERE / "peer.mjs",
                                   self.modules / f"typescript_{version}"]}
        return [*map(str, programs[language]), *arguments]

    def peer(self, language, version, *arguments):
        peer = Peer(self.stack, self.command(language, version, *arguments, *self.hub_options),
                    self.environment)
        peer.expect("ready")
        return peer

    def start_hub(self):
        """A hub that knows how to start the programs of Python and Node."""
        place = self.directory / "installed"
        (place / "defaults/services").mkdir(parents=True)
        (place / "hublink").symlink_to(self.bin / "hublink")
        blocks = ""
        for language in LANGUAGES:
            program, *arguments = self.command(language, 1, "provider", f"launched {language}")
            texts = " ".join('{ Arg = "%s" }' % text for text in arguments)
            blocks += (f'{{ ExecName = "{program}" Arguments {{ {texts} }} '
                       f'ServicesProvided {{ {{ ServiceName = "launched {language}" }} }} }}\n')
        (place / "defaults/services/matrix.kvs").write_text(f"Services {{\n{blocks}}}\n")


def main():
    pass


main()
