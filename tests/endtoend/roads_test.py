#!/usr/bin/env python3
"""Plays roads from a card to its backup, straight and odd ones, and holds every promise against the bytes on the disks.

Each round draws its steps from one number. A failure prints it: VELMORA_SEED=… VELMORA_ROUND=… plays it again.
VELMORA_ROADS_SECONDS sets how long the rounds go on, VELMORA_ROADS=all plays on after a failure."""

import os
import random
import shlex
import shutil
import signal
import tempfile
import time
import unittest

from disks import Volumes, possible
from roads_model import DATE, MIB, World, Wrong, files

SOAK = os.environ.get("VELMORA_SOAK") == "1"
SEED = int(os.environ.get("VELMORA_SEED", random.randrange(1 << 30) if SOAK else 1))
ROUND = os.environ.get("VELMORA_ROUND")
SECONDS = float(os.environ.get("VELMORA_ROADS_SECONDS", 1200 if SOAK else 20))
LEAST = 4  # rounds, however slow the machine is
ALL = os.environ.get("VELMORA_ROADS") == "all"
FAST = "/dev/shm"  # another volume than the card's, and one that forgets nothing while the computer runs


def card_folders(world, disks):
    days = (f"{world.roots[d]}/{DATE}" for d in disks)
    return {name for day in days if os.path.isdir(day) for name in os.listdir(day)}


def copy(world, disks="ab", strike="", during=None, verify=True):
    into = [word for disk in disks for word in ("--dest", world.roots[disk])]
    words = ["--name", "A001", "--date", DATE, "--block-mib", "1", "--allow-same-device", "--again"]
    words += ([] if verify else ["--no-verify"]) + (["--allow-source-volume"] if "n" in disks else [])
    before = card_folders(world, disks)
    run = world.velmora("copy", world.card, *into, *words, into=disks, strike=strike, during=during, verified=verify)
    world.name = next(iter(card_folders(world, disks) - before), world.name)
    return run


def into(world, kind, disks="ab", strike="", during=None, verify=True, compare=False):
    words = [word for disk in disks for word in ("--into", world.folder(disk))]
    words += ["--compare"] if compare else []
    words += ["--block-mib", "1"] + ([] if verify else ["--no-verify"])
    return world.velmora(kind, world.card, *words, into=disks, strike=strike, during=during, verified=verify)


