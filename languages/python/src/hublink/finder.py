"""Finding the hub that this plugin shares with others, and starting one if there is none.

A hub is found by its record, whose name follows from a zone or from where the hub's program lies.
Tools that look at the same moment agree on one hub: it is looked for again, and started, under the
record's lock.
"""

import asyncio
import dataclasses
import os
import socket
import subprocess
import sys
import threading
import time
from types import TracebackType
from typing import Any, Generator, List, Optional, Sequence, Tuple, Type

from . import _credentials
from ._choice import HubChoice, find_hub, hub_program, key_of
from ._connection import Connection
from ._endpoint import outside_of_handlers
from ._place import RecordKey
from .errors import CallTimedOut, HublinkError, HubNotFound, HubSearch
from .plugin import Plugin

__all__ = ["HubChoice", "connect", "find_hub", "hub_program"]

_THIS_MACHINE = "127.0.0.1"
_CONNECT_PAUSE = 0.02
_CONNECT_LIMIT = 5.0
_LOCAL_SEND_BUFFER = 512 << 10
CONNECT_TIMEOUT = 5.0
START_TIMEOUT = 10.0


# --- The two roads ---

def _local_name(port: int) -> str:
    return f"\0hublink/{os.geteuid()}/{port}"


def _uses_local_road(choice: HubChoice) -> bool:
    return (not choice.tcp_only and not os.environ.get("HUBLINK_TCP_ONLY")
            and sys.platform == "linux")


def _take_local_road(port: int) -> Optional[socket.socket]:
    local = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    try:
        local.setblocking(False)
        local.connect(_local_name(port))
        if _credentials.user_of_server(local).is_own:  # somebody else may hold the name
            return local
    except OSError:
        pass
    local.close()
    return None


async def _reach(choice: HubChoice, host: str, port: int) -> socket.socket:
    loop = asyncio.get_running_loop()
    infos = await loop.getaddrinfo(host, port, family=socket.AF_INET, type=socket.SOCK_STREAM)
    address: Tuple[str, int] = infos[0][4][:2]
    if _uses_local_road(choice) and _credentials.is_own_address(address[0]):
        local = _take_local_road(port)
        if local is not None:
            return local
    stream = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    try:
        stream.setblocking(False)
        await asyncio.wait_for(loop.sock_connect(stream, address), _CONNECT_LIMIT)
    except BaseException:
        stream.close()
        raise
    return stream


def _check_user(choice: HubChoice, connected: socket.socket, port: int) -> None:
    if choice.any_user:
        return
    hub = _credentials.user_of_server(connected)
    if hub.kind is _credentials.Kind.ELSEWHERE or hub.is_own:
        return
    text = f"the hub on port {port}"
    if hub.kind is _credentials.Kind.KNOWN:
        text += f" runs as another user ({hub.user})"
    else:
        text += " has gone, or its user can't be told"
    raise HubNotFound(HubSearch.STRANGER, text)


async def _attach(connected: socket.socket, port: int, timeout: float) -> Plugin:
    """Negotiates on a connection to a hub, which this takes over."""
    loop = asyncio.get_running_loop()
    connection = Connection(loop)
    plugin = Plugin(connection)  # which is there before the hub's first word
    try:
        if connected.family == socket.AF_UNIX:
            connected.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, _LOCAL_SEND_BUFFER)
        with outside_of_handlers():
            await loop.create_connection(lambda: connection, sock=connected)
    except BaseException:
        connected.close()
        raise
    try:
        await plugin._negotiate(timeout)
    except CallTimedOut:
        connection.abort()
        raise HubNotFound(HubSearch.SILENT, f"the hub on port {port} doesn't answer") from None
    except HublinkError as error:
        connection.abort()
        raise HubNotFound(HubSearch.GONE, "the hub has gone: it has closed the connection on port "
                          f"{port}") from error
    except BaseException:
        connection.abort()
        raise
    return plugin


