#!/usr/bin/env python3
"""Does what a documentation page tells its reader to do, and compares with what it shows.

    run_tutorial.py BUILD PAGE

The build is installed into a scratch directory, whose commands then stand first on PATH. The page's
fenced blocks are taken as they stand, from the top to the bottom:

- a block behind a line "`name`:" becomes that file;
- in a ```console block each line that begins with "$ " is run by the shell, and the lines up to the
  next such line are its output, "..." standing for anything within a line or, alone, for any lines.

A command that ends in " &" stays in the background. What is shown for it is waited for among the
output of all that runs there; it is ended when the page is through, and so are the hubs. Every
other command has to succeed.
"""

import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

LIMIT = 60  # seconds for any one thing that is waited for


class Failure(Exception):
    pass


def blocks(text):
    """The fenced blocks: language, name of the file (or None), lines, number of the first line."""
    lines = text.split("\n")
    name = None
    number = 0
    while number < len(lines):
        fence = re.fullmatch(r"```(\w*)", lines[number])
        if fence:
            start = number + 1
            number = lines.index("```", start)
            yield fence[1], name, lines[start:number], start + 1
        if lines[number].strip():
            introduced = re.search(r"(?:^|\s)`([^`]+)`:$", lines[number])
            name = introduced and introduced[1]
        number += 1


def commands(lines, first):
    """The commands of a console block: number of the line, command, output as it is shown."""
    found = []
    for offset, line in enumerate(lines):
        if line.startswith("$ "):
            found.append((first + offset, line[2:], []))
        elif found:
            found[-1][2].append(line)
        else:
            raise Failure(f"line {first + offset}: output without a command")
    return found


def fits(line, shown):
    """Whether a line is as it is shown."""
    first, *others = shown.split("...")
    if not others:
        return line == first
    if not line.startswith(first) or len(line) < len(first) + len(others[-1]):
        return False
    place = len(first)
    for piece in others[:-1]:
        place = line.find(piece, place)
        if place < 0:
            return False
        place += len(piece)
    return line.endswith(others[-1]) and place <= len(line) - len(others[-1])


def matched(lines, start, shown):
    """The places in `lines` behind which what is shown can end, if it begins at `start`."""
    places = {start}
    for wanted in shown:
        if wanted.strip() == "...":
            places = set(range(min(places), len(lines) + 1))
        else:
            places = {place + 1 for place in places
                      if place < len(lines) and fits(lines[place], wanted)}
        if not places:
            break
    return places


def wait_until(condition):
    """The first true value of the condition, or its last."""
    end = time.monotonic() + LIMIT
    while not (value := condition()) and time.monotonic() < end:
        time.sleep(0.02)
    return value


def is_running(process):
    try:
        return pathlib.Path(f"/proc/{process}/stat").read_text().rsplit(")", 1)[1].split()[0] != "Z"
    except OSError:
        return False


