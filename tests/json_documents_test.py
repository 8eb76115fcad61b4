#!/usr/bin/env python3
"""privinspect's JSON documents, end to end.

  json_documents_test.py PRIVINSPECT PRIVDIAG PRIVBUILD SCHEMA WORKDIR

Builds good and damaged images with privbuild and runs every subcommand
with --json, and dump, on each: standard output must be one document, valid
UTF-8, valid against the schema, whose exit_status is the process's. Then,
for every image, dump must agree with privdiag's report: records (ref, type
word, size, blocks, name and rid), block map, the header's counts and the
texts of the findings. The text and JSON scan and headers views agree:
a hit per line, the same damaged sectors, the same checksums, decodes and
choice. Last, a record name of control bytes and invalid
UTF-8 comes out as valid UTF-8 with its raw bytes in name_hex.
"""
import json
import os
import re
import subprocess
import sys

import jsonschema

PRIVINSPECT, PRIVDIAG, PRIVBUILD, SCHEMA, WORK = sys.argv[1:6]

DISK = """disk sector-size=512 sectors=2048
header diskid=disk01 seqno=0.17
region config copy=1 offset=17 len=400
region log copy=1 offset=1617 len=100 content=log begin
  block tid=0.200 seqno=7
  entry type=detach rid=0.1001 tid=0.199
  entry type=app_dirty rid=0.1001 tid=0.199
  entry type=commit tid=0.200
%s
end
"""
RECORDS = """  group name=dg1 rid=0.1000 version=171
  volume name=vol1 rid=0.1001 len=2048 pl_num=%s state=ACTIVE
  plex name=vol1-01 rid=0.1002 vol_rid=0.1001 sd_num=1
  subdisk name=sd1 rid=0.1003 plex_rid=0.1002 dm_rid=0.1004 len=2048
  disk name=disk01 rid=0.1004 diskid=a0000002-1234-0002-4041-424344454647
  disk name=disk02 rid=0.1005 diskid=%s
"""


def image(log_extra="", database="", pl_num="1", diskid2="b0000002-1234-0002-4041-424344454647",
          extra="", tail=""):
    return (DISK % log_extra + "copy-content config copy=1 content=config begin\n"
            "  database version=4.17 dgname=dg1 config-tid=0.200 %s\n" % database
            + RECORDS % (pl_num, diskid2) + extra + "end\n" + tail)


IMAGES = {
    "good": image(),
    "bad-block-magic": image(extra="  block at=40 magic=XBLK\n"),
    "header-checksum": image(tail="hdrcopy primary damage=checksum\n"),
    "both-headers-bad": image(tail="hdrcopy primary damage=magic\nhdrcopy alternate damage=magic\n"),
    "missing-children": image(pl_num="3"),
    "duplicate-disk-id": image(diskid2="a0000002-1234-0002-4041-424344454647"),
    "premature-end": image(database="nblocks=2000"),
    "count-mismatch": image(database="vs_v_cnt=3"),
    "refused-log-block": image(log_extra="  block tid=0.200 seqno=8 blkno=9"),
    "odd-name": image(extra="  volume name=ctlname1 rid=0.1010 len=8 pl_num=0\n"),
}
ODD_NAME = bytes([0x01, 0x1F, 0xFF, 0xC3, 0x28, 0xE2, 0x82, 0x7F])

VIEWS = [
    ["dump"],
    ["--json", "logs"], ["--json", "logs", "--copy", "1"],
    ["--json", "config", "--copy", "1"], ["--json", "headers"], ["--json", "check"],
    ["--json", "scan"], ["--json", "hexdump", "--sector", "2047", "--count", "2"],
    ["--json", "hexdump", "--block", "1:0"], ["--json", "hexdump", "--record", "vol1"],
    ["--json", "records"], ["--json", "records", "--type", "disk"], ["--json", "locate"], ["--json", "map"],
]

failures = []


def check(cond, what):
    if not cond:
        failures.append(what)
    return cond


def build(name, desc):
    path = "%s/%s.img" % (WORK, name)
    with open(path + ".desc", "w") as f:
        f.write(desc)
    subprocess.run([PRIVBUILD, path + ".desc", path], check=True)
    if name == "odd-name":
        data = open(path, "rb").read()
        assert data.count(b"ctlname1") == 1
        open(path, "wb").write(data.replace(b"ctlname1", ODD_NAME))
    return path


