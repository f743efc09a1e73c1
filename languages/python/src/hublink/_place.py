"""Where the record of a hub lies, what it says, and the lock beside it.

A hub writes its port and its process into a small file in the temporary directory, whose name is
the zone, or a digest of all that makes an installation. A file of another user, or a link, is no
record; if one has the name, everything goes into the user's own directory `hublink_U` beside it.
"""

import asyncio
import contextlib
import hashlib
import logging
import os
import pwd
import re
import socket
import stat
import time
from typing import AsyncIterator, NamedTuple, Optional

log = logging.getLogger("hublink")

_STALE = 60.0   # seconds after which a lock was forgotten
_WAIT = 20.0    # seconds to wait for one
_PAUSE = 0.1

_RECORD = re.compile(r"^\s*(Port|Pid)\s*=\s*(-?(?:0[xX][0-9a-fA-F]+|\d+))\s*;?\s*$", re.MULTILINE)
_HALVES = bytes((byte & 15) << 4 | byte >> 4 for byte in range(256))


class ActiveHub(NamedTuple):
    """What a record says; -1 for what it lacks."""

    port: int = -1
    process: int = -1

    @property
    def live_port(self) -> int:
        """The port of a hub whose process runs, or 0."""
        if not 0 <= self.port <= 0xFFFF or not process_exists(self.process):
            return 0
        return self.port


def process_exists(process: int) -> bool:
    if process <= 0:
        return False
    try:
        os.kill(process, 0)
    except PermissionError:
        return True
    except (OSError, OverflowError):
        return False
    try:
        with open(f"/proc/{process}/stat", "rb") as file:
            return file.read().rpartition(b")")[2].split()[:1] != [b"Z"]
    except OSError:
        return True


def temporary_directory() -> str:
    for name in (os.environ.get("TMP"), os.environ.get("TEMP"), os.environ.get("TMPDIR"), "/tmp"):
        if name and os.access(name, os.W_OK | os.X_OK):
            return name
    return "."


def record_name(zone: Optional[str], directory: Optional[str]) -> str:
    """`directory` is that of the hub's program."""
    if zone is not None:
        return zone
    assert directory is not None
    full = os.path.abspath(directory)
    key = full.encode("utf-8", "surrogateescape")
    try:
        # A new build of the hub gets a record of its own.
        age = os.stat(os.path.join(full, "hublink")).st_mtime_ns // 1_000_000_000
        key = str(age).encode() + key
    except OSError:
        pass
    try:
        key += pwd.getpwuid(os.geteuid()).pw_name.encode("utf-8", "surrogateescape")
    except KeyError:
        pass
    key += socket.gethostname().encode("utf-8", "surrogateescape")
    digest = hashlib.md5(key, usedforsecurity=False).digest()
    return digest.translate(_HALVES).hex()


def record_path(name: str) -> str:
    return os.path.join(temporary_directory(), f"svc_{name}" if name else "svc")


def _status(path: str) -> Optional[os.stat_result]:
    try:
        return os.lstat(path)
    except (OSError, ValueError):
        return None


def _is_foreign(path: str) -> bool:
    status = _status(path)
    return status is not None and status.st_uid != os.geteuid()


def _is_own_file(path: str) -> bool:
    status = _status(path)
    return (status is not None and status.st_uid == os.geteuid()
            and stat.S_ISREG(status.st_mode))


def _own_place(path: str) -> str:
    return os.path.join(os.path.dirname(path), f"hublink_{os.geteuid()}")


def _own_place_of(path: str) -> str:
    return os.path.join(_own_place(path), os.path.basename(path))


def _has_own_place(path: str) -> bool:
    status = _status(_own_place(path))
    return (status is not None and status.st_uid == os.geteuid()
            and stat.S_ISDIR(status.st_mode) and not status.st_mode & 0o077)


def _make_own_place(path: str) -> bool:
    if not _has_own_place(path):
        with contextlib.suppress(OSError):
            os.mkdir(_own_place(path), 0o700)
    return _has_own_place(path)


def _why_no_place(path: str) -> str:
    if not _is_foreign(path) or _make_own_place(path):
        return ""
    return (f"{path} belongs to another user, and {_own_place(path)} isn't a directory of this "
            "user's alone")


