#!/usr/bin/env python3
"""`velmora clips` and `velmora proxies` over camera RAW, with programs that answer as the makers' do and make real pictures."""

import json
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import time
import unittest

BIN = os.environ["VELMORA_BIN"]
FRAMES = 12
MID_GREY = 104  # of 255: where the built-in LUTs put a grey card


def card(code):
    """A grey card as the maker's log curve codes it."""
    return f"color={code}:size=512x288:rate=24000/1001"


BRAW = json.dumps({"width": 512, "height": 288, "sourceWidth": 4096, "sourceHeight": 2304, "fps": 23.976, "frames": FRAMES,
                   "timecode": "01:02:03:04", "camera": "Blackmagic URSA", "gamma": "Blackmagic Design Film",
                   "gamut": "Blackmagic Design", "colorScienceGen": 5})
ARRI = json.dumps({"nativePictureEssenceDescriptor": {"file": {"sampleRate": "24000/1001"},
                                                      "storedSize": {"width": 4608, "height": 2592}},
                   "nativeSoundEssenceDescriptorList": [{"blockAlign": 6}], "cameraModel": "ALEXA 35",
                   "frames": [{"timecode": "03:00:00:00"}]})
MAKERS = {
    "braw-decode": f"""if [ "$1" = --info ]; then echo '{BRAW}'; exit; fi
count={FRAMES}; for a; do [ "$prev" = --count ] && count=$a; prev=$a; done
ffmpeg -v error -f lavfi -i {card("0x626262")} -frames:v $count -f rawvideo -pix_fmt rgb48le - """,
    "REDline": f"""if [ "$1" = --printMeta ]; then
printf 'Frame Width: 8192\\nFrame Height: 4608\\nFPS: 23.976\\nTotal Frames: {FRAMES}\\nAbs TC: 10:00:00:00\\nCamera Model: V-RAPTOR\\n'
exit; fi
for a; do [ "$prev" = --outDir ] && out=$a/x.mov; prev=$a; done; card={card("0x555555")}""",
    "art-cmd": f"""card={card("0x474747")}; for a; do [ "$prev" = --output ] && out=$a; prev=$a; done
if [ "$1" = export ]; then cat > "$out" <<'END'
{ARRI}
END
exit; fi""",
}
WRITE = f"""ffmpeg -v error -f lavfi -i $card -f lavfi -i sine=r=48000 -c:v prores_ks -profile:v 3 -pix_fmt yuv422p10le \\
-c:a pcm_s24le -frames:v {FRAMES} -shortest -f mov "$out" """