def run_json(args, path):
    # The image goes after the subcommand (the first word that is not --json).
    at = 2 if args[0] == "--json" else 1
    argv = [PRIVINSPECT] + args[:at] + [path] + args[at:]
    r = subprocess.run(argv, capture_output=True)
    what = " ".join(argv[1:])
    try:
        doc = json.loads(r.stdout.decode("utf-8", errors="strict"))
    except (UnicodeDecodeError, ValueError) as e:
        check(False, "%s: not one UTF-8 JSON document: %s" % (what, e))
        return None
    errors = sorted(validator.iter_errors(doc), key=lambda e: list(e.path))
    check(not errors, "%s: %s" % (what, "; ".join(
        "%s: %s" % ("/".join(map(str, e.path)), e.message[:200]) for e in errors[:3])))
    check(doc["exit_status"] == r.returncode,
          "%s: exit_status %s, process %d" % (what, doc["exit_status"], r.returncode))
    check(doc["analysis_complete"] == ("stop" not in doc), what + ": analysis_complete and stop disagree")
    return doc


# privdiag's report, as the lines the agreement compares.
RECORD = re.compile(r"^#Record +(\d+): type=(0x[0-9a-f]+) flags=0x[0-9a-f]+ gen_flags=0x[0-9a-f]+ size=(\d+)$")
NAMED = re.compile(r"^ [A-Za-z]+: +(\S*) rid=(\d+\.\d+)")
BLOCK = re.compile(r"^#Block +(\d+): flag=(0x[0-9a-f]{4})(?: ref=(\d+) +offset=(\d+) +frag_size=(\d+))?")
COUNTS = re.compile(r"^#config: tid=\S+ nvol=(\d+) nplex=(\d+) nsd=(\d+) ndm=(\d+)")


def agree(name, path, doc):
    r = subprocess.run([PRIVDIAG, path], capture_output=True)
    out = r.stdout.decode("utf-8", errors="replace").splitlines()
    text = out + r.stderr.decode("utf-8", errors="replace").splitlines()
    records, blocks, counts, i = [], [], None, 0
    while i < len(out):
        m = RECORD.match(out[i])
        if m:
            blist = [int(b) for b in out[i + 1].split()[1:]]
            n = NAMED.match(out[i + 2]) if i + 2 < len(out) else None
            records.append((int(m[1]), int(m[2], 16) & 0xFFFF, int(m[3]), blist,
                            (n[1], n[2]) if n else None))
        m = BLOCK.match(out[i])
        if m:
            blocks.append((int(m[1]), m[2]) + ((int(m[3]), int(m[4]), int(m[5])) if m[3] else ()))
        m = COUNTS.match(out[i])
        if m:
            counts = [int(v) for v in m.groups()]
        i += 1
    config = doc.get("config")
    if not check(config is not None or not records, name + ": dump has no config, privdiag has records"):
        return
    if config is None:
        return
    mine = [(r["ref"], int(r["type_word"], 16) & 0xFFFF, r["size"], r["blocks"],
             (r["name"], r["rid"]) if r["decoded"] else None) for r in config["records"]]
    check(len(mine) == len(records) and records, name + ": %d record(s), privdiag %d" % (len(mine), len(records)))
    # A line naming a record gives its name and rid; other kinds' lines do not.
    mine = [m if theirs[4] is not None else m[:4] + (None,) for m, theirs in zip(mine, records)]
    check(mine == records, name + ": records differ from privdiag's\n%s\n%s" % (mine, records))
    myblocks = [(b["block"], b["flag"]) + ((b["ref"], b["offset"], b["frag_size"]) if "ref" in b else ())
                for b in config["blocks"]]
    check(myblocks == blocks and blocks, name + ": block map differs from privdiag's")
    c = config["counts"]
    check([c[k]["header"] for k in ("volumes", "plexes", "subdisks", "disks")] == counts,
          name + ": header counts differ")
    # Every finding of the report path is a line privdiag prints, and every
    # "!!" line privdiag prints is a finding's text.
    report_texts = [f["text"] for f in doc["findings"]
                    if f["code"] not in ("header-checksum", "header-undecodable", "header-choice",
                                         "log-block-invalid")]
    joined = "\n".join(text)
    for t in report_texts:
        check(t in joined, "%s: finding not in privdiag's output: %s" % (name, t))
    for line in out:
        if "!!" in line:
            check(any(t in line for t in report_texts), "%s: privdiag's %r is no finding" % (name, line))


with open(SCHEMA) as f:
    schema = json.load(f)
jsonschema.Draft202012Validator.check_schema(schema)
validator = jsonschema.Draft202012Validator(schema)

