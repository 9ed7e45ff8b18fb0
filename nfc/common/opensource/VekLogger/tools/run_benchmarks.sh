#!/usr/bin/env bash
# From a fresh checkout: install what is missing, build, run the benchmarks against spdlog,
# glog and the floor, and write benchmarks/RESULTS.md and benchmarks/threads.png.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=${VEK_BUILD_DIR:-$(cd "$here/../../../../.." && pwd)/build-bench}
out=$here/../benchmarks
VEK_CMAKE_OPTIONS=-DVEK_BENCHMARKS=ON "$here/host_build.sh" "$build" Release vek_bench \
  libbenchmark-dev libspdlog-dev libgoogle-glog-dev gzip gnuplot-nox python3
scratch=$(mktemp -d)
"$build/nfc/common/opensource/VekLogger/benchmarks/vek_bench" --benchmark_min_time=0.5 \
  --benchmark_repetitions=8 --benchmark_enable_random_interleaving=true \
  --benchmark_report_aggregates_only=true \
  --benchmark_out="$scratch/bench.json" --benchmark_out_format=json | tee "$scratch/stdout.txt"
grep -E '^(sustained|rotation|flush|memory):' "$scratch/stdout.txt" > "$scratch/storage.txt"
python3 "$out/report.py" "$scratch/bench.json" "$scratch/storage.txt" "$scratch"
cp "$scratch/RESULTS.md" "$scratch/threads.png" "$out/"
rm -rf "$scratch"
echo "wrote $out/RESULTS.md and $out/threads.png"
