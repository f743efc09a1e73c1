"""A plugin: the connection to a hub, services that are provided, and services of others."""

import asyncio
import inspect
import logging
import os
from collections import deque
from types import TracebackType
from typing import (Any, Awaitable, Callable, Deque, Dict, Iterable, List, NamedTuple, Optional,
                    Sequence, Tuple, Type, TypeVar, Union)

from . import _wire
from ._connection import Connection
from ._hub_side import HubEndpoint, HubSide, Location
from ._messages import hublink as hub
from ._questions import Questions
from .errors import (CallTimedOut, Disconnected, HublinkError, LaunchFailed, LinkEnded, Outcome,
                     RequestFailed)
from .link import Link

__all__ = ["ConnectionRequest", "Location", "Plugin", "PluginCounts", "Service"]

log = logging.getLogger("hublink")

T = TypeVar("T")

ANSWER_TIMEOUT = 10.0
REQUEST_TIMEOUT = 30.0
_CLOSE_TIMEOUT = 5.0
_ASK_PAUSE = 0.1


class ConnectionRequest(NamedTuple):
    """A request for one of this plugin's services."""

    service_name: str
    requesting_plugin_id: int
    pairs: Sequence[str]  #: what the requester has passed along


class PluginCounts(NamedTuple):
    """How many plugins a hub has."""

    persistent: int  #: of them, those for whose sake it stays up
    total: int


LinkHandler = Callable[[Link], object]
AcceptHandler = Callable[[ConnectionRequest], Union[bool, Awaitable[bool]]]
ValueHandler = Callable[[str], Union[Optional[str], Awaitable[Optional[str]]]]


class Service:
    """A service that is offered."""

    def __init__(self, plugin: "Plugin", name: str, rn: int, connected: LinkHandler,
                 accept: Optional[AcceptHandler]) -> None:
        self.name = name
        self.rn = rn
        self._plugin = plugin
        self._connected = connected
        self._accept = accept

    def withdraw(self) -> None:
        """Offers it no longer; links that are up stay so."""
        self._plugin._withdraw(self)

    async def __aenter__(self) -> "Service":
        return self

    async def __aexit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException],
                        trace: Optional[TracebackType]) -> None:
        self.withdraw()


