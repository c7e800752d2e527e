#!/usr/bin/env python3
"""Judges a backup without trusting the program that made it.

Reads the source and every card folder, recomputes all digests, and compares each line of the manifest, the reports, the
checksum lists and the ASC MHL history with what it finds itself. Prints one line per complaint; exit status 1 if any.

    check_backup.py SOURCE CARD_FOLDER... [--block-mib 16] [--unverified] [--exit N] [--failed N:PATH]... [--time-slack S]
                    [--after-crash]

--failed N:PATH   that file must be reported failed on the Nth card folder (0: the source could not be read), and no other
--after-crash     a killed run may have left temporary names, and a generation that never reached the chain
--exit N          exit status of the run, judged by what the report says
"""

import argparse
import hashlib
import json
import os
import re
import sys
import xml.etree.ElementTree as xml
from datetime import datetime, timezone

import xxhash

JUNK_FOLDERS = {".Spotlight-V100", ".fseventsd", ".Trashes", ".TemporaryItems", ".DocumentRevisions-V100"}
RESERVED = ("_REPORT", "_PROXY", "ascmhl")
GOOD = {True: {"verified"}, False: {"verified", "written"}}
ALPHABET = "123456789ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnopqrstuvwxyz"
MHL_NS, CHAIN_NS = "{urn:ASC:MHL:v2.0}", "{urn:ASC:MHL:DIRECTORY:v2.0}"
# Keys of a report, of its destinations and files: those that are always there, and those that may be.
KEYS = {
    "report": (
        "tool version hashAlgorithm generation kind cardName date source sourceFilesystem started "
        "copyFinished finished verified totalFiles totalBytes destinations files skipped clips",
        "hashAlgorithms project verifyPending verifyIncomplete safeToFormatSeconds verifyNotes copyPausedSeconds verifyPausedSeconds "
        "setAside proxy proxyEncoder sourceMedium elsewhere",
    ),
    "destination": ("root cardPath filesystem filesOK filesFailed", "unbuffered verifyMethod verifyNote volumeSerial flushed"),
    "file": ("path size modified destinations errors", "xxh64 xxh128 md5 sourceError rewritten"),
}
complaints = []


def keys(where, what, found):
    always, maybe = (set(words.split()) for words in KEYS[what])
    if not always <= set(found) <= always | maybe:
        complain(where, f"keys of a {what}: missing {always - set(found)}, unknown {set(found) - always - maybe}")


def complain(where, text):
    complaints.append(f"{where}: {text}")


def equal(where, what, found, wanted):
    if found != wanted:
        complain(where, f"{what} is {found!r}, should be {wanted!r}")


def instant(text):
    return datetime.fromisoformat(text.replace("Z", "+00:00")).timestamp()


