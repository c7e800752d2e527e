#!/usr/bin/env python3
"""`velmora` killed, or its disks cut off the power, at many moments of a copy, an append, a resume and a repair.

After each the same command that a user would give (append, or repair after a repair) either finishes to a backup that
holds every file once, verified, with a whole chain; or it refuses with a code, leaves everything as it is, and the card
can be copied anew. Earlier generations never change. Prints a table: moment, what the power left, outcome, bytes read on the card again."""

import collections
import hashlib
import json
import os
import random
import re
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

import camera_files
from disks import BIN, FaultDisk, flip, possible, write

MIB = 1 << 20
CHECKER = os.path.join(os.path.dirname(__file__), "../../tools/check_backup.py")
SOAK = os.environ.get("VELMORA_SOAK") == "1"
SEED = int(os.environ.get("VELMORA_SEED", random.randrange(1 << 30) if SOAK else 1))
ROUNDS = int(os.environ.get("VELMORA_ROUNDS", 250 if SOAK else 9))
SECONDS = float(os.environ.get("VELMORA_CRASH_SECONDS", 1200 if SOAK else 15))  # for the renames of records
LEAST = 12  # of them, however slow the machine is
DATE, CARD = "2026-03-14", "A001"
# The refusals after a death at the very beginning: a folder was never made, or all are empty and none names the others.
# The card is copied anew.
FITTING = {"appendUnavailable", "appendNoReport"}


def tree(root):
    """Every file below a folder with its digest, every folder."""
    found = {}
    for folder, _, names in os.walk(root):
        found[os.path.relpath(folder, root) + "/"] = ""
        for name in names:
            path = os.path.join(folder, name)
            with open(path, "rb") as file:
                found[os.path.relpath(path, root)] = hashlib.sha256(file.read()).hexdigest()
    return found


def history(files):
    """The part of a tree that no later run may change: reports and generations."""
    return {p: h for p, h in files.items() if re.search(r"_REPORT/offload_report.*|ascmhl/\d{4}_.*mhl", p)}


class Backup(unittest.TestCase):
    """A card, its two disks, and the commands of a user."""

    disks_in, card_in = None, "/dev/shm"  # two volumes

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="velmora-crash-", dir=self.disks_in)
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        reader = tempfile.mkdtemp(prefix="velmora-card-", dir=self.card_in)
        self.addCleanup(shutil.rmtree, reader, ignore_errors=True)
        self.source, self.roots = reader + "/card", [self.folder + "/disk a", self.folder + "/disk b"]
        self.cards = [f"{root}/{DATE}/{CARD}" for root in self.roots]
        self.random = random.Random(f"{SEED}{self.id()}")
        self.card(1)

    def card(self, day):
        sizes = [3 * MIB + 5, 100, 0, MIB] if day == 1 else [2 * MIB + 1, 0, 4097]
        for number, size in enumerate(sizes):
            write(f"{self.source}/DCIM/{day:03d}/C{number:04d}.MOV", size, day * 100 + number)
        write(f"{self.source}/day {day}/side & car.txt", 33, day)

    strikes = ""

    def run_velmora(self, *words):
        environment = {**os.environ, "VELMORA_SETTINGS_DIR": self.folder + "/settings"}
        environment |= {"XDG_DATA_HOME": self.folder + "/data", "VELMORA_REPORTS_DIR": self.folder + "/reports"}
        if self.strikes:
            environment |= {"VELMORA_STRIKE": self.strikes, "VELMORA_STRIKE_COUNT": self.folder + "/count"}
            environment |= {"LD_PRELOAD": BIN + "/libvelmora_strike.so"}
        found = subprocess.run(
            [BIN + "/velmora", *words], capture_output=True, text=True, env=environment, timeout=120
        )
        self.output = found.stdout[-3000:] + found.stderr[-3000:]
        self.events = [json.loads(line) for line in found.stdout.splitlines() if line.startswith("{")]
        return found.returncode

    def copy(self, *more):
        into = [word for root in self.roots for word in ("--dest", root)]
        words = ["--name", CARD, "--date", DATE, "--block-mib", "1", "--no-history", "--json"]
        return self.run_velmora("copy", self.source, *into, *words, "--allow-same-device", *more)

    def into(self, command, *words, cards=None):
        into = [word for card in cards or self.cards for word in ("--into", card)]
        return self.run_velmora(command, self.source, *into, *words, "--block-mib", "1", "--no-history", "--json")

    def append(self, *more):
        # The card is a folder, which nothing tells from another one: only comparing earns the promise.
        return self.into("append", *(more or ["--compare"]))

    def repair(self):
        return self.into("repair")

    def flip(self, card):
        flip(card + "/DCIM/001/C0000.MOV", MIB + 77)


