#!/usr/bin/env python3
"""Plays the whole study of tests/endtoend/content_test.py in a folder and prints the tables of docs/content-check.md:
VELMORA_BIN=build/release/bin bench/content.py FOLDER"""

import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "../tests/endtoend"))
from content_test import AMOUNTS, CODECS, Study


def matrix(rows, first):
    columns = sorted({column for row in rows.values() for column in row})
    lines = [f"| {first} | " + " | ".join(columns) + " |", "|---" * (len(columns) + 1) + "|"]
    for name, row in rows.items():
        lines.append(f"| {name} | " + " | ".join(str(row[column] or "") for column in columns) + " |")
    return "\n".join(lines)


# The parts of the study, each by its own luck, so that one can be played alone.
PARTS = {
    "clean": lambda play: play.sound_clips(20),
    "odd": lambda play: play.odd_clips(),
    **{
        codec: lambda play, codec=codec: [
            *(play.damaged_pictures(codec, amount, 3) for amount in AMOUNTS),
            play.cut_in_half(codec),
            codec in ("H.264 long GOP", "HEVC") and play.damaged_sound(codec, 5),
        ]
        for codec in CODECS
    },
}


def study(folder):
    play = Study(folder)
    for name, part in PARTS.items():
        play.random.seed(name)
        part(play)
        print(name, "done", file=sys.stderr)
    print(matrix(play.rows, "What was done to the clip"), matrix(play.places, "Picture damaged"), sep="\n\n")
    for case in play.wrong:
        print("wrong:", *case, file=sys.stderr)


if __name__ == "__main__":
    study(sys.argv[1])
