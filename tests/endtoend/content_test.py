#!/usr/bin/env python3
"""The check of a clip's content, on clips that were damaged at a known frame, cut off, made oddly, or left as they were.

The tests play a sample; bench/content.py plays all of it."""

import collections
import json
import os
import random
import shutil
import subprocess
import tempfile
import unittest

import camera_files
from camera_files import AAC, MPEG2, ffmpeg, prores, x264

TOOL = os.environ["VELMORA_BIN"] + "/velmora_content_check"
RATE, SECONDS = 25, 4
START = 10 * 3600 * RATE  # 10:00:00:00
PCM = ["-c:a", "pcm_s16le"]
HEVC = ["-c:v", "libx265", "-preset", "ultrafast", "-pix_fmt", "yuv420p10le", "-tag:v", "hvc1"]
# Ending and codec; frames from one key frame to the next; how it is made.
CODECS = {
    "ProRes 422": (".mov", 1, prores(2) + PCM),
    "ProRes 4444": (".mov", 1, prores(4, "yuv444p10le") + PCM),
    "DNxHR": (".mov", 1, ["-c:v", "dnxhd", "-profile:v", "dnxhr_lb", "-pix_fmt", "yuv422p", *PCM]),
    "H.264 intra": (".MOV", 1, x264("yuv422p10le", 1) + PCM),
    "H.264 long GOP": (".MP4", 25, x264("yuv420p", 25) + AAC),
    "H.264 in MXF": (".MXF", 12, x264("yuv422p10le", 12) + PCM),
    "HEVC": (".MP4", 25, HEVC + ["-x265-params", "log-level=none:keyint=25"] + AAC),
    "MPEG-2 in MXF": (".MXF", 12, MPEG2 + PCM),
    "MJPEG": (".MOV", 1, ["-c:v", "mjpeg", "-q:v", "4", "-pix_fmt", "yuvj420p", *PCM]),
    "Matroska": (".mkv", 25, x264("yuv420p", 25) + ["-c:a", "flac"]),
    "AVCHD": (".MTS", 25, x264("yuv420p", 25) + ["-c:a", "ac3"]),
}
AMOUNTS = {"1 byte": 1, "16 bytes": 16, "256 bytes": 256, "4096 bytes": 4096}


def make(codec, path, seconds=SECONDS, pattern="testsrc2"):
    # Grain, so that every part of a frame carries something.
    ffmpeg("-f", "lavfi", "-i", f"{pattern}=s=256x144:r={RATE}:d={seconds},noise=alls=12:allf=t", "-f", "lavfi", "-i",
           f"sine=r=48000:d={seconds}", "-timecode", "10:00:00:00", *CODECS[codec][2], path)


def packets(path, stream):
    out = subprocess.run(["ffprobe", "-v", "error", "-select_streams", stream, "-show_entries",
                          "packet=pts,dts,pos,size", "-of", "json", path], capture_output=True, check=True).stdout
    found = [p for p in json.loads(out)["packets"] if "pos" in p]
    return sorted(found, key=lambda p: int(p.get("pts", p.get("dts", 0))))


