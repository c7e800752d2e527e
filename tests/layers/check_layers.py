"""check_layers.py SOURCE_ROOT BUILD_FOLDER: fails when an include points to a higher floor or a neighbour, when a library
is used off the floors that own it, or when no target builds a source file."""

import json
import os
import re
import sys
import tempfile

FLOORS = [
    ("base",),
    ("platform",),
    ("records",),
    ("blocks",),
    ("disks", "mhl", "clips", "settings"),
    ("engine",),
    ("memory",),
    ("reports", "proxies"),
    ("verify",),
    ("job",),
    ("cli", "app"),
]
FLOOR = {folder: floor for floor, folders in enumerate(FLOORS) for folder in folders}

# Which folders may name a header, by the beginning of its name; the longest beginning holds. What is not listed is free.
# The command line asks the system about its own terminal and signals, and measures the width of what it shows.
OWNERS = {
    "libmount/": {"platform"},
    "blkid/": {"platform"},
    "libudev": {"platform"},
    "systemd/": {"platform"},
    "sys/": {"platform"},
    "sys/eventfd.h": {"platform", "cli"},
    "sys/ioctl.h": {"platform", "cli"},
    "sys/signalfd.h": {"platform", "cli"},
    "linux/": {"platform"},
    "fcntl.h": {"platform"},
    "unistd.h": {"platform", "cli"},
    "dirent.h": {"platform"},
    "poll.h": {"platform", "cli"},
    "spawn.h": {"platform"},
    "xxhash": {"blocks"},
    "openssl/": {"base", "blocks"},
    "expat": {"base"},
    "re2/": {"clips", "memory", "mhl", "proxies"},
    "libdeflate": {"memory"},
    "unicode/": {"base", "cli"},
    "CLI/": {"cli"},
    "Q": {"app"},
}
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.M)


def sources(root, top):
    for folder, _, names in os.walk(os.path.join(root, top)):
        for name in sorted(names):
            if name.endswith((".cpp", ".h")):
                yield os.path.relpath(os.path.join(folder, name), root)


def check_includes(root):
    problems = []
    for path in sources(root, "src"):
        folder = path.split(os.sep)[1]
        if folder not in FLOOR:
            problems.append(f"{path}: {folder} stands on no floor")
            continue
        with open(os.path.join(root, path), encoding="utf-8") as file:
            text = file.read()
        for kind, name in INCLUDE.findall(text):
            other = name.split("/")[0]
            if kind == '"' and other in FLOOR and "/" in name:
                if other != folder and FLOOR[other] >= FLOOR[folder]:
                    problems.append(f"{path}: includes {name}, which stands no lower")
            elif kind == '"' and not os.path.isfile(os.path.join(root, os.path.dirname(path), name)):
                problems.append(f"{path}: includes {name}, which is in no folder of the project")
            elif kind == "<":
                prefix = max((p for p in OWNERS if name.startswith(p)), key=len, default=None)
                owners = OWNERS.get(prefix, {folder})
                if folder not in owners:
                    problems.append(f"{path}: includes <{name}>, which belongs to {', '.join(sorted(owners))}")
    return problems


def check_built(root, build):
    with open(os.path.join(build, "compile_commands.json"), encoding="utf-8") as file:
        built = {os.path.realpath(os.path.join(entry["directory"], entry["file"])) for entry in json.load(file)}
    return [f"{path}: no target builds it" for top in ("src", "tests") for path in sources(root, top)
            if path.endswith(".cpp") and os.path.realpath(os.path.join(root, path)) not in built]


def self_test():
    """The check finds each kind of fault in a small tree, and nothing in its sound parts."""
    files = {
        "src/base/Text.h": "#pragma once\n#include <string>\n",
        "src/engine/Scan.cpp": '#include "base/Text.h"\n#include "disks/Volumes.h"\n',
        "src/disks/Volumes.h": '#include "engine/Scan.h"\n',
        "src/mhl/Chain.cpp": '#include "clips/Detect.h"\n#include <re2/re2.h>\n',
        "src/job/Job.cpp": '  #  include <sys/stat.h>\n#include "nowhere.h"\n',
        "src/utils/Junk.h": "",
        "src/cli/Screen.cpp": "#include <sys/ioctl.h>\n#include <sys/stat.h>\n",
        "tests/base/LostTests.cpp": "",
    }
    with tempfile.TemporaryDirectory() as root:
        for name, text in files.items():
            os.makedirs(os.path.dirname(os.path.join(root, name)), exist_ok=True)
            with open(os.path.join(root, name), "w", encoding="utf-8") as file:
                file.write(text)
        commands = [{"directory": root, "file": name} for name in files if name.startswith("src") and name.endswith("cpp")]
        with open(os.path.join(root, "compile_commands.json"), "w", encoding="utf-8") as file:
            json.dump(commands, file)
        found = sorted(line.split(":")[0] for line in check_includes(root) + check_built(root, root))
    wanted = ["src/cli/Screen.cpp", "src/disks/Volumes.h", "src/job/Job.cpp", "src/job/Job.cpp", "src/mhl/Chain.cpp",
              "src/utils/Junk.h", "tests/base/LostTests.cpp"]
    return [] if found == wanted else [f"found {found}, not {wanted}"]


def main():
    if sys.argv[1:] == ["--self-test"]:
        problems = self_test()
    else:
        problems = check_includes(sys.argv[1]) + check_built(sys.argv[1], sys.argv[2])
    print("\n".join(problems) or "sound")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
