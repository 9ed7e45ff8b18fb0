#!/usr/bin/env python3
"""Turns one vek_bench run (Google Benchmark JSON plus the storage figures it printed) into
RESULTS.md with the ratio table and threads.png, nanoseconds per line against threads.
RESULTS.md is written whole; the reading of the figures is kept by hand in ANALYSIS.md."""
import json
import re
import subprocess
import sys

bench_json, storage_txt, out_dir = sys.argv[1], sys.argv[2], sys.argv[3]
run = json.load(open(bench_json))
storage = open(storage_txt).read()

NOT_MET = "**no**: reason in [ANALYSIS.md](ANALYSIS.md)"


def verdict(met):
    return "yes" if met else NOT_MET


# name -> threads -> median lines per second over all threads
rate = {}
for b in run["benchmarks"]:
    if b.get("aggregate_name") != "median":
        continue
    m = re.match(r"BM_(\w+?)(/print:(\d))?/real_time/threads:(\d+)", b["run_name"])
    name = m.group(1) + ({"0": " (print 0)", "1": " (print on)"}.get(m.group(3), ""))
    rate.setdefault(name, {})[int(m.group(4))] = b["items_per_second"]

def ns(name, threads):
    return 1e9 / rate[name][threads]

labels = {
    "Floor": "floor (clock, localtime_r, getpid, gettid)",
    "Record": "record",
    "VekLogI (print 0)": "__vek_log_i, print threshold 0",
    "VekLogI (print on)": "__vek_log_i, printed to a no-op logger",
    "SpdlogSyncRotating": "spdlog 1.10 rotating, synchronous",
    "SpdlogAsyncRotating": "spdlog 1.10 rotating, asynchronous",
    "Glog": "glog 0.6 to a file",
}
rotation = re.search(r"time ratio ([\d.]+), size ratio ([\d.]+)", storage)
flush = re.search(r"median (\d+) us, p99 (\d+) us", storage)

def row(what, value, target, met):
    return f"| {what} | {value} | {target} | {verdict(met)} |"

vek1 = ns("VekLogI (print 0)", 1)
rows = [
    row("`__vek_log_i` / spdlog synchronous, 1 thread", f"{vek1 / ns('SpdlogSyncRotating', 1):.3f}",
        "<= 1.0", vek1 <= ns("SpdlogSyncRotating", 1)),
    row("`__vek_log_i` / glog, 1 thread", f"{vek1 / ns('Glog', 1):.3f}", "<= 0.2",
        vek1 <= 0.2 * ns("Glog", 1)),
    row("`record` / floor, 1 thread", f"{ns('Record', 1) / ns('Floor', 1):.3f}", "<= 1.15",
        ns("Record", 1) <= 1.15 * ns("Floor", 1)),
    row("lines/s at 2 threads, `__vek_log_i` / spdlog synchronous",
        f"{rate['VekLogI (print 0)'][2] / rate['SpdlogSyncRotating'][2]:.3f}", ">= 0.9",
        rate["VekLogI (print 0)"][2] >= 0.9 * rate["SpdlogSyncRotating"][2]),
    row("15 MiB rotation time / `gzip -9`", rotation.group(1), "<= 1.1",
        float(rotation.group(1)) <= 1.1),
    row("archive size / `gzip -9`", rotation.group(2), "within 1%",
        abs(float(rotation.group(2)) - 1) <= 0.01),
    row("`__vek_save_log_now` p99, idle writer", f"{flush.group(2)} us", "< 1000 us",
        int(flush.group(2)) < 1000),
]

ctx = run["context"]
model = subprocess.run(["sh", "-c", "grep -m1 'model name' /proc/cpuinfo | cut -d: -f2"],
                       capture_output=True, text=True).stdout.strip()
machine = f"{model}, {ctx['num_cpus']} CPUs at {ctx['mhz_per_cpu']} MHz, {ctx['date']}"

table = ["| logger | 1 thread, ns per line | 2 threads, ns per line (wall clock, both threads) |",
         "|---|---|---|"]
for name, label in labels.items():
    table.append(f"| {label} | {ns(name, 1):.0f} | {ns(name, 2):.0f} |")

with open(f"{out_dir}/threads.dat", "w") as dat:
    for name in labels:
        dat.write(f"\"{labels[name]}\"\n1 {ns(name, 1):.1f}\n2 {ns(name, 2):.1f}\n\n\n")
subprocess.run(["gnuplot", "-e", f"""
set terminal pngcairo size 900,640 noenhanced; set output '{out_dir}/threads.png';
set title 'ns per line against threads (median; lower is better)';
set xlabel 'threads'; set ylabel 'ns per line, wall clock (log scale)'; set xtics (1, 2);
set xrange [0.7:2.3]; set logscale y; set yrange [100:10000]; set key outside below box;
set grid;
plot for [i=0:{len(labels) - 1}] '{out_dir}/threads.dat' index i with linespoints lw 2 title columnheader(1)
"""], check=True)

with open(f"{out_dir}/RESULTS.md", "w") as md:
    md.write(f"""# Benchmark results

Produced by `nfc/common/opensource/VekLogger/tools/run_benchmarks.sh`: every logger writes the
same message to real files in one scratch directory, in one run, on one machine. Each figure is
the median of eight repetitions run in random order, so that a slow spell of the machine does
not fall on one logger alone. Ratios are what the targets are about; absolute times belong to
this machine: {machine}.

This page is written whole by each run. Why a target is not met, and any other reading of the
figures, is written by hand in [ANALYSIS.md](ANALYSIS.md), which no run changes.

## Targets

| ratio | measured | target | met |
|---|---|---|---|
{chr(10).join(rows)}

## Per line

{chr(10).join(table)}

![ns per line against threads](threads.png)

## Storage

```
{storage.strip()}
```
""")