def utc(seconds):
    return datetime.fromtimestamp(seconds, timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ")


def c4(data):
    number, digits = int.from_bytes(hashlib.sha512(data).digest(), "big"), ""
    while number:
        number, digit = divmod(number, 58)
        digits = ALPHABET[digit] + digits
    return "c4" + digits.rjust(88, "1")


def hashes(path, block):
    """Digests of a file as it lies on the disk, not in memory."""
    whole, blocks, md5, wide = xxhash.xxh64(), [], hashlib.md5(), xxhash.xxh3_128()
    with open(path, "rb") as file:
        os.posix_fadvise(file.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)
        while data := file.read(block):
            blocks.append(f"{xxhash.xxh3_64_intdigest(data):016x}")
            for state in (whole, md5, wide):
                state.update(data)
    return {"xxh64": whole.hexdigest(), "md5": md5.hexdigest(), "xxh128": wide.hexdigest(), "blocks": blocks}


def scan(root):
    """What a copy has to take along: {file: stat}, folders, skipped system files."""
    files, folders, skipped = {}, set(), set()

    def walk(folder):
        for entry in os.scandir(os.path.join(root, folder)):
            path = os.path.join(folder, entry.name)
            if entry.is_dir(follow_symlinks=False):
                if entry.name in JUNK_FOLDERS:
                    skipped.add(path)
                else:
                    folders.add(path)
                    walk(path)
            elif not entry.is_file(follow_symlinks=False) or entry.name == ".DS_Store" or entry.name.startswith("._"):
                skipped.add(path)
            else:
                files[path] = entry.stat(follow_symlinks=False)

    walk("")
    return files, folders, skipped


def ordered(where):
    def check(pairs):
        keys = [key for key, _ in pairs]
        if keys != sorted(keys):
            complain(where, f"keys are not sorted: {keys}")
        return dict(pairs)

    return check


def read_json(path):
    with open(path, encoding="utf-8") as file:
        text = file.read()
    if "\\/" in text:
        complain(path, "slashes are escaped")
    return json.loads(text, object_pairs_hook=ordered(path))


class Card:
    """One card folder, with the source beside it."""

    def __init__(self, number, root, source, options):
        self.number, self.root, self.options = number, root.rstrip("/"), options
        self.source, self.files, self.folders, self.skipped = source
        self.reports = {}  # generation: report

    def path(self, *parts):
        return os.path.join(self.root, *parts)

    def report(self, *parts):
        return self.path("_REPORT", *parts)

    def check(self):
        names = os.listdir(self.report()) if os.path.isdir(self.report()) else []
        for name in names:
            if match := re.fullmatch(r"offload_report(?:_(\d{4,}))?\.json", name):
                self.reports[int(match[1] or 1)] = read_json(self.report(name))
        if sorted(self.reports) != list(range(1, len(self.reports) + 1)) or not self.reports:
            return complain(self.root, f"report generations are {sorted(self.reports)}")
        self.latest = {}  # path: (entry, report) of the newest generation that holds it
        for generation in sorted(self.reports):
            for entry in self.reports[generation]["files"]:
                self.latest[entry["path"]] = (entry, self.reports[generation])
        self.check_tree(names)
        self.check_manifest()
        for generation, report in self.reports.items():
            self.check_report(generation, report)
            self.check_text(generation, report)
        self.check_lists()
        self.check_history()

    def column(self, report):
        for index, destination in enumerate(report["destinations"]):
            if os.path.realpath(destination["cardPath"]) == os.path.realpath(self.root):
                return index
        return min(self.number - 1, len(report["destinations"]) - 1)

    def fine(self, path):
        """Whether the newest report promises that this file is right here."""
        entry, report = self.latest[path]
        return "sourceError" not in entry and entry["destinations"][self.column(report)] in GOOD[report["verified"]]

    def check_tree(self, report_names):
        files, folders, _ = scan(self.root)
        files = {f: s for f, s in files.items() if f.split("/")[0] not in RESERVED}
        folders = {f for f in folders if f.split("/")[0] not in RESERVED}
        equal(self.root, "folders", sorted(folders), sorted(self.folders))
        for path in sorted(set(files) - set(self.files)):
            complain(self.root, f"does not belong here: {path}")
        for path, wanted in self.files.items():
            failed = self.options.failed & {(self.number, path), (0, path)}
            if path not in self.latest:
                complain(self.root, f"no report knows {path}")
                continue
            if bool(failed) == self.fine(path):
                complain(self.root, f"{path} is reported {'good' if failed else 'failed'}: {self.latest[path][0]}")
            if not self.fine(path):
                continue
            if path not in files:
                complain(self.root, f"missing: {path}")
                continue
            equal(self.path(path), "length", files[path].st_size, wanted.st_size)
            late = abs(files[path].st_mtime_ns - wanted.st_mtime_ns) / 1e9
            if late > self.options.time_slack:
                complain(self.path(path), f"time is off by {late} s")
            found = hashes(self.path(path), self.options.block)
            for block, (here, there) in enumerate(zip(found["blocks"], self.source[path]["blocks"])):
                if here != there:
                    complain(self.path(path), f"block {block} differs from the source")
        known = r"offload-manifest\.jsonl|offload_report(_\d{4,})?\.(json|txt)|.+_report(_\d{4,})?\.(html|pdf)|.+\.(xxh64|md5)|offload_verify_.*"
        for name in report_names:
            if self.left_by_crash(name):
                continue
            if name == "set-aside":
                self.check_set_aside()
            elif not re.fullmatch(known, name) or name.startswith("."):
                complain(self.report(), f"does not belong here: {name}")

    def left_by_crash(self, name):
        return self.options.after_crash and re.fullmatch(r"\.velmora-.*\.tmp", name)

    def check_set_aside(self):
        """Every copy that a report tells of is there, and a repair moved no good one."""
        for report in self.reports.values():
            for copy in report.get("setAside", []):
                if copy["destination"] != self.column(report):
                    continue
                if not os.path.isfile(self.path(copy["movedTo"])):
                    complain(self.root, f"not set aside: {copy}")
                elif (report["kind"] == "repair" and hashes(self.path(copy["movedTo"]), self.options.block)["xxh64"]
                      == self.source[copy["path"]]["xxh64"]):
                    complain(self.root, f"a good copy was set aside: {copy}")

    def check_manifest(self):
        where, seen = self.report("offload-manifest.jsonl"), set()
        try:
            lines = open(where, "rb").read().split(b"\n")
        except OSError as error:
            return complain(where, str(error))
        if lines.pop():
            complain(where, "the last line is torn")
        for number, line in enumerate(lines, 1):
            here = f"{where}:{number}"
            try:
                record = json.loads(line, object_pairs_hook=ordered(here))
                equal(here, "v", record["v"], 1)
                if record["kind"] == "run":  # the first line of a run: it names the folders of the backup, no file
                    equal(here, "names folders", bool(record["destinations"]), True)
                    continue
                path, kind, first = record["path"], record["kind"], record["first"]
                facts, truth = self.files[path], self.source[path]
            except (ValueError, KeyError) as error:
                # A power cut tears the line that was being written; readers pass over it, and nothing rewrites it.
                if not (self.options.after_crash and isinstance(error, ValueError)):
                    complain(here, f"cannot be read: {error!r}")
                continue
            if not self.fine(path):
                continue
            equal(here, "size", record["size"], facts.st_size)
            equal(here, "modified", record["modified"], utc(facts.st_mtime_ns // 10**9))
            equal(here, "blockSize", record["blockSize"], self.options.block)
            wanted = truth["blocks"] if kind == "file" else truth["blocks"][first : first + len(record["blocks"])]
            equal(here, "blocks", record["blocks"], wanted)
            for name in ("xxh64", "xxh128", "md5"):
                if name in record:
                    equal(here, name, record[name], truth[name] if kind == "file" else None)
            if kind == "file":
                equal(here, "first", first, 0)
                equal(here, "xxh64 is there", "xxh64" in record, True)
                seen.add(path)
            if b"\\/" in line or not 1 <= record["gen"] <= len(self.reports):
                complain(here, "slashes are escaped, or there is no such generation")
        for path in self.latest:
            if path in self.files and self.fine(path) and path not in seen:
                complain(where, f"no file line for {path}")

    def check_report(self, generation, report):
        where, me = self.report(self.name(generation, "json")), self.column(report)
        entries = report["files"]
        keys(where, "report", report)
        for what, list_ in (("destination", report["destinations"]), ("file", entries)):
            for item in list_:
                keys(where, what, item)
        for destination in report["destinations"]:
            place = f"{destination['root'].rstrip('/')}/{report['date']}/{report['cardName']}"
            equal(where, "cardPath", destination["cardPath"], place)
        equal(where, "hashAlgorithm", report["hashAlgorithm"], report.get("hashAlgorithms", ["xxh64"])[0])
        equal(where, "tool", report["tool"], "offload")
        method = report["destinations"][me].get("verifyMethod", "none")
        equal(where, "verifyMethod", method in ("read-back", "verify-in-proxy"), report["verified"])
        if generation == 1:
            equal(where, "kind", report["kind"], "copy")
            copied_from = self.options.copied_from or self.options.source
            equal(where, "source", os.path.realpath(report["source"]), os.path.realpath(copied_from))
        paths = [entry["path"] for entry in entries]
        equal(where, "generation", report.get("generation", 1), generation)
        equal(where, "kind", report.get("kind") in ("append", "repair"), generation > 1)
        equal(where, "cardName", report["cardName"], os.path.basename(self.root))
        equal(where, "date", report["date"], os.path.basename(os.path.dirname(self.root)))
        equal(where, "order of files", paths, sorted(paths, key=os.fsencode))
        equal(where, "totalFiles", report["totalFiles"], len(entries))
        equal(where, "totalBytes", report["totalBytes"], sum(entry["size"] for entry in entries))
        equal(where, "verified", report["verified"], not self.options.unverified and not self.pending(report))
        equal(where, "verifyPending", report.get("verifyPending", False), False)
        times = [instant(report[key]) for key in ("started", "copyFinished", "finished")]
        equal(where, "order of times", times, sorted(times))
        if generation == max(self.reports):
            equal(where, "skipped", sorted(report["skipped"]), sorted(self.skipped))
        equal(where, "the folder of this disk", report["destinations"][me]["cardPath"], self.root)
        good = [e["destinations"][me] in GOOD[report["verified"]] for e in entries]
        equal(where, "filesOK", report["destinations"][me]["filesOK"], sum(good))
        equal(where, "filesFailed", report["destinations"][me]["filesFailed"], len(entries) - sum(good))
        for entry in entries:
            here = f"{where}: {entry['path']}"
            equal(here, "columns", [len(entry["destinations"]), len(entry["errors"])], [len(report["destinations"])] * 2)
            if entry["destinations"][me] == "failed" and not entry["errors"][me]:
                complain(here, "failed without a reason")
            if entry["path"] not in self.files or "sourceError" in entry or self.latest[entry["path"]][1] is not report:
                continue
            facts = self.files[entry["path"]]
            equal(here, "size", entry["size"], facts.st_size)
            if abs(instant(entry["modified"]) - facts.st_mtime_ns / 1e9) >= 1:
                complain(here, f"modified is {entry['modified']}")
            for name in ("xxh64", "md5", "xxh128"):
                if name in entry or name in report.get("hashAlgorithms", ["xxh64"]):
                    equal(here, name, entry.get(name), self.source[entry["path"]][name])

    @staticmethod
    def pending(report):
        """A run without a single file that could be verified has verified nothing."""
        return bool(report["files"]) and not any(
            state == "verified" for entry in report["files"] for state in entry["destinations"]
        )

    @staticmethod
    def name(generation, suffix):
        return f"offload_report.{suffix}" if generation < 2 else f"offload_report_{generation:04d}.{suffix}"

    @staticmethod
    def failed(report):
        return [
            e for e in report["files"] if "sourceError" in e or not set(e["destinations"]) <= GOOD[report["verified"]]
        ]

    def check_text(self, generation, report):
        """Line by line; speeds and the size for people are patterns, everything else is exact."""
        where = self.report(self.name(generation, "txt"))
        try:
            lines = open(where, encoding="utf-8").read().split("\n")
        except OSError as error:
            return complain(where, str(error))
        literal = re.escape
        failed, speed = self.failed(report), r"\d+\.\d s  (\d+ MB/s|-)"
        local = lambda key: literal(datetime.fromtimestamp(instant(report[key])).astimezone().isoformat())
        verify = speed if report["verified"] else "NOT VERIFIED"
        pattern = [
            literal("OFFLOAD REPORT — ") + ("FAILED" if failed else "OK"),
            literal(f"Card:        {report['cardName']}"),
            literal(f"Source:      {report['source']} [{report['sourceFilesystem']}]"),
            "Started:     " + local("started"),
            "Finished:    " + local("finished"),
            rf"Files:       {report['totalFiles']}  \(.+\)",
            "Copy:        " + speed,
            "Verify:      " + verify,
        ]
        if "safeToFormatSeconds" in report:
            pattern.append(r"Safe to format after: \d+\.\d s")
        if report.get("verifyIncomplete"):
            pattern.append("Verification result not written on every destination: UNFINISHED — do not format the card yet\\.")
        if report.get("copyPausedSeconds", 0) + report.get("verifyPausedSeconds", 0) > 0:
            pattern.append(r"Paused:      \d+\.\d s \(not in the speeds\)")
        pattern.append(literal("Hash:        " + "+".join(report.get("hashAlgorithms", ["xxh64"]))))
        for d in report["destinations"]:
            serial = " " + d["volumeSerial"] if "volumeSerial" in d else ""
            method = "  verify: " + d["verifyMethod"] if "verifyMethod" in d else ""
            counts = f"ok {d['filesOK']}  failed {d['filesFailed']}"
            pattern.append(literal(f"Destination: {d['cardPath']} [{d['filesystem']}{serial}]  {counts}{method}"))
        if report.get("verifyNotes"):
            pattern += ["", "Verification notes:"] + [literal("  " + note) for note in report["verifyNotes"]]
        if report["skipped"]:
            pattern += ["", literal("Skipped (system files): " + ", ".join(report["skipped"]))]
        if failed:
            pattern += ["", literal(f"FAILED FILES ({len(failed)}):")]
        for entry in failed:
            pattern.append(literal("  " + entry["path"]))
            if "sourceError" in entry:
                pattern.append(literal("    source: " + entry["sourceError"]))
            for column, error in enumerate(entry["errors"], 1):
                if error:
                    pattern.append(literal(f"    dest {column}: {error}"))
        # Facts about clips have their own checks.
        lines = [line for line in lines if not line.startswith(("Frame rate:  ", "Content warnings: "))]
        if lines.pop() != "":
            complain(where, "no line end at the end")
        for number, (line, wanted) in enumerate(zip(lines, pattern), 1):
            if not re.fullmatch(wanted, line):
                complain(f"{where}:{number}", f"reads {line!r}, should match {wanted!r}")
        equal(where, "number of lines", len(lines), len(pattern))

    def check_lists(self):
        card = os.path.basename(self.root)
        for algorithm in ("xxh64", "md5"):
            path, wanted = self.report(f"{card}.{algorithm}"), []
            for generation in sorted(self.reports):
                for entry in self.reports[generation]["files"]:
                    line = f"{entry.get(algorithm)}  {entry['path']}"
                    if algorithm in entry and line not in wanted:
                        wanted.append(line)
            if algorithm not in self.reports[1].get("hashAlgorithms", ["xxh64"]):
                equal(path, "existence", os.path.exists(path), False)
            elif not os.path.exists(path):
                complain(path, "is missing")
            else:
                equal(path, "content", open(path, encoding="utf-8").read(), "".join(line + "\n" for line in wanted))

    def check_history(self):
        where = self.path("ascmhl")
        try:
            chain = xml.parse(os.path.join(where, "ascmhl_chain.xml")).getroot()
            raw = open(os.path.join(where, "ascmhl_chain.xml"), encoding="utf-8").read()
        except (OSError, xml.ParseError) as error:
            return complain(where, f"no chain: {error}")
        listed, text = [], '<?xml version="1.0" encoding="UTF-8"?>\n<ascmhldirectory xmlns="urn:ASC:MHL:DIRECTORY:v2.0">\n'
        for number, entry in enumerate(chain, 1):
            name, value = entry.findtext(CHAIN_NS + "path"), entry.findtext(CHAIN_NS + "c4")
            listed.append(name)
            equal(where, "sequence number", entry.get("sequencenr"), str(number))
            try:
                data = open(os.path.join(where, name), "rb").read()
            except OSError as error:
                complain(where, str(error))
                continue
            equal(os.path.join(where, name), "c4 in the chain", value, c4(data))
            self.check_generation(number, name, data)
            text += f'  <hashlist sequencenr="{number}">\n    <path>{escape(name)}</path>\n    <c4>{value}</c4>\n  </hashlist>\n'
        equal(where, "chain file", raw, text + "</ascmhldirectory>\n")
        names = [name for name in os.listdir(where) if not self.left_by_crash(name)]
        if self.options.after_crash:
            names = [name for name in names if name in listed or not re.fullmatch(r"\d{4,}_.*\.mhl(\.unchained)?", name)]
        equal(where, "files", sorted(names), sorted(listed + ["ascmhl_chain.xml"]))
        equal(where, "number of generations", len(listed), len(self.reports))

    def check_generation(self, number, name, data):
        where = self.path("ascmhl", name)
        report = self.reports.get(number)
        try:
            root = xml.fromstring(data)
        except xml.ParseError as error:
            return complain(where, f"is not XML: {error}")
        if report is None:
            return complain(where, "belongs to no report")
        info = root.find(MHL_NS + "creatorinfo")
        now, host = info.findtext(MHL_NS + "creationdate"), info.findtext(MHL_NS + "hostname")
        stamp = re.sub(r"(T|:)", lambda m: "_" if m[0] == "T" else "", now)
        equal(where, "name", name, f"{number:04d}_{os.path.basename(self.root)}_{stamp}.mhl")
        me, kind = self.column(report), report.get("kind")
        count = report["totalFiles"]
        comment = f"Velmora offload of {report['cardName']} from {report['source']}"
        if kind == "append":
            comment = f"Velmora append: {count} new file{'' if count == 1 else 's'} from {report['source']}"
        elif kind == "repair":
            read = sum((entry.get("rewritten") or [None] * (me + 1))[me] is False for entry in report["files"])
            comment = f"Velmora repair: {count - read} file{'' if count - read == 1 else 's'} again from {report['source']}"
            comment += f" {read} file{'' if read == 1 else 's'} only read back" if read else ""
        if method := report["destinations"][me].get("verifyMethod"):
            comment += f" · verification: {method}"
        lines = ['<?xml version="1.0" encoding="UTF-8"?>', '<hashlist version="2.0" xmlns="urn:ASC:MHL:v2.0">']
        lines += ["  <creatorinfo>", f"    <creationdate>{now}</creationdate>", f"    <hostname>{escape(host)}</hostname>"]
        lines += [f'    <tool version="{escape(report["version"])}">Velmora</tool>', f"    <comment>{escape(comment)}</comment>"]
        lines += ["  </creatorinfo>", "  <processinfo>", "    <process>transfer</process>", "    <ignore>"]
        lines += [f"      <pattern>{p}</pattern>" for p in (".DS_Store", "ascmhl", "ascmhl/", "_REPORT", "_PROXY")]
        lines += ["    </ignore>", "  </processinfo>", "  <hashes>"]
        for entry in report["files"]:
            word, rewritten = entry["destinations"][me], (entry.get("rewritten") or [None] * (me + 1))[me]
            if word == "pending" or (word == "written" and rewritten is not True):
                continue
            action = "failed" if word == "failed" else "verified" if rewritten is False else "original"
            # A file that failed keeps the time and digests that the report states; others were compared already.
            modified = utc(instant(entry["modified"]) // 1)
            lines.append("    <hash>")
            lines.append(f'      <path size="{entry["size"]}" lastmodificationdate="{modified}">{escape(entry["path"])}</path>')
            for algorithm in ("xxh64", "xxh128", "md5"):
                if algorithm in entry:
                    value = f'action="{action}" hashdate="{now}">{entry[algorithm]}'
                    lines.append(f"      <{algorithm} {value}</{algorithm}>")
            lines.append("    </hash>")
        lines += ["  </hashes>", "</hashlist>", ""]
        found = data.decode("utf-8").split("\n")
        for line, (here, there) in enumerate(zip(found, lines), 1):
            equal(f"{where}:{line}", "line", here, there)
        equal(where, "number of lines", len(found), len(lines))


def escape(text):
    return text.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;").replace('"', "&quot;")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("source")
    parser.add_argument("cards", nargs="+")
    parser.add_argument("--block-mib", type=int, default=16)
    parser.add_argument("--unverified", action="store_true")
    parser.add_argument("--copied-from", help="where the card stood, when SOURCE is the same data elsewhere")
    parser.add_argument("--after-crash", action="store_true")
    parser.add_argument("--exit", type=int)
    parser.add_argument("--failed", action="append", default=[])
    parser.add_argument("--time-slack", type=float, default=0)
    options = parser.parse_args()
    # Reports name folders whole, wherever the command was typed.
    options.source = os.path.abspath(options.source)
    options.cards = [os.path.abspath(card) for card in options.cards]
    options.block = options.block_mib << 20
    options.failed = {(int(number), path) for number, path in (word.split(":", 1) for word in options.failed)}
    files, folders, skipped = scan(options.source)
    unread = {path for number, path in options.failed if number == 0}
    truth = {path: hashes(os.path.join(options.source, path), options.block) for path in files if path not in unread}
    cards = [Card(n, root, (truth, files, folders, skipped), options) for n, root in enumerate(options.cards, 1)]
    for card in cards:
        card.check()
    for card in cards if options.after_crash else []:
        for report in card.reports.values():  # who finishes the records of a dead run repeats no promise of it
            report.pop("safeToFormatSeconds", None)
    for card in cards[1:]:
        equal(card.root, "the reports, beside those of the first disk,", card.reports == cards[0].reports, True)
    if options.exit is not None:
        newest = [card.reports[max(card.reports)] for card in cards if card.reports]
        equal("exit status", "it", options.exit, 1 if any(Card.failed(report) for report in newest) else 0)
    print("\n".join(complaints) if complaints else f"nothing to complain about: {len(files)} files on {len(cards)} disks")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
