#!/usr/bin/env python3
"""`velmora copy` as a user runs it, on good disks and bad ones, judged by tools/check_backup.py."""

import errno
import glob
import json
import os
import random
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

from disks import BIN, FaultDisk, Image, flip, possible, write

MIB = 1 << 20
CHECKER = os.path.join(os.path.dirname(__file__), "../../tools/check_backup.py")
SOAK = os.environ.get("VELMORA_SOAK") == "1"
DATE, CARD = "2026-03-14", "A001"


def count_lines(path):
    if not os.path.exists(path):
        return 0
    with open(path, "rb") as file:
        return len(file.readlines())


class Case(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="velmora-e2e-")
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        # The card lies on another volume than the disks: copies beside it are no backup.
        reader = tempfile.mkdtemp(prefix="velmora-card-", dir="/dev/shm")
        self.addCleanup(shutil.rmtree, reader, ignore_errors=True)
        self.source = reader + "/source"
        os.mkdir(self.source)
        self.a, self.b = self.make("disk a"), self.make("disk b")

    def make(self, name):
        path = os.path.join(self.folder, name)
        os.makedirs(path)
        return path

    def files(self, *sizes, at=None):
        for number, size in enumerate(sizes, 1):
            write(f"{at or self.source}/DCIM/100/C{number:04d}.MOV", size)

    def command(self, roots, *options, source=None, block=1):
        words = [BIN + "/velmora", "copy", source or self.source]
        for root in roots:
            words += ["--dest", root]
        words += ["--name", CARD, "--date", DATE, "--block-mib", str(block), "--allow-same-device"]
        return words + ["--allow-source-volume", "--no-history", *options]

    def environment(self):
        own = {"XDG_DATA_HOME": self.folder + "/data", "VELMORA_REPORTS_DIR": self.folder + "/reports"}
        return {**os.environ, **own}

    def start(self, *arguments, **named):
        """Runs the copy aside; its output ends in a file, so that no pipe can fill up."""
        log = open(self.folder + "/output", "w+")
        self.addCleanup(log.close)
        process = subprocess.Popen(
            self.command(*arguments, **named), stdout=log, stderr=log, env=self.environment(), start_new_session=True
        )
        process.log = log
        self.addCleanup(lambda: process.poll() is None and process.kill())
        return process

    def finish(self, process):
        status = process.wait(timeout=600)
        process.log.seek(0)
        self.output = process.log.read()
        return status

    def copy(self, *arguments, **named):
        return self.finish(self.start(*arguments, **named))

    def judge(self, roots, status, *options, source=None, block=1):
        cards = [f"{root}/{DATE}/{CARD}" for root in roots]
        words = [sys.executable, CHECKER, source or self.source, *cards, "--block-mib", str(block)]
        found = subprocess.run(words + ["--exit", str(status), *options], capture_output=True, text=True)
        self.assertEqual(found.returncode, 0, f"{found.stdout[:4000]}\n{found.stderr}\n{self.output[-2000:]}")

    def report(self, root):
        with open(f"{root}/{DATE}/{CARD}/_REPORT/offload_report.json", encoding="utf-8") as file:
            return json.load(file)

    def errors(self, root, column):
        return {e["path"]: e["errors"][column] for e in self.report(root)["files"] if e["errors"][column]}


