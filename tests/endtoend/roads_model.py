"""A card, its disks and the program between them; and the truth about what the program promises.

The model trusts no record. A promise is held against the bytes on the disks. Records are read only to learn which disks
belong to a backup, and what the program claims to have read back."""

import collections
import json
import os
import re
import shutil
import signal
import subprocess

import xxhash
from disks import BIN, flip

MIB = 1 << 20
DATE = "2026-03-14"
REPORT = re.compile(r"_REPORT/offload_report(_\d{4})?\.json$")

Run = collections.namedtuple("Run", "kind status result events text into wrote verified struck")


def files(root):
    """Relative path of every file → its bytes."""
    found = {}
    for folder, folders, names in os.walk(root):
        folders[:] = [name for name in folders if name not in (".near", "lost+found")]
        for name in names:
            path = os.path.join(folder, name)
            with open(path, "rb") as file:
                found[os.path.relpath(path, root)] = file.read()
    return found


def load(text):
    try:
        return json.loads(text)
    except ValueError:
        return {}


class Wrong(Exception):
    """The program said what is not so. `key` names the claim, the road and the cause."""

    def __init__(self, key, text):
        super().__init__(f"{key}: {text}")
        self.key = key


class World:
    def __init__(self, card, disks, support, random, volumes=None):
        self.card, self.support, self.random, self.volumes = card, support, random, volumes
        self.roots = {name: f"{disks}/{name}" for name in "abc"}
        self.roots["n"] = card + ".near"  # a folder on the card's own volume
        self.roots["s"] = self.roots["a"] + "/sub"  # another folder on the first disk
        self.roots["t"] = f"{disks}/t"  # a volume without a serial
        self.name = None  # of the newest backup's card folder
        self.steps, self.clock = [], 0
        self.why = {}  # (disk, backup, file) → what the test did to this copy
        self.silent = {}  # of these, what only reading shows → whether a report says that the copy was read before
        self.promises = collections.Counter()
        for disk, root in self.roots.items():
            os.makedirs(root, exist_ok=True)
            if volumes and disk in "abc":
                volumes.make(disk)
                volumes.mount(disk, root)
        if volumes:
            volumes.memory(self.roots["t"])
            volumes.make("card")
            volumes.mount("card", card)
            self.roots["n"] = card + "/.near"
        for number, size in enumerate([2 * MIB + 5, MIB, 70_000, 4097, 100, 0]):
            self.shoot(f"DCIM/C{number:04d}.MOV", size)
        self.twin, self.json = False, True

    def shoot(self, name, size, time=None):
        path = f"{self.card}/{name}"
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.write(self.random.randbytes(size))
        self.clock += 60
        time = time or (1_700_000_000 + self.clock) * 10**9
        os.utime(path, ns=(time, time))

    def folder(self, disk, name=None):
        return f"{self.roots[disk]}/{DATE}/{name or self.name}"

    def away(self, disk):
        return not (os.path.ismount if self.volumes and disk in "abc" else os.path.isdir)(self.roots[disk])

    def leave(self, disk, lazy=False):
        self.steps.append(f"{disk} goes away")
        if self.volumes:
            self.volumes.unmount(self.roots[disk], lazy)
        else:
            os.rename(self.roots[disk], self.roots[disk] + ".away")

    def come_back(self, disk):
        self.steps.append(f"{disk} comes back")
        if self.volumes:
            if stray := os.listdir(self.roots[disk]):
                raise Wrong("stray", f"{stray} in the bare mount point of {disk}")
            self.volumes.mount(disk, self.roots[disk])
        else:
            shutil.rmtree(self.roots[disk], ignore_errors=True)
            os.rename(self.roots[disk] + ".away", self.roots[disk])

    def swap_card(self):
        """Another card with the same names, sizes and times."""
        self.steps.append("twin")
        there = [(name, len(c), os.stat(f"{self.card}/{name}").st_mtime_ns) for name, c in files(self.card).items()]
        if self.volumes and not self.twin:
            self.volumes.make("twin")
            self.volumes.unmount(self.card)
            self.volumes.mount("twin", self.card)
        for name, size, time in there:
            self.shoot(name, size, time)
        self.twin = True

    # What the records say.

    def records(self):
        """Every record that a run could read now: path → text."""
        found = {}
        for top in [*self.roots.values(), self.support]:
            for folder, _, names in os.walk(top):
                for name in names:
                    if re.search(r"offload_report.*\.json$|manifest\.jsonl$|^history\.json$", name):
                        with open(os.path.join(folder, name), encoding="utf-8", errors="replace") as file:
                            found[os.path.join(folder, name)] = file.read()
        return found

    def named(self, records, name, disks):
        """These disks of a backup, and all that their records, or the history, call places of the same backup."""
        found, size = set(disks), 0
        entries = [e for p, t in records.items() if p.endswith("history.json") for e in load(t).get("entries", [])]
        texts = [json.dumps(entry["destinations"]) for entry in entries]
        while size != len(found):
            size = len(found)
            for text in texts + [t for p, t in records.items() if self.within(p, found, name)]:
                places = {d for d in self.roots if re.search(re.escape(self.folder(d, name)) + r"(?![\w-])", text)}
                if text not in texts or places & found:
                    found |= places
        return found

    def within(self, path, disks, name):
        return any(path.startswith(self.folder(disk, name) + "/") for disk in disks)

    def claims(self, disk, name, path):
        """Whether a report says that this copy was read back."""
        for where, text in self.records().items():
            report = load(text) if REPORT.search(where) else {}
            columns = [d.get("cardPath") for d in report.get("destinations", [])]
            for entry in report.get("files", []):
                if entry["path"] == path and self.folder(disk, name) in columns:
                    if entry["destinations"][columns.index(self.folder(disk, name))] == "verified":
                        return True
        return False

    # The program.

    def velmora(self, kind, *words, into=(), strike="", during=None, verified=True):
        before = self.records()
        environment = {**os.environ, "VELMORA_SETTINGS_DIR": self.support, "VELMORA_STRIKE": strike}
        environment |= {"XDG_DATA_HOME": self.support + "/data", "VELMORA_REPORTS_DIR": self.support + "/reports"}
        environment |= {"LD_PRELOAD": BIN + "/libvelmora_strike.so"} if strike else {}
        step = len(self.steps)
        self.steps.append(f"{kind} {' '.join(sorted(into))} [{strike}]")
        words = [BIN + "/velmora", kind, *words, *(["--json"] if self.json else [])]
        pipe = subprocess.PIPE
        process = subprocess.Popen(words, stdout=pipe, stderr=pipe, text=True, env=environment)
        struck, after = False, None
        if during:
            _, state = os.waitpid(process.pid, os.WUNTRACED)
            if struck := os.WIFSTOPPED(state):
                after = during(process)
                os.kill(process.pid, signal.SIGCONT)
            else:
                process.returncode = os.waitstatus_to_exitcode(state)
        out, err = process.communicate(timeout=60)
        out = "".join(getattr(process, "lines", [])) + out
        if after:
            after()
        events = [load(line) for line in out.splitlines() if line.startswith("{")]
        result = next((e for e in events if e.get("event") == "result"), None) or self.printed(out, err)
        wrote = {p: t for p, t in self.records().items() if before.get(p) != t}
        struck = struck or process.returncode == -signal.SIGKILL
        said = f"{process.returncode} {result.get('errorCode', '')}{'!' if struck else ''}"
        promise = [w for w in ("safeToEject", "safeToFormat") if result.get(w)]
        self.steps[step] += f" → {said} {' '.join(promise)}"
        run = Run(kind, process.returncode, result, events, out + err, set(into), wrote, verified, struck)
        if kind in ("copy", "append", "repair"):
            self.judge(run, before)
        return run

    @staticmethod
    def printed(out, err):
        """The same as the JSON result, from the lines for people."""
        lines = out.splitlines()
        named = re.search(r"^(A001\w*): \d+ file", out, re.M)
        refused = re.search(r"^refused: (\w+):", err, re.M)
        found = {"safeToEject": "Safe to eject" in lines, "safeToFormat": "Safe to format" in lines}
        found |= {"errorCode": refused[1]} if refused else {}
        return found | ({"cardName": named[1]} if named else {})

    # The truth.

    def cause(self, disk, name, path):
        if self.away(disk):
            return "away"
        if self.twin:
            return "twin"
        if not os.path.isdir(self.folder(disk, name)):
            return "folder gone"
        whole = f"{self.folder(disk, name)}/{path}"
        same_size = os.path.isfile(whole) and os.path.getsize(whole) == os.path.getsize(f"{self.card}/{path}")
        return self.why.get((disk, name, path), "lie" if same_size else "lagging")

    def lacking(self, disks, name, unread=False):
        """(disk, file, cause) of every copy of a card file that is not there, byte for byte, and not excused.

        `unread`: damage is excused also where nobody claims to have read the copy."""
        for disk in sorted(disks):
            there = {} if self.away(disk) else files(self.folder(disk, name))
            for path, content in files(self.card).items():
                excuse = self.silent.get((disk, name, path))
                if there.get(path) != content and not excuse and not (unread and excuse is not None):
                    yield disk, path, self.cause(disk, name, path)

    def judge(self, run, before):
        name = run.result.get("cardName") or (self.name if run.kind != "copy" else None)
        if run.kind == "repair" and run.result.get("errorCode") in (None, "repairConflict"):
            if run.status >= 0:
                self.noticed(run.into, name)
        safe = [p for p, text in run.wrote.items() if REPORT.search(p) and load(text).get("safeToFormatSeconds")]
        events = [*run.events, run.result]
        said = {claim for claim in ("safeToEject", "safeToFormat") for event in events if event.get(claim)}
        name = name or (safe and safe[0].split("/")[-3])
        disks = self.named(before | run.wrote if run.kind != "copy" else {}, name, run.into)
        for claim, given, where in (
            ("format", "safeToFormat" in said, disks),
            ("report", bool(safe), disks),
            ("eject", "safeToEject" in said, run.into),
        ):
            for disk, path, cause in self.lacking(where, name, claim == "eject") if given else ():
                if claim != "eject" or cause != "lie" or self.claims(disk, name, path):
                    raise Wrong(f"{claim}/{run.kind}/{cause}", f"{disk} does not hold {path}\n{run.text[-1500:]}")
            lost = self.lost(before, disks, name) if given and claim != "eject" else []
            if lost:
                raise Wrong(f"{claim}/{run.kind}/lost", f"no disk holds {lost}, nor does the card\n{run.text[-1500:]}")
            self.promises[claim] += given
        if said and run.into == {"n"}:
            raise Wrong(f"format/{run.kind}/near", run.text[-1500:])
        wanted = "safeToFormat" if run.verified else "safeToEject"
        if run.status == 0 and not run.result.get(wanted):
            raise Wrong(f"exit/{run.kind}", run.text[-1500:])
        if "safeToFormat" in said and not run.verified and any(
            REPORT.search(path) and not load(text).get("verified") for path, text in run.wrote.items()
        ):
            raise Wrong(f"format/{run.kind}/unread", run.text[-1500:])

    def lost(self, records, disks, name):
        """Files that failed by the newest record of each disk, and that nobody shows any more."""
        there = set(files(self.card)).union(*(files(self.folder(d, name)) for d in disks))
        newest = {}
        for path in sorted(p for p in records if REPORT.search(p) and self.within(p, disks, name)):
            newest |= {entry["path"]: entry["destinations"] for entry in load(records[path]).get("files", [])}
        return [path for path, states in newest.items() if "failed" in states and path not in there]

    def noticed(self, disks, name):
        """A run has read the copies on these disks."""
        self.silent = {key: value for key, value in self.silent.items() if key[0] not in disks or key[1] != name}

    def verify(self, disk):
        folder = self.folder(disk)
        run = self.velmora("verify", folder, into={disk})
        before = self.records()
        if run.status in (0, 1):
            if any(folder in text for path, text in before.items() if path.endswith("history.json")):
                self.noticed({disk}, self.name)  # where a history can keep it, the finding is known from now on
        if run.status != 0:
            return run
        there, newest = files(folder), {}
        for path in sorted(p for p in before if p.startswith(folder + "/") and REPORT.search(p)):
            newest |= {entry["path"]: entry for entry in load(before[path]).get("files", [])}
        for path, entry in newest.items():
            recorded = entry.get("xxh64")
            if path not in there or (recorded and xxhash.xxh64_hexdigest(there[path]) != recorded):
                raise Wrong(f"verify/{self.cause(disk, self.name, path)}", f"{path} on {disk}\n{run.text[-1500:]}")
        self.promises["verify"] += 1
        return run

    def inspect(self):  # reads no file: a twin is another card only where it is another volume
        json, self.json = self.json, False
        run = self.velmora("inspect", self.card)
        self.json = json
        for line in run.text.splitlines():
            claimed = re.search(rf"verified, safe to format.*/{DATE}/([\w-]+)", line)
            if not claimed:
                continue
            disks = {d for d in self.roots if self.folder(d, claimed[1]) in line and not self.away(d)}
            for disk, path, cause in self.lacking(disks, claimed[1]) if self.volumes or not self.twin else ():
                raise Wrong(f"inspect/{cause}", f"{disk} does not hold {path}\n{run.text[-1500:]}")
            self.promises["inspect"] += 1
        return run

    # What a test does to a copy.

    def harm(self, disk, path, how):
        key, whole = (disk, self.name, path), f"{self.folder(disk)}/{path}"
        if not os.path.isfile(whole):
            return
        self.steps.append(f"{how} {disk}:{path}")
        self.why[key] = how
        if how == "delete":
            os.remove(whole)
            self.silent.pop(key, None)
        elif size := os.path.getsize(whole):
            self.silent[key] = self.claims(*key)
            flip(whole, size // 2)

    def forget(self):
        for name in os.listdir(self.support) if os.path.isdir(self.support) else []:
            if name.startswith("history"):
                path = f"{self.support}/{name}"
                shutil.rmtree(path) if os.path.isdir(path) else os.remove(path)
        for key, how in self.why.items():
            if how == "flip":
                self.silent.setdefault(key, self.claims(*key))
        self.steps.append("the history is lost")

    def clone(self, disk, to):
        shutil.copytree(self.folder(disk), self.folder(to))
        self.steps.append(f"clone {disk} to {to}")
        for (where, name, path), how in list(self.why.items()):
            if (where, name) == (disk, self.name):
                self.why[to, name, path] = how

    def lose(self, disk, record):
        """Deletes one kind of record, or the whole folder, of the newest backup on a disk."""
        folder = self.folder(disk)
        lost = {"folder": [folder], "ascmhl": [folder + "/ascmhl"], "chain": [folder + "/ascmhl/ascmhl_chain.xml"]}
        lost["records"] = [folder + "/ascmhl", folder + "/_REPORT"]
        reports = sorted(os.listdir(folder + "/_REPORT")) if os.path.isdir(folder + "/_REPORT") else []
        patterns = {"report": r"offload_report.*\.json$", "manifest": "manifest", "list": r"\.xxh64$|\.md5$"}
        if record in patterns:
            found = [name for name in reports if re.search(patterns[record], name)]
            lost[record] = [f"{folder}/_REPORT/{name}" for name in self.random.sample(found, min(1, len(found)))]
        self.steps.append(f"lose {disk}:{record}")
        for path in lost[record]:
            if self.random.random() < 0.2 and os.path.isfile(path):
                with open(path, "r+b") as file:
                    file.truncate(os.path.getsize(path) // 2)
                continue
            shutil.rmtree(path) if os.path.isdir(path) else os.path.exists(path) and os.remove(path)
