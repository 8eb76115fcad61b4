#!/bin/sh
# Times privdiag on generated images of growing size, side by side with
# `cat IMAGE > /dev/null` and `cat REPORT > /dev/null` (reading the image
# and writing its report at the speed of the system alone).
#
#   bench/run.sh [BUILD_DIR]          (default: build, configured with -DPD_BENCH=ON)
#
# Environment: SIZES (records, default "1000 10000 50000 500000 4000000"),
# REPEAT (rounds, default 5), WORK (where images and reports go, default
# BUILD_DIR/bench-data, on a disk rather than tmpfs: the largest report is
# 1.4 GB; images are generated once and kept), SECTOR (512 or 4096, default
# 4096).
#
# Each round runs the three commands one after the other, so that they
# share the machine's load; the table gives the best wall time over the
# rounds with the median and the worst, CPU time and peak resident memory
# from the child's own accounting (wait4), the ratio of privdiag's best
# time to the best times of the two cats together, and the growth of
# privdiag's best time against the previous size (the records grow about
# tenfold, then fivefold and eightfold). After the table, each
# report's SHA-256 (docs/performance.md keeps them: the report never
# changes) and the targets: privdiag at most 10 times the two cats, its
# time and peak memory growing at most 10.5 times from 50,000 to 500,000
# records and 8.5 times from 500,000 to 4,000,000, peak memory under
# 100 MiB at 500,000 and 800 MiB at 4,000,000 records. When privinspect is built, each round
# also runs `privinspect dump` (the whole image as one JSON document): its
# best wall time, peak memory and the ratio of its time to privdiag's; and
# `privinspect map --svg` (the picture of the region and its blocks): its
# best wall time and the size of the SVG, which folds runs of like blocks.
set -eu

BUILD=${1:-build}
SIZES=${SIZES:-"1000 10000 50000 500000 4000000"}
REPEAT=${REPEAT:-5}
WORK=${WORK:-$BUILD/bench-data}
SECTOR=${SECTOR:-4096}

GEN=$BUILD/bench/gen_image
RUNNER=$BUILD/bench/bench_runner
PRIVDIAG=$BUILD/privdiag
PRIVINSPECT=$BUILD/src/bin/privinspect
for f in "$GEN" "$RUNNER" "$PRIVDIAG"; do
  if [ ! -x "$f" ]; then
    echo "run.sh: $f is missing: configure with -DPD_BENCH=ON and build" >&2
    exit 2
  fi
done
mkdir -p "$WORK"

# value KEY LINE: the value of KEY=... in a runner line
value() { echo "$2" | tr ' ' '\n' | sed -n "s/^$1=//p"; }

# stats FILE: "best median max" of the numbers in FILE
stats() { sort -g "$1" | awk '{ v[NR] = $1 } END { printf "%.4f %.4f %.4f", v[1], v[int((NR + 2) / 2)], v[NR] }'; }

printf '%-8s %9s %9s | %-26s %7s %8s | %9s %9s | %6s %7s | %-20s | %s\n' \
  records image_MB report_MB "privdiag wall best/med/max" cpu_s peak_MB \
  cat_img_s cat_rep_s ratio growth "dump --json s/MB/x" "map --svg s/KB"