class Road:
    """One round: a world and the dice that lead through it."""

    def __init__(self, world, dice):
        self.world, self.dice = world, dice
        self.first = {n: (c, os.stat(f"{world.card}/{n}").st_mtime_ns) for n, c in files(world.card).items()}

    def play(self):
        self.run("copy")
        for _ in range(self.dice.randint(2, 7)):
            steps, weights = zip(*self.STEPS)
            getattr(self, self.dice.choices(steps, weights)[0])()
        if self.world.name:
            self.run("append")

    STEPS = [
        ("grow", 5), ("shrink", 2), ("rename", 2), ("change", 2), ("twin", 1), ("whole", 3), ("flip", 4), ("delete", 3),
        ("lose", 4), ("leave", 2), ("return_", 5), ("clone", 2), ("forget", 1), ("copy", 2), ("append", 12),
        ("repair", 6), ("verify", 5), ("inspect", 4),
    ]  # fmt: skip

    # The card.

    def a_file(self):
        return self.dice.choice(sorted(files(self.world.card)) or [None])

    def grow(self):
        name = f"DCIM/N{self.world.clock:04d}.MOV"
        if self.dice.random() < 0.2 and (name := self.a_file()):
            name = name.swapcase()  # a twin of a file by case
        if name and not os.path.exists(f"{self.world.card}/{name}"):
            self.world.shoot(name, self.dice.choice([0, 10, 5000, 1_200_000]))
            self.world.steps.append(f"grow {name}")

    def shrink(self):
        if name := self.a_file():
            os.remove(f"{self.world.card}/{name}")
            self.world.steps.append(f"shrink {name}")

    def rename(self):
        if name := self.a_file():
            os.rename(f"{self.world.card}/{name}", f"{self.world.card}/{name}.R")
            self.world.steps.append(f"rename {name}")

    def change(self):
        if name := self.a_file():
            self.world.shoot(name, self.dice.choice([100, 5000]))
            self.world.steps.append(f"change {name}")

    def twin(self):
        self.world.swap_card()

    def whole(self):
        """The first card again, as it was."""
        if self.world.twin:
            if self.world.volumes:
                self.world.volumes.unmount(self.world.card)
                self.world.volumes.mount("card", self.world.card)
            else:
                shutil.rmtree(self.world.card)
        self.world.twin = False
        self.world.steps.append("whole")
        for name, (content, time) in self.first.items():
            path = f"{self.world.card}/{name}"
            os.makedirs(os.path.dirname(path), exist_ok=True)
            with open(path, "wb") as file:
                file.write(content)
            os.utime(path, ns=(time, time))

    # The disks.

    def disks(self):
        return [d for d in "abcnst" if os.path.isdir(self.world.folder(d))] if self.world.name else []

    def harm(self, how):
        if disks := self.disks():
            disk = self.dice.choice(disks)
            there = [p for p in files(self.world.folder(disk)) if not p.startswith(("_REPORT", "ascmhl"))]
            if there:
                self.world.harm(disk, self.dice.choice(sorted(there)), how)

    def flip(self):
        self.harm("flip")

    def delete(self):
        self.harm("delete")

    def lose(self):
        if disks := self.disks():
            kinds = ["folder", "ascmhl", "chain", "records", "report", "manifest", "list"]
            self.world.lose(self.dice.choice(disks), self.dice.choice(kinds))

    def leave(self):
        disk = self.dice.choice("ab")
        if not self.world.away(disk):
            self.world.leave(disk)

    def return_(self):
        for disk in "ab":
            if self.world.away(disk):
                self.world.come_back(disk)

    def clone(self):
        """A copy of a card folder, made by a person, sometimes a bad one, on a third disk, on the same or on one without
        a serial."""
        to = self.dice.choice("cst")
        disks = [d for d in self.disks() if d not in "cst"]
        if disks and not self.world.away(to) and not os.path.isdir(self.world.folder(to)):
            self.world.clone(self.dice.choice(disks), to)
            if self.dice.random() < 0.5:
                there = [p for p in files(self.world.folder(to)) if not p.startswith(("_REPORT", "ascmhl"))]
                self.world.harm(to, self.dice.choice(there), "flip") if there else None

    def forget(self):
        self.world.forget()

    # The program.

    def strike(self, kind):
        """Something that happens during a run: rule for the program, and what is done while it stands still."""
        world, pick = self.world, self.dice.random()
        disks = os.path.dirname(world.roots["a"]) + "/"
        at = self.dice.randrange({"copy": 160, "append": 110, "repair": 90}[kind])
        if pick < 0.45:
            return "", None
        if pick < 0.65:
            return f"{self.dice.choice(['kill', 'kill', 'torn'])} change {disks} {at} 1", None
        if pick < 0.75:
            return f"int {self.dice.choice(['change', 'read'])} {disks} {at} 1", None
        if pick < 0.79:
            return f"5 read {world.card}/ {self.dice.randrange(12)} {self.dice.choice([1, 0])}", None
        if pick < 0.83:
            return f"5 {self.dice.choice(['syncfs', 'fsync', 'write', 'rename'])} {disks} {at // 4} 1", None
        if pick < 0.88:
            return f"flip write /DCIM/ {self.dice.randrange(14)} 1", None
        if pick < 0.91:  # the card loses a file when its turn comes
            name = self.a_file() or "none"
            return f"stop open {name} {self.dice.randrange(2)} 1", lambda _: self.vanish(name)
        if pick < 0.93:
            return f"stop write /DCIM/ {at // 6} 1", lambda _: self.grow()
        if pick < 0.95:
            return f"stop {self.dice.choice(['write,rename', 'read'])} /DCIM/ {at // 4} 1", self.swap_in_pause
        if pick < 0.97:
            return f"stop change {disks} {at} 1", lambda _: self.second(kind)
        return f"stop change {disks} {at} 1", lambda _: self.pull()

    def swap_in_pause(self, process):
        if not self.world.volumes:
            return
        os.kill(process.pid, signal.SIGUSR1)
        os.kill(process.pid, signal.SIGCONT)
        process.lines = []
        while line := process.stdout.readline():
            process.lines.append(line)
            if '"pauseHeld":true' in line or '"result"' in line:
                break
        else:
            return
        if '"pauseHeld":true' in line:
            self.world.swap_card()
            os.kill(process.pid, signal.SIGUSR2)

    def second(self, kind):
        """Another user, with a support folder of his own, at the same folders."""
        if self.world.name and kind != "copy":
            own, self.world.support = self.world.support, self.world.support + ".other"
            into(self.world, self.dice.choice(["append", "repair"]))
            self.world.support = own

    def pull(self):
        """A disk is unmounted while a run works on it; it is back before the promises are judged."""
        if self.world.volumes and not self.world.away("b"):
            self.world.leave("b", True)
            return lambda: self.world.come_back("b")

    def vanish(self, name):
        if os.path.exists(f"{self.world.card}/{name}"):
            os.remove(f"{self.world.card}/{name}")
            self.world.steps.append(f"{name} vanishes from the card")

    def run(self, kind):
        if kind != "copy" and not self.world.name:
            return
        available = [d for d in "ab" if not self.world.away(d) or self.dice.random() < 0.2]
        for clone in "cst":
            if kind != "copy" and os.path.isdir(self.world.folder(clone)) and self.dice.random() < 0.5:
                available.append(clone)
        if len(available) > 1 and self.dice.random() < 0.25:
            available = self.dice.sample(available, len(available) - 1)
        strike, during = self.strike(kind)
        verify = kind == "repair" or self.dice.random() < 0.9
        if kind == "copy" and self.dice.random() < 0.1:
            available = (available if self.dice.random() < 0.5 else []) + ["n"]
        self.world.json = bool(during) or self.dice.random() < 0.5
        if available and kind == "copy":
            copy(self.world, available, strike, during, verify)
        elif available:
            compare = kind == "append" and verify and self.dice.random() < 0.4
            into(self.world, kind, available, strike, during, verify, compare)

    def copy(self):
        self.run("copy")

    def append(self):
        self.run("append")

    def repair(self):
        self.run("repair")

    def verify(self):
        if disks := [d for d in self.disks() if not self.world.away(d)]:
            self.world.verify(self.dice.choice(disks))

    def inspect(self):
        self.world.inspect()


