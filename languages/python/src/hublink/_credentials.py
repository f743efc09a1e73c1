"""Whose process is at the other end of a connection within this machine.

The system is asked, not the other side: a local socket keeps it, and a TCP connection within this
machine has both its ends in the kernel's table, each with the user whose process has made it.
"""

import contextlib
import enum
import errno
import os
import socket
import struct
from typing import NamedTuple, Optional, Sequence, Tuple

_NETLINK_SOCK_DIAG = 4
_SOCK_DIAG_BY_FAMILY = 20
_NLM_F_REQUEST = 1
_NLMSG_ERROR = 2
_ESTABLISHED, _LISTEN = 1, 10

End = Tuple[str, int]
_NOWHERE: End = ("0.0.0.0", 0)


class Kind(enum.Enum):
    ELSEWHERE = enum.auto()  # not on this machine
    KNOWN = enum.auto()
    UNKNOWN = enum.auto()    # on this machine, and the system can't tell, or it has closed already


class PeerUser(NamedTuple):
    """What is known of the process at the other end."""

    kind: Kind
    user: int = -1

    @property
    def is_own(self) -> bool:
        """A process of this user or of root, who could do what it asks for anyway."""
        return self.kind is Kind.KNOWN and self.user in (os.geteuid(), 0)


class _Entry(NamedTuple):
    local: End
    remote: End
    state: int
    user: int
    inode: int


class _Unavailable(Exception):
    pass


def is_own_address(address: str) -> bool:
    """Addresses that a socket can be bound to are this machine's."""
    if address.startswith("127."):
        return True
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        try:
            probe.bind((address, 0))
        except OSError as error:
            return error.errno != errno.EADDRNOTAVAIL
    return True


def _ask_netlink(local: End, remote: End) -> Optional[_Entry]:
    identity = struct.pack("!HH4s12x4s12x", local[1], remote[1], socket.inet_aton(local[0]),
                           socket.inet_aton(remote[0])) + struct.pack("=I2I", 0, 2**32 - 1,
                                                                      2**32 - 1)
    body = struct.pack("=4BI", socket.AF_INET, socket.IPPROTO_TCP, 0, 0, 2**32 - 1) + identity
    try:
        with socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, _NETLINK_SOCK_DIAG) as netlink:
            netlink.send(struct.pack("=IHHII", 16 + len(body), _SOCK_DIAG_BY_FAMILY,
                                     _NLM_F_REQUEST, 0, 0) + body)
            # The answer is there when the call above comes back.
            reply = netlink.recv(8192, socket.MSG_DONTWAIT)
    except (OSError, AttributeError):
        raise _Unavailable from None
    if len(reply) < 20:
        raise _Unavailable
    kind = struct.unpack_from("=IH", reply)[1]
    if kind == _NLMSG_ERROR:
        if struct.unpack_from("=i", reply, 16)[0] == -errno.ENOENT:
            return None
        raise _Unavailable
    if kind != _SOCK_DIAG_BY_FAMILY or len(reply) < 16 + 72:
        raise _Unavailable
    state = reply[17]
    local_port, remote_port, near, far = struct.unpack_from("!HH4s12x4s", reply, 20)
    user, inode = struct.unpack_from("=2I", reply, 16 + 64)
    return _Entry((socket.inet_ntoa(near), local_port), (socket.inet_ntoa(far), remote_port),
                  state, user, inode)


def _is_wanted(entry: _Entry, local: End, remote: End) -> bool:
    if entry.state == _LISTEN:
        return entry.local[1] == local[1] and entry.local[0] in (local[0], "0.0.0.0")
    return entry.local == local and entry.remote == remote


def _end_of(text: str) -> End:
    address, port = text.split(":")
    return socket.inet_ntoa(struct.pack("=I", int(address, 16))), int(port, 16)


def _read_table(local: End, remote: End) -> Optional[_Entry]:
    """As netlink finds it: the connection, else who listens there."""
    listening = None
    with contextlib.suppress(OSError, ValueError, IndexError):
        with open("/proc/net/tcp", encoding="ascii") as table:
            next(table, None)
            for line in table:
                words = line.split()
                entry = _Entry(_end_of(words[1]), _end_of(words[2]), int(words[3], 16),
                               int(words[7]), int(words[9]))
                if not _is_wanted(entry, local, remote):
                    continue
                if entry.state != _LISTEN:
                    return entry
                listening = entry
    return listening


def _look_up(local: End, remote: End) -> Optional[_Entry]:
    with contextlib.suppress(_Unavailable):
        entry = _ask_netlink(local, remote)
        if entry is not None and _is_wanted(entry, local, remote):
            return entry
    # A kernel without this part of netlink answers like one that finds nothing.
    return _read_table(local, remote)


def _of_local(connected: socket.socket) -> PeerUser:
    try:
        credentials = connected.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12)
    except OSError:
        return PeerUser(Kind.UNKNOWN)
    return PeerUser(Kind.KNOWN, struct.unpack("=3i", credentials)[1])


def _ask(connected: socket.socket, states: Sequence[int], as_server: bool) -> PeerUser:
    if connected.family == socket.AF_UNIX:
        return _of_local(connected)
    try:
        near: End = connected.getsockname()[:2]
        far: End = connected.getpeername()[:2]
    except OSError:
        return PeerUser(Kind.UNKNOWN)
    if connected.family != socket.AF_INET:
        return PeerUser(Kind.UNKNOWN)
    if far[0] != near[0] and not is_own_address(far[0]):
        return PeerUser(Kind.ELSEWHERE)
    # Between its arrival and the accept the other end has no owner yet: whoever listens there is
    # it. It may be accepted, and the listener closed, between two looks.
    for client in (near, _NOWHERE, near) if as_server else (near,):
        entry = _look_up(far, client)
        # An end that was closed may stand in the table for a while, as nobody's.
        if entry is not None and entry.inode != 0 and entry.state in states:
            return PeerUser(Kind.KNOWN, entry.user)
    return PeerUser(Kind.UNKNOWN)


def user_of_server(connected: socket.socket) -> PeerUser:
    """Of a connection that was made: who has accepted it, or listens there and is about to."""
    return _ask(connected, (_ESTABLISHED, _LISTEN), True)


def user_of_client(accepted: socket.socket) -> PeerUser:
    """Of a connection that was accepted: who has made it."""
    return _ask(accepted, (_ESTABLISHED,), False)
