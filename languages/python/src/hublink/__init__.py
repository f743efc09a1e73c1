"""Plugins for Hublink in Python: services between tools, through a hub.

A provider and a requester::

    async with hublink.connect(sys.argv) as plugin:
        await plugin.provide("Mirror", mirror)
        await plugin.wait_closed()

    async with hublink.connect(sys.argv) as plugin:
        link = await plugin.request("Mirror")
        await link.send(b"hello")
        print(await link.receive())

Interfaces of one's own are compiled by ``stpc --language python``; see :mod:`hublink.interface`.
Scripts without an event loop use :mod:`hublink.blocking`.
"""

from .errors import (CallTimedOut, Disconnected, HublinkError, HubNotFound, HubSearch, LaunchFailed,
                     LinkEnded, NotSupported, Outcome, OutOfRange, ProtocolError, Refused,
                     RequestFailed, TooLarge)
from .finder import HubChoice, connect, find_hub, hub_program
from .link import Link
from .plugin import ConnectionRequest, Location, Plugin, PluginCounts, Service

__all__ = [
    "CallTimedOut", "ConnectionRequest", "Disconnected", "HubChoice", "HubNotFound", "HubSearch",
    "HublinkError", "LaunchFailed", "Link", "LinkEnded", "Location", "NotSupported", "OutOfRange",
    "Outcome", "Plugin", "PluginCounts", "ProtocolError", "Refused", "RequestFailed", "Service",
    "TooLarge", "connect", "find_hub", "hub_program",
]
