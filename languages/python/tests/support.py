"""What the tests share: the programs of the build, generated modules, and a hub of a test's own."""

import asyncio
import atexit
import contextlib
import importlib.util
import itertools
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

TOP = pathlib.Path(__file__).resolve().parents[3]
PACKAGE = TOP / "languages" / "python"
sys.path.insert(0, str(PACKAGE / "src"))

import hublink  # noqa: E402

LIMIT = 30.0  # seconds for anything that is waited for


def program(variable, name):
    """A program of the build, by an environment variable or from PATH."""
    found = os.environ.get(variable) or shutil.which(name)
    if not found:
        raise RuntimeError(f"{variable} doesn't name {name}, which isn't in PATH either")
    return os.path.abspath(found)


_generated = {}


def generate(catalogue):
    """The module that stpc writes for a catalogue, a file or the text of one."""
    key = str(catalogue)
    if key not in _generated:
        path = pathlib.Path(tempfile.mkdtemp())
        atexit.register(shutil.rmtree, path, ignore_errors=True)
        source = catalogue
        if not isinstance(catalogue, pathlib.Path):
            source = path / "catalogue.stp"
            source.write_text(catalogue)
        subprocess.run([program("HUBLINK_STPC", "stpc"), str(source), "--language", "python",
                        "--output", str(path)], check=True)
        file = next(path.glob("*.py"))
        spec = importlib.util.spec_from_file_location(f"generated{len(_generated)}_{file.stem}",
                                                      file)
        module = importlib.util.module_from_spec(spec)
        sys.modules[spec.name] = module
        spec.loader.exec_module(module)
        _generated[key] = module
    return _generated[key]


def is_running(process):
    try:
        stat = pathlib.Path(f"/proc/{process}/stat").read_text()
    except OSError:
        return False
    return stat.rpartition(")")[2].split()[0] != "Z"


class HubTest(unittest.IsolatedAsyncioTestCase):
    """A test that has a hub of its own, in a directory of its own for its record."""

    async def asyncSetUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.scratch = pathlib.Path(scratch.name)
        before = os.environ.get("TMP")
        os.environ["TMP"] = scratch.name
        self.addCleanup(self.restore, before)
        self.numbers = itertools.count()
        self.hub = program("HUBLINK_HUB", "hublink")
        self.choice = hublink.HubChoice(zone="test", program=self.hub)
        self.addAsyncCleanup(self.end_hub)
        self.stack = contextlib.AsyncExitStack()
        self.addAsyncCleanup(self.stack.aclose)

    @staticmethod
    def restore(before):
        if before is None:
            del os.environ["TMP"]
        else:
            os.environ["TMP"] = before

    def hub_process(self):
        """Of the hub by its record, or 0."""
        for record in self.scratch.glob("**/svc_test"):
            if record.stat().st_uid == os.geteuid():
                return int(record.read_text().split("Pid")[1].split("=")[1].split()[0])
        return 0

    async def end_hub(self):
        """A hub ends when all have gone that keep it up; one that a test has hurt is ended."""
        process = self.hub_process()
        if process and is_running(process):
            with contextlib.suppress(ProcessLookupError):
                os.kill(process, signal.SIGTERM)
                os.kill(process, signal.SIGCONT)  # for a test that has failed with it stopped
            await self.until(lambda: not is_running(process))

    async def plugin(self, **options):
        """A plugin of the test's hub, which the first one starts."""
        options.setdefault("choice", self.choice)
        return await self.stack.enter_async_context(hublink.connect(**options))

    async def linked(self, connected=None):
        """A requester's link and the provider's, of two plugins."""
        name = f"Test {next(self.numbers)}"
        provider, requester = await self.plugin(), await self.plugin()
        links = asyncio.Queue()

        def take(link):
            links.put_nowait(link)
            return connected(link) if connected else None
        await provider.provide(name, take)
        near = await requester.request(name)
        return near, await self.soon(links.get())

    @staticmethod
    async def soon(awaitable):
        return await asyncio.wait_for(awaitable, LIMIT)

    async def until(self, condition):
        end = asyncio.get_running_loop().time() + LIMIT
        while not condition():
            if asyncio.get_running_loop().time() > end:
                self.fail("it doesn't come")
            await asyncio.sleep(0.01)
