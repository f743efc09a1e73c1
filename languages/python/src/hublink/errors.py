"""What can go wrong, as exceptions. All of them are a :class:`HublinkError`."""

import asyncio
import enum

__all__ = [
    "CallTimedOut", "Disconnected", "HubNotFound", "HubSearch", "HublinkError", "LaunchFailed",
    "LinkEnded", "NotSupported", "Outcome", "OutOfRange", "ProtocolError", "Refused",
    "RequestFailed", "TooLarge",
]


class HublinkError(Exception):
    """The base of all errors of this package."""


class HubSearch(enum.Enum):
    """Why there is no connection to a hub."""

    NONE = "none"          #: there is no hub
    GONE = "gone"          #: it was there and has closed the connection
    SILENT = "silent"      #: it is there and doesn't answer in time
    FAILED = "failed"      #: it can't be started
    STRANGER = "stranger"  #: it runs as another user


class HubNotFound(HublinkError, ConnectionError):
    """No hub was found, or none could be started; ``outcome`` says which."""

    def __init__(self, outcome: HubSearch, text: str) -> None:
        super().__init__(text)
        self.outcome = outcome


class ProtocolError(HublinkError):
    """The other side has sent what is no packet. The connection ends with it."""


class Disconnected(HublinkError, ConnectionError):
    """The connection to the hub has ended."""


class LinkEnded(HublinkError, ConnectionError):
    """The link has ended: either side has closed it, or the other plugin or the hub has gone."""


class CallTimedOut(HublinkError, asyncio.TimeoutError):
    """No answer has come in time. One that comes later is dropped."""


class NotSupported(HublinkError):
    """The other side doesn't take the message: it has another version of the interface."""


class Refused(HublinkError):
    """The other side has refused a call, and the text says why.

    Raise it in the handler of a call to refuse that call.
    """


class OutOfRange(HublinkError, ValueError):
    """A value doesn't fit the type of its field. Nothing was sent."""


class TooLarge(HublinkError, ValueError):
    """A packet or message has more than 256 MiB. Nothing was sent."""


class Outcome(enum.Enum):
    """What came of the request for a service."""

    ACCEPTED = "accepted"
    REFUSED = "refused"              #: the provider said no
    NOT_FOUND = "not found"          #: nobody provides it, or the awaited plugin has gone
    LOST_PROVIDER = "provider lost"  #: the provider went before it answered
    SHARED_OBJECT = "shared object"  #: it is a library that the requester loads by itself
    TIMED_OUT = "timed out"          #: no answer in time
    DISCONNECTED = "disconnected"    #: the connection to the hub has ended


class RequestFailed(HublinkError):
    """A service was asked for and there is no link; ``outcome`` says why.

    ``plugin_id`` is the provider's number if there is one, else -1. ``shared_object_name`` is the
    library's file name for :attr:`Outcome.SHARED_OBJECT`.
    """

    def __init__(self, service_name: str, outcome: Outcome, plugin_id: int = -1,
                 shared_object_name: str = "") -> None:
        super().__init__(f"{service_name}: {outcome.value}")
        self.service_name = service_name
        self.outcome = outcome
        self.plugin_id = plugin_id
        self.shared_object_name = shared_object_name


class LaunchFailed(HublinkError):
    """The hub couldn't start a plugin or connect to one; the text says why."""
