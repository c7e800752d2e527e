"""Proxies against the very same runs of ffmpeg, started by hand."""

import os
import shlex
import shutil
import subprocess
import sys

from measure import make_clips, run

VELMORA = os.environ.get("VELMORA", os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "build",
                                                 "release", "bin", "velmora"))


def clips(bench):
    """`velmora clips --thumbs` against one ffprobe and three single frames a clip, as many at a time."""
    count = 20 if bench.options.quick else 200
    source, out = os.path.join(bench.work, "short clips"), os.path.join(bench.work, "thumbs")
    os.mkdir(source)
    one = os.path.join(bench.work, "one.mov")
    subprocess.run(["ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", "testsrc2=s=1920x1080:r=25:d=2", "-c:v",
                    "libx264", "-preset", "veryfast", "-g", "12", "-timecode", "10:00:00:00", one], check=True)
    for number in range(count):
        shutil.copy(one, f"{source}/A001C{number:03}.mov")

    def velmora():
        shutil.rmtree(out, ignore_errors=True)
        env = dict(bench.env, VELMORA_SETTINGS_DIR=os.path.join(bench.work, "clip settings"))
        return run([VELMORA, "clips", source, "--thumbs", out, "--lut", "none"], env)

    def bare():
        shutil.rmtree(out, ignore_errors=True)
        os.mkdir(out)
        grab = ('n=$(basename "$1"); ffprobe -v error -print_format json -show_streams -show_format "$1" > /dev/null; '
                'for t in 0.2 1 1.4; do ffmpeg -v error -nostdin -threads 1 -ss $t -i "$1" -vf scale=-2:180 -frames:v 1 '
                '"$2/$n-$t.jpg"; done')
        return run(["bash", "-ec", 'find "$1" -name "*.mov" -print0 | xargs -0 -n 1 -P "$3" -I {} bash -ec "$4" grab {} "$2"',
                    "bare", source, out, str(os.cpu_count()), grab], bench.env)

    ours, theirs = bench.alternate("clips", bench.options.rounds, velmora=velmora, bare=bare)
    bench.row(f"metadata and three small pictures of {count} clips, against ffprobe and three frames by hand", ours.wall,
              theirs.wall, 1.1)
    shutil.rmtree(source)
    shutil.rmtree(out)


def proxies(bench):
    count, seconds = (2, 2) if bench.options.quick else (8, 10)
    source, out = os.path.join(bench.work, "clips"), os.path.join(bench.work, "proxies")
    make_clips(source, count, f"testsrc2=s=1920x1080:r=25:d={seconds},noise=alls=8:allf=t", ["prores_ks", "-profile:v", "2"])

    def velmora(ffmpeg):
        env = dict(bench.env, VELMORA_SETTINGS_DIR=os.path.join(bench.work, "proxy settings"))
        subprocess.run([VELMORA, "settings", "tools.ffmpeg", ffmpeg], env=env, check=True, stdout=subprocess.DEVNULL)
        shutil.rmtree(out, ignore_errors=True)
        return run([VELMORA, "proxies", source, "--out", out, "--no-burn-in", "--lut", "none"], env)

    # One run writes down how ffmpeg is called.
    calls, recorder = os.path.join(bench.work, "calls"), os.path.join(bench.work, "recorder")
    with open(recorder, "w", encoding="utf-8") as file:
        file.write(f'#!/bin/bash\n[[ "$*" == *.part.mov ]] && printf "%q " "$@" >> {shlex.quote(calls)} && '
                   f'echo >> {shlex.quote(calls)}\nexec ffmpeg "$@"\n')
    os.chmod(recorder, 0o755)
    velmora(recorder)
    with open(calls, encoding="utf-8") as file:
        lines = file.read().splitlines()
    if len(lines) != count:
        sys.exit(f"bench: {len(lines)} calls of ffmpeg for {count} clips")
    script = "\n".join("ffmpeg " + line for line in lines)

    def hand():
        shutil.rmtree(out, ignore_errors=True)
        os.mkdir(out)
        return run(["bash", "-ec", script + "\nsync -f " + shlex.quote(out)], bench.env)

    ours, theirs = bench.alternate("proxies", bench.options.rounds, velmora=lambda: velmora(shutil.which("ffmpeg")),
                                   hand=hand)
    bench.row(f"proxies of {count} ProRes clips, 1080p H.264, against the same ffmpeg by hand", ours.wall, theirs.wall,
              1.03)
    shutil.rmtree(source)
    shutil.rmtree(out)
