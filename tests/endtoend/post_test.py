#!/usr/bin/env python3
"""`velmora copy` with proxies, over real clips: what lies on the disks, what the reports tell, what is promised."""

import errno
import json
import os
import shutil
import signal
import subprocess
import tempfile
import unittest

import camera_files
from disks import BIN, FaultDisk, flip, possible

DATE = "2026-03-14"
DEFECT = "1 clip has a content defect — check it before formatting (the copy matches the card)."


class Case(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="velmora-post-")
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        self.card = tempfile.mkdtemp(prefix="velmora-post-", dir="/dev/shm")  # a volume of its own
        self.addCleanup(shutil.rmtree, self.card, ignore_errors=True)
        self.roots = [f"{self.folder}/{name}" for name in "ab"]
        for root in self.roots:
            os.mkdir(root)
        self.cards = [f"{root}/{DATE}/A" for root in self.roots]
        self.env = {**os.environ, "VELMORA_SETTINGS_DIR": self.folder + "/settings"}

    def clip(self, name, seconds=1):
        path = f"{self.card}/{name}"
        os.makedirs(os.path.dirname(path), exist_ok=True)
        camera_files.ffmpeg("-f", "lavfi", "-i", "testsrc2=s=640x360:r=25", "-t", str(seconds), "-timecode",
                            "10:00:00:00", "-c:v", "prores_ks", "-profile:v", "2", "file:" + path)
        return path

    def run_all(self, *words, status=0):
        done = subprocess.run([BIN + "/velmora", *words, "--json"], capture_output=True, text=True, env=self.env)
        self.assertEqual(done.returncode, status, done.stderr + done.stdout[-3000:])
        lines = [json.loads(line) for line in done.stdout.splitlines()]
        return lines[-1], lines[:-1], done.stderr

    def copy(self, *options, status=0):
        dests = [word for root in self.roots for word in ("--dest", root)]
        return self.run_all("copy", self.card, *dests, "--name", "A", "--date", DATE, "--allow-same-device", "--proxy",
                            "h264", "--proxy-height", "540", "--lut", "none", *options, status=status)

    def append(self, *options, status=0):
        into = [word for card in self.cards for word in ("--into", card)]
        return self.run_all("append", self.card, *into, "--proxy", "h264", "--proxy-height", "540", *options, status=status)

    def report(self, card, generation=1):
        name = "offload_report.json" if generation == 1 else f"offload_report_{generation:04d}.json"
        with open(f"{card}/_REPORT/{name}", encoding="utf-8") as file:
            return json.load(file)

    @staticmethod
    def proxies(folder):
        return sorted(os.path.relpath(os.path.join(root, name), folder)
                      for root, _, names in os.walk(folder) for name in names)


