#!/usr/bin/env python3
"""`velmora proxies` as a user runs it, over real camera files, judged by what ffprobe reads back of the proxies."""

import json
import os
import random
import re
import shutil
import signal
import struct
import subprocess
import tempfile
import time
import unittest

import camera_files
import content_test
from disks import BIN

SOAK = os.environ.get("VELMORA_SOAK") == "1"


def probe(path, *more):
    words = ["ffprobe", "-v", "error", "-print_format", "json", "-show_streams", "-show_format", *more, "file:" + path]
    return json.loads(subprocess.run(words, capture_output=True, check=True).stdout)


def picture(document):
    return next(s for s in document["streams"] if s["codec_type"] == "video" and not s["disposition"]["attached_pic"])


def tag(document, name):
    return next((s["tags"][name] for s in document["streams"] if name in s.get("tags", {})), "")


class Case(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="velmora-proxies-")
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        self.out, self.tmp = self.folder + "/out", self.folder + "/tmp"
        os.mkdir(self.tmp)
        self.env = {**os.environ, "VELMORA_SETTINGS_DIR": self.folder + "/settings", "TMPDIR": self.tmp}

    def clip(self, name, seconds=1, size="320x180", timecode="10:00:00:00", card="card"):
        path = f"{self.folder}/{card}/{name}"
        os.makedirs(os.path.dirname(path), exist_ok=True)
        camera_files.ffmpeg("-f", "lavfi", "-i", f"testsrc2=s={size}:r=25", "-t", str(seconds), "-timecode", timecode,
                            "-c:v", "prores_ks", "-profile:v", "0", "file:" + path)
        return path

    def command(self, *options, card="card", height="540", lut="none"):
        source = card if card.startswith("/") else f"{self.folder}/{card}"
        return [BIN + "/velmora", "proxies", source, "--out", self.out, "--height", height, "--lut", lut, *options]

    def run_all(self, *options, status=0, env=None, **more):
        done = subprocess.run(self.command("--json", *options, **more), capture_output=True, text=True,
                              env={**self.env, **(env or {})})
        self.assertEqual(done.returncode, status, done.stderr + done.stdout)
        return json.loads(done.stdout.splitlines()[-1]), done.stderr

    def found(self):
        return sorted(os.path.relpath(os.path.join(root, name), self.out)
                      for root, _, names in os.walk(self.out) for name in names)

    def nothing_left(self):
        """Neither a part, nor a temporary folder, nor a child."""
        self.assertEqual([name for name in self.found() if ".part" in name], [])
        self.assertEqual(os.listdir(self.tmp), [])
        self.assertEqual(self.children(), [])

    def children(self):
        found = subprocess.run(["pgrep", "-f", self.folder], capture_output=True, text=True).stdout.split()
        return [pid for pid in found if self.alive(pid)]

    @staticmethod
    def alive(pid):
        try:
            with open(f"/proc/{pid}/stat", encoding="utf-8", errors="replace") as file:
                return file.read().rsplit(")", 1)[1].split()[0] != "Z"
        except OSError:
            return False