def damage(path, to, stream, frame, count):
    """Turns `count` bytes over in the middle of what was recorded of a frame."""
    with open(path, "rb") as file:
        data = bytearray(file.read())
    packet = packets(path, stream)[frame]
    first, size = int(packet["pos"]), int(packet["size"])
    middle = first + size // 2
    for at in range(max(first + size // 8, middle - count // 2), min(first + size, middle + (count + 1) // 2)):
        data[at] ^= 0xFF
    with open(to, "wb") as file:
        file.write(data)


def pictures(path):
    """A digest of each frame as it is decoded, and whether any decoder complained."""
    done = subprocess.run(["ffmpeg", "-v", "error", "-nostdin", "-i", path, "-map", "0:v", "-f", "framemd5", "-"],
                          capture_output=True, text=True, check=False)
    return [line.split(",")[-1] for line in done.stdout.splitlines() if not line.startswith("#")], bool(done.stderr)


def check(paths, folder):
    out = tempfile.mkdtemp(dir=folder)
    done = subprocess.run([TOOL, out, *paths], capture_output=True, check=True)
    shutil.rmtree(out)
    return {line["path"]: line for line in map(json.loads, done.stdout.splitlines())}


def timecode(frame):
    frame += START
    return f"{frame // 90000:02}:{frame // 1500 % 60:02}:{frame // 25 % 60:02}:{frame % 25:02}"


class Study:
    def __init__(self, folder, seed=1):
        self.folder, self.random = folder, random.Random(seed)
        self.rows = collections.defaultdict(collections.Counter)
        self.wrong, self.places = [], collections.defaultdict(collections.Counter)

    def source(self, codec):
        path = f"{self.folder}/{codec.replace(' ', '_')}{CODECS[codec][0]}"
        if not os.path.exists(path):
            make(codec, path)
        return path

    def verdicts(self, row, paths):
        answers = check(paths, self.folder)
        for path in paths:
            answer = answers[path]
            answer["kind"] = answer.get("kind") or answer["state"]
            self.rows[row][answer["kind"]] += 1
            yield path, answer
            os.remove(path)

    def damaged_pictures(self, codec, amount, times):
        source = self.source(codec)
        sound = pictures(source)[0]
        frames = {}
        for n in range(times):
            frame = self.random.randrange(10, SECONDS * RATE - 10)
            path = f"{self.folder}/damaged-{n}{os.path.splitext(source)[1]}"
            damage(source, path, "v:0", frame, AMOUNTS[amount])
            frames[path] = frame, pictures(path)
        for path, answer in self.verdicts(f"picture, {amount}", list(frames)):
            frame, (now, complained) = frames[path]
            tally = self.places[codec]
            if answer["kind"] == "decode":
                near = abs(answer["frame"] - frame) <= CODECS[codec][1]
                tally["found, frame right" if near else "found, frame wrong"] += 1
                wanted = None if codec in ("AVCHD", "Matroska") else timecode(answer["frame"])  # those have none
                self.judge(near and answer.get("timecode") == wanted, codec, amount, frame, answer)
            elif not complained:
                tally["no decoder complains" if now != sound else "nothing to see"] += 1
            else:
                tally["missed"] += 1
                self.judge(False, codec, amount, frame, answer)

    def damaged_sound(self, codec, times):
        source = self.source(codec)
        paths = [f"{self.folder}/sound-{n}{os.path.splitext(source)[1]}" for n in range(times)]
        for path in paths:
            damage(source, path, "a:0", self.random.randrange(10, len(packets(source, "a:0")) - 10), 200)
        for _, answer in self.verdicts("compressed sound, 200 bytes", paths):
            self.judge(answer["kind"] in ("audio", "ok"), codec, "sound", "", answer)

    def cut_in_half(self, codec):
        """A copy that broke off, its index in front."""
        whole = self.source(codec)
        path = f"{self.folder}/half{os.path.splitext(whole)[1]}"
        if CODECS[codec][0].upper() in (".MOV", ".MP4"):
            ffmpeg("-i", whole, "-map", "0:v", "-map", "0:a", "-c", "copy", "-movflags", "faststart", path)
        else:
            shutil.copy(whole, path)
        os.truncate(path, os.path.getsize(path) // 2)
        for _, answer in self.verdicts("cut in half", [path]):
            self.judge(answer["state"] != "ok", codec, "half", "", answer)

    def sound_clips(self, times):
        paths = []
        for codec in CODECS:
            for n in range(times):
                paths.append(f"{self.folder}/clean-{len(paths)}{CODECS[codec][0]}")
                make(codec, paths[-1], self.random.choice([0.04, 0.12, 0.52, 1, 1.48]),
                     self.random.choice(["testsrc2", "smptehdbars", "testsrc", "rgbtestsrc", "yuvtestsrc"]))
        for path, answer in self.verdicts("nothing", paths):
            self.judge(answer["state"] == "ok", "clean", path, "", answer)

    def odd_clips(self, count=len(camera_files.SOURCES)):
        paths = []
        card = camera_files.card()
        for source in self.random.sample(camera_files.SOURCES, count):
            paths.append(f"{self.folder}/odd-{len(paths)}{os.path.splitext(source.path)[1]}")
            shutil.copy(f"{card}/{source.path}", paths[-1])
        long = self.source("H.264 long GOP")
        for name, words in {
            "late.mp4": ["-ss", "1.3", "-i", long, "-c", "copy"],  # an edit list, and a last group that is not whole
            "open.mkv": ["-ss", "1.3", "-i", long, "-c:v", "copy", "-an"],  # begins between two key frames
            "priming.mov": ["-i", long, "-c:v", "copy", "-c:a", "aac", "-ar", "44100"],
            "offset.mp4": ["-itsoffset", "0.5", "-i", long, "-i", long, "-map", "0:v", "-map", "1:a", "-c", "copy"],
        }.items():
            paths.append(f"{self.folder}/{name}")
            ffmpeg(*words, paths[-1])
        for path, answer in self.verdicts("an oddity", paths):
            self.judge(answer["state"] == "ok", "odd", path, "", answer)

    def judge(self, right, *case):
        if not right:
            self.wrong.append(case)


class Content(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="velmora-content-")
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        self.play = Study(self.folder)

    def tearDown(self):
        self.assertEqual(self.play.wrong, [])

    def test_finds_damage_where_it_is(self):
        for codec in ("ProRes 422", "H.264 long GOP", "MPEG-2 in MXF", "MJPEG"):
            self.play.damaged_pictures(codec, "256 bytes", 2)
        for codec in ("H.264 intra", "Matroska"):
            self.play.cut_in_half(codec)
        self.play.damaged_sound("H.264 long GOP", 1)
        self.assertGreater(sum(tally["found, frame right"] for tally in self.play.places.values()), 2)

    def test_accuses_no_sound_clip(self):
        self.play.sound_clips(1)
        self.play.odd_clips(8)


if __name__ == "__main__":
    unittest.main()
