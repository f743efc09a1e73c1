"""A program that a test has started, and what it says on standard output."""

import os
import pathlib
import queue
import subprocess
import threading

LIMIT = 40  # seconds for any one thing that is waited for


class Program:
    """Ended with `stack`, whatever becomes of the test. Standard error goes to `log`, or where that
    of the test goes."""

    def __init__(self, stack, command, environment=None, log=None):
        self.command = [str(word) for word in command]
        self.process = subprocess.Popen(self.command, stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=log, text=True,
                                        env=environment)
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

    def expect_beginning(self, text, seconds=LIMIT):
        """The line, which begins so."""
        line = self.line(seconds)
        if not line.startswith(text):
            raise AssertionError(f"{self.command}:\n  says   {line}\n  not    {text}...")
        return line

    def says_nothing_yet(self):
        return self.lines.empty()

    def answers(self, text):
        """What it says up to its "done"."""
        self.ask(text)
        lines = []
        while not lines or lines[-1] != "done":
            lines.append(self.line())
        return lines

    def resident(self):
        """Bytes."""
        pages = pathlib.Path(f"/proc/{self.process.pid}/statm").read_text().split()[1]
        return int(pages) * os.sysconf("SC_PAGE_SIZE")
