"""The same for scripts that have no event loop: every call waits for what it does.

::

    with hublink.blocking.connect(sys.argv) as plugin:
        link = plugin.request("Mirror")
        link.send(b"hello")
        print(link.receive(timeout=5))

An event loop runs in a thread of its own; everything here may be used by any other thread. The
handlers that are given to :meth:`Plugin.provide` run in threads of their own, one for each link,
and may wait as they like. The sides of interfaces are those of :mod:`hublink.interface`, and run in
the loop; :meth:`Plugin.run` waits for their calls::

    converter = link.attach(ConverterRequester)
    reply = plugin.run(converter.to_fahrenheit(ToFahrenheit(celsius=37.0)))
"""

import asyncio
import logging
import os
import threading
from types import TracebackType
from typing import (Any, Callable, Coroutine, Iterable, Iterator, List, Optional, Sequence, Type,
                    TypeVar, Union)

from . import finder, link as asynchronous_link, plugin as asynchronous_plugin
from .errors import Disconnected, LinkEnded
from .plugin import (ANSWER_TIMEOUT, REQUEST_TIMEOUT, ConnectionRequest, Location, PluginCounts)

__all__ = ["Link", "Plugin", "Service", "connect"]

log = logging.getLogger("hublink")

T = TypeVar("T")
Path = Union[str, "os.PathLike[str]", None]


class _Runner:
    """An event loop in a thread of its own."""

    def __init__(self) -> None:
        self.loop = asyncio.new_event_loop()
        self._thread = threading.Thread(target=self._run, name="hublink", daemon=True)
        self._thread.start()

    def _run(self) -> None:
        asyncio.set_event_loop(self.loop)
        self.loop.run_forever()
        tasks = asyncio.all_tasks(self.loop)
        for task in tasks:
            task.cancel()
        if tasks:
            self.loop.run_until_complete(asyncio.wait(tasks))
        self.loop.run_until_complete(self.loop.shutdown_asyncgens())
        self.loop.close()

    def run(self, work: Coroutine[Any, Any, T]) -> T:
        if threading.current_thread() is self._thread or self.loop.is_closed():
            work.close()
            if self.loop.is_closed():
                raise Disconnected("the plugin has been closed")
            raise RuntimeError("this would wait for the thread that it is in")
        future = asyncio.run_coroutine_threadsafe(work, self.loop)
        try:
            return future.result()
        except BaseException:
            future.cancel()  # an interrupt, for instance, ends the work too
            raise

    def call(self, function: Callable[..., T], *arguments: Any) -> T:
        async def work() -> T:
            return function(*arguments)
        return self.run(work())

    def stop(self) -> None:
        if not self.loop.is_closed():
            self.loop.call_soon_threadsafe(self.loop.stop)
            self._thread.join()


class Link:
    """One end of a connection to another plugin; see :class:`hublink.Link`."""

    def __init__(self, runner: _Runner, link: asynchronous_link.Link) -> None:
        self._runner = runner
        self.asynchronous = link  #: for use in the event loop

    @property
    def is_up(self) -> bool:
        return self.asynchronous.is_up

    @property
    def peer_plugin_id(self) -> int:
        """The number of the plugin at the other end."""
        return self.asynchronous.peer_plugin_id

    @property
    def service_name(self) -> str:
        """The service that this link was asked for by."""
        return self.asynchronous.service_name

    def send(self, data: Union[bytes, bytearray, memoryview]) -> None:
        """Sends one packet; waits while receivers are slower. Raises LinkEnded, TooLarge."""
        self._runner.run(self.asynchronous.send(data))

    def try_send(self, data: Union[bytes, bytearray, memoryview]) -> bool:
        """The same without waiting for receivers; False if too much is queued already."""
        return self._runner.call(self.asynchronous.try_send, data)

    def receive(self, timeout: Optional[float] = None) -> bytes:
        """The next packet. Raises CallTimedOut if none comes within `timeout` seconds, LinkEnded
        if the link has ended with none left."""
        return self._runner.run(self.asynchronous.receive(timeout))

    def __iter__(self) -> Iterator[bytes]:
        """Packets until the link ends."""
        while True:
            try:
                packet = self.receive()
            except (LinkEnded, Disconnected):
                return
            yield packet

    def attach(self, side: Callable[[asynchronous_link.Link], T]) -> T:
        """Puts a side of an interface onto this link; its handlers run in the event loop."""
        return self._runner.call(side, self.asynchronous)

    def wait_ended(self) -> None:
        """Waits until the link has ended."""
        self._runner.run(self.asynchronous.wait_ended())

    def close(self) -> None:
        """Ends the link; what was sent still arrives, and then the other side is told."""
        try:
            self._runner.call(self.asynchronous.close)
        except Disconnected:
            pass

    def __enter__(self) -> "Link":
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException],
                 trace: Optional[TracebackType]) -> None:
        self.close()