codes_seen = set()
for name, desc in IMAGES.items():
    path = build(name, desc)
    for view in VIEWS:
        doc = run_json(view, path)
        if doc is None:
            continue
        codes_seen.update(f["code"] for f in doc["findings"])
        if view == ["--json", "check"] and name != "odd-name":
            # The text check: the same status, and a line for every finding.
            r = subprocess.run([PRIVINSPECT, "check", path], capture_output=True, text=True)
            lines = r.stdout.splitlines()[:-1]
            check(r.returncode == doc["exit_status"],
                  "%s: check says %d, --json check %d" % (name, r.returncode, doc["exit_status"]))
            missing = [f["text"] for f in doc["findings"] if f["text"] not in lines]
            check(not missing, "%s: findings not in check's lines: %s" % (name, missing))
        if view == ["dump"]:
            agree(name, path, doc)
            if name == "odd-name":
                odd = [r for r in doc["config"]["records"] if r.get("name_hex") == ODD_NAME.hex()]
                check(len(odd) == 1 and odd[0]["name"] == "\x01\x1f\ufffd\ufffd(\ufffd\ufffd\x7f",
                      "odd-name: %r" % [r.get("name") for r in odd])


# Text and JSON print one model: scan's lines and hits, headers' verdicts.
LINE_SECTOR = re.compile(r"^sectors? (\d+)")
CHECKSUM = re.compile(r"^    checksum: (0x[0-9a-f]{8}) (?:correct|expected (0x[0-9a-f]{8}))$")
DECODE = re.compile(r"^    decode:   (?:ok|error (\d+): )")


def text_and_json(args, path):
    r = subprocess.run([PRIVINSPECT, args[0], path] + args[1:], capture_output=True, text=True)
    return r.stdout.splitlines(), run_json(["--json"] + args, path)


def views_agree(name, path):
    for args in (["scan"], ["scan", "--range", "18:400"]):
        lines, doc = text_and_json(args, path)
        if doc is None:
            continue
        lines, hits = lines[1:-1], doc["scan"]["hits"]
        what = "%s: %s" % (name, " ".join(args))
        check(len(lines) == len(hits), "%s: %d line(s), %d hit(s)" % (what, len(lines), len(hits)))
        check([int(LINE_SECTOR.match(l)[1]) for l in lines] == [h["sector"] for h in hits],
              what + ": the sectors of lines and hits differ")
        check([int(LINE_SECTOR.match(l)[1]) for l in lines if "damaged: " in l]
              == [h["sector"] for h in hits if h["kind"] == "damaged"], what + ": damaged sectors differ")
    lines, doc = text_and_json(["headers"], path)
    if doc is None:
        return
    sums = [m.groups() for m in map(CHECKSUM.match, lines) if m]
    decodes = [int(m[1] or 0) for m in map(DECODE.match, lines) if m]
    h = doc["headers"]
    check(sums == [(c["checksum"]["stored"], None if c["checksum"]["ok"] else c["checksum"]["computed"])
                   for c in (h["primary"], h["alternate"])], name + ": headers' checksums differ")
    check(decodes == [h["primary"]["decode"]["status"], h["alternate"]["decode"]["status"]],
          name + ": headers' decodes differ")
    check(h["scan"]["why"] in lines, name + ": headers' choice differs: " + h["scan"]["why"])
    chosen = {"primary": "primary chosen", "alternate": "alternate ", "none": "no header chosen"}
    check(chosen[h["scan"]["chosen"]] in h["scan"]["why"], name + ": chosen and why disagree")


for name in ("good", "bad-block-magic", "header-checksum", "both-headers-bad", "refused-log-block"):
    views_agree(name, "%s/%s.img" % (WORK, name))
damaged = run_json(["--json", "scan"], WORK + "/bad-block-magic.img")["scan"]
check(damaged["damaged"] == 1 and [h["found"] for h in damaged["hits"] if h["kind"] == "damaged"] == ["XBLK"],
      "bad-block-magic: the damaged block is not in the document")
past = run_json(["--json", "scan", "--range", "5000:1"], WORK + "/good.img")
check(past["exit_status"] == 1 and past["stop"]["stage"] == "scan", "scan --range past the end: %s" % past.get("stop"))

# An image that cannot be opened and one too short for the headers stop early.
for args, status, stage in ((["dump", WORK + "/absent.img"], 3, "open"),
                            (["dump", WORK + "/short.img"], 1, "scan")):
    open(WORK + "/short.img", "wb").write(bytes(4096))
    r = subprocess.run([PRIVINSPECT] + args, capture_output=True)
    doc = json.loads(r.stdout)
    check(r.returncode == status and doc["exit_status"] == status and doc["stop"]["stage"] == stage
          and validator.is_valid(doc), "%s: %d %s" % (args, r.returncode, doc.get("stop")))