class RecordKey:
    """The record of one zone or installation."""

    def __init__(self, zone: Optional[str], directory: Optional[str]) -> None:
        self.zone = zone
        self._path = record_path(record_name(zone, directory))

    @property
    def _lock(self) -> str:
        head, name = os.path.split(self._path)
        stem, dot, _ = name.rpartition(".")
        return os.path.join(head, (stem if dot else name) + ".lock")

    def place(self) -> str:
        """Where it lies, or would."""
        if _is_own_file(self._path):
            return self._path
        own = _own_place_of(self._path)
        is_there = _has_own_place(self._path) and _is_own_file(own)
        return own if is_there or _is_foreign(self._path) else self._path

    def read(self) -> ActiveHub:
        try:
            number = os.open(self.place(), os.O_RDONLY | os.O_NOFOLLOW | os.O_CLOEXEC
                             | os.O_NONBLOCK)
        except (OSError, ValueError):
            return ActiveHub()
        with os.fdopen(number, "rb") as file:
            status = os.fstat(file.fileno())
            if status.st_uid != os.geteuid() or not stat.S_ISREG(status.st_mode):
                return ActiveHub()
            text = file.read(4096).decode("utf-8", "replace")
        values = {name: int(value, 0) if value.lower().startswith("0x") else int(value)
                  for name, value in _RECORD.findall(text)}
        return ActiveHub(values.get("Port", -1), values.get("Pid", -1))

    def obstacle(self) -> str:
        """What another user has put in the way of every record or lock of this name."""
        return _why_no_place(self._path) or _why_no_place(self._lock)

    def why_not_found(self) -> str:
        text = "there is no hub" + (f" in the zone {self.zone}" if self.zone else "") + ": "
        obstacle = self.obstacle()
        if obstacle:
            return text + obstacle
        hub = self.read()
        if hub.process <= 0:
            return f"{text}no record {self.place()}"
        return f"{text}its process {hub.process} has gone and left the record {self.place()}"

    # --- The lock: a file that exists while somebody holds it ---

    @contextlib.asynccontextmanager
    async def locked(self) -> AsyncIterator[bool]:
        """Holds the lock of the record; False if somebody else has had it for too long."""
        lock = self._lock
        _break_if_stale(lock)
        if _has_own_place(lock):
            _break_if_stale(_own_place_of(lock))
        end = time.monotonic() + _WAIT
        while not (held := _try_lock(lock)) and time.monotonic() < end:
            await asyncio.sleep(_PAUSE)
        try:
            yield held
        finally:
            if held:
                if _has_own_place(lock):
                    _remove(_own_place_of(lock))
                if not _is_foreign(lock):
                    _remove(lock)


def _remove(path: str) -> None:
    with contextlib.suppress(OSError):
        os.unlink(path)


def _make_lock(path: str) -> bool:
    try:
        os.close(os.open(path, os.O_CREAT | os.O_EXCL | os.O_RDONLY | os.O_CLOEXEC, 0o600))
    except (OSError, ValueError):
        return False
    return True


def _try_lock(lock: str) -> bool:
    """Who finds the usual lock in another user's hands has the one in the user's own place
    instead. That other user may come and go, so once there is such a place everybody has both."""
    made = _make_lock(lock)
    if not made and not _is_foreign(lock):
        return False
    if not (_has_own_place(lock) if made else _make_own_place(lock)):
        return True
    own = _own_place_of(lock)
    if _make_lock(own):
        if made or _is_foreign(lock):
            return True
        _remove(own)
    elif made:
        _remove(lock)
    return False


def _is_stale(path: str) -> bool:
    try:
        return int(time.time() - _STALE) > int(os.stat(path).st_mtime)
    except (OSError, ValueError):
        return False


def _break_if_stale(lock: str) -> None:
    if _is_foreign(lock) or not _is_stale(lock):
        return
    log.warning("breaking the lock %s, which is more than %d seconds old", lock, int(_STALE))
    # Somebody else may have broken it, and taken it, since: look again at what was moved away.
    aside = f"{lock}.{os.getpid()}"
    try:
        os.rename(lock, aside)
        if _is_stale(aside):
            os.unlink(aside)
        else:
            os.rename(aside, lock)
    except OSError:
        pass
