#!/usr/bin/env python3
"""Measures Velmora against ordinary tools on this machine and prints one table of ratios.

How it stays fair:
- Both sides run in turns within one run, and the side that begins changes from round to round; medians are compared.
- Before each run all dirty data is written out (sync) and the source leaves the page cache, so both read it from disk.
- Both sides leave durable copies and read both of them back from disk: the ordinary tools by `sync`, then dropping the
  copies' pages (posix_fadvise, not timed), then `xxhsum`. File metadata may stay in memory on both sides.
- Wall time is from start to end of the programs; processor time is user and system time of the programs and their
  children as the kernel accounts it. Write-back in kernel threads is charged to nobody, which favours buffered writers.
- The data is random, made anew for every run of this script, and everything is removed at the end.
"""

import argparse
import json
import os
import platform
import shutil
import statistics
import subprocess
import sys
import tempfile

import backups
import pictures
import render_proof
from measure import MIB, Cost, forget, make_files, run, settle

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
VELMORA = os.environ.get("VELMORA", os.path.join(ROOT, "build", "release", "bin", "velmora"))
BUFFERS = 16 * 16 * MIB  # the pool of the default block size and buffer count


class Bench:
    def __init__(self, options, work):
        self.options, self.work = options, work
        self.rows, self.notes, self.raw = [], [], {}
        self.a, self.b = os.path.join(work, "a"), os.path.join(work, "b")
        self.env = dict(os.environ, VELMORA_SETTINGS_DIR=os.path.join(work, "settings"),
                        VELMORA_REPORTS_DIR=os.path.join(work, "reports"))

    def fresh_destinations(self):
        for folder in (self.a, self.b):
            shutil.rmtree(folder, ignore_errors=True)
            os.mkdir(folder)

    def velmora(self, source):
        self.fresh_destinations()
        settle(source)
        with open(os.path.join(self.work, "result.jsonl"), "wb") as output:
            cost = run([VELMORA, "copy", source, "--dest", self.a, "--dest", self.b, "--name", "BENCH", "--json",
                        "--allow-same-device", "--allow-source-volume", "--no-history"], self.env, output,
                       self.statuses)
        with open(output.name, encoding="utf-8") as lines:
            self.last_result = [json.loads(line) for line in lines][-1]
        self.require_good(self.last_result)
        return cost

    # Source and copies lie on one disk here, of which the program promises nothing: its exit status says so.
    statuses = (0, 1)

    def require_good(self, result):
        """A run counts when all of its files are good, and nothing but the one disk took the promise from it."""
        told = [text for text in result.get("warnings", []) if not text.startswith("Every copy is on the card's own volume")]
        if told or result["failedFiles"] or not result["verified"]:
            sys.exit(f"bench: a copy is not good: {told} {result['failedFiles']}")

    def ordinary(self, source, copy):
        """Copies with `copy`, makes the copies durable and hashes both of them from disk."""
        self.fresh_destinations()
        settle(source)
        cost = run(["bash", "-ec", copy + "\nsync", "copy", source, self.a, self.b])
        forget(self.a, self.b)
        return cost + run(["bash", "-ec", 'find "$1" "$2" -type f -print0 | xargs -0 xxhsum -q -H1', "hash", self.a, self.b])

    def progress(self, text):
        print(text, file=sys.stderr, flush=True)

    def alternate(self, name, rounds, **sides):
        """Runs the sides (two callables that return Costs) in turns and returns their medians in that order."""
        costs = {side: [] for side in sides}
        for number in range(rounds):
            for side in list(sides) if number % 2 == 0 else reversed(sides):
                cost = sides[side]()
                costs[side].append(cost)
                self.progress(f"  {name}, round {number + 1}, {side}: {cost.wall:.2f} s wall, {cost.cpu:.2f} s processor")
        self.raw[name] = {side: [vars(cost) for cost in list_] for side, list_ in costs.items()}
        return [Cost(statistics.median(cost.wall for cost in list_), statistics.median(cost.cpu for cost in list_),
                     max(cost.peak for cost in list_)) for list_ in costs.values()]

    def compare(self, name, source, copy, rounds):
        return self.alternate(name, rounds, velmora=lambda: self.velmora(source), tools=lambda: self.ordinary(source, copy))

    def row(self, what, ours, theirs, limit, unit="s"):
        ratio = ours / theirs if theirs else float("inf")
        self.rows.append((what, f"{ours:.2f} {unit}", f"{theirs:.2f} {unit}", ratio, limit))

    def large_files(self):
        size = (64 if self.options.quick else 512) * MIB
        source = os.path.join(self.work, "large")
        make_files(source, 4, size)
        copy = 'for file in "$1"/*; do tee "$2/${file##*/}" <"$file" >"$3/${file##*/}"; done'
        ours, theirs = self.compare("large files", source, copy, self.options.rounds)
        title = f"4 files, {4 * size // MIB} MiB, two folders, verified"
        self.row(f"{title}: wall", ours.wall, theirs.wall, 0.9)
        self.row(f"{title}: processor", ours.cpu, theirs.cpu, 0.6)
        self.memory(f"{title}: peak memory", ours.peak, 4)
        self.idle_share()
        shutil.rmtree(source)

    def small_files(self):
        count = 2000 if self.options.quick else 20000
        source = os.path.join(self.work, "small")
        make_files(source, count, 32 * 1024)
        ours, theirs = self.compare("small files", source, 'cp -r "$1" "$2"; cp -r "$1" "$3"', self.options.rounds)
        title = f"{count:,} files of 32 KiB, two folders, verified"
        self.row(f"{title}: wall", ours.wall, theirs.wall, 1.5)
        self.row(f"{title}: processor", ours.cpu, theirs.cpu, None)
        shutil.rmtree(source)

    def many_files(self):
        few, many = (1000, 10000) if self.options.quick else (10000, 100000)
        sources = {}
        for count in (few, many):
            sources[count] = os.path.join(self.work, f"many{count}")
            make_files(sources[count], count, 4096)
        costs = {few: [], many: []}
        for number in range(self.options.long_rounds):
            for count in (few, many, few) if number % 2 == 0 else (many, few):
                cost = self.velmora(sources[count])
                costs[count].append(cost)
                self.progress(f"  {count:,} files: {cost.wall:.2f} s wall, {cost.cpu:.2f} s processor, peak {cost.peak / MIB:.0f} MiB")
        self.raw["many files"] = {str(count): [vars(cost) for cost in list_] for count, list_ in costs.items()}
        per_file = {count: statistics.median(cost.wall for cost in costs[count]) / count * 1e3 for count in costs}
        self.row(f"time per file of 4 KiB at {many:,} files against {few:,}", per_file[many], per_file[few], 1.2, "ms")
        self.memory(f"{many:,} files: peak memory", max(cost.peak for cost in costs[many]), many)
        for source in sources.values():
            shutil.rmtree(source)

    def memory(self, what, peak, files):
        """The row of peak memory: the buffers, 64 MiB and 1.5 KiB a file are what it may take."""
        self.row(f"{what} against buffers + 64 MiB + 1.5 KiB a file", peak / MIB,
                 (BUFFERS + 64 * MIB + 1536 * files) / MIB, 1.0, "MiB")

    def idle_share(self):
        share = self.last_result.get("idleShare")
        if share is not None:
            self.notes.append(f"slowest disk's queue idle while the source could be read: {share * 100:.1f} % (aim: below 5 %)")

    def allocations(self):
        program = os.path.join(ROOT, "build", "release", "bin", "velmora_copy_allocations")
        if os.path.exists(program):
            out = subprocess.run([program, self.work], check=True, stdout=subprocess.PIPE, text=True).stdout
            # What grows by doubling (a queue's ring, the text of a line) leaves a few in thousands of blocks.
            for what, text in zip(("copy", "copy and read-back"), out.split()):
                self.rows.append((f"allocations per block, {what}", text, "-", float(text), 0.01))

    def read_back(self):
        program = os.path.join(ROOT, "build", "release", "bin", "velmora_read_back")
        if os.path.exists(program):
            for size, count in ((64, 2),) if self.options.quick else ((512, 4), (8, 200)):
                folder = os.path.join(self.work, "read back")
                os.mkdir(folder)
                out = subprocess.run([program, folder, str(size), str(count)], check=True, stdout=subprocess.PIPE, text=True)
                ours, theirs = map(float, out.stdout.split())
                self.row(f"read-back of {count} files of {size} MiB against plain direct reads", ours, theirs, 1.03)
                shutil.rmtree(folder)

    def table(self):
        width = max(len(row[0]) for row in self.rows)
        print(f"\n{'':{width}}  {'velmora':>12}  {'against':>12}  {'ratio':>6}  {'limit':>6}")
        missed = 0
        for what, ours, theirs, ratio, limit in self.rows:
            kept = limit is None or ratio <= limit
            missed += not kept
            print(f"{what:{width}}  {ours:>12}  {theirs:>12}  {ratio:6.2f}  {'' if limit is None else limit:>6}  "
                  f"{'' if limit is None else 'held' if kept else 'MISSED'}")
        for note in self.notes:
            print(note)
        return missed


