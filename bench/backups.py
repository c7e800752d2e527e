"""Known cards and earlier backups: recognising a card, checking a backup, planning an append.

Here both sides read what is in memory already (folders and records, which a card that was just read or written leaves
there), but for the footage that `verify` reads: that both sides read past the page cache.
"""

import json
import os
import shutil
import subprocess
import sys

from measure import MIB, forget, make_files, run

PROGRAM = os.environ.get("VELMORA", os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))),
                                                 "build", "release", "bin", "velmora"))


def result_of(bench, command, statuses=(0,)):
    """The result that a command of velmora prints with --json."""
    process = subprocess.run(command + ["--json"], env=bench.env, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    if process.returncode not in statuses:
        sys.exit(f"bench: {' '.join(command[:6])} … ended with {process.returncode}:\n{process.stdout}{process.stderr}")
    return json.loads(process.stdout.splitlines()[-1])


def history_entry(number, card=None):
    """An entry as a copy and an append to two disks leave it; with `card`, of the folder that it was read from."""
    day, name, moment = f"2026-{1 + number % 12:02}-{1 + number % 28:02}", f"A{number:04}", "T08:30:05Z"
    seen = card or {"bytes": 512 << 30, "files": 900, "fingerprint": f"{number:064x}", "shape": f"{number + 1:064x}"}
    entry = {key: seen[key] for key in ("bytes", "files", "fingerprint", "shape")}
    entry.update(
        id=f"bench{number}", cardName=name, date=day, project="Night Shift", finished=day + moment, source=f"/media/dit/{name}",
        success=True, verified=True, unfinished=False, failedFiles=0, hashAlgorithms=["xxh64"], reels=[name],
        fileList=f"history/bench{number}.files.gz",
        destinations=[{"root": f"/mnt/{disk}", "cardPath": f"/mnt/{disk}/{day}/{name}"} for disk in ("raid", "shuttle-1")],
        generations=[{"seq": seq, "kind": kind, "bytes": entry["bytes"], "files": entry["files"], "finished": day + moment,
                      "verified": True} for seq, kind in ((1, "copy"), (2, "append"))])
    if card is None:
        entry["card"] = {"capacity": 512 << 30, "filesystem": "exfat", "fsSerial": f"{number:08X}",
                         "identity": f"{number:032x}", "label": name}
    return entry


def inspect(bench):
    """Recognising a card among many, against listing its files."""
    count, known = (10000, 500) if bench.options.quick else (100000, 5000)
    card, settings = os.path.join(bench.work, "known"), bench.env["VELMORA_SETTINGS_DIR"]
    make_files(card, count, 16)
    os.makedirs(settings, exist_ok=True)
    command = [PROGRAM, "inspect", card]
    entries = [history_entry(number) for number in range(known - 1)] + [history_entry(known, result_of(bench, command))]
    with open(os.path.join(settings, "history.json"), "w", encoding="utf-8") as file:
        json.dump({"entries": entries, "version": 1}, file, indent=2, sort_keys=True)
    if result_of(bench, command)["match"]["kind"] != "identical":
        sys.exit("bench: the card was not recognised")
    listing = ["find", card, "-printf", "%p %s %T@\\n"]
    run(listing)
    ours, theirs = bench.alternate("inspect", bench.options.rounds, velmora=lambda: run(command, bench.env),
                                   find=lambda: run(listing))
    title = f"inspect {count:,} files, {known:,} known cards"
    bench.row(f"{title}, against find: wall", ours.wall, theirs.wall, 1.3)
    program = os.path.join(os.path.dirname(PROGRAM), "velmora_history_load")
    if os.path.exists(program):
        out = subprocess.run([program, settings], check=True, stdout=subprocess.PIPE, text=True).stdout
        bench.row(f"loading {known:,} known cards, against 100 ms", float(out), 100, 1.0, "ms")
    shutil.rmtree(card)
    shutil.rmtree(settings)


def verify(bench):
    """Checking a backup, against hashing each of its files past the cache."""
    source = os.path.join(bench.work, "footage")
    size = (32 if bench.options.quick else 512) * MIB
    make_files(source, 4, size)  # a few large ones, so that the loop's many processes weigh nothing
    bench.velmora(source)
    backup = bench.last_result["destinations"][0]["cardPath"]
    loop = ('find "$1" -type f -not -path "*/_REPORT/*" -not -path "*/ascmhl/*" -print0 | while IFS= read -r -d "" file; do '
            'dd if="$file" iflag=direct bs=4M status=none | xxhsum -q -H1 -; done')

    def cold(command):
        forget(backup)
        return run(command, bench.env)

    ours, theirs = bench.alternate("verify", bench.options.rounds, velmora=lambda: cold([PROGRAM, "verify", backup]),
                                   dd=lambda: cold(["bash", "-ec", loop, "loop", backup]))
    title = f"verify 4 files, {4 * size // MIB} MiB, against dd iflag=direct | xxhsum"
    bench.row(f"{title}: wall", ours.wall, theirs.wall, 1.15)
    bench.row(f"{title}: processor", ours.cpu, theirs.cpu, None)
    shutil.rmtree(source)


def plan(bench):
    """Planning an append that finds nothing new, against listing one card folder and parsing its reports."""
    count = 2000 if bench.options.quick else 100000
    source = os.path.join(bench.work, "grown")
    make_files(source, count - 2, 16)
    bench.velmora(source)
    folders = [place["cardPath"] for place in bench.last_result["destinations"]]
    append = [PROGRAM, "append", source, "--no-history"] + [word for folder in folders for word in ("--into", folder)]
    for number in (1, 2):
        with open(os.path.join(source, f"NEW{number}.BIN"), "wb") as file:
            file.write(os.urandom(16))
        result_of(bench, append, bench.statuses)
    reading = 'find "$1" -printf "%p %s %T@\\n" >/dev/null; jq -c . "$1"/_REPORT/*.json >/dev/null'
    nothing_new = lambda: run(append, bench.env, statuses=bench.statuses)
    if not result_of(bench, append, bench.statuses)["note"].startswith("Nothing new"):
        sys.exit("bench: the append found something new")
    ours, theirs = bench.alternate("plan", min(bench.options.rounds, 3), velmora=nothing_new,
                                   jq=lambda: run(["bash", "-ec", reading, "reading", folders[0]]))
    bench.row(f"append with nothing new, {count:,} files, 3 generations, against find and jq: wall", ours.wall, theirs.wall, 2)
    shutil.rmtree(source)
