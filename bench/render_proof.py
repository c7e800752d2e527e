"""Verification that rides on the render, against the same work without it."""

import contextlib
import glob
import json
import os
import shutil
import statistics
import subprocess

from measure import MIB, make_clips, run, settle

THROTTLE = "/sys/fs/cgroup/blkio"
SPEED = 60_000_000  # bytes a second of each disk


def job(bench, command, card, roots, *options):
    """A copy with proxies; returns its cost and the seconds that its renders took."""
    for root in roots:
        for name in os.listdir(root):
            if name != "lost+found":
                shutil.rmtree(os.path.join(root, name))
    settle(card)
    output = os.path.join(bench.work, "job.jsonl")
    with open(output, "wb") as file:
        into = [word for root in roots for word in ("--dest", root)]
        cost = run([*command, "copy", card, *into, "--name", "BENCH", "--json", "--allow-same-device", "--lut", "none",
                    "--allow-source-volume", "--no-history", "--proxy", "h264", "--proxy-height", "540", *options],
                   bench.env, file, bench.statuses)
    with open(output, encoding="utf-8") as lines:
        bench.require_good([json.loads(line) for line in lines][-1])
    (report,) = glob.glob(f"{glob.escape(roots[0])}/*/BENCH/_REPORT/offload_report.json")
    with open(report, encoding="utf-8") as file:
        clips = json.load(file)["clips"]
    return cost, sum(clip["proxySeconds"] for clip in clips)


def tap(bench, velmora):
    """The renders themselves, which read from the range server or from the file."""
    card = os.path.join(bench.work, "tapped")
    count, seconds = (2, 2) if bench.options.quick else (4, 10)
    make_clips(card, count, f"testsrc2=s=1920x1080:r=25:d={seconds},noise=alls=8:allf=t", ["prores_ks", "-profile:v", "2"])
    renders = {"tap": [], "file": []}

    def side(name, *options):
        bench.fresh_destinations()
        cost, seconds = job(bench, [velmora], card, [bench.a], *options)
        renders[name].append(seconds)
        return cost

    ours, theirs = bench.alternate("tap", bench.options.rounds, tap=lambda: side("tap"),
                                   file=lambda: side("file", "--no-verify-in-proxy"))
    bench.row(f"proxies of {count} ProRes clips through the tap that verifies them, against the files: renders",
              *(statistics.median(renders[name]) for name in ("tap", "file")), 1.03)
    bench.row("the same: processor time of the whole job", ours.cpu, theirs.cpu, 1.05)
    shutil.rmtree(card)


@contextlib.contextmanager
def slow_disks(bench, count, mib):
    """ext4 on loop devices, which give and take SPEED to the processes of one control group: (roots, its file)."""
    group = f"{THROTTLE}/velmora-bench-{os.getpid()}"
    with contextlib.ExitStack() as stack:
        os.mkdir(group)
        stack.callback(os.rmdir, group)
        roots = []
        for number in range(count):
            image, root = os.path.join(bench.work, f"image{number}"), os.path.join(bench.work, f"disk{number}")
            with open(image, "wb") as file:
                file.truncate(mib * MIB)
            stack.callback(os.unlink, image)
            subprocess.run(["mkfs.ext4", "-q", image], check=True)
            made = subprocess.run(["losetup", "--find", "--show", "--direct-io=on", image], check=True,
                                  stdout=subprocess.PIPE, text=True)
            device = made.stdout.strip()
            stack.callback(subprocess.run, ["losetup", "--detach", device], check=True)
            os.mkdir(root)
            stack.callback(os.rmdir, root)
            subprocess.run(["mount", device, root], check=True)
            stack.callback(subprocess.run, ["umount", root], check=True)
            number = os.stat(device).st_rdev
            for way in ("read", "write"):
                with open(f"{group}/blkio.throttle.{way}_bps_device", "w", encoding="ascii") as file:
                    file.write(f"{os.major(number)}:{os.minor(number)} {SPEED}")
            roots.append(root)
        yield roots, group + "/cgroup.procs"


def throttled(bench, velmora):
    """A whole job on slow disks: the copies proved by the renders, or read back first and rendered then."""
    if os.geteuid() != 0 or not os.path.isdir(THROTTLE):
        bench.notes.append("no slow disks here: they need root and the blkio controller")
        return
    card = os.path.join("/dev/shm", os.path.basename(bench.work))
    count, seconds = (1, 0.5) if bench.options.quick else (4, 1.2)
    # Uncompressed, so that the render waits for its disk as one with a hardware encoder does.
    make_clips(card, count, f"testsrc2=s=1920x1080:r=25:d={seconds}", ["v210"])
    try:
        size = sum(os.path.getsize(os.path.join(card, name)) for name in os.listdir(card))
        with slow_disks(bench, 2, size // MIB + 500) as (roots, group):
            command = ["bash", "-c", 'echo $$ > "$0"; exec "$@"', group, velmora]
            ours, theirs = bench.alternate(
                "slow disks", bench.options.long_rounds,
                together=lambda: job(bench, command, card, roots)[0],
                one_by_one=lambda: job(bench, command, card, roots, "--no-verify-in-proxy")[0])
        bench.row(f"copy, proof and proxies of {size // MIB} MiB on two disks of {SPEED // 1_000_000} MB/s, against one after "
                  "the other", ours.wall, theirs.wall, 0.8)
    finally:
        shutil.rmtree(card)


def proof(bench, velmora):
    tap(bench, velmora)
    throttled(bench, velmora)