class GoodDisks(Case):
    def test_names_and_sizes_at_every_edge(self):
        names = ["a b/c & d <e> \"f\".MOV", "it's/ключ 漢字 😀.mxf", "x" * 100 + "/" + "y" * 95 + ".bin", "-dash", "e\u0301", "\u00e9"]
        sizes = [0, 1, 4095, 4096, 4097, MIB - 1, MIB, MIB + 1, 3 * MIB, 5 * MIB + 7]
        for number, size in enumerate(sizes):
            write(f"{self.source}/{names[number % len(names)]}{number}", size)
        for junk in (".DS_Store", "DCIM/._C1.MOV", ".Trashes/501/old.MOV"):
            write(f"{self.source}/{junk}", 10)
        os.makedirs(self.source + "/empty/inner")
        os.symlink("/etc/passwd", self.source + "/link")
        for block in (1, 16, 64):
            with self.subTest(block=block):
                if SOAK:
                    for delta in (-1, 0, 1):
                        write(f"{self.source}/big{block}{delta}", block * MIB + delta)
                shutil.rmtree(f"{self.a}/{DATE}", ignore_errors=True)
                shutil.rmtree(f"{self.b}/{DATE}", ignore_errors=True)
                self.assertEqual(self.copy([self.a, self.b], block=block), 0)
                self.judge([self.a, self.b], 0, block=block)

    def test_many_small_files_in_one_folder(self):
        for number in range(20_000 if SOAK else 3_000):
            write(f"{self.source}/CLIPS/frame {number:06d}.dpx", number % 7001)
        self.assertEqual(self.copy([self.a, self.b]), 0)
        self.judge([self.a, self.b], 0)

    def test_without_verification_nothing_is_called_verified(self):
        self.files(3 * MIB, 100)
        self.assertEqual(self.copy([self.a, self.b], "--no-verify"), 0)
        self.judge([self.a, self.b], 0, "--unverified")

    def test_the_checker_complains_about_every_changed_byte(self):
        """A line of any record, or a byte of any file, that is not what it should be must not pass."""
        self.files(2 * MIB + 5, 0, 4096)
        write(self.source + "/side & car.txt", 33)
        self.assertEqual(self.copy([self.a]), 0)
        self.judge([self.a], 0)
        card = f"{self.a}/{DATE}/{CARD}"
        victims = [p for p in glob.glob(card + "/**", recursive=True) if os.path.isfile(p) and not p.endswith(".html")]
        self.assertGreaterEqual(len(victims), 10)
        generator, missed = random.Random(1), []
        for path in victims:
            facts = os.stat(path)
            with open(path, "rb") as file:
                data = file.read()
            # As many bytes as a record has lines, and three of every copied file.
            lines = data.count(b"\n") if "/_REPORT/" in path or "/ascmhl/" in path else min(3, len(data))
            for _ in range(lines if SOAK else min(lines, 8)):
                position = generator.randrange(len(data))
                if data[position : position + 1] in b"\n 0123456789" and b"\n" in data[:-1]:
                    continue  # blanks between JSON values and speeds may differ; digits of hashes are met elsewhere
                changed = data[:position] + bytes([data[position] ^ 1]) + data[position + 1 :]
                with open(path, "wb") as file:
                    file.write(changed)
                os.utime(path, ns=(facts.st_mtime_ns, facts.st_mtime_ns))
                try:
                    self.judge([self.a], 0)
                    missed.append((path, changed[max(0, position - 30) : position + 30]))
                except AssertionError:
                    pass
            with open(path, "wb") as file:
                file.write(data)
            os.utime(path, ns=(facts.st_mtime_ns, facts.st_mtime_ns))
        self.assertEqual(missed, [])
        self.judge([self.a], 0)


