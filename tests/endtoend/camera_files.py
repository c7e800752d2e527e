"""A card of small real camera files, one for each thing that cameras do differently. They are made once by ffmpeg and
kept in the build folder, for as long as this module stays as it is."""

import fcntl
import hashlib
import os
import shutil
import subprocess
from dataclasses import dataclass, field

BUILD = os.path.dirname(os.environ.get("VELMORA_BIN", "/tmp/velmora-camera-files/bin"))
SIDECAR = """<?xml version="1.0" encoding="UTF-8"?>
<NonRealTimeMeta xmlns="urn:schemas-professionalDisc:nonRealTimeMeta:ver.2.20">
  <VideoFormat><VideoFrame captureFps="{capture}" formatFps="{capture}"/></VideoFormat>
  <AcquisitionRecord><Group name="CameraUnitMetadataSet">
    <Item name="CaptureGammaEquation" value="{gamma}"/><Item name="CaptureColorPrimaries" value="{gamut}"/>
  </Group></AcquisitionRecord>
</NonRealTimeMeta>
"""


@dataclass
class Source:
    """One clip. `rate`, `timecode`, `channels` of each sound stream and `frames` are what must be read back."""

    path: str
    video: list  # options of the encoder
    rate: str = "25"
    frames: int = 25
    timecode: str = ""
    channels: list = field(default_factory=lambda: [2])
    audio: list = field(default_factory=lambda: ["-c:a", "pcm_s16le"])
    size: str = "320x180"
    filter: str = "null"
    extra: list = field(default_factory=list)  # of the container
    sidecar: tuple = ()  # capture rate as the sidecar writes it, gamma, gamut
    capture: str = ""  # the same rate as it is read
    reel: str = ""
    camera: str = ""
    finish: str = ""  # what is done to the file in the end

    @property
    def name(self):
        return os.path.splitext(os.path.basename(self.path))[0]


def x264(pixels, gop, *more):
    return ["-c:v", "libx264", "-preset", "veryfast", "-pix_fmt", pixels, "-g", str(gop), *more]


def prores(profile, pixels="yuv422p10le"):
    return ["-c:v", "prores_ks", "-profile:v", str(profile), "-pix_fmt", pixels]


MPEG2 = ["-c:v", "mpeg2video", "-pix_fmt", "yuv422p", "-g", "12", "-bf", "2", "-b:v", "4M"]
AAC = ["-c:a", "aac"]
QT = ["-movflags", "use_metadata_tags"]

SOURCES = [
    Source("A001C001_260314.MOV", prores(3), "24000/1001", 24, "10:00:00:00", reel="A001", camera="ARRI ALEXA Mini",
           extra=[*QT, "-metadata", "com.apple.quicktime.make=ARRI", "-metadata", "com.apple.quicktime.model=ALEXA Mini"]),
    Source("A001C002_260314.MOV", prores(4, "yuv444p10le"), "24", 24, "10:00:10:00", reel="A001"),
    Source("PRORES/proxy_50.mov", prores(0), "50", 50, "23:59:59:49"),
    Source("PRORES/reel_tag.mov", prores(2), "25", 12, "01:02:03:04", reel="Tape 7",
           extra=[*QT, "-metadata", "reel_name=Tape 7"]),
    Source("PRORES/one_frame.mov", prores(2), frames=1, timecode="00:00:00:00", channels=[]),
    Source("PRORES/three_frames.mov", prores(2), "30000/1001", 3, "00:00:59;28", channels=[]),
    Source("PRORES/anamorphic.mov", prores(2), "24", 24, "02:00:00:00", filter="setsar=2/1", size="160x120"),
    Source("PRORES/sixteen.mov", prores(0), "25", 25, "03:00:00:00", channels=[16]),
    Source("PRORES/sixteen_mono.mov", prores(0), "25", 12, channels=[1] * 16),
    Source("DNX/dnxhr.mov", ["-c:v", "dnxhd", "-profile:v", "dnxhr_sq", "-pix_fmt", "yuv422p"], "25", 12, "04:00:00:00"),
    Source("DCIM/h264_8bit.MP4", x264("yuv420p", 12), "25", 50, audio=AAC),
    Source("DCIM/h264_10bit.MOV", x264("yuv422p10le", 1), "60000/1001", 60, "00:59:59;58"),
    Source("DCIM/dropframe.MOV", x264("yuv420p", 15), "30000/1001", 30, "00:08:59;20"),
    Source("DCIM/hevc.MP4", ["-c:v", "libx265", "-preset", "ultrafast", "-x265-params", "log-level=none",
                             "-pix_fmt", "yuv420p10le", "-tag:v", "hvc1"], "24000/1001", 24, audio=AAC),
    Source("DCIM/fast.MOV", x264("yuv420p", 30), "120000/1001", 60, "01:00:00:99", audio=AAC,
           extra=["-vf", "fps=120000/1001"]),
    Source("DCIM/mute.MP4", x264("yuv420p", 12), "50", 50, channels=[]),
    Source("DCIM/jpeg_full_range.MOV", ["-c:v", "mjpeg", "-q:v", "3", "-pix_fmt", "yuvj420p"], "25", 12),
    Source("DCIM/phone_variable.MP4", x264("yuv420p", 30), "variable", 40, audio=AAC,
           filter="select='not(between(mod(n,10),3,4))'", extra=["-fps_mode", "vfr"]),
    Source("DCIM/phone_upright.MP4", x264("yuv420p", 30), "25", 25, audio=AAC, finish="rotate"),
    Source("DCIM/cover.MP4", x264("yuv420p", 30), "25", 25, audio=AAC, finish="cover"),
    Source("DCIM/trimmed.MP4", x264("yuv420p", 12), "25", 50, audio=AAC, finish="trim"),
    Source("AVCHD/00001.MTS", x264("yuv420p", 12), "25", 25, audio=["-c:a", "ac3"]),
    Source("OLD/tape.avi", ["-c:v", "mpeg4", "-b:v", "1M"], "25", 25),
    Source("OLD/open.mkv", x264("yuv420p", 25, "-x264-params", "open-gop=1"), "25", 60, audio=["-c:a", "flac"]),
    Source("XDROOT/Clip/four.MXF", MPEG2, "25", 24, "05:00:00:00", channels=[1] * 4),
    Source("XDROOT/Clip/eight.MXF", MPEG2, "30000/1001", 24, "06:00:00;00", channels=[1] * 8),
    Source("XDROOT/Clip/C0001.MXF", x264("yuv422p10le", 12), "24000/1001", 24, "07:00:00:00", channels=[1] * 4,
           sidecar=("119.88p", "s-log3-cine", "s-gamut3-cine"), capture="120000/1001"),
    Source("PRIVATE/M4ROOT/CLIP/C0002.MP4", x264("yuv420p", 12), "25", 25, audio=AAC,
           sidecar=("50i", "rec709", "rec709"), capture="25"),
    Source("PRIVATE/M4ROOT/SUB/C0002S03.MP4", x264("yuv420p", 12), "25", 25, audio=AAC, size="160x90"),
    Source("names/-i.mov", prores(0), "25", 5, "08:00:00:00"),
    Source("names/concat:a|b.mov", prores(0), "25", 5),
    Source("names/it's \"50%\": \\,[x];=%03d $HOME.mov", prores(0), "25", 5),
    Source("names/" + "Ü" * 118 + ".mov", prores(0), "25", 5),
]
# What stands on the card and cannot be read.
BROKEN = {"BROKEN/half.mp4": "an index that was never written", "BROKEN/words.mov": "no video at all"}