class ReadBackFirst(Case):
    def test_proxies_lie_beside_every_copy_and_the_final_reports_tell_of_them(self):
        whole, torn = self.clip("CLIP/C1.MOV"), self.clip("CLIP/C2.MOV")
        with open(torn, "r+b") as file:  # in the middle of its frames
            file.seek(os.path.getsize(torn) // 2)
            file.write(os.urandom(200_000))
        with open(self.card + "/SUB.MOV", "wb") as file:
            file.write(b"no film")
        os.mkdir(self.folder + "/edit")
        result, stream, log = self.copy("--no-verify-in-proxy", "--proxy-folder", self.folder + "/edit", status=1)
        self.assertEqual([result["safeToEject"], result["safeToFormat"], result["note"]], [True, True, DEFECT])
        self.assertIn("content C2: ", log)
        phases = [line["phase"] for line in stream]
        self.assertLess(phases.index("analyzing"), phases.index("proxies"))
        self.assertTrue(all(line["safeToFormat"] for line in stream if line["phase"] == "proxies"))
        one, two = (self.report(card) for card in self.cards)
        self.assertEqual(one, two)
        self.assertEqual([one["verified"], "verifyPending" in one, one["proxyEncoder"]], [True, False, "libx264"])
        self.assertEqual([(c["clip"]["path"], c["proxyStatus"], c.get("content", {}).get("state")) for c in one["clips"]],
                         [("CLIP/C1.MOV", "done", "ok"), ("CLIP/C2.MOV", "done", "warn"), ("SUB.MOV", "failed", None)])
        found = ["CLIP/C1.mov", "CLIP/C2.mov"]
        self.assertEqual([self.proxies(card + "/_PROXY") for card in self.cards], [found, found])
        self.assertEqual(self.proxies(f"{self.folder}/edit/{DATE}/A"), found)
        # An append makes those of its own clips, in the same tree, and leaves the others alone.
        before = [os.stat(f"{card}/_PROXY/{name}").st_ino for card in self.cards for name in found]
        os.remove(self.card + "/SUB.MOV")
        self.clip("CLIP/C3.MOV")
        self.append("--compare", "--no-verify-in-proxy", status=1)
        self.assertEqual(self.proxies(self.cards[1] + "/_PROXY"), [*found, "CLIP/C3.mov"])
        self.assertEqual([os.stat(f"{card}/_PROXY/{name}").st_ino for card in self.cards for name in found], before)
        clips = {clip["clip"]["path"]: clip for clip in self.report(self.cards[0], 2)["clips"]}
        self.assertEqual(clips["CLIP/C2.MOV"]["content"]["state"], "warn")
        self.assertEqual(clips["CLIP/C2.MOV"]["proxyNote"], "there already — not rendered again")
        self.assertEqual(subprocess.run([BIN + "/velmora", "verify", *self.cards], env=self.env).returncode, 0)

    def test_what_is_wrong_with_the_wish_is_refused_before_anything_is_written(self):
        self.clip("C1.MOV")
        cases = [
            (3, "LUT not found: /none.cube", ["--lut", "/none.cube"]),
            (3, "Folder for proxies is not available: /none", ["--proxy-folder", "/none"]),
            (2, "--primary 0: destinations are numbered from 1 (the order of --dest).", ["--primary", "0"]),
            (2, "--primary 3: there are only 2 destinations (numbered from 1 in the order of --dest).", ["--primary", "3"]),
            (2, "--no-clips excludes --proxy", ["--proxy", "h264", "--no-clips"]),
            (2, "codec", ["--proxy", "vhs"]),
        ]
        for status, text, options in cases:
            with self.subTest(text):
                dests = [word for root in self.roots for word in ("--dest", root)]
                words = options if "--proxy" in options else ["--proxy", "h264", *options]
                result, _, log = self.run_all("copy", self.card, *dests, "--allow-same-device", *words, status=status)
                self.assertIn(text, json.dumps(result, ensure_ascii=False) + log)
                self.assertEqual([os.listdir(root) for root in self.roots], [[], []])


class RideOnTheRender(Case):
    """The card may leave after the copy; the renders prove one disk, and the others are read beside them."""

    def watch(self, act, *options, command=None, status=0):
        """Runs a copy; `act` gets each status line and the process. The lines, and what was said at the end."""
        dests = [word for root in self.roots for word in ("--dest", root)]
        words = command or ["copy", self.card, *dests, "--name", "A", "--date", DATE, "--allow-same-device",
                            "--again"]
        process = subprocess.Popen([BIN + "/velmora", *words, "--proxy", "h264", "--proxy-height", "540", "--lut",
                                    "none", "--primary", "1", "--json", *options], stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, text=True, env=self.env)
        self.addCleanup(lambda: process.poll() is None and process.kill())
        lines = []
        for text in process.stdout:
            lines.append(json.loads(text))
            act(lines[-1], process)
        log = process.stderr.read()
        process.stderr.close()
        process.stdout.close()
        self.assertEqual(process.wait(), status, f"{log}\n{lines[-1]}")
        return lines[-1], lines[:-1], log

    def states(self, card, column, generation=1):
        return {file["path"]: file["destinations"][column] for file in self.report(card, generation)["files"]}

    def verify(self):
        done = subprocess.run([BIN + "/velmora", "verify", *self.cards], capture_output=True, text=True, env=self.env)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)

    def test_the_card_leaves_after_the_copy_and_is_proved_at_the_end(self):
        for number in range(3):
            self.clip(f"C{number}.MOV", 2)
        with open(self.card + "/SOUND.WAV", "wb") as file:
            file.write(os.urandom(3_000_000))
        seen = []

        def act(line, _):
            if line.get("phase") != "proxies" or seen:
                return
            seen.append(line["safeToEject"])
            for card in self.cards:
                report = self.report(card)
                seen.append([report["verifyPending"], report["verified"], os.path.exists(card + "/ascmhl")])
            os.rename(self.card, self.card + ".gone")
            self.addCleanup(shutil.rmtree, self.card + ".gone", ignore_errors=True)

        result, stream, log = self.watch(act)
        self.assertEqual(seen, [True, [True, False, False], [True, False, False]])
        self.assertFalse(any(line["safeToFormat"] for line in stream))
        self.assertEqual([result["safeToEject"], result["safeToFormat"], result.get("warnings")], [True, True, None])
        self.assertIn("Safe to eject: the card may go.", log)
        for card in self.cards:
            report = self.report(card)
            self.assertEqual([report["verified"], "verifyPending" in report], [True, False])
            self.assertEqual([d["verifyMethod"] for d in report["destinations"]], ["verify-in-proxy", "read-back"])
            self.assertEqual([clip["proxyStatus"] for clip in report["clips"]], ["done"] * 3)
        self.verify()

    def test_what_changes_on_a_disk_before_it_is_read_is_found(self):
        for number in range(3):
            self.clip(f"C{number}.MOV", 2)
        flipped = []

        def act(line, _):
            if line["event"] == "status" and line["safeToEject"] and not flipped:
                path = self.cards[0] + "/C2.MOV"  # its render comes last
                flipped.append(path)
                with open(path, "r+b") as file:
                    file.seek(os.path.getsize(path) // 2)
                    file.write(b"\x55" * 64)
                    os.fsync(file.fileno())

        result, _, _ = self.watch(act, status=1)
        self.assertEqual([result["safeToEject"], result["safeToFormat"]], [False, False], "the card is needed again")
        self.assertEqual([file["path"] for file in result["failedFiles"]], ["C2.MOV"])
        self.assertEqual(result["failedFiles"][0]["destinations"], ["failed", "verified"])
        self.assertEqual(self.states(self.cards[1], 0)["C2.MOV"], "failed")

    def test_what_was_broken_off_is_finished_without_doing_anything_twice(self):
        for number in range(4):
            self.clip(f"C{number}.MOV", 2)
        for signal_, status in ((signal.SIGINT, 130), (signal.SIGKILL, -signal.SIGKILL)):
            with self.subTest(signal_):
                act = lambda line, process: line.get("proxiesDone", 0) >= 2 and process.send_signal(signal_)
                self.watch(act, status=status)
                kept = {}
                for card in self.cards:
                    report = self.report(card)
                    self.assertEqual([report["verifyPending"], report["verified"]], [True, False])
                    self.assertFalse(os.path.exists(card + "/ascmhl/ascmhl_chain.xml"))
                    for clip in report["clips"]:
                        if clip["proxyStatus"] == "done":
                            path = f"{card}/{clip['proxyPath']}"
                            kept[path] = os.stat(path).st_ino
                self.assertGreaterEqual(len(kept), 4)
                told = subprocess.run([BIN + "/velmora", "inspect", self.card], capture_output=True, text=True,
                                      env=self.env).stdout
                self.assertIn("it can be finished", told)
                into = [word for card in self.cards for word in ("--into", card)]
                result, stream, _ = self.watch(lambda *_: None, command=["append", self.card, *into])
                self.assertEqual([result["safeToEject"], result["safeToFormat"]], [True, True])
                whole = sum(os.path.getsize(f"{self.card}/C{number}.MOV") for number in range(4))
                self.assertLess(stream[-1]["verifyTotalByDest"][0], whole)
                self.assertEqual({path: os.stat(path).st_ino for path in kept}, kept)
                for card in self.cards:
                    report = self.report(card)
                    self.assertEqual([clip["proxyStatus"] for clip in report["clips"]], ["done"] * 4)
                    self.assertEqual(sum(clip.get("proxyNote", "").startswith("proxy from the interrupted run")
                                         for clip in report["clips"]), len(kept) // 2)
                    self.assertEqual(os.listdir(card + "/_REPORT").count("offload_report_0002.json"), 0)
                self.verify()
                for root in self.roots:
                    shutil.rmtree(f"{root}/{DATE}")

    def test_what_was_written_to_since_it_was_proved_is_read_again(self):
        for number in range(3):
            self.clip(f"C{number}.MOV", 2)
        self.watch(lambda line, process: line.get("proxiesDone", 0) >= 1 and process.kill(), status=-signal.SIGKILL)
        self.assertEqual(self.states(self.cards[0], 0)["C0.MOV"], "verified")
        flip(self.cards[0] + "/C0.MOV", 100_000)  # its size and time stay
        into = [word for card in self.cards for word in ("--into", card)]
        result, _, _ = self.watch(lambda *_: None, command=["append", self.card, *into], status=1)
        self.assertEqual([result["safeToFormat"], result["failedFiles"][0]["path"]], [False, "C0.MOV"])

    @unittest.skipUnless(possible(), "needs root, /dev/fuse and loop devices")
    def test_the_card_may_not_leave_before_the_report_stands_on_every_disk(self):
        for number in range(3):
            self.clip(f"C{number}.MOV", 2)
        with FaultDisk() as disk:
            self.roots[1] = disk.root
            self.cards[1] = f"{disk.root}/{DATE}/A"
            self.watch(lambda line, process: line.get("proxiesDone", 0) >= 1 and process.kill(), status=-signal.SIGKILL)
            disk.strike("fail", errno.EIO, "rename", pattern="*/_REPORT/.velmora-*")
            into = [word for card in self.cards for word in ("--into", card)]
            result, stream, _ = self.watch(lambda *_: None, command=["append", self.card, *into])
            self.assertEqual(disk.ask("hits"), "1")
            self.assertFalse(any(line["safeToEject"] for line in stream if line["phase"] == "proxies"))
            self.assertTrue(result["safeToFormat"])


if __name__ == "__main__":
    unittest.main()