class Plugin:
    """A connection to a hub, made by :func:`hublink.connect`.

    All of it runs in the event loop in which it was made, and is to be used there; other threads
    hand work over with ``plugin.loop.call_soon_threadsafe``, or use :mod:`hublink.blocking`.
    Times are seconds, and None means without a limit. What waits for an answer of the hub raises
    CallTimedOut if it doesn't come in time, and Disconnected if the connection ends.
    """

    def __init__(self, connection: Connection) -> None:
        self._connection = connection
        self._id = -1
        self._log_kept = False
        self._services: Dict[int, Service] = {}
        self._links: Dict[Tuple[int, int], Link] = {}
        self._value_handler: Optional[ValueHandler] = None
        self._cookie = 0
        self._rns: Questions[List[int]] = Questions(connection, are_unique=False)
        # Of each question for RNs what offers a service under the first, or None.
        self._offers: Deque[Optional[Callable[[int], None]]] = deque()
        self._replies: Questions[Link] = Questions(connection)
        self._providers: Questions[int] = Questions(connection)
        self._starts: Questions[Tuple[int, str]] = Questions(connection)
        self._locations: Questions[Location] = Questions(connection, are_unique=False)
        self._values: Questions[Optional[str]] = Questions(connection, are_unique=False)
        self._welcome: Questions[int] = Questions(connection)
        self._endpoint = HubEndpoint(connection, _wire.PLUGIN_RN, _wire.HUB_RN)
        self._hub: Optional[HubSide] = None
        connection.ended = self._connection_ended

    async def _negotiate(self, timeout: Optional[float]) -> None:
        welcome = self._welcome.add()
        self._hub = HubSide(self._endpoint, self)
        await self._welcome.wait(welcome, timeout=timeout)

    # --- Life ---

    @property
    def loop(self) -> asyncio.AbstractEventLoop:
        """The event loop in which the plugin runs."""
        return self._connection.loop

    @property
    def id(self) -> int:
        """The number that the hub has given this plugin."""
        return self._id

    @property
    def is_connected(self) -> bool:
        return self._connection.is_up

    async def wait_closed(self) -> None:
        """Waits until the connection has ended, by whichever side."""
        await self._connection.wait_closed()

    async def close(self) -> None:
        """Ends the connection, after what is queued has been written or five seconds.

        Links end, services go, and open questions fail.
        """
        self._connection.close()
        timer = self.loop.call_later(_CLOSE_TIMEOUT, self._connection.abort)
        try:
            await self._connection.wait_closed()
        except asyncio.CancelledError:
            self._connection.abort()
            raise
        finally:
            timer.cancel()

    async def __aenter__(self) -> "Plugin":
        return self

    async def __aexit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException],
                        trace: Optional[TracebackType]) -> None:
        await self.close()

    def set_send_limit(self, size: int) -> None:
        """How many bytes of all links may wait to be written before senders wait; 8 MiB unless
        told otherwise, 0: no limit."""
        self._connection.set_send_limit(size)

    def set_receive_limit(self, size: int) -> None:
        """How many bytes may have come that nobody has taken from its link, 8 MiB unless told
        otherwise. Above it nothing more is read, and senders come to wait, unless this plugin
        itself waits for an answer."""
        self._connection.unread_limit = size

    # --- Services of this plugin ---

    async def provide(self, name: str, connected: LinkHandler,
                      accept: Optional[AcceptHandler] = None, *,
                      timeout: Optional[float] = ANSWER_TIMEOUT) -> Service:
        """Offers a service: each requester that `accept` takes gives `connected` a link.

        Without `accept` all are taken. Both may be coroutine functions; `connected` may be a side
        of an interface, too. If it raises, the link is closed. Returns when the hub has the
        registration.
        """
        rns = await self._ask_rns(hub.RegisterServiceList([name]), timeout,
                                  lambda rn: self._offer(name, rn, connected, accept))
        if not rns:
            raise HublinkError(f"the hub doesn't take the service {name}")
        self._check_up()
        return self._services[rns[0]]

    def _offer(self, name: str, rn: int, connected: LinkHandler,
               accept: Optional[AcceptHandler]) -> None:
        self._services[rn] = Service(self, name, rn, connected, accept)

    async def _ask_rns(self, message: object, timeout: Optional[float],
                       offer: Optional[Callable[[int], None]]) -> List[int]:
        self._check_up()
        question = self._rns.add()
        self._offers.append(offer)
        self._post(message)
        try:
            return await self._rns.wait(question, timeout=timeout)
        except asyncio.CancelledError:
            if question.done() and not question.cancelled() and not question.exception():
                self._give_back(question.result(), offer is not None)
            raise

    def _rns_reserved(self, rns: List[int]) -> None:
        if not self._offers:
            return
        offer = self._offers.popleft()
        # A service is in force before the hub's next message, which may be a request for it.
        if offer is not None and rns:
            offer(rns[0])
        if not self._rns.answer(rns):
            self._give_back(rns, offer is not None)

    def _give_back(self, rns: List[int], are_services: bool) -> None:
        """Nobody waits for them any more."""
        for rn in rns:
            if not are_services:
                self.release_rn(rn)
            elif rn in self._services:
                self._withdraw(self._services[rn])

    def _withdraw(self, service: Service) -> None:
        if self._services.get(service.rn) is service:
            del self._services[service.rn]
            self._post(hub.UnregisterService(service.rn))

    def _connection_requested(self, message: hub.ConnectionRequestedEvent) -> None:
        service = self._services.get(message.service_rn)
        if service is None:
            self._answer_request(message, False)
            return
        accept = service._accept
        if accept is None:
            self._accept(service, message)
            return
        request = ConnectionRequest(service.name, message.requesting_plugin_id,
                                    message.name_value_pairs)
        try:
            accepted = accept(request)
        except Exception:
            log.exception("the accept handler of %s has failed", service.name)
            accepted = False
        if inspect.isawaitable(accepted):
            self._endpoint._spawn(self._decide(service, message, accepted))
        elif accepted:
            self._accept(service, message)
        else:
            self._answer_request(message, False)

    async def _decide(self, service: Service, message: hub.ConnectionRequestedEvent,
                      decision: Awaitable[bool]) -> None:
        accepted = False
        try:
            accepted = await decision
        except Exception:
            log.exception("the accept handler of %s has failed", service.name)
        if accepted:
            self._accept(service, message)
        else:
            self._answer_request(message, False)

    def _answer_request(self, message: hub.ConnectionRequestedEvent, accepted: bool) -> None:
        self._post(hub.ConnectionAcceptedEvent(message.service_rn, message.remote_rn, accepted))

    def _accept(self, service: Service, message: hub.ConnectionRequestedEvent) -> None:
        if not self.is_connected:
            return
        # The link listens before the other side can hear of it, and speaks after.
        link = self._open_link(message.service_rn, message.remote_rn,
                               message.requesting_plugin_id, service.name, False)
        self._answer_request(message, True)
        try:
            rest = service._connected(link)
        except Exception:
            log.exception("the handler of a link of %s has failed", service.name)
            link.close()
            return
        if inspect.isawaitable(rest):
            link._spawn(self._serve(link, rest))

    @staticmethod
    async def _serve(link: Link, rest: Awaitable[object]) -> None:
        try:
            await rest
        except LinkEnded:
            pass  # how most conversations end
        except Exception:
            log.exception("the handler of a link of %s has failed", link.service_name)
            link.close()

    # --- Services of others ---

    async def request(self, service_name: str, *, plugin_id: int = -1, pairs: Iterable[str] = (),
                      working_dir: Union[str, "os.PathLike[str]", None] = None,
                      local_only: bool = False, no_reuse: bool = False,
                      client_start: bool = False, wait: bool = False,
                      timeout: Optional[float] = REQUEST_TIMEOUT) -> Link:
        """Asks for a service and gives the link to its provider.

        Raises RequestFailed, whose `outcome` says what is wrong; a hub that knows the provider's
        program starts it before it answers. With `wait` a service that nobody provides is asked
        for again until the time is up. `plugin_id` is the provider that is wanted, -1 any. `pairs`
        are passed to its accept handler. With `working_dir` only a provider with this working
        directory will do.
        """
        message = hub.RequestServiceConnection(
            service_name, plugin_id, list(pairs), _path(working_dir), local_only, 0, no_reuse,
            client_start)
        end = None if timeout is None else self.loop.time() + timeout
        nobody: Optional[RequestFailed] = None
        while True:
            left = None if end is None else max(0.0, end - self.loop.time())
            try:
                return await self._request(message, left)
            except RequestFailed as failure:
                if nobody is not None and failure.outcome is Outcome.TIMED_OUT:
                    raise nobody from None
                if not wait or failure.outcome is not Outcome.NOT_FOUND:
                    raise
                nobody = failure
            await asyncio.sleep(_ASK_PAUSE if left is None else min(_ASK_PAUSE, left))

    async def _request(self, message: hub.RequestServiceConnection,
                       timeout: Optional[float]) -> Link:
        service_name = message.service_name
        if not self.is_connected:
            raise RequestFailed(service_name, Outcome.DISCONNECTED)
        cookie = message.client_cookie = self._next_cookie()
        question = self._replies.add(cookie)
        self._post(message)
        try:
            return await self._replies.wait(question, cookie, timeout)
        except CallTimedOut:
            raise RequestFailed(service_name, Outcome.TIMED_OUT) from None
        except Disconnected:
            raise RequestFailed(service_name, Outcome.DISCONNECTED) from None
        except asyncio.CancelledError:
            if question.done() and not question.cancelled() and not question.exception():
                question.result().close()
            raise

    def _connection_replied(self, message: hub.ConnectionReplyEvent) -> None:
        cookie = message.client_cookie
        if message.is_shared_object:
            outcome = Outcome.SHARED_OBJECT
        elif not message.was_found:
            outcome = Outcome.NOT_FOUND
        elif message.was_accepted:
            link = self._open_link(message.local_rn, message.service_rn, message.plugin_id,
                                   message.service_name, True)
            if not self._replies.answer(link, cookie):
                link.close()
            return
        else:
            outcome = Outcome.LOST_PROVIDER if message.local_rn == -1 else Outcome.REFUSED
        if message.local_rn != -1:
            self.release_rn(message.local_rn)
        self._replies.fail(RequestFailed(message.service_name, outcome, message.plugin_id,
                                         message.shared_object_name), cookie)

    async def find_provider(self, service_name: str, *,
                            working_dir: Union[str, "os.PathLike[str]", None] = None,
                            start: bool = False,
                            timeout: Optional[float] = REQUEST_TIMEOUT) -> Optional[int]:
        """The number of a plugin that provides a service, or None.

        With `start` the hub starts the provider's program first, if it knows one. With
        `working_dir` only a provider with this working directory counts.
        """
        cookie = self._next_cookie()
        found = await self._ask(self._providers, hub.RequestPluginIdForService(
            cookie, service_name, _path(working_dir), start), cookie, timeout)
        return None if found == -1 else found

    # --- Links ---

    def _open_link(self, local_rn: int, remote_rn: int, peer_plugin_id: int, service_name: str,
                   owns_rn: bool) -> Link:
        link = Link(self, self._connection, local_rn, remote_rn, peer_plugin_id, service_name,
                    owns_rn)
        self._links[local_rn, remote_rn] = link
        return link

    def _forget_link(self, link: Link) -> None:
        self._links.pop((link.local_rn, link.remote_rn), None)

    def _connection_dropped(self, local_rn: int, remote_rn: int) -> None:
        link = self._links.get((local_rn, remote_rn))
        if link is not None:
            if link._owns_rn:
                self.release_rn(local_rn)
            link._ended()

    def _close_link(self, link: Link) -> None:
        self._post(hub.DropServiceConnection(link.local_rn, link.remote_rn))
        if link._owns_rn:
            self.release_rn(link.local_rn)
        link._ended()

    # --- Values ---

    def on_value_request(self, handler: Optional[ValueHandler]) -> None:
        """Has questions of other plugins about named values answered; None: no such value."""
        self._value_handler = handler

    def _value_requested(self, message: hub.ForwardedRequestValueOfNameOnPlugin) -> None:
        value: Any = None
        if self._value_handler is not None:
            try:
                value = self._value_handler(message.name)
            except Exception:
                log.exception("the value handler has failed")
        if inspect.isawaitable(value):
            self._endpoint._spawn(self._answer_value(message, value))
        else:
            self._tell_value(message, value)

    async def _answer_value(self, message: hub.ForwardedRequestValueOfNameOnPlugin,
                            rest: Awaitable[Optional[str]]) -> None:
        value = None
        try:
            value = await rest
        except Exception:
            log.exception("the value handler has failed")
        self._tell_value(message, value)

    def _tell_value(self, message: hub.ForwardedRequestValueOfNameOnPlugin,
                    value: Optional[str]) -> None:
        self._post(hub.ValueOfNameOnPluginResponseEvent(
            message.requesting_plugin_id, message.my_plugin_id, message.name, value))

    async def request_value(self, plugin_id: int, name: str, *,
                            timeout: Optional[float] = ANSWER_TIMEOUT) -> Optional[str]:
        """A named value of another plugin; None if there is no such plugin or value."""
        return await self._ask(self._values, hub.RequestValueOfNameOnPlugin(plugin_id, name),
                               (plugin_id, name), timeout)

    # --- Other plugins ---

    async def launch(self, command: Sequence[str], *,
                     working_dir: Union[str, "os.PathLike[str]", None] = None,
                     timeout: Optional[float] = None) -> int:
        """Has the hub start a plugin, and gives its number once it has connected.

        `command` is a program, which is sought beside the hub and in its PATH, with its arguments;
        `working_dir` None is the hub's. Raises LaunchFailed if it doesn't come up; the hub has a
        limit of its own.
        """
        cookie = self._next_cookie()
        return await self._start(hub.RequestPluginLaunch(
            list(command), cookie, False, _path(working_dir)), cookie, timeout)

    async def connect_plugin(self, host: str, port: int, *,
                             timeout: Optional[float] = None) -> int:
        """Has the hub connect to a plugin that listens, and gives its number.

        Raises LaunchFailed if the hub can't.
        """
        cookie = self._next_cookie()
        return await self._start(hub.RequestPluginConnect(host, port, cookie), cookie, timeout)

    async def _start(self, message: object, cookie: int, timeout: Optional[float]) -> int:
        plugin_id, errors = await self._ask(self._starts, message, cookie, timeout)
        if plugin_id == -1:
            raise LaunchFailed(errors)
        return plugin_id

    # --- The hub ---

    async def count_plugins(self, *, timeout: Optional[float] = ANSWER_TIMEOUT) -> PluginCounts:
        """How many plugins there are, this one among them.

        All that was sent to the hub before has been done then.
        """
        self._check_up()
        assert self._hub is not None
        reply = await self._hub.num_persistent_services(timeout=timeout)
        return PluginCounts(reply.num_persistent, reply.num_total)

    async def location(self, *, timeout: Optional[float] = ANSWER_TIMEOUT) -> Location:
        """Where the hub listens."""
        return await self._ask(self._locations, hub.RequestLocation(), None, timeout)

    async def reserve_rns(self, count: int, *,
                          timeout: Optional[float] = ANSWER_TIMEOUT) -> List[int]:
        """Addresses for the plugin's own use; none if the hub has no more to give."""
        return await self._ask_rns(hub.ReserveRnBlock(count), timeout, None)

    def release_rn(self, rn: int) -> None:
        """Gives an address back."""
        self._post(hub.ReleaseRn(rn))

    def set_persistent(self, persistent: bool) -> None:
        """Whether the hub stays up for this plugin's sake; it does unless told otherwise."""
        self._post(hub.PersistentService(persistent))

    def set_working_dir(self, working_dir: Union[str, "os.PathLike[str]", None]) -> None:
        """Tells the working directory that requests for a provider are compared with."""
        self._post(hub.SetWorkingDir(_path(working_dir)))

    def set_environment_variable(self, variable: str, value: Optional[str]) -> None:
        """Sets a variable for the programs that the hub starts."""
        self._post(hub.SetEnvironmentVariable(variable, value))

    def debug_plugin(self, plugin_name: str, debug: bool = True, debugger: str = "",
                     debugger_options: str = "") -> None:
        """Whether a plugin is started under a debugger from now on."""
        self._post(hub.DebugPlugin(plugin_name, debug, debugger, debugger_options))

    def set_prefer_ada(self, prefer: bool) -> None:
        """Whether programs are started by their Ada name."""
        self._post(hub.SetPreferAda(prefer))

    @property
    def is_log_kept(self) -> bool:
        """Whether the hub keeps a log, to which :meth:`log` adds."""
        return self._log_kept

    def log(self, message: str) -> None:
        """Adds a text to the plugins' log."""
        self._post(hub.LogMessageEvent(message))

    # --- Inside ---

    def _check_up(self) -> None:
        if not self.is_connected:
            raise Disconnected("the connection to the hub has ended")

    def _post(self, message: object) -> None:
        """Messages to the hub never wait; without a connection they go nowhere."""
        if self._hub is not None and self.is_connected:
            self._hub._post(message)

    def _next_cookie(self) -> int:
        self._cookie = self._cookie % 0x7FFFFFFF + 1
        return self._cookie

    async def _ask(self, questions: "Questions[T]", message: object, key: Any,
                   timeout: Optional[float]) -> T:
        self._check_up()
        question = questions.add(key)
        self._post(message)
        return await questions.wait(question, key, timeout)

    def _take_id(self, plugin_id: int) -> None:
        self._id = plugin_id
        self._welcome.answer(plugin_id)

    def _connection_ended(self) -> None:
        """Nothing will be answered any more."""
        error = self._connection.error or Disconnected("the connection to the hub has ended")
        self._services.clear()
        self._offers.clear()
        questions: Sequence[Questions[Any]] = (
            self._rns, self._replies, self._providers, self._starts, self._locations, self._values,
            self._welcome)
        for each in questions:
            each.fail_all(error)


def _path(path: Union[str, "os.PathLike[str]", None]) -> Optional[str]:
    return None if path is None else os.fspath(path)
