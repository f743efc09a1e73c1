#!/usr/bin/env python3
"""Checks the layers of the house: no include points upwards, and no system header is included
outside the platform room. Prints each offence with file and line; exit code 1 if there is any."""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent

# Rooms from the bottom to the top, each with the rooms that it may include besides itself.
ROOMS = {
    "src/platform": [],
    "src/shared/indgen": ["src/platform"],
    "src/shared/indtime": ["src/platform", "src/shared/indgen"],
    "src/shared/libcxxutil": ["src/platform", "src/shared/indgen"],
}
ROOMS["src/shared/active_hub"] = list(ROOMS)
ROOMS["src/shared/stp_transport"] = [room for room in ROOMS if room != "src/shared/active_hub"]
ROOMS["generated"] = list(ROOMS)
ROOMS["src/shared/hublink_plugin"] = list(ROOMS)
ROOMS["src/shared/service_database"] = ["src/platform", "src/shared/indgen",
                                        "src/shared/libcxxutil"]
ROOMS["src/services/hublink"] = [room for room in ROOMS if room != "src/shared/hublink_plugin"]
ROOMS["src/services/hublink_bridge"] = list(ROOMS)
ROOMS["src/services/hublink_bridge"].remove("src/services/hublink")
ROOMS["src/tools"] = [room for room in ROOMS if room != "src/services/hublink"]
ANYTHING = ["examples", "tests", "bench", "fuzz", "simulation"]
SYSTEM_ROOM = "src/platform/posix"
# Programs that show what lies around a plugin.
AUTHORS_ROOM = "examples/loops"

# The one that knows the messaging system between machines.
NATS_ROOM = "src/services/hublink_bridge"

INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]')
# What stpc writes into the build, in the style for authors: a header for each of our interfaces.
BUILT = {match[1].lower() + ".h" for catalogue in (ROOT / "interfaces").glob("*.stp")
         if (match := re.search(r"^spec (\w+)", catalogue.read_text(), re.M))}
# Headers of the libraries that surround the product, by prefix.
LIBRARIES = ("gtest/", "gmock/", "benchmark/", "CLI/", "nlohmann/", "httplib.h", "zmq.h")


def room_of(path):
    text = path.as_posix()
    return max((room for room in ROOMS if text.startswith(room + "/")), key=len, default=None)


def resolve(name, origin):
    for base in ("", "src", "src/shared", origin.parent.as_posix()):
        candidate = pathlib.Path(base) / name
        if (ROOT / candidate).is_file():
            return candidate
    return None


def check(path):
    room = room_of(path)
    for number, line in enumerate((ROOT / path).read_text().splitlines(), 1):
        match = INCLUDE.match(line)
        if not match:
            continue
        kind, name = match.groups()
        if "${" in name:
            continue  # a template of code that is to be written
        place = f"{path}:{number}: "
        if kind == "<":
            if name.startswith("nats/") and path.as_posix().startswith((NATS_ROOM + "/", "bench/")):
                continue
            system = ("." in name or "/" in name) and not name.startswith(LIBRARIES)
            if system and not path.as_posix().startswith((SYSTEM_ROOM + "/", AUTHORS_ROOM + "/")):
                yield f"{place}system header <{name}> outside {SYSTEM_ROOM}"
            continue
        if name in BUILT:
            continue
        target = resolve(name, path)
        if target is None:
            if not path.as_posix().startswith(tuple(ANYTHING)):
                yield f"{place}\"{name}\" isn't found from the include roots"
            continue
        target_room = room_of(target)
        if room is not None and target_room != room and target_room not in ROOMS[room]:
            yield f"{place}{room} may not include {target_room or target}"


def main():
    paths = [p.relative_to(ROOT) for top in ("src", "generated", *ANYTHING)
             for p in sorted((ROOT / top).rglob("*")) if p.suffix in (".h", ".cpp")]
    offences = [offence for path in paths for offence in check(path)]
    print("\n".join(offences) if offences else f"layers: {len(paths)} files are in order")
    return 1 if offences else 0


if __name__ == "__main__":
    sys.exit(main())
