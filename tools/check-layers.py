#!/usr/bin/env python3
"""Fails when a file of src/ includes a header of a layer above its own.

The layers are the rows of the layout table in README.md whose first cell
names folders of src/, bottom row first; folders named in one row form one
layer and may not include each other. A file may include headers of its own
folder and of the layers below it.

    tools/check-layers.py [ROOT]
"""
import os
import re
import sys


def layers(readme):
    rank = {}
    for line in open(readme, encoding="utf-8"):
        if not line.startswith("|"):
            continue
        cell = line.split("|")[1]
        folders = re.findall(r"`src/([a-z_]+)`", cell)
        if folders:
            level = len(set(rank.values()))
            for f in folders:
                rank[f] = level
    return rank


def main():
    root = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "..")
    rank = layers(os.path.join(root, "README.md"))
    src = os.path.join(root, "src")
    bad = []
    for folder in sorted(os.listdir(src)):
        if not os.path.isdir(os.path.join(src, folder)):
            continue
        if folder not in rank:
            bad.append(f"src/{folder}: not in the README's layout table")
            continue
        for name in sorted(os.listdir(os.path.join(src, folder))):
            path = os.path.join(src, folder, name)
            for no, line in enumerate(open(path, encoding="utf-8", errors="replace"), 1):
                m = re.match(r'\s*#\s*include\s+"([a-z_]+)/', line)
                if not m or m.group(1) == folder:
                    continue
                dep = m.group(1)
                if dep not in rank:
                    bad.append(f"src/{folder}/{name}:{no}: includes {dep}/, which is not a layer")
                elif rank[dep] >= rank[folder]:
                    bad.append(f"src/{folder}/{name}:{no}: includes {dep}/, a layer not below {folder}/")
    for b in bad:
        print(b)
    print(f"layers: {len(rank)} folders checked, {len(bad)} wrong include(s)")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