def ffmpeg(*arguments):
    subprocess.run(["ffmpeg", "-v", "error", "-nostdin", "-y", *arguments], check=True)


def encode(source, path):
    rate = "25" if source.rate == "variable" else source.rate
    command = ["-f", "lavfi", "-i", f"testsrc2=s={source.size}:r={rate},{source.filter}"]
    for count in source.channels:
        tones = "|".join(f"0.1*sin({300 + 50 * n}*2*PI*t)" for n in range(count))
        command += ["-f", "lavfi", "-i", f"aevalsrc={tones}:s=48000"]
    command += ["-map", "0:v", *(word for n in range(len(source.channels)) for word in ("-map", f"{n + 1}:a"))]
    command += source.video + (source.audio if source.channels else []) + source.extra
    command += ["-timecode", source.timecode] if source.timecode else []
    seconds = source.frames / eval(rate) * (1 if source.rate != "variable" else 1.25)
    ffmpeg(*command, "-t", f"{seconds:.6f}", "-frames:v", str(source.frames), "file:" + path)


def finish(source, path):
    before = path + ".before" + os.path.splitext(path)[1]
    os.rename(path, before)
    if source.finish == "rotate":
        ffmpeg("-i", before, "-map", "0", "-c", "copy", "-metadata:s:v:0", "rotate=90", path)
    elif source.finish == "trim":  # begins between two key frames: an edit list hides the frames before
        ffmpeg("-ss", "0.6", "-i", before, "-map", "0", "-c", "copy", path)
    else:  # the cover is the first stream of the file
        cover = path + ".png"
        ffmpeg("-f", "lavfi", "-i", "color=red:s=600x600", "-frames:v", "1", cover)
        ffmpeg("-i", cover, "-i", before, "-map", "0", "-map", "1", "-c", "copy", "-disposition:v:0", "attached_pic", path)
        os.remove(cover)
    os.remove(before)


def make(card):
    for source in SOURCES:
        path = os.path.join(card, source.path)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        encode(source, path)
        if source.finish:
            finish(source, path)
        if source.sidecar:
            capture, gamma, gamut = source.sidecar
            with open(os.path.splitext(path)[0] + "M01.XML", "w", encoding="utf-8") as file:
                file.write(SIDECAR.format(capture=capture, gamma=gamma, gamut=gamut))
    os.mkdir(card + "/BROKEN")
    with open(card + "/DCIM/h264_8bit.MP4", "rb") as whole, open(card + "/BROKEN/half.mp4", "wb") as half:
        half.write(whole.read()[: os.path.getsize(whole.name) // 2])
    with open(card + "/BROKEN/words.mov", "w", encoding="utf-8") as file:
        file.write("no film\n" * 100)


def card():
    """The folder of the files; nobody writes to it."""
    with open(__file__, "rb") as file:
        mark = hashlib.sha256(file.read()).hexdigest()[:12]
    folder = f"{BUILD}/camera-files"
    os.makedirs(folder, exist_ok=True)
    with open(folder + "/lock", "w", encoding="utf-8") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        path = f"{folder}/{mark}"
        if not os.path.isdir(path):
            for old in os.listdir(folder):
                if old != "lock":
                    shutil.rmtree(f"{folder}/{old}")
            make(path + ".new")
            os.rename(path + ".new", path)
    return path


if __name__ == "__main__":
    print(card())