# repair: the plan (dry run), the document of a real run and its log beside
# OUT are one document; OUT being the input is refused at the repair stage.
hdr_bad = build("repairable", image(tail="hdrcopy primary damage=checksum\nhdrcopy alternate\n"))
out = WORK + "/repaired.img"
for stale in (out, out + ".repair.json"):
    if os.path.exists(stale):
        os.unlink(stale)
for args, status in ((["--dry-run"], 0), ([], 0), (["--force"], 0)):
    r = subprocess.run([PRIVINSPECT, "--json", "repair", hdr_bad, out] + args, capture_output=True)
    doc = json.loads(r.stdout)
    check(r.returncode == status and doc["exit_status"] == status and validator.is_valid(doc)
          and doc["repair"]["actions"][0]["copy"] == "primary" and doc["repair"]["written"] == (args != ["--dry-run"]),
          "repair %s: %d %s" % (args, r.returncode, r.stderr))
    if args == ["--force"]:
        check(open(out + ".repair.json", "rb").read() == r.stdout, "repair: the log is not the document")
r = subprocess.run([PRIVINSPECT, "--json", "repair", hdr_bad, hdr_bad, "--force"], capture_output=True)
doc = json.loads(r.stdout)
check(r.returncode == 3 and validator.is_valid(doc) and doc["stop"]["stage"] == "repair",
      "repair onto its input: %d %s" % (r.returncode, doc.get("stop")))
# extract: the region written, and OUT being the input refused at the extract stage.
good = WORK + "/good.img"
for out, status in ((WORK + "/extracted.img", 0), (good, 3)):
    r = subprocess.run([PRIVINSPECT, "--json", "extract", good, out, "--force"], capture_output=True)
    doc = json.loads(r.stdout)
    if status == 0:
        size = os.path.getsize(good)
        ok = doc.get("extract") == {"out": out, "offset": 0, "length": size, "bytes": size}
    else:
        ok = doc["stop"]["stage"] == "extract" and "extract" not in doc
    check(r.returncode == status and doc["exit_status"] == status and ok and validator.is_valid(doc),
          "extract %s: %d %s" % (out, r.returncode, doc))
# compare: a group of two disks, one stale and lacking the other's dm record;
# the same disks agreeing; no image to read.
GROUP_DISK = """disk sector-size=512 sectors=1024
header diskid=%s dgname=dg1 dgid=8f1e3b4c-0d2a-4e5f-9a6b-7c8d9e0f1a2b seqno=%s
region config copy=1 offset=17 len=300
copy-content config copy=1 content=config begin
  database dgname=dg1 dgid=8f1e3b4c-0d2a-4e5f-9a6b-7c8d9e0f1a2b config-tid=%s
  group name=dg1 rid=0.1000 version=171
  disk name=disk01 rid=0.1001 diskid=a0000001-1234-0002-4041-424344454647
%s  volume name=vol1 rid=0.1010 len=2048 pl_num=1
end
"""
build("group1", GROUP_DISK % ("a0000001-1234-0002-4041-424344454647", "0.17", "0.250", "  disk name=disk02 rid=0.1002 diskid=a0000002-1234-0002-4041-424344454647\n"))
build("group2", GROUP_DISK % ("a0000002-1234-0002-4041-424344454647", "0.17", "0.250", "  disk name=disk02 rid=0.1002 diskid=a0000002-1234-0002-4041-424344454647\n"))
build("group2-stale", GROUP_DISK % ("a0000002-1234-0002-4041-424344454647", "0.16", "0.240", ""))
for images, status, want in (
        (["group1", "group2-stale"], 1,
         lambda c: c["stale"][0]["disk"] == 2 and c["membership"][1]["holds"] == [True, False]
         and c["records"][0]["missing"] == [2]),
        (["group1", "group2"], 0, lambda c: len(c["same_database"]) == 1 and c["verdict"] == "agree"),
        (["no-such"], 3, lambda c: c["verdict"] == "unreadable")):
    r = subprocess.run([PRIVINSPECT, "--json", "compare"] + ["%s/%s.img" % (WORK, i) for i in images],
                       capture_output=True)
    doc = json.loads(r.stdout)
    check(r.returncode == status and doc["exit_status"] == status and validator.is_valid(doc)
          and want(doc["compare"]), "compare %s: %d %s" % (images, r.returncode, doc.get("compare")))
for code in ("extract-error", "header-checksum", "missing-children", "duplicate-disk-id",
             "premature-eof", "log-block-invalid", "volume-count"):
    check(code in codes_seen, "no image gave the finding " + code)

for f in failures:
    print("FAIL:", f)
print("json documents: %d image(s), %d view(s), %d failure(s)" % (len(IMAGES), len(VIEWS), len(failures)))
sys.exit(1 if failures else 0)
