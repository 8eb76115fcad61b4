#!/bin/bash
# Compares two privdiag binaries on damaged copies of images: every copy is
# run with no sector size, 512 and 4096, and standard output, standard error
# and the exit status must be the same bytes.
#
#   tools/differential.sh OLD_PRIVDIAG NEW_PRIVDIAG COUNT SEED IMAGE...
#
# For each IMAGE, COUNT damaged copies are written to a scratch folder (a
# tenth cut short at a random length, the others with 1 to 8 random bytes
# changed, half of them within the first 64 KiB where the header and the
# TOC usually lie); SEED makes the damage repeatable. Prints each
# difference and a last line "runs=N diffs=M"; exits 1 when M is not 0.
set -euo pipefail
if [ $# -lt 5 ]; then
  sed -n '2,/^set/p' "$0" | sed '$d; s/^# \{0,1\}//' >&2
  exit 2
fi
old=$1 new=$2 count=$3 seed=$4
shift 4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
python3 - "$work" "$count" "$seed" "$@" <<'PY'
import os, random, sys
work, count, seed, images = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), sys.argv[4:]
rng = random.Random(seed)
for n, image in enumerate(images):
    data = open(image, 'rb').read()
    for i in range(count):
        d = bytearray(data)
        if rng.random() < 0.1:
            d = d[:rng.randrange(len(d))]
        else:
            for _ in range(rng.randint(1, 8)):
                limit = 65536 if rng.random() < 0.5 else len(d)
                d[rng.randrange(min(limit, len(d)))] = rng.randrange(256)
        open(os.path.join(work, f"{n}-{i}.img"), 'wb').write(d)
PY
runs=0 diffs=0
for img in "$work"/*.img; do
  for size in "" 512 4096; do
    a=$(LC_ALL=C timeout 60 "$old" $size "$img" 2>"$work/old.err"; echo "status=$?")
    b=$(LC_ALL=C timeout 60 "$new" $size "$img" 2>"$work/new.err"; echo "status=$?")
    runs=$((runs + 1))
    if [ "$a" != "$b" ] || ! cmp -s "$work/old.err" "$work/new.err"; then
      diffs=$((diffs + 1))
      echo "differs: ${size:-no size} $(basename "$img")"
    fi
  done
done
echo "runs=$runs diffs=$diffs"
[ "$diffs" = 0 ]
