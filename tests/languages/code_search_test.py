"""The watcher, the index and the editor of examples/code_search find each other in any order and
survive each other's restart.

    code_search_test.py BUILD
"""

import os
import pathlib
import queue
import subprocess
import sys
import tempfile
import threading
import unittest

BUILD = pathlib.Path(sys.argv.pop(1)).resolve()
EXAMPLE = pathlib.Path(__file__).resolve().parents[2] / "examples" / "code_search"
COMPILED = BUILD / "code_search"
LIMIT = 60  # seconds for any one thing that is waited for


class Program:
    """A program of the example, of which each line is waited for in its turn."""

    def __init__(self, environment, *command):
        self.lines = queue.Queue()
        self.process = subprocess.Popen(command, env=environment, text=True,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.reader = threading.Thread(target=self._read)
        self.reader.start()

    def _read(self):
        for line in self.process.stdout:
            self.lines.put(line.rstrip("\n"))

    def await_line(self, *pieces):
        """The next line that has all of these texts in it."""
        seen = []
        while not seen or not all(piece in seen[-1] for piece in pieces):
            try:
                seen.append(self.lines.get(timeout=LIMIT))
            except queue.Empty:
                raise AssertionError(f"there is no {pieces} in {seen}") from None
        return seen[-1]

    def type(self, text):
        self.process.stdin.write(text + "\n")
        self.process.stdin.flush()

    def end(self):
        self.process.kill()
        self.process.wait(LIMIT)
        self.reader.join(LIMIT)
        self.process.stdin.close()
        self.process.stdout.close()


class CodeSearchTest(unittest.TestCase):
    def setUp(self):
        subprocess.run([EXAMPLE / "run", "--make-ready"], check=True,
                       env=dict(os.environ, HUBLINK_BUILD=str(BUILD)))
        scratch = tempfile.TemporaryDirectory(prefix="hublink_code_search.")
        self.addCleanup(scratch.cleanup)
        records = pathlib.Path(scratch.name, "records")
        self.files = pathlib.Path(scratch.name, "files")
        for folder in (records, self.files):
            folder.mkdir()
        python = EXAMPLE.parents[1] / "languages" / "python" / "src"
        self.environment = dict(os.environ, TMP=str(records), PYTHONDONTWRITEBYTECODE="1",
                                PYTHONPATH=f"{python}{os.pathsep}{COMPILED}")

    def start(self, *command):
        options = ("-hl_zone", "search", "-hl_hub", BUILD / "bin" / "hublink")
        program = Program(self.environment, *command, *options)
        self.addCleanup(program.end)
        return program

    def start_watcher(self):
        return self.start(sys.executable, EXAMPLE / "watcher.py")

    def start_index(self):
        return self.start(BUILD / "bin" / "code_index", self.files)

    def start_editor(self):
        return self.start("node", COMPILED / "editor" / "editor.js")

    def test_all_orders_and_restarts(self):
        (self.files / "one.txt").write_text("nothing\nan otter swims, an otter dives\n")
        editor = self.start_editor()
        editor.type("otter")  # nobody is there yet who knows
        editor.await_line("ready")
        index = self.start_index()
        editor.await_line("0 lines with otter")
        watcher = self.start_watcher()
        editor.await_line("knows 1 files")
        editor.type("otter")
        self.assertTrue(editor.await_line("one.txt:2: an otter").endswith("otter dives"))
        editor.await_line("1 lines with otter")

        (self.files / "two.txt").write_text("otter")
        editor.await_line("knows 2 files")
        watcher.end()
        index.await_line("the watcher has gone")
        editor.type("otter")
        editor.await_line("2 lines with otter")
        (self.files / "one.txt").unlink()
        watcher = self.start_watcher()
        editor.await_line("knows 1 files")

        index.end()
        editor.await_line("the index has gone")
        editor.type("otter")  # asked of the next one
        self.start_index().await_line("1 files are watched")
        editor.await_line("lines with otter")
        (self.files / "three.txt").write_text("beaver\n")
        editor.await_line("knows 2 files")
        editor.end()
        editor = self.start_editor()
        editor.await_line("knows 2 files")
        editor.type("beaver")
        editor.await_line("three.txt:1: beaver")
        editor.process.stdin.close()
        self.assertEqual(editor.process.wait(LIMIT), 0)


unittest.main()
