#!/usr/bin/env bash
# From a fresh checkout: install what is missing, build, run the benchmarks against spdlog,
# glog and the floor (vek_bench), then the per-call latency of __vek_log_i and spdlog while
# both rotate (vek_latency), then the resident memory of idle processes beside spdlog's
# (vek_rss), and write RESULTS.md, threads.png and latency.png. The crash tail's cost is measured
# in the same run: the same build alternately with the tail and without (VEK_NO_CRASH_TAIL).
#
#   run_benchmarks.sh [--calls N] [--quick] [--out DIR] [--baseline REV]
#
# --calls:    latency calls per logger and thread count (default 1200000, about six rotations).
# --quick:    checks that the whole pipeline works, in about 25 seconds (35 with --baseline,
#             once built): two short repetitions per benchmark, 120000 latency calls (fewer
#             than a rotation needs, so the latency targets are not judged) and no rotation in
#             vek_rss, whose other scenarios still idle 3 s each. Its figures are no results.
# --out:      where the page and plots go (default: the module's benchmarks/).
# --baseline: also builds the library as git revision REV has it, with these benchmark
#             programs, and compares: __vek_log_i per line and its per-call latency at 1 and 2
#             threads, the two builds run alternately, and vek_rss for REV.
# A full run takes about 5 minutes on the 2-core machine, once installed and built (vek_rss's
# idle processes take 20 s of it, the tail on and off 2.5 minutes); --baseline brings it to about
# seven, and the first build of REV.
#
# RESULTS.md is written whole by each run. The reason for each target it marks not met, and
# any other reading of the figures, is written by hand into benchmarks/ANALYSIS.md, which no
# run touches: update it after a results run.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
top=$(cd "$here/../../../../.." && pwd)
build=${VEK_BUILD_DIR:-$top/build-bench}
out=$here/../benchmarks
calls=
baseline=
bench_options=(--benchmark_min_time=0.5 --benchmark_repetitions=8)
# The before-and-after runs: rounds of each build, and the options of one round.
rounds=8
latency_rounds=7
ab_options=(--benchmark_min_time=0.5)
rss_options=()
while [ $# -gt 0 ]; do
  case "$1" in
    --calls) calls=$2; shift 2 ;;
    --quick)
      bench_options=(--benchmark_min_time=0.05 --benchmark_repetitions=2)
      calls=${calls:-120000}
      rounds=2
      latency_rounds=1
      ab_options=(--benchmark_min_time=0.05)
      rss_options=(--quick)
      shift
      ;;
    --out) out=$2; shift 2 ;;
    --baseline) baseline=$2; shift 2 ;;
    *) echo "usage: $0 [--calls N] [--quick] [--out DIR] [--baseline REV]" >&2; exit 2 ;;
  esac
done
mkdir -p "$out"
out=$(cd "$out" && pwd)

# build_benchmarks BUILD_DIR [CMAKE_OPTION]
build_benchmarks() {
  VEK_CMAKE_OPTIONS="-DVEK_BENCHMARKS=ON ${2:-}" "$here/host_build.sh" "$1" Release vek_bench \
    libbenchmark-dev libspdlog-dev libgoogle-glog-dev gzip gnuplot-nox python3
  cmake --build "$1" -j"$(nproc)" --target vek_latency vek_rss
}
build_benchmarks "$build"
bin=$build/nfc/common/opensource/VekLogger/benchmarks
if [ -n "$baseline" ]; then
  rev=$(git -C "$here" rev-parse --verify "$baseline^{commit}")
  # The revision's tree, extracted again only when REV changes, so its build stays incremental.
  # Its build starts over then: git archive dates each file to its commit, which can be older
  # than the objects built from another revision.
  source=$build/baseline/source
  if [ "$(cat "$source/.rev" 2>/dev/null)" != "$rev" ]; then
    rm -rf "$build/baseline"
    mkdir -p "$source"
    git -C "$top" archive "$rev" | tar -x -C "$source"
    echo "$rev" > "$source/.rev"
  fi
  build_benchmarks "$build/baseline/build" "-DVEK_BASELINE_SOURCE=$source"
  base_bin=$build/baseline/build/nfc/common/opensource/VekLogger/benchmarks
fi
scratch=$(mktemp -d)
"$bin/vek_bench" "${bench_options[@]}" --benchmark_enable_random_interleaving=true \
  --benchmark_report_aggregates_only=true \
  --benchmark_out="$scratch/bench.json" --benchmark_out_format=json | tee "$scratch/stdout.txt"