prev_records=""
prev_best=""
prev_rss=""
prev_n=""
: > "$WORK/t.sums"
: > "$WORK/t.targets"
for n in $SIZES; do
  img=$WORK/img-$SECTOR-$n
  rep=$WORK/report-$SECTOR-$n
  if [ ! -f "$img" ]; then
    "$GEN" "$n" "$img" --sector-size "$SECTOR" 2> "$img.log"
  fi
  records=$(sed -n 's/^gen_image: \([0-9]*\) records.*/\1/p' "$img.log")
  "$PRIVDIAG" "$SECTOR" "$img" > "$rep"
  echo "$(sha256sum < "$rep" | cut -d' ' -f1)  report-$SECTOR-$n ($records records)" >> "$WORK/t.sums"
  : > "$WORK/t.priv"; : > "$WORK/t.cpu"; : > "$WORK/t.rss"; : > "$WORK/t.img"; : > "$WORK/t.rep"
  : > "$WORK/t.json"; : > "$WORK/t.jrss"; : > "$WORK/t.map"
  i=0
  while [ "$i" -lt "$REPEAT" ]; do
    line=$("$RUNNER" --repeat 1 -- "$PRIVDIAG" "$SECTOR" "$img")
    if [ "$(value status "$line")" != 0 ]; then
      echo "run.sh: privdiag failed on $img" >&2
      exit 1
    fi
    value wall_best "$line" >> "$WORK/t.priv"
    value cpu_best "$line" >> "$WORK/t.cpu"
    value maxrss_kb "$line" >> "$WORK/t.rss"
    value wall_best "$("$RUNNER" --repeat 1 -- cat "$img")" >> "$WORK/t.img"
    value wall_best "$("$RUNNER" --repeat 1 -- cat "$rep")" >> "$WORK/t.rep"
    if [ -x "$PRIVINSPECT" ]; then
      line=$("$RUNNER" --repeat 1 -- "$PRIVINSPECT" --sector-size "$SECTOR" dump "$img")
      case $(value status "$line") in
        0 | 1) ;;  # 1: the image's findings (the report's `!!` lines)
        *) echo "run.sh: privinspect dump failed on $img" >&2; exit 1 ;;
      esac
      value wall_best "$line" >> "$WORK/t.json"
      value maxrss_kb "$line" >> "$WORK/t.jrss"
      rm -f "$WORK/map.svg"
      line=$("$RUNNER" --repeat 1 -- "$PRIVINSPECT" --sector-size "$SECTOR" map "$img" --svg "$WORK/map.svg")
      if [ "$(value status "$line")" != 0 ]; then
        echo "run.sh: privinspect map failed on $img" >&2
        exit 1
      fi
      value wall_best "$line" >> "$WORK/t.map"
    fi
    i=$((i + 1))
  done
  set -- $(stats "$WORK/t.priv")
  best=$1 med=$2 max=$3
  cpu=$(stats "$WORK/t.cpu" | cut -d' ' -f1)
  rss=$(sort -n "$WORK/t.rss" | tail -1)
  cimg=$(stats "$WORK/t.img" | cut -d' ' -f1)
  crep=$(stats "$WORK/t.rep" | cut -d' ' -f1)
  isize=$(wc -c < "$img")
  rsize=$(wc -c < "$rep")
  json="-"
  if [ -s "$WORK/t.json" ]; then
    jbest=$(stats "$WORK/t.json" | cut -d' ' -f1)
    jrss=$(sort -n "$WORK/t.jrss" | tail -1)
    json=$(awk -v j="$jbest" -v r="$jrss" -v b="$best" 'BEGIN { printf "%.3f/%.1f/%.1fx", j, r / 1024, j / b }')
  fi
  map="-"
  if [ -s "$WORK/t.map" ]; then
    map=$(awk -v m="$(stats "$WORK/t.map" | cut -d' ' -f1)" -v z="$(wc -c < "$WORK/map.svg")" \
      'BEGIN { printf "%.3f/%.1f", m, z / 1024 }')
  fi
  awk -v n="$records" -v is="$isize" -v rs="$rsize" -v b="$best" -v m="$med" -v x="$max" \
      -v c="$cpu" -v r="$rss" -v ci="$cimg" -v cr="$crep" -v pn="$prev_records" -v pb="$prev_best" -v js="$json" -v mp="$map" '
    BEGIN {
      growth = "-"
      if (pn != "") growth = sprintf("%.1fx/%.1fx", b / pb, n / pn)
      printf "%-8d %9.1f %9.1f | %8.3f %8.3f %8.3f %7.3f %8.1f | %9.4f %9.4f | %6.1f %7s | %-20s | %s\n",
        n, is / 1048576, rs / 1048576, b, m, x, c, r / 1024, ci, cr, b / (ci + cr), growth, js, mp
    }'
  # The targets that apply at this size (by the nominal size asked for).
  awk -v n="$n" -v b="$best" -v ci="$cimg" -v cr="$crep" -v r="$rss" -v pn="$prev_records" \
      -v pb="$prev_best" -v pr="$prev_rss" -v rn="$records" -v pnn="$prev_n" '
    function line(what, ok) { printf "%-8d %-52s %s\n", n, what, ok ? "met" : "NOT MET" }
    BEGIN {
      if (n == 500000) {
        line(sprintf("time %.1fx the cats (at most 10x)", b / (ci + cr)), b / (ci + cr) <= 10)
        line(sprintf("time %.3f s (under 0.5 s on a quiet machine)", b), b < 0.5)
        line(sprintf("peak %.1f MiB (under 100 MiB)", r / 1024), r / 1024 < 100)
      }
      if (n == 4000000) {
        line(sprintf("time %.3f s (under 4 s on a quiet machine)", b), b < 4)
        line(sprintf("peak %.1f MiB (under 800 MiB)", r / 1024), r / 1024 < 800)
      }
      if ((n == 500000 && pnn == 50000) || (n == 4000000 && pnn == 500000)) {
        lim = n == 500000 ? 10.5 : 8.5
        line(sprintf("time grows %.1fx for %.1fx records (at most %.1fx)", b / pb, rn / pn, lim),
             b / pb <= lim)
        line(sprintf("peak grows %.1fx (at most %.1fx)", r / pr, lim), r / pr <= lim)
      }
    }' >> "$WORK/t.targets"
  prev_records=$records
  prev_best=$best
  prev_rss=$rss
  prev_n=$n
done
echo
echo "report SHA-256:"
cat "$WORK/t.sums"
if [ -s "$WORK/t.targets" ]; then
  echo
  echo "targets:"
  cat "$WORK/t.targets"
fi
rm -f "$WORK/t.sums" "$WORK/t.targets"
rm -f "$WORK/t.priv" "$WORK/t.cpu" "$WORK/t.rss" "$WORK/t.img" "$WORK/t.rep" "$WORK/t.json" "$WORK/t.jrss" \
  "$WORK/t.map" "$WORK/map.svg"