class Proxies(Case):
    def test_keep_what_an_editor_relinks_by(self):
        result, _ = self.run_all("--jobs", "2", card=camera_files.card(), status=1)
        clips = {clip["clip"]: clip for clip in result["clips"]}
        for path in camera_files.BROKEN:
            self.assertEqual(clips[path]["outcome"], "failed", clips[path])
        for source in camera_files.SOURCES:
            with self.subTest(source.path):
                clip = clips[source.path]
                if "/SUB/" in source.path:
                    self.assertEqual(clip["outcome"], "skipped")
                    continue
                self.assertEqual(clip["outcome"], "done", clip)
                before = probe(f"{camera_files.card()}/{source.path}", "-count_frames")
                after = probe(clip["proxy"], "-count_frames")
                old, new = picture(before), picture(after)
                self.assertEqual(new["nb_read_frames"], old["nb_read_frames"])
                self.assertAlmostEqual(float(new["duration"]), float(old.get("duration", before["format"]["duration"])),
                                       delta=0.045)
                sound = [[s["channels"] for s in d["streams"] if s["codec_type"] == "audio"] for d in (before, after)]
                self.assertEqual(sound[0], sound[1])
                # Above 100 frames a second ffprobe writes three digits.
                self.assertEqual(re.sub(r":0(\d\d)$", r":\1", tag(after, "timecode")), source.timecode)
                if source.timecode and source.reel:
                    self.assertEqual(tag(after, "reel_name"), source.reel)
                wide = source.size.split("x")
                width = 540 * int(wide[0]) / int(wide[1]) * (2 if "setsar=2" in source.filter else 1)
                width = 540 * 540 / width if source.finish == "rotate" else width
                self.assertAlmostEqual(new["width"], width, delta=2)
                self.assertEqual((new["height"], new["sample_aspect_ratio"], new["codec_name"], new["profile"]),
                                 (540, "1:1", "h264", "High"))
                self.assertEqual([new[f"color_{key}"] for key in ("space", "transfer", "primaries", "range")],
                                 ["bt709"] * 3 + ["tv"])
        self.nothing_left()

    def test_name_folder_and_codec_as_asked(self):
        self.clip("DCIM/100/A001.MOV")
        for codec, name, profile in (("hevc", "hevc", "Main"), ("proresLT", "prores", "LT"),
                                     ("prores422", "prores", "Standard"), ("prores422HQ", "prores", "HQ")):
            self.run_all("--codec", codec, "--flat")
            stream = picture(probe(self.out + "/A001.mov"))
            self.assertEqual((stream["codec_name"], stream["profile"]), (name, profile))
            self.assertEqual(stream["codec_tag_string"] == "hvc1", codec == "hevc")
            os.remove(self.out + "/A001.mov")
        # A table with words in it that ffmpeg does not know.
        with open(self.folder + "/own.cube", "w", encoding="utf-8") as file:
            file.write("LUT_3D_SIZE 2\nLUT_3D_INPUT_RANGE 0.0 1.0\nMAKER us\n" + "# " + "x" * 900 + "\n" + "1 0 0\n" * 8)
        self.run_all("--frame-aspect", "1.0", "--frame-scale", "0.5", lut=self.folder + "/own.cube")
        stream = picture(probe(self.out + "/DCIM/100/A001.mov"))
        self.assertEqual((stream["width"], stream["height"]), (540, 540))

    def chart(self, name, patches, *encoding):
        """Columns of 80 pixels; each colour as a decoder is to hand it on, from 0 to 1."""
        row = b"".join(struct.pack(">3H", *(round(65535 * min(1, max(0, part))) for part in patch)) * 80
                       for patch in patches)
        with open(self.folder + "/chart.ppm", "wb") as file:
            file.write(f"P6\n{80 * len(patches)} 720\n65535\n".encode() + row * 720)
        os.makedirs(self.folder + "/card", exist_ok=True)
        camera_files.ffmpeg("-i", self.folder + "/chart.ppm", *encoding, f"{self.folder}/card/{name}")

    def shown(self, name, patches):
        """What the middle of each patch shows in the proxy, from 0 to 255."""
        words = ["ffmpeg", "-v", "error", "-i", f"{self.out}/{name}", "-vf", "crop=iw:2:0:360,scale=in_color_matrix=bt709,"
                 "format=gbrp,format=rgb24", "-frames:v", "1", "-f", "rawvideo", "-"]
        row = subprocess.run(words, capture_output=True, check=True).stdout
        return [tuple(row[3 * (80 * n + 40):][:3]) for n in range(len(patches))]

    def test_show_log_footage_as_it_was_meant(self):
        sony = [(c, c, c) for c in (95, 171, 300, 420, 598, 800)] + [(520, 450, 420), (430, 380, 370), (700, 250, 240),
                (300, 350, 750), (330, 690, 400), (560, 530, 200)]
        for name, span, low in (("full.mov", "pc", 0), ("video.mov", "tv", 64)):
            high = 1023 if span == "pc" else 940
            self.chart(name, [[(code - low) / (high - low) for code in patch] for patch in sony], "-vf",
                       f"scale=out_color_matrix=bt709:out_range={span},format=yuv444p10le", "-c:v", "libx264", "-qp", "0",
                       "-color_range", span, "-colorspace", "bt709")
        # ARRI's cameras write the whole curve into the video range: code 64 is 0, 940 is 1. These are LogC3 of light
        # 0, 0.18 and 0.9.
        arri = [(code,) * 3 for code in (0.092809, 0.391007, 0.559432)] * 4
        self.chart("arri.mov", arri, "-vf", "scale=out_color_matrix=bt709:out_range=tv,format=yuv444p10le",
                   *camera_files.prores(4, "yuv444p10le"), *camera_files.QT, "-metadata",
                   "com.apple.quicktime.make=ARRI", "-metadata", "com.apple.quicktime.model=ALEXA Mini")
        wish = {"height": "720", "status": 0}
        self.run_all("--codec", "prores422HQ", "--no-burn-in", "--lut-fallback", "sony-slog3-sgamut3cine", lut="auto",
                     **wish)
        full, video = self.shown("full.mov", sony), self.shown("video.mov", sony)
        for one, other, patch in zip(full, video, sony):
            self.assertLessEqual(max(abs(a - b) for a, b in zip(one, other)), 2, (patch, full, video))
        self.assertGreater(len(set(full)), 11)
        self.assertAlmostEqual(full[3][1], 104, delta=2)  # S-Log3's mid grey
        for patch, wanted in zip(self.shown("arri.mov", arri), (0, 104, 203)):
            self.assertLessEqual(max(abs(part - wanted) for part in patch), 3, (patch, wanted))

    def test_render_only_what_is_missing(self):
        for number in (1, 2, 3):
            self.clip(f"DCIM/100/C000{number}.MOV", timecode=f"0{number}:00:00:00")
        result, _ = self.run_all()
        self.assertEqual((result["done"], result["existing"]), (3, 0))
        kept = os.stat(self.out + "/DCIM/100/C0001.mov").st_mtime_ns
        os.remove(self.out + "/DCIM/100/C0002.mov")
        with open(self.out + "/DCIM/100/C0002.part.mov", "w", encoding="utf-8") as part:
            part.write("what a killed run has left")
        result, _ = self.run_all()
        self.assertEqual((result["done"], result["existing"]), (1, 2))
        self.assertEqual(os.stat(self.out + "/DCIM/100/C0001.mov").st_mtime_ns, kept)
        # Another card with the same names: its proxies lie beside the others, again and again under the same name.
        self.clip("DCIM/100/C0001.MOV", timecode="09:00:00:00", card="other")
        for outcome in ("done", "existing"):
            result, _ = self.run_all(card="other")
            self.assertEqual((result["clips"][0]["outcome"], os.path.basename(result["clips"][0]["proxy"])),
                             (outcome, "C0001_2.mov"))
        self.nothing_left()

    def test_tell_of_damage_again_where_the_proxy_is_there(self):
        path = self.clip("A001.MOV")
        content_test.damage(path, path, "v:0", 12, 4096)
        notes = []
        for outcome in ("done", "existing"):
            result, _ = self.run_all(status=1)
            clip = result["clips"][0]
            self.assertEqual((clip["outcome"], clip["content"]["kind"]), (outcome, "decode"))
            notes.append(clip["note"])
        self.assertEqual(notes[1], "there already; " + notes[0])
        self.assertIn(" at 10:00:00:12: ", notes[0])
        done = subprocess.run(self.command(), capture_output=True, text=True, env=self.env)
        self.assertIn(f"  there already: A001.MOV: {notes[1]}\n", done.stdout)
        self.assertEqual(picture(probe(self.out + "/A001.mov", "-count_frames"))["nb_read_frames"], "25")

    def test_say_which_names_were_passed_over(self):
        """A name of a clip that no record can hold is a problem; one of anything else is said only."""
        self.clip("A001.MOV")
        for name, status in ((b"odd\xff.txt", 0), (b"odd\xff.MOV", 1)):
            with open(os.fsencode(self.folder + "/card/") + name, "wb") as file:
                file.write(b"some")
            result, err = self.run_all(status=status)
            self.assertEqual((len(result["clips"]), result["uncopied"]), (1, 1 + status))
            self.assertIn("odd\\xFF." + name[-3:].decode() + ": file name cannot be recorded", err)
            clips = subprocess.run([BIN + "/velmora", "clips", self.folder + "/card"], capture_output=True, env=self.env)
            self.assertEqual(clips.returncode, status, clips.stderr)

    def test_refuse_before_the_first_frame(self):
        self.clip("A001.MOV")
        with open(self.folder + "/bad.cube", "w", encoding="utf-8") as bad:
            bad.write("LUT_3D_SIZE 33\n")
        cases = [
            (["--codec", "xvid"], 2, "h264, hevc, proresProxy, proresLT, prores422, prores422HQ"),
            (["--height", "361"], 2, "1080"),
            (["--bitrate", "0"], 2, "bitrateMbps must be"),
            (["--lut", "nice"], 2, "Use auto, none, a path to a .cube or one of: arri"),
            (["--lut", self.folder + "/gone.cube"], 2, "LUT not found: "),
            (["--lut", self.folder + "/bad.cube"], 2, "Not a .cube file that can be used: "),
            (["--lut-fallback", "nice"], 2, "Unknown fallback LUT"),
            (["--lut-fallback", self.folder + "/gone.cube"], 2, "LUT not found: "),
            (["--frame-scale", "7"], 2, "frameScale must be"),
            (["--jobs", "0"], 2, "--jobs"),
            (["--out", self.folder + "/card/x"], 3, "among the clips"),
            (["--out", self.folder + "/card/A001.MOV/x"], 3, "refused: "),
            (["--out", "/proc/none"], 3, "refused: destinationNotWritable: "),
        ]
        for options, status, text in cases:
            with self.subTest(options):
                words = [BIN + "/velmora", "proxies", self.folder + "/card", *options]
                words += [] if "--out" in options else ["--out", self.out]
                done = subprocess.run(words, capture_output=True, text=True, env=self.env)
                self.assertEqual(done.returncode, status, done.stderr + done.stdout)
                self.assertIn(text, done.stderr)
        self.assertFalse(os.path.exists(self.out) and os.listdir(self.out))
        self.nothing_left() if os.path.exists(self.out) else None

    def ffmpeg_that(self, script):
        """ffmpeg with something in front of it, once it renders."""
        path = self.folder + "/ffmpeg-wrapped"
        with open(path, "w", encoding="utf-8") as file:
            file.write(f"#!/bin/sh\ncase \"$*\" in *'-f null -'|*-version) exec /usr/bin/ffmpeg \"$@\";; esac\n"
                       f"{script}\nexec /usr/bin/ffmpeg \"$@\"\n")
        os.chmod(path, 0o755)
        subprocess.run([BIN + "/velmora", "settings", "tools.ffmpeg", path], env=self.env, check=True,
                       capture_output=True)

    @unittest.skipIf(os.geteuid() != 0, "mounts a small file system")
    def test_say_so_on_a_full_disk(self):
        self.clip("A001.MOV", seconds=2)
        os.mkdir(self.out)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=6m", "none", self.out], check=True)
        try:
            self.ffmpeg_that(f"head -c $((6 * 1024 * 1024 - 40000)) /dev/zero > '{self.out}/filler'")
            result, _ = self.run_all(status=1)
            self.assertEqual(result["clips"][0]["outcome"], "failed", result)
            self.assertRegex(result["clips"][0]["note"], "No space left on device|not whole")
            self.assertEqual(self.found(), ["filler"])
            result, err = self.run_all(status=3)
            self.assertIn("refused: noSpace: Proxies were not rendered: not enough space on " + self.out, err)
        finally:
            subprocess.run(["umount", self.out], check=True)
        self.nothing_left()

    @unittest.skipIf(os.geteuid() != 0, "mounts a small file system")
    def test_say_so_on_a_disk_that_cannot_be_written(self):
        self.clip("A001.MOV")
        os.mkdir(self.out)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=60m", "none", self.out], check=True)
        try:
            # From when the render begins, and then from the first.
            self.ffmpeg_that(f"mount -o remount,ro '{self.out}'")
            result, _ = self.run_all(status=1)
            self.assertRegex(result["clips"][0]["note"], f"{self.out}.*Read-only file system")
            _, err = self.run_all(status=3)
            self.assertIn("refused: destinationNotWritable: The folder for the proxies cannot be", err)
            self.assertIn(self.out, err)
            self.assertEqual(self.found(), [])
        finally:
            subprocess.run(["umount", self.out], check=True)
        self.nothing_left()

    def test_never_replace_a_name_that_appears_meanwhile(self):
        self.clip("A001.MOV")
        self.ffmpeg_that(f"mkdir -p '{self.out}'; echo mine > '{self.out}/A001.mov'")
        result, _ = self.run_all(status=1)
        self.assertEqual(result["clips"][0]["note"], f"proxy name taken meanwhile: {self.out}/A001.mov")
        with open(self.out + "/A001.mov", encoding="utf-8") as file:
            self.assertEqual(file.read(), "mine\n")
        self.nothing_left()

    def interrupted(self, number, rounds):
        """Sends a signal at random moments; what then stands under a final name is whole, and a further run ends it."""
        generator = random.Random(number)
        for name in ("A001.MOV", "A002.MOV", "it's \"50%\": \\,[x];=%03d.MOV"):
            self.clip(name, seconds=6, size="960x540")
        start = time.monotonic()
        self.run_all("--jobs", "2")
        whole = time.monotonic() - start
        for _ in range(rounds):
            shutil.rmtree(self.out)
            process = subprocess.Popen(self.command("--jobs", "2"), env=self.env, stdout=subprocess.DEVNULL,
                                       stderr=subprocess.DEVNULL)
            time.sleep(generator.uniform(0, whole))
            process.send_signal(number)
            status = process.wait(60)
            for _ in range(100):
                if not self.children():
                    break
                time.sleep(0.05)
            self.assertEqual(self.children(), [])
            if number == signal.SIGINT:
                self.assertIn(status, (130, 0, -signal.SIGINT))
                self.nothing_left() if status == 130 else None
            for name in self.found():
                if ".part" not in name:
                    self.assertEqual(picture(probe(f"{self.out}/{name}", "-count_frames"))["nb_read_frames"], "150")
            result, _ = self.run_all("--jobs", "2")
            self.assertEqual(result["done"] + result["existing"], 3)
            self.nothing_left()

    def test_leave_nothing_when_cancelled(self):
        self.interrupted(signal.SIGINT, 30 if SOAK else 4)

    def test_leave_nothing_when_killed(self):
        self.interrupted(signal.SIGKILL, 30 if SOAK else 4)


if __name__ == "__main__":
    unittest.main()