def other_volume(path):
    return os.path.isdir(path) and os.stat(path).st_dev != os.stat(tempfile.gettempdir()).st_dev


@unittest.skipUnless(other_volume(FAST), "needs a second volume at " + FAST)
class Roads(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="velmora-card-")
        self.disks = tempfile.mkdtemp(prefix="velmora-disks-", dir=FAST)
        self.volumes = Volumes(self.disks) if possible() else None
        self.addCleanup(self.volumes.unmount_all) if self.volumes else None
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        self.addCleanup(shutil.rmtree, self.disks, ignore_errors=True)

    def world(self, seed, share=0.3):
        if self.volumes:
            self.volumes.unmount_all()
        for folder in (self.folder, self.disks):
            shutil.rmtree(folder, ignore_errors=True)
            os.makedirs(folder)
        dice = random.Random(f"card {seed}")
        if self.volumes and dice.random() < share:
            return World("/mnt/card", "/mnt", self.disks + "/support", dice, self.volumes)
        return World(self.folder + "/card", self.disks, self.disks + "/support", dice)

    def test_promises(self):
        promises, met, rounds, end = {}, {}, 0, time.monotonic() + SECONDS
        while rounds < (1 if ROUND else LEAST) or (not ROUND and time.monotonic() < end):
            number = int(ROUND) if ROUND else rounds
            rounds += 1
            world = self.world(f"{SEED}:{number}")
            road = Road(world, random.Random(f"road {SEED}:{number}"))
            try:
                road.play()
            except Wrong as wrong:
                steps = "\n  ".join(world.steps)
                text = f"VELMORA_SEED={SEED} VELMORA_ROUND={number}\n  {steps}\n{wrong}"
                met.setdefault(wrong.key, []).append(text)
                if not ALL:
                    self.fail(text)
            for claim, count in world.promises.items():
                promises[claim] = promises.get(claim, 0) + count
        print(f"{rounds} rounds, promises {promises}")
        for key, texts in sorted(met.items()):
            print(f"WRONG {len(texts)} × {key}\n{min(texts, key=len)}\n")
        self.assertEqual(sorted(met), [])
        if not ROUND:
            self.assertGreater(promises.get("format", 0), rounds / 4)

    def test_narrow_roads(self):
        """Roads on which a promise is easily given too early: no dice, and the end is none."""
        for name, road in self.NARROW.items():
            with self.subTest(name):
                world = self.world(name, 1)
                run = road(world)
                self.assertFalse(run.result.get("safeToFormat"), run.text)
                self.assertNotRegex(world.inspect().text, "verified, safe to format")

    def test_ways_out(self):
        """Honest roads end in the promise, by the commands that the program names."""
        met, ended, dice = {}, 0, random.Random(SEED)
        for name, road in self.HONEST.items():
            for at in sorted(dice.sample(range(150), 30 if SOAK else 3)):
                world = self.world(f"{name} {at}", 1)
                try:
                    run = road(world, at)
                    for _ in range(4):
                        if not run.result.get("safeToFormat"):
                            run = self.follow(world, run)
                    if not run.result.get("safeToFormat"):
                        raise Wrong("stuck", run.text[-1500:])
                    ended += 1
                except Wrong as wrong:
                    steps = "\n  ".join(world.steps)
                    key = f"{wrong.key}/{name}"
                    met.setdefault(key, []).append(f"{name} {at}\n  {steps}\n{wrong}")
        print(f"{ended} honest roads ended in the promise")
        for key, texts in sorted(met.items()):
            print(f"WRONG {len(texts)} × {key}\n{min(texts, key=len)}\n")
        self.assertEqual(sorted(met), [])
        self.assertGreater(ended, len(self.HONEST))

    @staticmethod
    def bad_and_not_named(kind):
        def road(world):
            copy(world)
            world.harm("b", "DCIM/C0001.MOV", "flip")
            world.verify("b")
            world.harm("a", "DCIM/C0003.MOV", "delete") if kind == "repair" else None
            return into(world, kind, "a", compare=kind == "append")

        return road

    @staticmethod
    def known_to_one_alone(world):
        copy(world)
        world.clone("b", "c")
        world.shoot("DCIM/N1.MOV", 5000)
        into(world, "append", "bc", compare=True)
        world.leave("c")
        return into(world, "append", "a", compare=True)

    @staticmethod
    def begun(at, forget):
        """A copy that died before one of its folders had a line; only one of them is named."""

        def road(world):
            copy(world, strike=f"kill change {os.path.dirname(world.roots['a'])}/ {at} 1")
            world.name = world.name or "A001"
            world.forget() if forget else None
            return into(world, "append", "a", compare=True)

        return road

    @staticmethod
    def pulled(strike, other=True):
        """Another card comes without a pause, or none."""

        def swap(world):
            world.swap_card() if other else world.volumes.unmount(world.card, True)

        return lambda world: copy(world, strike=strike, during=lambda _: swap(world))

    @staticmethod
    def follow(world, run):
        """The command that a run's last words name. After a run that died without any, `inspect` is asked."""
        named = run.result.get("next") if run.status >= 0 else f"velmora inspect {world.card}"
        if named and named.split()[1] == "inspect":
            insight = world.velmora("inspect", world.card)
            named = insight.result.get("next")
            if insight.status == 0 and "match" not in insight.result:  # not backed up yet
                named = f"velmora copy {world.card} --again --dest {world.roots['a']} --dest {world.roots['b']}"
        if not named:
            raise Wrong("stuck", run.text[-1500:])
        _, kind, _, *words = shlex.split(named.replace("ANOTHER_DISK", world.roots["c"]))
        words = [word for word in words if word != "--json"]
        if kind == "copy" and "--date" not in words:
            words += ["--name", "A001", "--date", DATE, "--block-mib", "1"]
        disks = {disk for disk in "abc" if any(f"{word}/".startswith(world.roots[disk] + "/") for word in words)}
        before = card_folders(world, "abc")
        run = world.velmora(kind, world.card, *words, into=disks, verified="--no-verify" not in words)
        world.name = next(iter(card_folders(world, "abc") - before), world.name)
        return run

    @staticmethod
    def after(kind, strike, prepare=lambda world: None, verify=True):
        """A road: a backup made in peace, what happens to it, and a run that is struck."""

        def road(world, at):
            rule = strike.format(disks=os.path.dirname(world.roots["a"]) + "/", at=at, few=at % 13) if strike else ""
            if kind == "copy":
                return copy(world, strike=rule, verify=verify)
            copy(world)
            prepare(world)
            return into(world, kind, strike=rule, verify=verify)

        return road

    @staticmethod
    def twice(road, kind, disks="ab", strike=""):
        """The same, and the run that comes after it is struck as well, or is given some of the disks only."""

        def longer(world, at):
            run = road(world, at)
            if run.status != -9 or not world.name or not all(os.path.isdir(world.folder(d)) for d in disks):
                return run
            rule = strike.format(disks=os.path.dirname(world.roots["a"]) + "/", at=at * 7 % 80)
            second = into(world, kind, disks, strike=rule)
            return second if second.status != 3 else run

        return longer

    @staticmethod
    def damage(world):
        world.harm("a", "DCIM/C0000.MOV", "flip")
        world.harm("b", "DCIM/C0003.MOV", "delete")

    @staticmethod
    def more(world):
        for number, size in enumerate([MIB + 1, 0, 4000]):
            world.shoot(f"NEW/N{number}.MOV", size)


