#!/usr/bin/env python3
"""Checks that a page shows pieces of files as they stand there.

    check_excerpts.py PAGE FOLDER

Each ```cpp block has to stand behind a line "`name`:". Its pieces, between empty lines, are looked
for in that file of the folder, from the top to the bottom."""

import pathlib
import sys

import run_tutorial


def main(page, folder):
    count = 0
    text = pathlib.Path(page).read_text(encoding="utf-8")
    for language, name, lines, number in run_tutorial.blocks(text):
        if language != "cpp":
            continue
        source = pathlib.Path(folder, name or "").read_text(encoding="utf-8")
        place = 0
        for piece in "\n".join(lines).split("\n\n"):
            place = source.find(piece + "\n", place)
            if place < 0:
                sys.exit(f"{page}:{number}: {name} has no such piece:\n{piece}")
        count += 1
    if count == 0:
        sys.exit(f"{page}: shows nothing")


if __name__ == "__main__":
    main(*sys.argv[1:])
