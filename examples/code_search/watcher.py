#!/usr/bin/env python3
"""Tells what changes among the files of directories: provides the service "FileWatch".

    watcher.py [-hl_zone ZONE | -hl_connect_hublink_port PORT]

Files are looked at every fifth of a second. Those whose names begin with a dot aren't told, nor
what is in such directories.
"""

import asyncio
import os
import sys
from typing import Dict, Optional, Tuple

import hublink
from filewatch import Changed, FileWatchProvider, Removed, Watch, WatchReply

INTERVAL = 0.2  # seconds

State = Tuple[int, int]  # size in bytes, time of the last change in ns
Snapshot = Dict[str, State]


def look(directory: str) -> Snapshot:
    """The files that are there, by their paths."""
    files: Snapshot = {}
    for folder, folders, names in os.walk(directory):
        folders[:] = [name for name in folders if not name.startswith(".")]
        for name in names:
            path = os.path.join(folder, name)
            try:
                info = os.stat(path)
            except OSError:
                continue  # it has gone meanwhile
            if not name.startswith("."):
                files[path] = info.st_size, info.st_mtime_ns
    return files


class Watcher(FileWatchProvider):
    """The side towards one reader."""

    _watching: "Optional[asyncio.Task[None]]" = None

    async def on_watch(self, message: Watch) -> WatchReply:
        if not os.path.isdir(message.directory):
            raise hublink.Refused(f"{message.directory} is no directory")
        self.link_ended()
        files = await self._tell(message.directory, {})
        self._watching = asyncio.create_task(self._watch(message.directory, files))
        return WatchReply(files=len(files))

    def link_ended(self) -> None:
        if self._watching:
            self._watching.cancel()

    async def _watch(self, directory: str, files: Snapshot) -> None:
        while True:
            await asyncio.sleep(INTERVAL)
            try:
                files = await self._tell(directory, files)
            except hublink.LinkEnded:
                return

    async def _tell(self, directory: str, before: Snapshot) -> Snapshot:
        """Tells what has changed since, and gives what is there now."""
        now = await asyncio.get_running_loop().run_in_executor(None, look, directory)
        for path in before.keys() - now.keys():
            await self.removed(Removed(path=path))
        for path in sorted(now):
            if before.get(path) != now[path]:
                await self.changed(Changed(path=path, size=now[path][0]))
        return now


async def main() -> None:
    async with await hublink.connect(argv=sys.argv) as plugin:
        await plugin.provide("FileWatch", Watcher)
        print("watcher: ready", flush=True)
        await plugin.wait_closed()


try:
    asyncio.run(main())
except KeyboardInterrupt:
    pass
except hublink.HublinkError as error:
    sys.exit(f"watcher: {error}")
