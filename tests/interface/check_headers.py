"""What a plugin's author includes brings none of the transport's headers, and what stpc writes for
him doesn't name it.

    check_headers.py SOURCES GENERATED-HEADER
"""

import pathlib
import re
import sys

SOURCES, GENERATED = map(pathlib.Path, sys.argv[1:])
OF_AUTHORS = ["hublink_plugin/hub_finder.h", "hublink_plugin/hublink_plugin.h",
              "hublink_plugin/interface_side.h"]
NAME = re.compile(r"\b(STP\w*|gen_\w*)")


def code(path):
    return re.sub(r"//.*", "", path.read_text())


def included(path):
    """The header and all that it includes from the tree."""
    found, pending = {}, [path]
    while pending:
        header = pending.pop()
        if header in found:
            continue
        found[header] = names = re.findall(r'^#include "(.+)"', header.read_text(), re.MULTILINE)
        pending += [SOURCES / name for name in names]
    return found


faults = []
for start in [GENERATED, *(SOURCES / name for name in OF_AUTHORS)]:
    for header, names in included(start).items():
        faults += [f"{header} includes {name}" for name in names
                   if pathlib.Path(name).name.startswith(("stp_", "gen_")) or "indgen/" in name]
for header in included(GENERATED):
    faults += [f"{header} names {found}" for found in NAME.findall(code(header))]
print("\n".join(sorted(set(faults))))
sys.exit(bool(faults))
