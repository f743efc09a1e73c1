"""Which hub is meant: a program's choice or its command line, and what follows from it."""

import dataclasses
import os
import sys
from typing import Optional, Sequence

from ._place import RecordKey


@dataclasses.dataclass
class HubChoice:
    """Which hub is meant, and how it is started."""

    zone: Optional[str] = None
    """A name that the tools agree on; without one each installation has its own hub for each
    user."""
    program: str = ""
    """The hub's executable, or a bare name in PATH. Empty: `hublink` beside this program, in
    `../lib/hublink` from there, or in PATH."""
    port: int = 0
    """Of a hub whose port is known, which is neither looked for nor started."""
    host: str = "localhost"
    """The machine of that hub."""
    loopback_only: bool = True
    """Whether a hub that is started can be reached from this machine alone."""
    any_user: bool = False
    """Whether a hub that runs as another user is taken; one that is started takes every user
    then."""
    tcp_only: bool = False
    """Whether the local road is left out, by this program and by a hub that is started."""
    arguments: Sequence[str] = ()
    """Further options for a hub that is started."""

    @classmethod
    def from_arguments(cls, argv: Sequence[str]) -> "HubChoice":
        """The choice that a command line makes; `argv[0]` is the program, as in `sys.argv`.

        `-hl_connect_hublink_port PORT` is there if the hub has started this program, `-hl_zone
        NAME` and `-hl_hub PROGRAM` are for people. The rest is passed over.
        """
        choice = cls()
        position = 1
        while position + 1 < len(argv):
            option, value = argv[position].lower(), argv[position + 1]
            position += 2
            if option == "-hl_zone":
                choice.zone = value
            elif option == "-hl_hub":
                choice.program = value
            elif option == "-hl_connect_hublink_port" and not choice.port:
                choice.port = _port_of(value)
            else:
                position -= 1
        return choice


def _port_of(text: str) -> int:
    try:
        port = int(text, 0)
    except ValueError:
        return 0
    return port if 0 < port <= 0xFFFF else 0


# --- The hub's program and its record ---

def _is_file(path: str) -> bool:
    return os.path.exists(path) and not os.path.isdir(path)


def _in_path(name: str) -> Optional[str]:
    for directory in os.environ.get("PATH", "").split(":"):
        path = os.path.join(directory, name)
        if _is_file(path):
            return path
    return None


def hub_program(choice: HubChoice) -> Optional[str]:
    """The hub's executable without links, or None if there is none."""
    found: Optional[str] = None
    if choice.program:
        if os.path.dirname(choice.program):
            found = choice.program if _is_file(choice.program) else None
        else:
            found = _in_path(choice.program)
    else:
        script = os.path.realpath(sys.argv[0]) if sys.argv and sys.argv[0] else ""
        if _is_file(script):
            directory = os.path.dirname(script)
            for path in (os.path.join(directory, "hublink"),
                         os.path.join(directory, "../lib/hublink/hublink")):
                if found is None and _is_file(path):
                    found = path
        found = found or _in_path("hublink")
    return os.path.realpath(found) if found else None


def key_of(choice: HubChoice) -> Optional[RecordKey]:
    """The record of that hub; None without a zone and a program, from which it would follow."""
    program = hub_program(choice)
    if choice.zone is None and program is None:
        return None
    return RecordKey(choice.zone, os.path.dirname(program) if program else None)


def find_hub(choice: HubChoice) -> Optional[int]:
    """The port of a hub that runs, or None."""
    key = key_of(choice)
    return (key.read().live_port or None) if key else None