class Page:
    def __init__(self, path, scratch, environment):
        self.path = path
        self.directory = scratch / path.stem
        records = scratch / (path.stem + ".tmp")
        self.terminal_path = scratch / (path.stem + ".out")
        for directory in (self.directory, records):
            directory.mkdir()
        self.records = records
        self.environment = dict(environment, TMP=str(records))
        self.terminal = open(self.terminal_path, "ab")
        self.seen = 0  # lines of the terminal
        self.background = []

    def run(self):
        try:
            for language, name, lines, first in blocks(self.path.read_text()):
                if language == "console":
                    for number, command, shown in commands(lines, first):
                        self.run_command(number, command, shown)
                elif name:
                    self.write(name, "\n".join(lines) + "\n")
            self.check_background()
        finally:
            self.end()

    def write(self, name, text):
        file = self.directory / name
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text)

    def run_command(self, number, command, shown):
        where = f"{self.path.name}:{number}: $ {command}"
        print(where, flush=True)
        if command.endswith(" &"):
            self.background.append((where, subprocess.Popen(
                ["bash", "-c", "exec " + command.removesuffix(" &")], cwd=self.directory,
                env=self.environment, stdin=subprocess.DEVNULL, stdout=self.terminal,
                stderr=self.terminal)))
            self.await_output(where, shown)
            return
        # A file and no pipe: what the command leaves running may keep it open.
        with tempfile.TemporaryFile() as output:
            code = subprocess.run(["bash", "-c", command], cwd=self.directory, env=self.environment,
                                  stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                                  timeout=10 * LIMIT).returncode
            output.seek(0)
            text = output.read().decode(errors="replace")
        if code != 0:
            raise Failure(f"{where}\nhas failed with {code}:\n{text}")
        lines = text.splitlines()
        if len(lines) not in matched(lines, 0, shown):
            raise Failure(f"{where}\nprints\n{text}\nand the page shows\n" + "\n".join(shown))

    def await_output(self, where, shown):
        if not shown:
            return

        def find():
            text = self.terminal_path.read_text(errors="replace")
            lines = text[:text.rfind("\n") + 1].splitlines()
            ends = (matched(lines, start, shown) for start in range(self.seen, len(lines) + 1))
            return next((min(end) for end in ends if end), None)

        end = wait_until(find)
        if not end:
            lines = self.terminal_path.read_text(errors="replace").splitlines()
            raise Failure(f"{where}\nisn't followed by\n" + "\n".join(shown) + "\nbut by\n" +
                          "\n".join(lines[self.seen:]))
        self.seen = end

    def check_background(self):
        for where, process in self.background:
            if process.poll() not in (None, 0):
                raise Failure(f"{where}\nhas ended with {process.returncode}:\n" +
                              self.terminal_path.read_text(errors="replace"))

    def end(self):
        """Ends what the page has started, by its id; hubs tell theirs in their records."""
        hubs = {int(found[1]) for record in self.records.glob("svc*")
                if (found := re.search(r"Pid *= *(\d+)", record.read_text()))}
        for _, process in self.background:
            process.terminate()
        for hub in filter(is_running, hubs):
            os.kill(hub, signal.SIGTERM)
        for _, process in self.background:
            process.wait(LIMIT)
        self.terminal.close()
        if not wait_until(lambda: not any(map(is_running, hubs))):
            raise Failure(f"{self.path.name}: a hub doesn't stop")


def prepare_typescript(scratch, environment):
    """What the page has its reader get from npm: the package lies in the home directory, the
    compiler is the one that the package was built with, and npm asks nobody."""
    package = pathlib.Path(__file__).parents[2] / "languages/typescript"
    (scratch / "node_modules").symlink_to(package / "node_modules")
    environment.update(HOME=str(scratch), npm_config_offline="true", npm_config_audit="false",
                       npm_config_fund="false", npm_config_update_notifier="false")
    subprocess.run(["npm", "pack", "--ignore-scripts", "--silent", "--pack-destination", scratch],
                   cwd=package, env=environment, check=True, stdout=subprocess.DEVNULL)


def main():
    build, page = map(pathlib.Path, sys.argv[1:])
    scratch = pathlib.Path(tempfile.mkdtemp(prefix="hublink_tutorial."))
    try:
        prefix = scratch / "prefix"
        subprocess.run(["cmake", "--install", build, "--prefix", prefix], check=True,
                       stdout=subprocess.DEVNULL)
        environment = dict(os.environ, PATH=f"{prefix}/bin:{os.environ['PATH']}",
                           CMAKE_PREFIX_PATH=str(prefix), CMAKE_BUILD_PARALLEL_LEVEL="2",
                           PYTHONPATH=f"{prefix}/lib/python3/dist-packages",
                           PYTHONDONTWRITEBYTECODE="1")
        if "typescript" in page.stem:
            prepare_typescript(scratch, environment)
        Page(page, scratch, environment).run()
    except Failure as failure:
        print(failure, file=sys.stderr)
        return 1
    finally:
        shutil.rmtree(scratch)
    return 0


if __name__ == "__main__":
    sys.exit(main())