async def _join_port(choice: HubChoice, host: str, port: int, timeout: float) -> Plugin:
    end = time.monotonic() + timeout
    try:
        connected = await _reach(choice, host, port)
    except (OSError, asyncio.TimeoutError):
        raise HubNotFound(HubSearch.NONE, f"there is no hub on port {port}") from None
    try:
        _check_user(choice, connected, port)
    except HubNotFound:
        connected.close()
        raise
    return await _attach(connected, port, max(0.0, end - time.monotonic()))


async def _join_known(choice: HubChoice, timeout: float) -> Plugin:
    """A hub that isn't there yet is tried again until the time is up."""
    end = time.monotonic() + timeout
    while True:
        try:
            return await _join_port(choice, choice.host, choice.port, end - time.monotonic())
        except HubNotFound as error:
            if error.outcome is not HubSearch.NONE or time.monotonic() >= end:
                raise
        await asyncio.sleep(_CONNECT_PAUSE)


async def _join(choice: HubChoice, key: Optional[RecordKey], timeout: float) -> Plugin:
    if key is None:
        raise HubNotFound(HubSearch.NONE,
                          "the hub's program isn't found, and no zone is named")
    port = key.read().live_port
    if not port:
        raise HubNotFound(HubSearch.NONE, key.why_not_found())
    try:
        return await _join_port(choice, _THIS_MACHINE, port, timeout)
    except HubNotFound as error:
        if error.outcome is not HubSearch.NONE:
            raise
        raise HubNotFound(HubSearch.NONE,
                          f"{error}, which the record {key.place()} names") from None


def _is_missing(error: HubNotFound) -> bool:
    """A hub that is about to end may close the connection, and a stranger's is none."""
    return error.outcome in (HubSearch.NONE, HubSearch.GONE, HubSearch.STRANGER)


async def _join_or_start(choice: HubChoice, timeout: float) -> Plugin:
    key = key_of(choice)
    try:
        return await _join(choice, key, timeout)
    except HubNotFound as error:
        if not _is_missing(error):
            raise
        if key is not None and key.obstacle():  # nobody could find the new one
            raise HubNotFound(HubSearch.FAILED, str(error)) from None
    if key is None:
        return await _start(choice, timeout)
    async with key.locked() as held:
        try:
            return await _join(choice, key, timeout)
        except HubNotFound as error:
            if not _is_missing(error):
                raise
        if held:
            return await _start(choice, timeout)
    raise HubNotFound(HubSearch.FAILED, "somebody else has been starting a hub for 20 seconds")


# --- Starting one ---

def _listen() -> Tuple[List[socket.socket], int]:
    tcp = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    tcp.bind((_THIS_MACHINE, 0))
    tcp.listen(16)
    port: int = tcp.getsockname()[1]
    sockets = [tcp]
    if sys.platform == "linux":
        local = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        try:
            local.bind(_local_name(port))
            local.listen(16)
            sockets.append(local)
        except OSError:
            local.close()
    for each in sockets:
        each.setblocking(False)
    return sockets, port


def _watch(loop: asyncio.AbstractEventLoop, process: "subprocess.Popen[bytes]",
           died: "asyncio.Future[None]") -> None:
    """Takes note of the end of a hub, which mostly outlives this process."""
    process.wait()

    def tell() -> None:
        if not died.done():
            died.set_result(None)
    try:
        loop.call_soon_threadsafe(tell)
    except RuntimeError:
        pass  # the loop has been closed long since


async def _accept_own(listener: socket.socket) -> socket.socket:
    loop = asyncio.get_running_loop()
    while True:
        client, _ = await loop.sock_accept(listener)
        client.setblocking(False)
        if _credentials.user_of_client(client).is_own:
            return client
        client.close()


async def _accept(sockets: Sequence[socket.socket], died: "asyncio.Future[None]",
                  timeout: float) -> Optional[socket.socket]:
    tasks = [asyncio.ensure_future(_accept_own(each)) for each in sockets]
    waits: "List[asyncio.Future[Any]]" = [*tasks, died]
    chosen: Optional[socket.socket] = None
    try:
        await asyncio.wait(waits, timeout=timeout, return_when=asyncio.FIRST_COMPLETED)
        chosen = next((task.result() for task in tasks if task.done()), None)
        return chosen
    finally:
        for task in tasks:
            task.cancel()
        # They let go of the listeners before those are closed.
        for end in await asyncio.gather(*tasks, return_exceptions=True):
            if isinstance(end, socket.socket) and end is not chosen:
                end.close()