@unittest.skipUnless(possible(), "needs root, FUSE and loop devices")
class BadRecords(Case):
    """What lies on a disk and cannot be asked for is not taken for absent."""

    def velmora(self, *words, strike=""):
        preload = {"LD_PRELOAD": BIN + "/libvelmora_strike.so", "VELMORA_STRIKE": strike} if strike else {}
        environment = {**self.environment(), "VELMORA_SETTINGS_DIR": self.folder + "/support", **preload}
        run = subprocess.run([BIN + "/velmora", *words], capture_output=True, text=True, env=environment)
        self.output = run.stdout + run.stderr
        return run.returncode

    def test_an_error_is_no_absence(self):
        self.files(MIB, 100_000)
        roots = [word for root in (self.a, self.b) for word in ("--dest", root)]
        words = ["--name", CARD, "--date", DATE, "--allow-same-device"]
        self.assertEqual(self.velmora("copy", self.source, *roots, *words), 0, self.output)
        cards = [f"{root}/{DATE}/{CARD}" for root in (self.a, self.b)]
        into = [self.source] + [word for card in cards for word in ("--into", card)]
        report, lists = "_REPORT/offload_report.json", f"_REPORT/{CARD}.xxh64"
        io, unreadable = "Input/output error", "refused: destinationUnreadable"
        for op, record, command, status, text in (
            ("stat", "ascmhl", ["verify", cards[0]], 4, io),
            ("stat", "ascmhl", ["verify", os.path.dirname(cards[0])], 4, io),
            ("stat", "ascmhl", ["append", *into], 3, unreadable),
            ("stat", "ascmhl", ["repair", *into], 3, unreadable),
            ("open", "ascmhl/ascmhl_chain.xml", ["verify", cards[0]], 1, io),
            ("open", "ascmhl/ascmhl_chain.xml", ["append", *into], 3, "appendMhlDamaged"),
            ("stat", report, ["verify", cards[0]], 1, io),
            ("stat", report, ["append", *into], 3, io),
            ("stat", report, ["repair", *into], 3, io),
            ("stat", report, ["inspect", self.source], 0, "do not format"),
            ("stat", lists, ["verify", cards[0]], 4, "Cannot read a checksum list"),  # has nothing but the lists
            ("stat", lists, ["append", *into], 1, io),  # has a new file to list
        ):
            with self.subTest(op=op, record=record, command=command[0]):
                if command[0] == "append" and record == lists:
                    self.files(4097, at=self.source + "/more")
                if text.endswith("list"):
                    os.rename(cards[0] + "/ascmhl", self.folder + "/away")
                before = os.stat(f"{cards[0]}/{record}")
                found = self.velmora(*command, strike=f"{errno.EIO} {op} a/{DATE}/{CARD}/{record} 0 0")
                self.assertEqual(found, status, self.output)
                self.assertIn(text, self.output)
                self.assertNotRegex(self.output, "all . files match|Safe to format")
                if text.endswith("list"):
                    os.rename(self.folder + "/away", cards[0] + "/ascmhl")
                after = os.stat(f"{cards[0]}/{record}")
                self.assertEqual((before.st_ino, before.st_mtime_ns), (after.st_ino, after.st_mtime_ns))


class BadDisks(Case):
    """One of two disks, or the card, misbehaves. What is whole must be whole, what is not must be named."""

    def setUp(self):
        super().setUp()
        self.files(3 * MIB, 100_000, 2 * MIB, 7, 0)
        self.names = [f"DCIM/100/C{n:04d}.MOV" for n in range(1, 6)]

    def with_bad_disk(self, *rule, **named):
        disk = FaultDisk()
        self.addCleanup(disk.__exit__)
        disk.strike(*rule, **named)
        return disk

    def test_a_flush_that_never_succeeds_blames_no_file_and_denies_both_promises(self):
        disk = self.with_bad_disk("fail", errno.EIO, "syncfs", times=0)
        self.assertEqual(self.copy([self.a, disk.root], "--json"), 1)
        self.assertNotEqual(disk.ask("hits"), "0")
        self.judge([self.a], 0)  # every file is whole on the disk and was read back
        result = json.loads(self.output.splitlines()[-1])
        self.assertEqual([result["safeToEject"], result["safeToFormat"]], [False, False], result)
        self.assertIn(f"{disk.root}/{DATE}/{CARD}: the flush of the disk failed", json.dumps(result))

    def test_a_bit_that_turns_over_after_the_copy_is_found(self):
        for kind in ("ext4", "xfs", "btrfs", "exfat"):
            with self.subTest(kind=kind), Image(kind) as image:
                shutil.rmtree(f"{self.a}/{DATE}", ignore_errors=True)
                # The other disk holds the flush up until the bit is turned: the read-back begins after it.
                disk = self.with_bad_disk("stall", 0, "syncfs")
                process = self.start([image.root, disk.root])
                manifest = f"{image.root}/{DATE}/{CARD}/_REPORT/offload-manifest.jsonl"
                path = f"{image.root}/{DATE}/{CARD}/{self.names[0]}"
                deadline = time.monotonic() + 60
                while count_lines(manifest) < len(self.names):
                    self.assertLess(time.monotonic(), deadline, "no manifest")
                    self.assertIsNone(process.poll(), "ended early")
                    time.sleep(0.01)
                flip(path, MIB + 4321)
                disk.ask("clear")
                self.assertEqual(self.finish(process), 1)
                errors = self.errors(image.root, 0)
                self.assertEqual(list(errors), self.names[:1])
                self.assertIn("HASH MISMATCH: dest ", errors[self.names[0]])
                self.assertIn(": block 1 differs", "".join(self.report(image.root)["verifyNotes"]))
                self.judge([image.root, disk.root], 1, "--failed", "1:" + self.names[0], "--time-slack", "2")


if __name__ == "__main__":
    unittest.main(verbosity=2)
