#!/usr/bin/env python3
"""privinspect map --svg on builder images, end to end.

  map_svg_test.py PRIVINSPECT PRIVBUILD WORKDIR

For good and damaged images: the SVG is well-formed XML (xmllint), renders
(rsvg-convert) to a PNG of the size it declares, and holds one element per
structure of the strip and per run of non-free blocks, counted against
`privinspect --json dump` of the same image. A copy of 65536 blocks stays
small: its runs are folded.

compare --svg on examples/group (disk01 current, disk02 stale, disk03 with
vol1 longer), and with disk03 twice: well-formed, a strip per disk, the
text output unchanged, and outlined exactly the enabled copies outside the
database of the most disks.
"""
import json
import os
import re
import struct
import subprocess
import sys

PRIVINSPECT, PRIVBUILD, WORK = sys.argv[1:4]

DISK = """disk sector-size=512 sectors=%d
header diskid=disk01 seqno=0.17
region config copy=1 offset=17 len=%d
region log copy=1 offset=%d len=100 %s
copy-content config copy=1 content=config begin
  database version=4.17 dgname=dg1 config-tid=0.200 %s
  group name=dg1 rid=0.1000 version=171
  volume name=vol1 rid=0.1001 len=2048 pl_num=%s state=ACTIVE
  volume name="a<b&c" rid=0.1002 len=8 pl_num=0
%send
%s"""
LOG = "content=log begin\n  block tid=0.200 seqno=7\n  entry type=commit tid=0.200\nend"


def image(log=LOG, pl_num="0", records="", tail="", database="", big=False):
    if big:  # a copy of 65536 blocks of 128 bytes, on a disk of 20480 sectors
        return DISK % (20480, 16384, 16401, log, "blksize=128 " + database, pl_num, records, tail)
    return DISK % (2048, 400, 1617, log, database, pl_num, records, tail)


IMAGES = {
    "good": image(),
    "log-never-written": image(log=""),
    "bad-block": image(records="  block at=40 magic=XBLK\n"),
    "missing-children": image(pl_num="3"),
    "header-checksum": image(tail="hdrcopy primary damage=checksum\nhdrcopy alternate\n"),
    "large": image(big=True, records="  block at=9000 magic=XBLK\n"),
}

failures = []


def check(cond, what):
    if not cond:
        failures.append(what)
    return cond


def run(args, **kw):
    return subprocess.run(args, capture_output=True, **kw)