@unittest.skipUnless(possible(), "needs root, FUSE and loop devices")
class Crashes(Backup):
    def setUp(self):
        super().setUp()
        self.outcomes = collections.Counter()

    # The disks of one round, made of what lies in two folders.
    def disks(self, backings, power):
        found = [FaultDisk(b, power=power, root=r) for b, r in zip(backings, self.roots)]
        self.mounted = found
        return found

    def unmount(self):
        for disk in self.mounted:
            disk.__exit__()
        self.mounted = []

    def fresh(self, before):
        backings = [tempfile.mkdtemp(dir=self.folder) for _ in self.roots]
        for backing, content in zip(backings, before):
            shutil.copytree(content, backing + "/tree", symlinks=True)
        return backings

    def snapshot(self, backings):
        self.unmount()
        kept = []
        for backing in backings:
            kept.append(tempfile.mkdtemp(dir=self.folder) + "/tree")
            shutil.copytree(backing + "/tree", kept[-1])
        return kept

    def made(self, *steps, before=None):
        """What lies on the disks after these steps went through in peace."""
        backings = self.fresh(before or [tempfile.mkdtemp(dir=self.folder) for _ in self.roots])
        self.disks(backings, False)
        for step in steps:
            self.assertIn(step(), (None, 0), getattr(self, "output", ""))
        return self.snapshot(backings)

    def changes(self, before, work):
        backings = self.fresh(before)
        disks = self.disks(backings, False)
        self.assertEqual(work(), 0, self.output)
        counts = [int(disk.ask("count change")) for disk in disks]
        self.unmount()
        return counts

    def strike(self, before, work, disk, at, cut):
        """Ends `work` at one operation of one disk; returns what a later mount finds."""
        backings = self.fresh(before)
        disks = self.disks(backings, cut is not None)
        disks[disk].strike("crash", 0, "change", skip=at)
        ended = work()
        if cut is not None:
            for each in disks:
                each.ask(f"cut {cut} 20")
        self.unmount()
        return backings, ended

    def matrix(self, name, before, work, recover):
        counts = self.changes(before, work)
        earlier = [history(tree(content)) for content in before]
        for number in range(ROUNDS):
            disk = self.random.randrange(2)
            # All over the run, denser towards its end, where the records are made.
            share = ((number + self.random.random()) / ROUNDS) ** 0.6
            at, cut = int(share * counts[disk]), self.random.randrange(1 << 20) if number % 2 else None
            moment = f"{name}: operation {at} of {counts[disk]} on disk {'ab'[disk]}" + (f", power {cut}" if cut else "")
            with self.subTest(moment=moment, seed=SEED):
                self.round(moment, before, earlier, lambda: self.strike(before, work, disk, at, cut), recover)
        print(f"{name}: {ROUNDS} rounds, operations {counts}, {dict(self.outcomes)}", flush=True)
        self.assertEqual(sum(self.outcomes.values()), ROUNDS)
        self.assertGreater(self.outcomes["finished"] + self.outcomes["had finished"], 0)

    def round(self, moment, before, earlier, strike, recover):
        backings, ended = strike()
        try:
            self.disks(backings, False)
            left = [tree(root) for root in self.roots]
            for was, now in zip(earlier, left):
                for path, digest in was.items():
                    self.assertEqual(now.get(path), digest, f"{path} of an earlier generation changed in the crash")
            self.honest(left)
            status = recover()
            outcome = self.judge(status, left, earlier, ended)
        finally:
            self.unmount()
            for backing in backings:
                shutil.rmtree(backing, ignore_errors=True)
        again = max([event.get("readBytes", 0) for event in self.events] + [0]) if status == 0 else 0
        self.outcomes[outcome] += 1
        print(f"  {moment:62} {outcome:20} {again:>9}", flush=True)

    def honest(self, left):
        """No report calls a copy verified that is not the card's."""
        source = tree(self.source)
        for root, found in zip(self.roots, left):
            for name in (name for name in found if re.search(r"_REPORT/offload_report[_0-9]*.json$", name)):
                with open(f"{root}/{name}", encoding="utf-8") as file:
                    report = json.load(file)
                for entry in report["files"]:
                    for d, state in enumerate(entry["destinations"]):
                        if state == "verified":
                            there = left[d].get(f"{DATE}/{CARD}/{entry['path']}")
                            self.assertEqual(there, source[entry["path"]], f"{name} lies about {entry['path']}")

    def judge(self, status, left, earlier, ended):
        said = self.output
        now = [tree(root) for root in self.roots]
        for was, is_ in zip(earlier, now):
            for path, digest in was.items():
                self.assertEqual(is_.get(path), digest, f"{path} of an earlier generation changed\n{said}")
        if status == 3:
            code = next(e["errorCode"] for e in self.events if e["event"] == "result")
            self.assertEqual(left, now, "a refusal changed something")
            self.assertIn(code, FITTING, said)
            self.assertEqual(self.copy(), 0, said + self.output)
            return code
        self.assertEqual(status, 0, said)
        events = self.events
        nothing = events[-1].get("note", "").startswith("Nothing to repair")
        self.assertEqual(self.run_velmora("verify", *self.cards), 0, said + self.output)
        self.events = events
        if nothing:
            return "nothing to repair"
        words = [sys.executable, CHECKER, self.source, *self.cards, "--block-mib", "1", "--after-crash"]
        found = subprocess.run(words, capture_output=True, text=True)
        self.assertEqual(found.returncode, 0, found.stdout[:3000] + found.stderr + said)
        return "had finished" if ended == 0 and self.events[-1].get("note") else "finished"

    @staticmethod
    def manifest(backing):
        with open(f"{backing}/tree/{DATE}/{CARD}/_REPORT/offload-manifest.jsonl", encoding="utf-8") as file:
            return file.read()

    def test_copy(self):
        self.matrix("copy", self.made(), self.copy, self.append)

    def test_proxies(self):
        """The card may leave and the renders prove its copies; what is there by then is neither read nor rendered anew."""
        shutil.rmtree(self.source)
        for number in range(3):
            path = f"{self.source}/CLIP/C{number}.MOV"
            os.makedirs(os.path.dirname(path), exist_ok=True)
            camera_files.ffmpeg("-f", "lavfi", "-i", f"testsrc2=s=640x360:r=25:d={number + 1}", "-c:v", "prores_ks",
                                "-profile:v", "1", "-timecode", f"0{number}:00:00:00", "file:" + path)
        write(self.source + "/SOUND.WAV", 3 * MIB + 5, 7)
        film = ["--proxy", "h264", "--proxy-height", "540", "--lut", "none", "--primary", "1"]

        def recover():
            status = self.append("--compare", *film)
            for name in (f"CLIP/C{number}.mov" for number in range(3)) if status == 0 else ():
                found = [subprocess.run(["ffprobe", "-v", "error", "-count_frames", "-show_entries", "stream=nb_read_frames",
                                         "-select_streams", "v", "-of", "csv=p=0", f"{card}/_PROXY/{name}"],
                                        capture_output=True, text=True) for card in self.cards]
                frames = 25 * (int(name[6]) + 1)
                self.assertEqual([(one.stdout.strip(), one.stderr) for one in found], [(str(frames), "")] * 2, self.output)
            return status

        self.matrix("proxies", self.made(), lambda: self.copy(*film), recover)

    def test_append(self):
        before = self.made(self.copy)
        self.card(2)
        self.matrix("append", before, self.append, self.append)

    def test_resume(self):
        """A run that finishes an interrupted append dies as well."""
        copied = self.made(self.copy)
        self.card(2)
        operations = self.changes(copied, self.append)[0]
        for share in range(100, 0, -4):  # the earliest moment that leaves something to finish
            backings, _ = self.strike(copied, self.append, 0, operations * share // 100, None)
            if not any('"gen":2' in self.manifest(backing) for backing in backings):
                break
            kept = [b + "/tree" for b in backings]
        self.matrix("resume", kept, self.append, self.append)

    def test_repair(self):
        before = self.made(self.copy, lambda: self.flip(self.cards[1]))
        self.matrix("repair", before, self.repair, self.repair)


class Records(Backup):
    """A run killed before each rename by which its records come to stand. What it has found out, good or bad, is settled
    by the command that goes on, as if it had not been killed."""

    disks_in, card_in = "/dev/shm", None

    def put(self, kept):
        for root, content in zip(self.roots, kept):
            shutil.rmtree(root, ignore_errors=True)
            shutil.copytree(content, root) if content else os.makedirs(root)

    def keep(self, name):
        kept = [f"{self.folder}/{name}/{os.path.basename(root)}" for root in self.roots]
        for root, content in zip(self.roots, kept):
            shutil.copytree(root, content)
        return kept

    def run_struck(self, kind, verdict, at=10**6):
        """A run that ends with a verdict, killed when its records come to stand for the time `at`."""
        file = f"DCIM/00{2 if kind == 'append' else 1}/"
        rule = {
            "unread": f"5 read {self.source}/{file}C0000 {4 if kind == 'repair' else 0} 0",
            "unwritten": f"28 write b/{DATE}/{CARD}/{file}.C0000 0 0",
            "cancelled": f"int write {'b' if kind == 'repair' else 'a'}/{DATE}/{CARD}/{file} 1 1",
        }.get(verdict, "")
        self.strikes = f"kill rename,link /.velmora- {at} 1;{rule}"
        getattr(self, kind)(*(["--no-verify"] if verdict == "unverified" else []))
        self.strikes = ""

    def recover(self, kind):
        """What the command that goes on says, and what the other one says where it gives no promise."""
        said = []
        for command in [self.repair, self.append] if kind == "repair" else [self.append, self.repair]:
            command()
            said.append(self.events[-1].get("errorCode"))
            if self.events[-1]["safeToFormat"]:
                break
        return said

    def told(self, card):
        """What all reports of a disk say. A promise is not repeated by the run that finishes the records."""
        found = {}
        for name in os.listdir(f"{card}/_REPORT"):
            if re.fullmatch(r"offload_report.*json", name):
                with open(f"{card}/_REPORT/{name}", encoding="utf-8") as file:
                    found[name] = json.load(file)
                found[name].pop("safeToFormatSeconds", None)
        return found

    def test_a_disk_that_was_left_out(self):
        """Two of three disks go on alone. The third is named, with what brings it in step."""
        self.roots.append(self.folder + "/disk c")
        self.cards.append(f"{self.roots[2]}/{DATE}/{CARD}")
        nothing = [None] * 3
        self.put(nothing)
        self.run_struck("copy", "verified")
        with open(self.folder + "/count", encoding="utf-8") as file:
            second_pass = int(file.read()) - 6
        for at in range(second_pass + 1, second_pass + 6):
            self.put(nothing)
            self.card(1)
            for more in ["DCIM/002", "day 2"]:
                shutil.rmtree(f"{self.source}/{more}", ignore_errors=True)
            self.run_struck("copy", "verified", at)
            self.card(2)
            self.into("append", "--compare", cards=self.cards[:2])
            left = [tree(root) for root in self.roots]
            self.assertEqual(self.append(), 3, self.output)
            self.assertEqual(left, [tree(root) for root in self.roots])
            self.assertIn(f'velmora append with only --into "{self.cards[2]}"', self.output)
            self.into("append", "--compare", cards=self.cards[2:])
            self.assertEqual(self.append(), 0, self.output)

    def test_every_step(self):
        self.put([None, None])
        self.copy()
        kept = {"copy": [None, None], "append": self.keep("copied")}
        self.flip(self.cards[1])
        os.remove(f"{self.cards[0]}/DCIM/001/C0003.MOV")
        kept["repair"] = self.keep("damaged")
        rows = []
        for kind in ["copy", "repair", "append"]:
            if kind == "append":
                self.card(2)
            for verdict in ["verified", "unread", "unwritten", "cancelled"] + ["unverified"] * (kind != "repair"):
                self.put(kept[kind])
                self.run_struck(kind, verdict)
                with open(self.folder + "/count", encoding="utf-8") as file:
                    count = int(file.read())
                peace = self.recover(kind)
                self.assertTrue(self.events[-1]["safeToFormat"], self.output)
                rows += [(kind, verdict, at, peace) for at in range(count)]
        self.random.shuffle(rows)
        end, played = time.monotonic() + SECONDS, 0
        for kind, verdict, at, peace in rows:
            if time.monotonic() > end and played >= LEAST:
                break
            played += 1
            with self.subTest(kind=kind, verdict=verdict, rename=at):
                self.put(kept[kind])
                self.run_struck(kind, verdict, at)
                said = self.recover(kind)
                self.assertTrue(self.events[-1]["safeToFormat"], self.output)
                self.assertLessEqual(set(said), {None, *peace}, self.output)
                self.assertEqual(self.told(self.cards[0]), self.told(self.cards[1]))
                self.assertEqual(self.run_velmora("verify", *self.cards), 0, self.output)
        print(f"{played} of {len(rows)} renames")


if __name__ == "__main__":
    unittest.main(verbosity=1)