async def _start(choice: HubChoice, timeout: float) -> Plugin:
    """The new hub connects to this process, which so is its first plugin, before it listens and
    writes its record; it answers as a hub only after that."""
    program = hub_program(choice)
    if program is None:
        raise HubNotFound(HubSearch.FAILED, f"there is no program {choice.program}"
                          if choice.program else "the hub's program isn't found")
    loop = asyncio.get_running_loop()
    end = time.monotonic() + timeout
    sockets, port = _listen()
    try:
        command = [program, "-connect_hublink", str(port)]
        for flag, option in ((choice.loopback_only, "-loopback_only"),
                             (choice.any_user, "-any_user"), (choice.tcp_only, "-tcp_only")):
            if flag:
                command.append(option)
        if choice.zone is not None:
            command += ["-hl_zone", choice.zone]
        command += choice.arguments
        died: "asyncio.Future[None]" = loop.create_future()
        try:
            process = subprocess.Popen(command, stdin=subprocess.DEVNULL,
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                       start_new_session=True)
        except OSError as error:
            raise HubNotFound(HubSearch.FAILED, f"{program} can't be started: {error}") from None
        threading.Thread(target=_watch, args=(loop, process, died), daemon=True,
                         name="hublink-child").start()
        connected = await _accept(sockets, died, timeout)
        if connected is None:
            why = "it died before connecting" if died.done() else "it hasn't connected in time"
            raise HubNotFound(HubSearch.FAILED, f"{program} can't be started: {why}")
    finally:
        for each in sockets:
            each.close()
    try:
        return await _attach(connected, port, max(0.0, end - time.monotonic()))
    except HubNotFound as error:
        raise HubNotFound(HubSearch.FAILED,
                          f"the hub that was started doesn't answer: {error}") from None


# --- What programs call ---

class Connecting:
    """What :func:`connect` gives: to be awaited, or used with ``async with``."""

    def __init__(self, choice: HubChoice, start: bool, timeout: Optional[float]) -> None:
        self._choice = choice
        self._starts = start
        self._timeout = timeout
        self._plugin: Optional[Plugin] = None

    async def _connect(self) -> Plugin:
        choice, timeout = self._choice, self._timeout
        if choice.port:
            return await _join_known(choice, CONNECT_TIMEOUT if timeout is None else timeout)
        if self._starts:
            return await _join_or_start(choice, START_TIMEOUT if timeout is None else timeout)
        return await _join(choice, key_of(choice), CONNECT_TIMEOUT if timeout is None else timeout)

    def __await__(self) -> Generator[Any, None, Plugin]:
        return self._connect().__await__()

    async def __aenter__(self) -> Plugin:
        self._plugin = await self._connect()
        return self._plugin

    async def __aexit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException],
                        trace: Optional[TracebackType]) -> None:
        if self._plugin is not None:
            await self._plugin.close()


def connect(argv: Optional[Sequence[str]] = None, *, choice: Optional[HubChoice] = None,
            zone: Optional[str] = None, port: Optional[int] = None, start: bool = True,
            timeout: Optional[float] = None) -> Connecting:
    """Connects to a hub, and starts one if there is none::

        async with hublink.connect(sys.argv) as plugin:
            link = await plugin.request("Mirror")

    `argv` is the program's command line, from which the options of
    :meth:`HubChoice.from_arguments` are taken: with it a program can be started by the hub. A
    `choice` is taken instead; `zone` and `port` replace what either of them says. Without `start`
    only a hub that runs is taken. `timeout` is in seconds: 5 unless told otherwise, 10 with the
    start of a hub; the wait for others who are starting one comes on top of it, 20 seconds at most.
    Raises HubNotFound.
    """
    chosen = dataclasses.replace(choice) if choice else HubChoice.from_arguments(argv or ())
    if zone is not None:
        chosen.zone = zone
    if port is not None:
        chosen.port = port
    return Connecting(chosen, start, timeout)
