#!/usr/bin/env python3
"""Checks that includes between folders flow downward only.

Each folder of src/ may include the folders listed for it below and nothing
else; the board simulator may include only the device-file seam. Prints every
include that breaks the rule and exits 1 if there is one.
"""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent

# Folder -> the folders it may include (besides itself), from the ground up.
ALLOWED = {
    "foundation": set(),
    "hash": {"foundation"},
    "net": {"foundation"},
    "board": {"foundation"},
    "monitor": {"foundation"},
    "stratum": {"foundation", "hash", "net"},
    "flash": {"foundation", "board"},
    "rig": {"foundation", "hash", "net", "board", "monitor", "stratum", "flash"},
    "console": {"foundation", "hash", "net", "board", "monitor", "stratum", "flash", "rig"},
    "shell": {"foundation", "hash", "net", "board", "monitor", "stratum", "flash", "rig", "console"},
}
SIM_ALLOWED = {"board/device_file.h"}

INCLUDE = re.compile(r'^\s*#\s*include\s+"([a-z_]+)/([^"]+)"', re.MULTILINE)


def sources(folder):
    return sorted(p for p in folder.rglob("*") if p.suffix in (".cpp", ".h"))


def main():
    problems = []
    for folder in sorted((ROOT / "src").iterdir()):
        if not folder.is_dir():
            continue
        name = folder.name
        if name not in ALLOWED:
            problems.append(f"src/{name}: a folder the layering does not know; add it to {__file__}")
            continue
        for path in sources(folder):
            for top, rest in INCLUDE.findall(path.read_text()):
                if top != name and top not in ALLOWED[name]:
                    problems.append(f"{path.relative_to(ROOT)}: includes {top}/{rest}, above {name}")
    for path in sources(ROOT / "sim"):
        for top, rest in INCLUDE.findall(path.read_text()):
            if top != "sim" and f"{top}/{rest}" not in SIM_ALLOWED:
                problems.append(f"{path.relative_to(ROOT)}: the simulator includes {top}/{rest}")
    for line in problems:
        print(line)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
