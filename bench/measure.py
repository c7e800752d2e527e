"""What every benchmark needs: programs run and accounted for, files made, caches dropped."""

import os
import subprocess
import sys
import time

MIB = 1 << 20


class Cost:
    """What a run cost: seconds of wall time, seconds of processor time, peak resident bytes."""

    def __init__(self, wall=0.0, cpu=0.0, peak=0):
        self.wall, self.cpu, self.peak = wall, cpu, peak

    def __add__(self, other):
        return Cost(self.wall + other.wall, self.cpu + other.cpu, max(self.peak, other.peak))


def run(command, env=None, output=None, statuses=(0,)):
    """Runs a program to its end and returns its cost; any other status ends the benchmark."""
    begin = time.monotonic()
    process = subprocess.Popen(command, env=env, stdin=subprocess.DEVNULL, stdout=output or subprocess.DEVNULL,
                               stderr=subprocess.PIPE)
    errors = process.stderr.read()  # ends when the program does
    _, status, usage = os.wait4(process.pid, 0)
    wall = time.monotonic() - begin
    process.returncode = os.waitstatus_to_exitcode(status)
    process.stderr.close()
    if process.returncode not in statuses:
        sys.exit(f"bench: {' '.join(command[:6])} … ended with {process.returncode}:\n{errors.decode(errors='replace')}")
    return Cost(wall, usage.ru_utime + usage.ru_stime, usage.ru_maxrss * 1024)


def files_below(folder):
    for top, _, names in os.walk(folder):
        for name in names:
            yield os.path.join(top, name)


def forget(*folders):
    """Drops the clean pages of all files below the folders from the page cache."""
    for folder in folders:
        for path in files_below(folder):
            fd = os.open(path, os.O_RDONLY)
            os.posix_fadvise(fd, 0, 0, os.POSIX_FADV_DONTNEED)
            os.close(fd)


def settle(source):
    os.sync()
    forget(source)


def make_files(folder, count, size, per_folder=1000):
    pool = os.urandom(min(size, 64 * MIB) + 4 * MIB)
    for index in range(count):
        place = folder if count <= per_folder or per_folder == 0 else os.path.join(folder, f"D{index // per_folder:03}")
        os.makedirs(place, exist_ok=True)
        with open(os.path.join(place, f"F{index:06}.BIN"), "wb") as file:
            left = size
            while left > 0:  # every stretch starts elsewhere in the pool, so no two files are alike
                offset = int.from_bytes(os.urandom(4), "big") % (4 * MIB)
                left -= file.write(memoryview(pool)[offset:offset + min(left, len(pool) - 4 * MIB)])


def make_clips(folder, count, picture, codec):
    """Clips of one picture, each with a start of its own."""
    os.mkdir(folder)
    one = os.path.join(folder, "one.mov")
    subprocess.run(["ffmpeg", "-v", "error", "-nostdin", "-f", "lavfi", "-i", picture, "-c:v", *codec, one], check=True)
    for number in range(count):
        subprocess.run(["ffmpeg", "-v", "error", "-nostdin", "-i", one, "-c", "copy", "-timecode",
                        f"{number:02}:00:00:00", f"{folder}/A001C{number:03}.mov"], check=True)
    os.unlink(one)
