"""The plugin's end of the conversation with its hub, which fills the plugin's tables."""

from typing import NamedTuple, TYPE_CHECKING

from . import _wire
from ._endpoint import Endpoint
from ._messages import hublink as hub
from ._wire import Header
from .errors import Disconnected, HublinkError

if TYPE_CHECKING:
    from .interface import Side
    from .plugin import Plugin


class Location(NamedTuple):
    """Where a hub listens."""

    host: str
    port: int


class HubEndpoint(Endpoint):
    """The conversation with the hub: each message is handled as it comes."""

    def _give(self, side: "Side", header: Header, payload: bytes) -> None:
        if header.type == _wire.NEGOTIATION:
            side._take_negotiation(header, payload)
        else:
            side._handle(header, payload)

    def _end_error(self) -> HublinkError:
        return Disconnected("the connection to the hub has ended")


class HubSide(hub.HublinkPlugin):
    """The plugin's side of the interface that the hub has."""

    def __init__(self, link: Endpoint, plugin: "Plugin") -> None:
        self._plugin = plugin
        super().__init__(link)

    def on_location_event(self, message: hub.LocationEvent) -> None:
        self._plugin._locations.answer(Location(message.hostname, message.port))

    def on_plugin_id(self, message: hub.PluginId) -> None:
        self._plugin._take_id(message.plugin_id)

    def on_connection_requested_event(self, message: hub.ConnectionRequestedEvent) -> None:
        self._plugin._connection_requested(message)

    def on_connection_dropped_event(self, message: hub.ConnectionDroppedEvent) -> None:
        self._plugin._connection_dropped(message.service_rn, message.remote_rn)

    def on_connection_reply_event(self, message: hub.ConnectionReplyEvent) -> None:
        self._plugin._connection_replied(message)

    def on_plugin_id_for_service_reply_event(
            self, message: hub.PluginIdForServiceReplyEvent) -> None:
        self._plugin._providers.answer(message.plugin_id, message.cookie)

    def on_rn_block_reserved_event(self, message: hub.RnBlockReservedEvent) -> None:
        self._plugin._rns_reserved(message.rn_list)

    def on_plugin_connected_event(self, message: hub.PluginConnectedEvent) -> None:
        self._plugin._starts.answer((message.plugin_id, message.errors), message.cookie)

    def on_forwarded_request_value_of_name_on_plugin(
            self, message: hub.ForwardedRequestValueOfNameOnPlugin) -> None:
        self._plugin._value_requested(message)

    def on_value_of_name_on_plugin_event(self, message: hub.ValueOfNameOnPluginEvent) -> None:
        self._plugin._values.answer(message.value, (message.plugin_id, message.name))

    def on_start_plugin(self, message: hub.StartPlugin) -> None:
        self._post(hub.StartPluginEvent(message.cookie, False, "this plugin starts no others"))

    def on_start_logging(self, message: hub.StartLogging) -> None:
        self._plugin._log_kept = True