grep -E '^(sustained|rotation|flush|memory):' "$scratch/stdout.txt" > "$scratch/storage.txt"
# A flush's cost where a sync really writes: an ext4 file system of its own on a loop device
# (as root), the sync on and off (VEK_NO_FLUSH_SYNC), alternately.
ext4=$scratch/ext4
if truncate -s 256M "$ext4.img" && mkfs.ext4 -q -F "$ext4.img" && mkdir "$ext4" &&
  mount -o loop "$ext4.img" "$ext4" 2>/dev/null; then
  for round in 1 2 3; do
    for side in synced "not synced"; do
      off=()
      [ "$side" = synced ] || off=(VEK_NO_FLUSH_SYNC=1)
      env "${off[@]}" TMPDIR="$ext4" "$bin/vek_bench" --flush-only |
        sed "s/^flush:/flush on ext4, $side, round $round:/" >> "$scratch/storage.txt"
    done
  done
  umount "$ext4"
else
  echo "flush on ext4: not measured (needs root and a loop device)" >> "$scratch/storage.txt"
fi
rm -f "$ext4.img"
"$bin/vek_latency" --calls "${calls:-1200000}" --out "$scratch/latency.json" |
  tee "$scratch/latency.txt"
grep -E '^handover:' "$scratch/latency.txt" >> "$scratch/storage.txt"

# The crash tail on and off, the same build alternately (host builds skip the tail when
# VEK_NO_CRASH_TAIL is set): per line while rotating and while only appending, and per call.
# The two sides of an alternating comparison in the order of round $1: each goes first in every
# other round, so that a slow spell of the machine does not fall on one side.
sides() { if [ $(($1 % 2)) -eq 1 ]; then echo "$2 $3"; else echo "$3 $2"; fi; }
tail_ab=$scratch/tail
mkdir "$tail_ab"
tail_side() { if [ "$1" = off ]; then VEK_NO_CRASH_TAIL=1 "${@:2}"; else "${@:2}"; fi; }
for round in $(seq "$rounds"); do
  echo "crash tail on and off: __vek_log_i per line, round $round of $rounds"
  for side in $(sides "$round" on off); do
    tail_side "$side" "$bin/vek_bench" --benchmark_filter='BM_VekLogI(/print:0|AppendOnly)/' \
      "${ab_options[@]}" --benchmark_format=json --no-storage > "$tail_ab/perline-$side-$round.json"
  done
done
for round in $(seq "$latency_rounds"); do
  echo "crash tail on and off: __vek_log_i per call, round $round of $latency_rounds"
  for side in $(sides "$round" on off); do
    tail_side "$side" "$bin/vek_latency" --library-only --calls "${calls:-1200000}" \
      --out "$tail_ab/latency-$side-$round.json" > /dev/null
  done
done

side_bin() { if [ "$1" = current ]; then echo "$bin"; else echo "$base_bin"; fi; }
ab=
if [ -n "$baseline" ]; then
  ab=$scratch/ab
  mkdir "$ab"
  echo "baseline $rev ($baseline)" > "$ab/revs"
  # Pages and plots (a run's own output among them) change no build.
  dirty=$(git -C "$top" status --porcelain --untracked-files=no -- ':!*.md' ':!*.png')
  echo "current $(git -C "$top" rev-parse HEAD)${dirty:+ with uncommitted changes}" >> "$ab/revs"
  # Alternating, so that a slow spell of the machine does not fall on one build.
  for round in $(seq "$rounds"); do
    echo "before and after: __vek_log_i per line, round $round of $rounds"
    for side in $(sides "$round" current baseline); do
      "$(side_bin "$side")/vek_bench" --benchmark_filter=BM_VekLogI/print:0/ "${ab_options[@]}" \
        --benchmark_format=json --no-storage > "$ab/perline-$side-$round.json"
    done
  done
  for round in $(seq "$latency_rounds"); do
    echo "before and after: __vek_log_i per call, round $round of $latency_rounds"
    for side in $(sides "$round" current baseline); do
      "$(side_bin "$side")/vek_latency" --library-only --calls "${calls:-1200000}" \
        --out "$ab/latency-$side-$round.json" > /dev/null
    done
  done
fi

"$bin/vek_rss" "${rss_options[@]}" | tee "$scratch/rss.txt"
if [ -n "$baseline" ]; then
  "$base_bin/vek_rss" "${rss_options[@]}" --as baseline | tee -a "$scratch/rss.txt"
fi
python3 "$here/../benchmarks/report.py" "$scratch/bench.json" "$scratch/storage.txt" \
  "$scratch/latency.json" "$scratch/rss.txt" "$scratch" "$tail_ab" ${ab:+"$ab"}
cp "$scratch/RESULTS.md" "$scratch/threads.png" "$scratch/latency.png" "$out/"
rm -rf "$scratch"
echo "wrote $out/RESULTS.md, $out/threads.png and $out/latency.png"