def main():
    parser = argparse.ArgumentParser(description="Velmora against ordinary tools.")
    parser.add_argument("--quick", action="store_true", help="small amounts, one round: shows that it works, proves nothing")
    parser.add_argument("--rounds", type=int, default=0, help="rounds of each comparison (5)")
    parser.add_argument("--only", default="", help="names of benchmarks, with commas: large, small, many, allocations, readback, inspect, verify, plan, clips, proxies, proof")
    parser.add_argument("--work", default=os.path.join(ROOT, "build"), help="folder on the disk to measure")
    options = parser.parse_args()
    options.long_rounds = 1 if options.quick else 2
    options.rounds = options.rounds or (1 if options.quick else 5)

    os.makedirs(options.work, exist_ok=True)
    need = (1 if options.quick else 10) * 1024 * MIB
    if shutil.disk_usage(options.work).free < need:
        sys.exit(f"bench: {options.work} needs {need // MIB} MiB of free space")
    with tempfile.TemporaryDirectory(prefix="bench-", dir=options.work) as work:
        bench = Bench(options, work)
        parts = {"large": bench.large_files, "small": bench.small_files, "many": bench.many_files,
                 "allocations": bench.allocations, "readback": bench.read_back, "inspect": lambda: backups.inspect(bench),
                 "verify": lambda: backups.verify(bench), "plan": lambda: backups.plan(bench),
                 "clips": lambda: pictures.clips(bench), "proxies": lambda: pictures.proxies(bench),
                 "proof": lambda: render_proof.proof(bench, VELMORA)}
        for name in options.only.split(",") if options.only else parts:
            bench.progress(f"{name} …")
            parts[name]()
        print(f"\n{platform.machine()}, {os.cpu_count()} processors, Linux {platform.release()}, "
              f"load {os.getloadavg()[0]:.1f}; medians of {options.rounds} round(s)", end="")
        missed = bench.table()
        os.makedirs(os.path.join(ROOT, "build", "bench"), exist_ok=True)
        with open(os.path.join(ROOT, "build", "bench", "results.json"), "w", encoding="utf-8") as file:
            json.dump({"rows": bench.rows, "notes": bench.notes, "raw": bench.raw}, file, indent=1)
    if missed and not options.quick:
        print(f"{missed} limit(s) missed")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