def expected_blocks(doc):
    """Runs of non-free blocks of the dumped copy, as the map folds them."""
    db = doc["config"]["database"]
    first = db["hdrsize"] // db["blksize"]
    decoded = {r["ref"]: r["decoded"] for r in doc["config"]["records"]}
    found = set()
    for f in doc["findings"]:
        loc = f.get("location", {})
        if loc.get("structure") == "config copy" and "block" in loc:
            found.add(loc["block"] * 512 // db["blksize"])
    kinds = {b: "db-header" for b in range(first)}
    for b in doc["config"]["blocks"]:
        flag = int(b["flag"], 16)
        kind = ("bad" if flag & 8 else "incomplete" if flag & 2 else
                ("used" if decoded.get(b["ref"]) else "refused") if "ref" in b else "free")
        if b["block"] in found and kind in ("used", "free"):
            kind = "finding"
        kinds[b["block"]] = kind
    for b in found:
        kinds.setdefault(b, "finding")
    runs, last = 0, None
    for b in sorted(kinds):
        if last is None or last[0] + 1 != b or last[1] != kinds[b]:
            runs += 1
        last = (b, kinds[b])
    return runs


for name, desc in IMAGES.items():
    img = "%s/map-%s.img" % (WORK, name)
    svg = img[:-4] + ".svg"
    png = img[:-4] + ".png"
    with open(img + ".desc", "w") as f:
        f.write(desc)
    subprocess.run([PRIVBUILD, img + ".desc", img], check=True)
    r = run([PRIVINSPECT, "map", img, "--svg", svg])
    if not check(r.returncode == 0, "%s: map status %d: %s" % (name, r.returncode, r.stderr)):
        continue
    text = open(svg, encoding="utf-8").read()
    r = run(["xmllint", "--noout", svg])
    check(r.returncode == 0, "%s: xmllint: %s" % (name, r.stderr.decode()))
    r = run(["rsvg-convert", svg, "-o", png])
    check(r.returncode == 0, "%s: rsvg-convert: %s" % (name, r.stderr.decode()))
    size = re.search(r'<svg [^>]*width="(\d+)" height="(\d+)"', text)
    with open(png, "rb") as f:
        head = f.read(24)
    check(head[:8] == b"\x89PNG\r\n\x1a\n" and
          struct.unpack(">II", head[16:24]) == (int(size[1]), int(size[2])),
          "%s: PNG size differs from the SVG's %s" % (name, size.groups()))
    check(text.count("<g ") == text.count("<title>"), "%s: a shape without a title" % name)
    check(re.search(r"\d\.\d", re.sub(r"<\?xml[^>]*>|<title>[^<]*</title>|<text[^<]*</text>", "", text)) is None,
          "%s: a coordinate that is not an integer" % name)
    doc = json.loads(run([PRIVINSPECT, "--json", "dump", img]).stdout)
    toc = doc["toc"]
    structures = 2 + sum((s["sector"] >= 0) + (s["alt_sector"] >= 0) for s in toc["block_sectors"])
    structures += sum(len(c["parts"]) for c in toc["config_copies"] + toc["log_copies"])
    got = len(re.findall(r'<g class="span (?!free)', text))
    check(got == structures, "%s: %d structures drawn, %d in the dump" % (name, got, structures))
    got = len(re.findall(r'<g class="block (?!free)', text))
    want = expected_blocks(doc)
    check(got == want, "%s: %d runs of blocks drawn, %d in the dump" % (name, got, want))
    check(len(text) < 20000, "%s: %d bytes of SVG" % (name, len(text)))
    check("a&lt;b&amp;c" in text, "%s: a record name not escaped" % name)

GROUP = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "examples", "group")
disks = {}
for n in ("disk01", "disk02", "disk03"):
    disks[n] = "%s/cmp-%s.img" % (WORK, n)
    subprocess.run([PRIVBUILD, "%s/%s.desc" % (GROUP, n), disks[n]], check=True)
disks["disk03-again"] = "%s/cmp-disk03-again.img" % WORK
subprocess.run([PRIVBUILD, "%s/disk03.desc" % GROUP, disks["disk03-again"]], check=True)
# The disks given, and (by position, from 1) the disks whose copies differ.
for n, (names, differ) in enumerate(((["disk01", "disk02", "disk03"], {2, 3}),
                                     (["disk01", "disk03", "disk03-again"], {1}))):
    case = " ".join(names)
    images = [disks[n] for n in names]
    svg = "%s/cmp-%d.svg" % (WORK, n)
    plain = run([PRIVINSPECT, "compare"] + images)
    r = run([PRIVINSPECT, "compare"] + images + ["--svg", svg])
    check((r.returncode, r.stdout, r.stderr) == (plain.returncode, plain.stdout, plain.stderr),
          "%s: compare --svg changed the text or the status" % case)
    r = run(["xmllint", "--noout", svg])
    check(r.returncode == 0, "%s: xmllint: %s" % (case, r.stderr.decode()))
    text = open(svg, encoding="utf-8").read()
    strips = re.findall(r"<text [^>]*>([^<]*): 1024 sectors of 512 bytes</text>", text)
    check(strips == images, "%s: strips %s" % (case, strips))
    doc = json.loads(run([PRIVINSPECT, "--json", "compare"] + images).stdout)
    want = {(i + 1, c["copy"]) for i, d in enumerate(doc["compare"]["disks"]) if i + 1 in differ
            for c in d["config_copies"] if c["enabled"]}
    got = {(int(k), int(c)) for c, k in re.findall(
        r'<g class="differs"><title>config copy (\d+) of disk \[(\d+)\][^<]* differs: ', text)}
    check(len(want) == 2 * len(differ) and got == want,
          "%s: outlined %s, want %s" % (case, sorted(got), sorted(want)))

for f in failures:
    print("FAIL:", f)
sys.exit(1 if failures else 0)