class Service:
    """A service that is offered."""

    def __init__(self, runner: _Runner, service: asynchronous_plugin.Service) -> None:
        self._runner = runner
        self._service = service
        self.name = service.name
        self.rn = service.rn

    def withdraw(self) -> None:
        """Offers it no longer; links that are up stay so."""
        self._runner.call(self._service.withdraw)


class Plugin:
    """A connection to a hub; see :class:`hublink.Plugin` for all that isn't told here."""

    def __init__(self, runner: _Runner, plugin: asynchronous_plugin.Plugin) -> None:
        self._runner = runner
        self.asynchronous = plugin  #: for use in the event loop

    @property
    def id(self) -> int:
        """The number that the hub has given this plugin."""
        return self.asynchronous.id

    @property
    def is_connected(self) -> bool:
        return self.asynchronous.is_connected

    def run(self, work: Coroutine[Any, Any, T]) -> T:
        """Runs a coroutine in the plugin's event loop and waits for what it gives."""
        return self._runner.run(work)

    def wait_closed(self) -> None:
        """Waits until the connection has ended."""
        self._runner.run(self.asynchronous.wait_closed())

    def close(self) -> None:
        """Ends the connection and the thread; what waits for something fails."""
        try:
            self._runner.run(self.asynchronous.close())
        except Disconnected:
            return  # it was closed before
        self._runner.stop()

    def __enter__(self) -> "Plugin":
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException],
                 trace: Optional[TracebackType]) -> None:
        self.close()

    # --- Services ---

    def provide(self, name: str, connected: Callable[[Link], object],
                accept: Optional[Callable[[ConnectionRequest], bool]] = None, *,
                timeout: Optional[float] = ANSWER_TIMEOUT) -> Service:
        """Offers a service. Each requester that `accept` takes (none: all are taken) gives
        `connected` a link, in a thread of its own; the link is closed when that ends."""
        runner, loop = self._runner, self._runner.loop

        def take(link: asynchronous_link.Link) -> None:
            threading.Thread(target=serve, args=(Link(runner, link),), daemon=True,
                             name=f"hublink {name}").start()

        def serve(link: Link) -> None:
            try:
                connected(link)
            except (LinkEnded, Disconnected):
                pass  # how most conversations end
            except Exception:
                log.exception("the handler of a link of %s has failed", name)
            link.close()

        async def ask(request: ConnectionRequest) -> bool:
            assert accept is not None
            return await loop.run_in_executor(None, accept, request)

        return Service(runner, self.run(self.asynchronous.provide(
            name, take, ask if accept else None, timeout=timeout)))

    def request(self, service_name: str, *, plugin_id: int = -1, pairs: Iterable[str] = (),
                working_dir: Path = None, local_only: bool = False, no_reuse: bool = False,
                client_start: bool = False, wait: bool = False,
                timeout: Optional[float] = REQUEST_TIMEOUT) -> Link:
        """Asks for a service and gives the link to its provider; raises RequestFailed."""
        return Link(self._runner, self.run(self.asynchronous.request(
            service_name, plugin_id=plugin_id, pairs=pairs, working_dir=working_dir,
            local_only=local_only, no_reuse=no_reuse, client_start=client_start, wait=wait,
            timeout=timeout)))

    def find_provider(self, service_name: str, *, working_dir: Path = None, start: bool = False,
                      timeout: Optional[float] = REQUEST_TIMEOUT) -> Optional[int]:
        """The number of a plugin that provides a service, or None."""
        return self.run(self.asynchronous.find_provider(
            service_name, working_dir=working_dir, start=start, timeout=timeout))

    # --- Values and other plugins ---

    def on_value_request(self, handler: Optional[Callable[[str], Optional[str]]]) -> None:
        """Has questions of other plugins about named values answered, in threads."""
        if handler is None:
            self._runner.call(self.asynchronous.on_value_request, None)
            return
        loop, asked = self._runner.loop, handler

        async def ask(name: str) -> Optional[str]:
            return await loop.run_in_executor(None, asked, name)
        self._runner.call(self.asynchronous.on_value_request, ask)

    def request_value(self, plugin_id: int, name: str, *,
                      timeout: Optional[float] = ANSWER_TIMEOUT) -> Optional[str]:
        """A named value of another plugin; None if there is no such plugin or value."""
        return self.run(self.asynchronous.request_value(plugin_id, name, timeout=timeout))

    def launch(self, command: Sequence[str], *, working_dir: Path = None,
               timeout: Optional[float] = None) -> int:
        """Has the hub start a plugin, and gives its number; raises LaunchFailed."""
        return self.run(self.asynchronous.launch(command, working_dir=working_dir,
                                                 timeout=timeout))

    def connect_plugin(self, host: str, port: int, *, timeout: Optional[float] = None) -> int:
        """Has the hub connect to a plugin that listens; raises LaunchFailed."""
        return self.run(self.asynchronous.connect_plugin(host, port, timeout=timeout))

    # --- The hub ---

    def count_plugins(self, *, timeout: Optional[float] = ANSWER_TIMEOUT) -> PluginCounts:
        """How many plugins there are, this one among them."""
        return self.run(self.asynchronous.count_plugins(timeout=timeout))

    def location(self, *, timeout: Optional[float] = ANSWER_TIMEOUT) -> Location:
        """Where the hub listens."""
        return self.run(self.asynchronous.location(timeout=timeout))

    def reserve_rns(self, count: int, *, timeout: Optional[float] = ANSWER_TIMEOUT) -> List[int]:
        """Addresses for the plugin's own use."""
        return self.run(self.asynchronous.reserve_rns(count, timeout=timeout))

    def release_rn(self, rn: int) -> None:
        """Gives an address back."""
        self._runner.call(self.asynchronous.release_rn, rn)

    def set_persistent(self, persistent: bool) -> None:
        """Whether the hub stays up for this plugin's sake."""
        self._runner.call(self.asynchronous.set_persistent, persistent)

    def set_working_dir(self, working_dir: Path) -> None:
        """Tells the working directory that requests for a provider are compared with."""
        self._runner.call(self.asynchronous.set_working_dir, working_dir)

    def set_environment_variable(self, variable: str, value: Optional[str]) -> None:
        """Sets a variable for the programs that the hub starts."""
        self._runner.call(self.asynchronous.set_environment_variable, variable, value)

    def debug_plugin(self, plugin_name: str, debug: bool = True, debugger: str = "",
                     debugger_options: str = "") -> None:
        """Whether a plugin is started under a debugger from now on."""
        self._runner.call(self.asynchronous.debug_plugin, plugin_name, debug, debugger,
                          debugger_options)

    def set_prefer_ada(self, prefer: bool) -> None:
        """Whether programs are started by their Ada name."""
        self._runner.call(self.asynchronous.set_prefer_ada, prefer)

    def set_send_limit(self, size: int) -> None:
        """How many bytes may wait to be written before senders wait; 0: no limit."""
        self._runner.call(self.asynchronous.set_send_limit, size)

    @property
    def is_log_kept(self) -> bool:
        """Whether the hub keeps a log."""
        return self.asynchronous.is_log_kept

    def log(self, message: str) -> None:
        """Adds a text to the plugins' log."""
        self._runner.call(self.asynchronous.log, message)


def connect(argv: Optional[Sequence[str]] = None, *, choice: Optional[finder.HubChoice] = None,
            zone: Optional[str] = None, port: Optional[int] = None, start: bool = True,
            timeout: Optional[float] = None) -> Plugin:
    """Connects to a hub, and starts one if there is none; see :func:`hublink.connect`."""
    runner = _Runner()

    async def work() -> asynchronous_plugin.Plugin:
        return await finder.connect(argv, choice=choice, zone=zone, port=port, start=start,
                                    timeout=timeout)
    try:
        return Plugin(runner, runner.run(work()))
    except BaseException:
        runner.stop()
        raise
