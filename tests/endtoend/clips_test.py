#!/usr/bin/env python3
"""`velmora clips` over real camera files, held against what ffprobe and the sidecars say and what the files were made of."""

import json
import os
import shutil
import subprocess
import tempfile
import unittest
import xml.etree.ElementTree
from fractions import Fraction

import camera_files

BIN = os.environ["VELMORA_BIN"]


def ffprobe(path):
    """In another form than the program asks for."""
    out = subprocess.run(["ffprobe", "-v", "error", "-of", "flat", "-show_streams", "-show_format", "file:" + path],
                         capture_output=True, check=True, text=True).stdout
    fields = {}
    for line in out.splitlines():
        key, _, value = line.partition("=")
        fields[key] = value.strip('"')
    streams = sorted({int(key.split(".")[2]) for key in fields if key.startswith("streams.")})
    parts = [{key.split(".", 3)[3]: fields[key] for key in fields if key.startswith(f"streams.stream.{n}.")} for n in streams]
    return parts, {key[len("format."):]: value for key, value in fields.items() if key.startswith("format.")}


class Clips(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="velmora-clips-")
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)

    def clips(self, source, *options, status=0):
        environment = {**os.environ, "XDG_DATA_HOME": self.folder + "/data"}
        done = subprocess.run([BIN + "/velmora", "clips", source, *options], capture_output=True, env=environment)
        self.assertEqual(done.returncode, status, done.stderr.decode())
        return done

    def events(self, source, *options, status=0):
        lines = [json.loads(line) for line in self.clips(source, "--json", *options, status=status).stdout.splitlines()]
        self.assertEqual(lines[-1]["event"], "result")
        return {line["clip"]["path"]: line for line in lines[:-1]}

    def test_agrees_with_the_files(self):
        card = camera_files.card()
        clips = self.events(card, status=1)
        self.assertEqual(len(clips), len(camera_files.SOURCES) + len(camera_files.BROKEN))
        for path, why in camera_files.BROKEN.items():
            self.assertRegex(clips[path].pop("probeError"), r"ffprobe failed \(exit 1\): \[mov,[^@]*\]", why)
            self.assertNotIn("info", clips[path])
        for source in camera_files.SOURCES:
            with self.subTest(source.path):
                self.one_clip(source, clips[source.path], card + "/" + source.path)

    def one_clip(self, source, clip, path):
        info = clip["info"]
        streams, format_ = ffprobe(path)
        picture = next(s for s in streams if s["codec_type"] == "video" and s["disposition.attached_pic"] == "0")
        sound = [int(s["channels"]) for s in streams if s["codec_type"] == "audio"]
        # What was put in …
        self.assertEqual(clip["audioStreams"], source.channels)
        self.assertEqual(info.get("timecode", ""), source.timecode)
        if source.rate != "variable":
            self.assertEqual(Fraction(info["frameRate"]), Fraction(source.rate))
        self.assertEqual(f"{info['width']}x{info['height']}", source.size)
        if source.finish != "trim" and "frames" in info:
            self.assertEqual(info["frames"], source.frames)
        self.assertEqual(info.get("captureFrameRate", ""), source.capture)
        muxer = "OP1a Muxer" if source.path.endswith(".MXF") else ""  # stands where a camera puts its name
        self.assertEqual(info.get("camera", ""), source.camera or muxer)
        self.assertEqual(clip["reel"], source.reel or os.path.basename(camera_files.card()))
        # … and what comes out of it.
        self.assertEqual(info["codec"], " ".join(picture[k] for k in ("codec_name", "profile") if k in picture))
        self.assertEqual(info["frameRate"], picture["avg_frame_rate"])
        self.assertEqual(str(info.get("frames", "N/A")), picture["nb_frames"])
        self.assertEqual((clip["audioStreams"], info["audioChannels"]), (sound, sum(sound)))
        self.assertAlmostEqual(info["duration"], float(picture["duration"] if picture["duration"] != "N/A" else format_["duration"]), 3)
        self.assertEqual(info.get("colorRange"), picture.get("color_range", "unknown").replace("unknown", "") or None)
        if picture["bit_rate"] != "N/A":
            self.assertEqual(clip["videoBitrate"], int(picture["bit_rate"]))
        sidecar = os.path.splitext(path)[0] + "M01.XML"
        if os.path.exists(sidecar):
            items = {e.get("name"): e.get("value") for e in xml.etree.ElementTree.parse(sidecar).iter() if e.get("value")}
            self.assertEqual((info["gamma"], info["gamut"]), (items["CaptureGammaEquation"], items["CaptureColorPrimaries"]))
            self.assertIn("Sony XML: " + items["CaptureGammaEquation"], clip["lut"]["reason"])
        self.assertEqual(clip["clip"]["isCameraProxy"], "/SUB/" in path)

    def test_takes_the_frames_that_it_names(self):
        """Each frame of these clips is as bright as its number says."""
        made = {"whole.mov": ("prores_ks", 100, "25", "10:00:00:00"), "gop.mp4": ("libx264", 100, "30000/1001", "00:00:59;00"),
                "three.mov": ("prores_ks", 3, "25", "01:00:00:00"), "one.mov": ("mjpeg", 1, "24", "01:00:00:00")}
        card = self.folder + "/card"
        os.mkdir(card)
        for name, (codec, frames, rate, timecode) in made.items():
            picture = f"color=black:s=64x36:r={rate},geq=lum=16+2*N:cb=128:cr=128,format=yuv422p"
            camera_files.ffmpeg("-f", "lavfi", "-i", picture, "-frames:v", str(frames), "-c:v", codec, "-pix_fmt",
                                "yuvj420p" if codec == "mjpeg" else "yuv420p" if codec == "libx264" else "yuv422p10le",
                                "-timecode", timecode, f"{card}/{name}")
        clips = self.events(card, "--thumbs", self.folder + "/thumbs")
        wanted = {"whole.mov": [10, 50, 78], "gop.mp4": [10, 50, 75], "three.mov": [0, 1, 2], "one.mov": [0]}
        for name, frames in wanted.items():
            pictures = clips[name]["thumbnails"]
            shown = []
            for picture in pictures:
                grey = subprocess.run(["ffmpeg", "-v", "error", "-i", picture["file"], "-f", "rawvideo", "-pix_fmt",
                                       "gray", "-"], capture_output=True, check=True).stdout
                self.assertEqual(len(grey) % 180, 0)
                shown.append(round(sum(grey) / len(grey) * 219 / 255 / 2))
            self.assertEqual(shown, frames, name)
            first = made[name][3]
            self.assertEqual([p["timecode"][-2:] for p in pictures][0], f"{(int(first[-2:]) + frames[0]) % 25:02}")

    def test_shows_every_kind_of_clip(self):
        card = camera_files.card()
        clips = self.events(card, "--thumbs", self.folder + "/thumbs", status=1)
        for source in camera_files.SOURCES:
            with self.subTest(source.path):
                count = min(source.frames, 3)
                pictures = clips[source.path]["thumbnails"]
                self.assertEqual(len(pictures), count)
                for picture in pictures:
                    size = ffprobe(picture["file"])[0][0]
                    width, height = map(int, source.size.split("x"))
                    width *= 2 if "anamorphic" in source.path else 1
                    if source.finish == "rotate":
                        width, height = height, width
                    self.assertEqual(int(size["height"]), 180)
                    self.assertAlmostEqual(int(size["width"]), 180 * width / height, delta=1)
        table = self.clips(card, status=1).stdout.decode()
        for words in ("CLIP", "119.880 fps · playback 23.976", "prores HQ", "ARRI ALEXA Mini", "(camera proxy)", "160×90"):
            self.assertIn(words, table)
        with self.assertRaisesRegex(AssertionError, "lies on the card"):
            self.clips(card, "--thumbs", card + "/thumbs")
        self.assertIn("arri-logc4-awg4", self.clips(card, "--lut", "kodak", status=2).stderr.decode())

    def test_inspect_names_the_camera_of_the_first_clip(self):
        done = subprocess.run([BIN + "/velmora", "inspect", camera_files.card()], capture_output=True, check=True,
                              env={**os.environ, "XDG_DATA_HOME": self.folder + "/data"})
        self.assertIn("Camera: ALEXA Mini · ARRI LogC3\n", done.stdout.decode())


if __name__ == "__main__":
    unittest.main()