Roads.NARROW = {
    "a bad copy that is not named": Roads.bad_and_not_named("append"),
    "a bad copy that a repair does not name": Roads.bad_and_not_named("repair"),
    "a disk that is known to one alone": Roads.known_to_one_alone,
} | {f"a copy killed at {at}, {lost}": Roads.begun(at, lost) for at in range(2, 9) for lost in (False, True)}
if possible():
    Roads.NARROW |= {
        "another card in the read-back": Roads.pulled("stop read /mnt/b/2026 3 1"),
        "another card while records are written": Roads.pulled("stop rename A001/_REPORT 2 1"),
        "a card that is pulled": Roads.pulled("stop rename A001/_REPORT 2 1", False),
    }

KILL, STOP = "kill change {disks} {at} 1", "int change {disks} {at} 1"
RECORDS = "kill rename A001/_REPORT {few} 1; kill rename A001/ascmhl {few} 1"
Roads.HONEST = {
    "copy": Roads.after("copy", ""),
    "copy without verification": Roads.after("copy", "", verify=False),
    "killed copy": Roads.after("copy", KILL),
    "cancelled copy": Roads.after("copy", STOP),
    "append": Roads.after("append", "", Roads.more),
    "append without verification": Roads.after("append", "", Roads.more, verify=False),
    "killed append": Roads.after("append", KILL, Roads.more),
    "cancelled append": Roads.after("append", STOP, Roads.more),
    "repair": Roads.after("repair", "", Roads.damage),
    "killed repair": Roads.after("repair", KILL, Roads.damage),
    "cancelled repair": Roads.after("repair", STOP, Roads.damage),
    "copy killed between records": Roads.after("copy", RECORDS),
    "append killed between records": Roads.after("append", RECORDS, Roads.more),
    "repair killed between records": Roads.after("repair", RECORDS, Roads.damage),
    "copy killed twice": Roads.twice(Roads.after("copy", KILL), "append", strike=KILL),
    "append killed twice": Roads.twice(Roads.after("append", KILL, Roads.more), "append", strike=KILL),
    "repair killed twice": Roads.twice(Roads.after("repair", KILL, Roads.damage), "repair", strike=KILL),
    "one disk first": Roads.twice(Roads.after("copy", KILL), "append", "a"),
    "append to one disk first": Roads.twice(Roads.after("append", KILL, Roads.more), "append", "b"),
    "append to damage": Roads.after("append", "", Roads.damage),
    "unreadable file": Roads.after("copy", "5 read C0002 0 0"),
    "failing flush": Roads.after("copy", "5 syncfs {disks} 0 1"),
    "failing write": Roads.after("copy", "28 write {disks} {at} 1"),
} | {
    f"lost {record}": Roads.after("append", "", lambda world, record=record: world.lose("b", record))
    for record in ("ascmhl", "chain", "records", "report", "manifest", "list", "folder")
}

if __name__ == "__main__":
    unittest.main(verbosity=1)
