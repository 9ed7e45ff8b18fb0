#!/usr/bin/env bash
# From a fresh checkout: install what is missing, build, run the benchmarks against spdlog,
# glog and the floor (vek_bench), then the per-call latency of __vek_log_i and spdlog while
# both rotate (vek_latency), and write RESULTS.md, threads.png and latency.png.
#
#   run_benchmarks.sh [--calls N] [--quick] [--out DIR]
#
# --calls: latency calls per logger and thread count (default 1200000, about six rotations).
# --quick: checks that the whole pipeline works, in about 10 seconds: two short repetitions
#          per benchmark and 120000 latency calls (fewer than a rotation needs, so the latency
#          targets are not judged). Its figures are no results.
# --out:   where the page and plots go (default: the module's benchmarks/).
# A full run takes about 2 minutes on the 2-core machine, once installed and built.
#
# RESULTS.md is written whole by each run. The reason for each target it marks not met, and
# any other reading of the figures, is written by hand into benchmarks/ANALYSIS.md, which no
# run touches: update it after a results run.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=${VEK_BUILD_DIR:-$(cd "$here/../../../../.." && pwd)/build-bench}
out=$here/../benchmarks
calls=
bench_options=(--benchmark_min_time=0.5 --benchmark_repetitions=8)
while [ $# -gt 0 ]; do
  case "$1" in
    --calls) calls=$2; shift 2 ;;
    --quick)
      bench_options=(--benchmark_min_time=0.05 --benchmark_repetitions=2)
      calls=${calls:-120000}
      shift
      ;;
    --out) out=$2; shift 2 ;;
    *) echo "usage: $0 [--calls N] [--quick] [--out DIR]" >&2; exit 2 ;;
  esac
done
mkdir -p "$out"
out=$(cd "$out" && pwd)

VEK_CMAKE_OPTIONS=-DVEK_BENCHMARKS=ON "$here/host_build.sh" "$build" Release vek_bench \
  libbenchmark-dev libspdlog-dev libgoogle-glog-dev gzip gnuplot-nox python3
cmake --build "$build" -j"$(nproc)" --target vek_latency
bin=$build/nfc/common/opensource/VekLogger/benchmarks
scratch=$(mktemp -d)
"$bin/vek_bench" "${bench_options[@]}" --benchmark_enable_random_interleaving=true \
  --benchmark_report_aggregates_only=true \
  --benchmark_out="$scratch/bench.json" --benchmark_out_format=json | tee "$scratch/stdout.txt"
grep -E '^(sustained|rotation|flush|memory):' "$scratch/stdout.txt" > "$scratch/storage.txt"
"$bin/vek_latency" --calls "${calls:-1200000}" --out "$scratch/latency.json" |
  tee "$scratch/latency.txt"
grep -E '^handover:' "$scratch/latency.txt" >> "$scratch/storage.txt"
python3 "$here/../benchmarks/report.py" "$scratch/bench.json" "$scratch/storage.txt" \
  "$scratch/latency.json" "$scratch"
cp "$scratch/RESULTS.md" "$scratch/threads.png" "$scratch/latency.png" "$out/"
rm -rf "$scratch"
echo "wrote $out/RESULTS.md, $out/threads.png and $out/latency.png"
