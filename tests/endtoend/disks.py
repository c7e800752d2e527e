"""Disks for tests of the whole program: the disk that fails on demand, and real file systems on loop devices."""

import ctypes
import os
import random
import shutil
import subprocess
import tempfile
import time

BIN = os.environ["VELMORA_BIN"]  # the folder of the built programs


def possible():
    return os.geteuid() == 0 and os.access("/dev/fuse", os.W_OK) and os.access("/dev/loop-control", os.W_OK)


def write(path, size, seed=0):
    """A file whose content and time its name, size and seed decide."""
    os.makedirs(os.path.dirname(path), exist_ok=True)
    generator = random.Random(f"{os.path.basename(path)}{size}{seed}")
    with open(path, "wb") as file:
        while size > 0:
            size -= file.write(generator.randbytes(min(size, 1 << 20)))
    moment = 1_700_000_000_000_000_000 + generator.randrange(10**16)
    os.utime(path, ns=(moment, moment))


def flip(path, at):
    """Turns one bit over, which nobody sees who does not read."""
    times = os.stat(path)
    with open(path, "r+b") as file:
        file.seek(at)
        byte = file.read(1)[0]
        file.seek(at)
        file.write(bytes([byte ^ 1]))
        os.fsync(file.fileno())
    os.utime(path, ns=(times.st_atime_ns, times.st_mtime_ns))


class FaultDisk:
    """See tests/support/FaultDisk.h; the commands are those of tests/support/faultdisk/main.cpp."""

    def __init__(self, backing=None, power=False, root=None):
        """Over the backing of an earlier disk it shows what that one left; `root`: where to mount it, a folder."""
        self.own = tempfile.mkdtemp(prefix="velmora-disk-")
        self.backing, self.root = backing or self.own, root or self.own + "/mount"
        os.makedirs(self.root, exist_ok=True)
        command = [BIN + "/velmora_fault_disk", self.backing, self.root] + ([] if power else ["--no-power"])
        self.server = subprocess.Popen(
            command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, start_new_session=True
        )
        self.answer()

    def answer(self):
        line = self.server.stdout.readline().strip()
        if not line.startswith("ok"):
            raise RuntimeError(f"the disk's server says {line!r}")
        return line[3:]

    def ask(self, line):
        self.server.stdin.write(line + "\n")
        self.server.stdin.flush()
        return self.answer()

    def strike(self, action, argument, ops, skip=0, times=1, pattern="*"):
        self.ask(f"rule {action} {argument} {ops} {skip} {times} {pattern}")

    @property
    def medium(self):
        return self.backing + "/tree"

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.server.stdin.close()
        self.server.wait()
        self.server.stdout.close()
        shutil.rmtree(self.own, ignore_errors=True)


class Image:
    """A file system of its own on a loop device."""

    MAKE = {"ext4": ["mkfs.ext4", "-q"], "xfs": ["mkfs.xfs", "-q"], "btrfs": ["mkfs.btrfs", "-q"], "exfat": ["mkfs.exfat"]}

    def __init__(self, kind, mib=400):
        self.kind, self.folder = kind, tempfile.mkdtemp(prefix="velmora-image-")
        self.root, image = self.folder + "/mount", self.folder + "/image"
        os.mkdir(self.root)
        subprocess.run(["truncate", "-s", f"{mib}M", image], check=True)
        subprocess.run(self.MAKE[kind] + [image], check=True, stdout=subprocess.DEVNULL)
        found = subprocess.run(["losetup", "-f", "--show", image], check=True, capture_output=True, text=True)
        self.device = found.stdout.strip()
        mount = ["mount.exfat-fuse"] if kind == "exfat" else ["mount", "-t", kind]
        subprocess.run(mount + [self.device, self.root], check=True, stdout=subprocess.DEVNULL)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        subprocess.run(["umount", self.root], check=True)
        subprocess.run(["losetup", "-d", self.device], check=True)
        shutil.rmtree(self.folder)


class Volumes:
    """Small ext4 volumes below /mnt, in a mount namespace of this process: nothing outlives it."""

    def __init__(self, folder):
        self.folder = folder
        if ctypes.CDLL(None, use_errno=True).unshare(0x20000) != 0:  # CLONE_NEWNS
            raise OSError(ctypes.get_errno(), "unshare")
        subprocess.run(["mount", "--make-rprivate", "/"], check=True)
        subprocess.run(["mount", "-t", "tmpfs", "none", "/mnt"], check=True)

    def make(self, name, mib=128):
        image = f"{self.folder}/{name}.img"
        subprocess.run(["truncate", "-s", f"{mib}M", image], check=True)
        subprocess.run(["mkfs.ext4", "-q", "-O", "^has_journal", image], check=True)

    def mount(self, name, at):
        os.makedirs(at, exist_ok=True)
        subprocess.run(["mount", "-o", "loop", f"{self.folder}/{name}.img", at], check=True)

    @staticmethod
    def memory(at):
        """A volume without a serial."""
        os.makedirs(at, exist_ok=True)
        subprocess.run(["mount", "-t", "tmpfs", "none", at], check=True)

    @staticmethod
    def unmount(at, lazy=False):
        """As a person does it: a volume that is busy for a moment is tried again."""
        command = ["umount", *(["-l"] if lazy else []), at]
        for _ in range(100):
            if subprocess.run(command, stderr=subprocess.DEVNULL).returncode == 0:
                return
            time.sleep(0.05)
        subprocess.run(command, check=True)

    @staticmethod
    def unmount_all():
        for name in os.listdir("/mnt"):
            while os.path.ismount("/mnt/" + name):
                Volumes.unmount("/mnt/" + name, True)
            shutil.rmtree("/mnt/" + name)
