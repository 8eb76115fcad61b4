#!/usr/bin/env bash
# fuzz/run.sh TARGET SECONDS [libFuzzer options...]
#
# Runs fuzz target TARGET (pipeline, codec or store) for SECONDS seconds over
# its working corpus (BUILD/corpus/TARGET, started from the generated seeds),
# then keeps what it found: every crash, timeout, memory blow-up or leak is
# copied into tests/data/regress/TARGET/ (named by its content hash), where
# the regression test replays it. The last lines of libFuzzer's log
# (executions, coverage) are printed; the whole log is BUILD/logs/TARGET.log.
#
# BUILD is $PD_FUZZ_BUILD or build-fuzz, configured with
#   cmake -S . -B build-fuzz -DCMAKE_CXX_COMPILER=clang++ -DPD_FUZZ=ON -DPD_TESTS=OFF
# and built here when needed. Exit status: 0 when the run found nothing.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ $# -lt 2 ]; then
  echo "usage: fuzz/run.sh TARGET SECONDS [libFuzzer options...]" >&2
  exit 2
fi
target=$1
seconds=$2
shift 2

case "$target" in
  pipeline) max_len=300000 ;;   # raw images up to 256 KiB; sparse ones are small
  codec) max_len=20000 ;;
  store) max_len=140000 ;;      # copies up to 128 KiB
  *) echo "unknown target $target (pipeline, codec, store)" >&2; exit 2 ;;
esac

build=${PD_FUZZ_BUILD:-build-fuzz}
if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S . -B "$build" -DCMAKE_CXX_COMPILER=clang++ -DPD_FUZZ=ON -DPD_TESTS=OFF >/dev/null
fi
cmake --build "$build" --target "fuzz_$target" make_seeds -j2 >/dev/null

seeds=$build/seeds
if [ ! -d "$seeds/$target" ]; then
  "$build/fuzz/make_seeds" "$seeds" >/dev/null
fi
corpus=$build/corpus/$target
artifacts=$build/artifacts/$target
regress=tests/data/regress/$target
mkdir -p "$corpus" "$artifacts" "$build/logs" "$regress"
log=$build/logs/$target.log

# Bounds: a few seconds per input (sanitizers included), 1 GiB of resident
# memory, 256 MiB in one allocation.
status=0
"$build/fuzz/fuzz_$target" -max_total_time="$seconds" -max_len="$max_len" -timeout=10 \
  -rss_limit_mb=1024 -malloc_limit_mb=256 -print_final_stats=1 \
  -artifact_prefix="$artifacts/" "$@" "$corpus" "$seeds/$target" >"$log" 2>&1 || status=$?

found=0
for f in "$artifacts"/crash-* "$artifacts"/timeout-* "$artifacts"/oom-* "$artifacts"/leak-* \
         "$artifacts"/slow-unit-*; do
  [ -e "$f" ] || continue
  kind=$(basename "$f" | cut -d- -f1)
  name=$kind-$(sha1sum "$f" | cut -c1-16)
  if [ ! -e "$regress/$name" ]; then
    cp "$f" "$regress/$name"
    echo "kept $regress/$name"
  fi
  rm -f "$f"
  found=$((found + 1))
done

grep -E '^#[0-9]+.*(DONE|pulse|NEW|REDUCE|INITED)' "$log" | tail -n 2 || true
grep -E '^stat::' "$log" || true
if [ "$status" -ne 0 ] || [ "$found" -ne 0 ]; then
  grep -E 'ERROR|SUMMARY|Test unit written|runtime error' "$log" | head -n 20 || true
  exit 1
fi
exit 0