class Raw(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="velmora-raw-"))
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        self.tools = self.folder / "data/Velmora/bin"
        self.temporary = self.folder / "temp"
        self.temporary.mkdir()
        self.card = self.folder / "A001"
        for path in ("B/A001_C001.braw", "R/A001_C002_001.R3D", "R/A001_C002_002.R3D", "N/A001_C005.CRM"):
            (self.card / path).parent.mkdir(parents=True, exist_ok=True)
            (self.card / path).write_bytes(b"raw")
        (self.card / "A001_C003").mkdir()
        for frame in range(FRAMES):
            (self.card / f"A001_C003/A001_C003.{frame:07}.ari").write_bytes(b"frame")
        self.unknown_mxf(self.card / "M/A001_C004.mxf")

    def unknown_mxf(self, path):
        """An MXF file with pictures that ffprobe has no name for."""
        path.parent.mkdir()
        subprocess.run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc2=size=256x128:rate=25", "-frames:v", "5", "-c:v",
                        "dnxhd", "-profile:v", "dnxhr_hq", "-pix_fmt", "yuv422p", path], check=True)
        data = path.read_bytes()
        for label in ("060e2b340401010a0401020271260000", "060e2b340401010a0d01030102110100"):
            name = bytes.fromhex(label)
            self.assertIn(name, data)
            data = data.replace(name, name[:9] + b"\x7e" * 7)
        path.write_bytes(data.replace(bytes.fromhex("0000028003"), b"\xff" * 5))

    def install(self, **other):
        """The makers' programs; `other` puts shell lines in the place of what writes the pictures."""
        self.tools.mkdir(parents=True, exist_ok=True)
        for name, head in MAKERS.items():
            tail = other.get(name.replace("-", "_"), "" if name == "braw-decode" else WRITE)
            (self.tools / name).write_text(f"#!/bin/sh\nprev=\n{head}\n{tail}\n")
            (self.tools / name).chmod(0o755)
        (self.tools / "libBlackmagicRawAPI.so").touch()

    def start(self, *words):
        environment = {**os.environ, "XDG_DATA_HOME": str(self.folder / "data"), "TMPDIR": str(self.temporary)}
        return subprocess.Popen([BIN + "/velmora", *words], stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=environment)

    def events(self, *words, status):
        done = self.start(*words, "--json")
        out, err = done.communicate(timeout=120)
        self.assertEqual(done.returncode, status, out.decode() + err.decode())
        return [json.loads(line) for line in out.splitlines()]

    def clips(self, status, *options):
        lines = self.events("clips", str(self.card), *options, status=status)
        return {pathlib.Path(line["clip"]["path"]).name: line for line in lines if line["event"] == "clip"}

    def proxies(self, status):
        result = self.events("proxies", str(self.card), "--out", str(self.folder / "out"), "--height", "540", status=status)[-1]
        return {pathlib.Path(one["clip"]).name: one for one in result["clips"]}

    def left(self):
        return [str(path) for path in self.temporary.rglob("*")] + [str(p) for p in self.folder.glob("out/**/*.part*")]

    def test_gives_rows_and_proxies_of_every_maker(self):
        self.install()
        thumbs = self.folder / "thumbs"
        clips = self.clips(1, "--thumbs", str(thumbs))
        rows = {name: (one["clip"]["format"], one["info"].get("timecode"), one["info"]["frames"], one["lut"]["reason"])
                for name, one in clips.items() if "info" in one}
        self.assertEqual(rows, {
            "A001_C001.braw": ("braw", "01:02:03:04", FRAMES, "Blackmagic RAW: Blackmagic Design Film Gen 5"),
            "A001_C002_001.R3D": ("r3d", "10:00:00:00", FRAMES, "RED R3D (IPP2 Log3G10)"),
            "A001_C003": ("arriraw", "03:00:00:00", FRAMES, "ARRIRAW (LogC4)"),
            "A001_C004.mxf": ("arriraw", "03:00:00:00", 5, "ARRIRAW (LogC4)")})
        pictures = {name: [p["timecode"] for p in one.get("thumbnails", [])] for name, one in clips.items()}
        self.assertEqual(len(pictures["A001_C001.braw"]), 3)
        self.assertEqual(pictures["A001_C003"], []) # from the proxy
        self.assertEqual(self.left(), [])

        done = self.proxies(1)
        self.assertEqual({name: one["outcome"] for name, one in done.items()}, {
            "A001_C001.braw": "done", "A001_C002_001.R3D": "done", "A001_C003": "done", "A001_C004.mxf": "done",
            "A001_C005.CRM": "unsupported"})
        for name, (_, timecode, _, _) in rows.items():
            with self.subTest(name):
                video, sound, brightness = self.look_at(done[name]["proxy"])
                # The MXF file is of 5 frames, but what the maker's program wrote has 12.
                self.assertEqual((video["nb_frames"], video["height"], video["avg_frame_rate"], video["tags"]["timecode"]),
                                 (str(FRAMES), 540, "24000/1001", timecode))
                self.assertEqual(sound, 0 if name.endswith("braw") else 1)
                self.assertAlmostEqual(brightness, MID_GREY, delta=4)
        self.assertEqual(self.left(), [])

    @staticmethod
    def look_at(proxy):
        """The video stream, the number of sound streams, the mean brightness above the burn-in."""
        said = subprocess.run(["ffprobe", "-v", "error", "-print_format", "json", "-show_streams", proxy], capture_output=True,
                              check=True).stdout
        streams = json.loads(said)["streams"]
        grey = subprocess.run(["ffmpeg", "-v", "error", "-i", proxy, "-frames:v", "1", "-vf", "crop=iw:ih/2:0:0", "-pix_fmt",
                               "gray", "-f", "rawvideo", "-"], capture_output=True, check=True).stdout
        sound = sum(one["codec_type"] == "audio" for one in streams)
        return next(one for one in streams if one["codec_type"] == "video"), sound, sum(grey) / len(grey)

    def test_says_what_is_missing_and_what_has_failed(self):
        hints = {name: one.get("probeError", "") for name, one in self.clips(1).items()}
        for name, hint in (("A001_C001.braw", "Blackmagic RAW: braw-decode or the Blackmagic RAW library is missing (SDK, Player or "
                            "DaVinci Resolve)"),
                           ("A001_C002_001.R3D", "RED R3D: install REDCINE-X PRO (REDline)"),
                           ("A001_C003", "ARRIRAW: install ARRI Reference Tool (art-cmd)"),
                           ("A001_C005.CRM", "Canon Cinema RAW Light: there is no command-line decoder for macOS — copied and "
                            "verified, proxy skipped")):
            self.assertEqual(hints[name], hint)

        self.install(braw_decode="echo 'frame 7: bad data' >&2; exit 5", REDline="", art_cmd="echo '[1] [error] no licence'; exit 2")
        failed = self.proxies(1)
        for name, note in (("A001_C001.braw", "Blackmagic RAW: could not decode a frame of the clip (frame 7: bad data)"),
                           ("A001_C002_001.R3D", "REDline failed (exit 0): no output in "),
                           ("A001_C003", "art-cmd failed (exit 2): no licence")):
            self.assertEqual(failed[name]["outcome"], "failed")
            self.assertIn(note, failed[name]["note"])
        self.assertEqual(self.left(), [])
        self.assertEqual([p for p in (self.folder / "out").rglob("*") if p.is_file()], [])

    def test_leaves_nothing_of_a_run_that_was_stopped(self):
        for name in ("M", "A001_C003", "N", "B"):
            shutil.rmtree(self.card / name)
        started = self.folder / "started"
        self.install(REDline=f"echo half > $out; echo $$ > {started}.new; mv {started}.new {started}; sleep 600")
        for how, status in ((signal.SIGINT, 130), (signal.SIGKILL, -signal.SIGKILL)):
            run = self.start("proxies", str(self.card), "--out", str(self.folder / "out"))
            deadline = time.monotonic() + 60
            while not started.exists() and time.monotonic() < deadline:
                time.sleep(0.05)
            child = int(started.read_text())
            run.send_signal(how)
            out, err = run.communicate(timeout=60)
            self.assertEqual(run.returncode, status, out.decode() + err.decode())
            for _ in range(100):
                if not pathlib.Path(f"/proc/{child}").exists() or "Z" in pathlib.Path(f"/proc/{child}/stat").read_text().split()[2]:
                    break
                time.sleep(0.05)
            else:
                self.fail("the maker's program still runs")
            self.assertEqual(bool(self.left()), how == signal.SIGKILL)
            started.unlink()
        self.install()
        self.assertEqual({one["outcome"] for one in self.proxies(0).values()}, {"done"})
        self.assertEqual(self.left(), [])


if __name__ == "__main__":
    unittest.main()
